// The HTML pages of the service: the login form, the list of batches, one batch's tests and
// one test's review page with its steps, changes, regions and review buttons. Pages are plain
// HTML that works without JavaScript; the style sheet and the script (keyboard review, view
// modes, zoom, decisions without reloading) are separate files served from /app/static/ so the
// pages need no inline code. Every stored text is escaped.
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

/// The largest size of the thumbnails in step lists.
inline constexpr std::size_t kThumbnailWidth = 128;
inline constexpr std::size_t kThumbnailHeight = 128;

/// One page of the batch list with the search that found it.
struct BatchListView {
  BatchPage batches;
  std::string search;
  std::int64_t page = 1;  // from 1
  std::int64_t pageSize = 50;
};

/// A stored image as the page shows it; the size is 0 when it could not be read.
struct ImageRef {
  std::string url;
  std::string thumbnail;  // a small copy's address; empty when there is none
  std::int64_t width = 0;
  std::int64_t height = 0;
};

/// Where a step's current image differs from its baseline.
struct StepChanges {
  std::int64_t pixels = 0;
  /// Bounding boxes of the changed areas, top to bottom, and how many more were not kept.
  std::vector<PixelRect> boxes;
  std::int64_t moreBoxes = 0;
  bool sizesDiffer = false;
};

/// Reads what changesOf (server/matcher.h) wrote; malformed parts are left out.
StepChanges changesFromJson(const Json& changes);

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
  /// For a step compared with its baseline and found different.
  std::optional<StepChanges> changes;
};

/// Everything a test page shows: the session's results document, its steps and the token
/// that its forms carry.
struct TestView {
  Json document;
  std::vector<StepView> steps;
  std::string csrf;
  /// Reviews are possible only once the session stopped.
  bool reviewable = false;
  /// Shows only the steps of this state ("mismatched", "new", ...); empty for all.
  std::string filter;
  /// The token of the steps' states that the test-wide accept carries, so an accept made on
  /// an outdated page is refused.
  std::string state;
  /// The reader's last decision, which the Undo button undoes; none disables it.
  std::optional<std::int64_t> undoDecision;
};

/// One test of a batch-wide accept: its session, name and the steps it accepts.
struct BatchAcceptTest {
  std::string sessionId;
  std::string name;
  std::int64_t steps = 0;
};

/// The confirmation of a batch-wide accept: how many steps of which tests it accepts, and the
/// batch's state token the accept carries. With `stale` (tests whose baseline moved on, named
/// with the reason), it asks to accept anyway.
struct BatchAcceptView {
  std::string batchId;
  std::string batchName;
  std::vector<BatchAcceptTest> tests;
  std::int64_t steps = 0;
  std::int64_t leftOut = 0;  // running or aborted tests
  std::string state;
  std::string csrf;
  std::vector<std::string> stale;
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
std::string renderBatchList(const BatchListView& view);
/// `tests` are the results documents of the batch's sessions; `actions` is shown above them
/// (see batchActions).
std::string renderBatchPage(const BatchRecord& batch, const std::vector<Json>& tests,
                            const std::string& actions = "");
/// The batch page's buttons: accept every change of the batch (after a confirmation page) and
/// undo the reader's last decision.
std::string batchActions(const std::string& batchId, const std::string& csrf,
                         std::optional<std::int64_t> undoDecision);
std::string renderBatchAcceptPage(const BatchAcceptView& view);
/// A refusal shown to a browser: what happened and a link back.
std::string renderMessagePage(const std::string& title, const std::string& message,
                              const std::string& back);
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
