// The HTML pages of the service: the login form, the list of batches, one batch's tests and
// one test's results with its steps, regions and review buttons. Pages are plain HTML that
// works without JavaScript; the style sheet and the small script are separate files served
// from /app/static/ so the pages need no inline code. Every stored text is escaped.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "saffra/platform/json.h"
#include "server/match_settings.h"
#include "server/store.h"

namespace saffra::server {

/// One batch in the list, with the statuses of its tests counted.
struct BatchRow {
  BatchRecord batch;
  std::int64_t tests = 0;
  std::int64_t passed = 0;
  std::int64_t unresolved = 0;
  std::int64_t failed = 0;
};

/// A stored image as the page shows it; the size is 0 when it could not be read.
struct ImageRef {
  std::string url;
  std::int64_t width = 0;
  std::int64_t height = 0;
};

/// A region drawn over a step's current image; `kind` is ignore, layout, strict, content,
/// floating or accessibility.
struct RegionBox {
  std::string kind;
  PixelRect rect;
};

/// One step of a test page.
struct StepView {
  std::int64_t number = 0;  // from 1
  std::string name;
  /// matched, mismatched, new, accepted, rejected or missing.
  std::string state;
  std::string matchLevel;  // empty for a missing step
  std::optional<ImageRef> baseline;
  std::optional<ImageRef> current;
  std::optional<ImageRef> diff;
  std::vector<RegionBox> regions;
  /// The step matched an alternative image of its baseline step rather than its main one.
  bool matchedAlternative = false;
  /// The current image can be accepted beside the baseline's (a changed step).
  bool canAcceptAlternative = false;
};

/// Everything a test page shows: the session's results document, its steps and the token
/// that its forms carry.
struct TestView {
  Json document;
  std::vector<StepView> steps;
  std::string csrf;
  /// Reviews are possible only once the session stopped.
  bool reviewable = false;
};

/// A baseline's versions with their rollback buttons.
struct BaselineView {
  BaselineHistory history;
  /// What the baseline belongs to: application, test, environment and branch.
  std::vector<std::pair<std::string, std::string>> identity;
  std::string csrf;
};

/// The regions of a step's settings, in the order ignore, layout, strict, content, floating,
/// accessibility.
std::vector<RegionBox> regionsOf(const MatchSettings& settings);

std::string renderLoginPage(const std::string& next, const std::string& message);
std::string renderBatchList(const std::vector<BatchRow>& batches);
/// `tests` are the results documents of the batch's sessions.
std::string renderBatchPage(const BatchRecord& batch, const std::vector<Json>& tests);
std::string renderTestPage(const TestView& view);
std::string renderBaselinePage(const BaselineView& view);
/// The reply to an accept that the baseline moved on since: the reason, and a button that
/// posts the same accept again, confirmed.
std::string renderConfirmAcceptPage(const std::string& message, const std::string& action,
                                    const std::string& csrf, const std::string& sessionPage);

/// The style sheet and script of the pages.
std::string_view pageStyleSheet();
std::string_view pageScript();

/// Escapes text for HTML element content and attribute values.
std::string escapeHtml(std::string_view text);

}  // namespace saffra::server
