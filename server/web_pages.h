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
