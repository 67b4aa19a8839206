#include "server/matcher.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <optional>
#include <system_error>

#include "server/compare/accessibility.h"
#include "server/compare/compare.h"
#include "server/compare/task_pool.h"
#include "server/pixel_pool.h"

namespace saffra::server {

namespace {

// Clients send any 64-bit values; limiting them keeps the engine's sums (left + width) far
// from overflow without changing any rectangle that can meet an image.
std::int64_t bounded(std::int64_t v) {
  constexpr std::int64_t kLimit = std::int64_t{1} << 32;
  return std::clamp(v, -kLimit, kLimit);
}

PixelRect boundedRect(const PixelRect& r) {
  return {bounded(r.left), bounded(r.top), bounded(r.width), bounded(r.height)};
}

std::vector<PixelRect> boundedRects(const std::vector<PixelRect>& rects) {
  std::vector<PixelRect> out;
  out.reserve(rects.size());
  for (const PixelRect& r : rects) out.push_back(boundedRect(r));
  return out;
}

// The engine's options for a step. Accessibility is checked separately (checkAccessibility),
// also for steps that have no baseline to compare with.
compare::CompareOptions engineOptions(const MatchSettings& s) {
  compare::CompareOptions o;
  o.level = s.matchLevel;
  o.ignoreRegions = boundedRects(s.ignore);
  o.layoutRegions = boundedRects(s.layout);
  o.strictRegions = boundedRects(s.strict);
  o.contentRegions = boundedRects(s.content);
  for (const FloatingRegion& f : s.floating) {
    o.floatingRegions.push_back({boundedRect(f.rect), bounded(f.maxUpOffset),
                                 bounded(f.maxDownOffset), bounded(f.maxLeftOffset),
                                 bounded(f.maxRightOffset)});
  }
  o.keepMask = true;
  // The client waits for the reply: the whole-image pass on two cores shortens its wait.
  o.threads = 2;
  return o;
}

MatchOutcome outcomeOf(compare::CompareResult result) {
  MatchOutcome outcome;
  outcome.matches = result.matches;
  if (!result.matches) {
    outcome.comparison = std::make_shared<const compare::CompareResult>(std::move(result));
  }
  return outcome;
}

}  // namespace

MatchOutcome matchImages(const Image& baseline, const Image& current,
                         const MatchSettings& settings) {
  return outcomeOf(compare::compareImages(baseline, current, engineOptions(settings)));
}

DecodedMatch decodeAndMatch(PixelPool& pool, std::span<const std::uint8_t> upload,
                            const DecodedImage& reference, const MatchSettings& settings,
                            const std::function<void()>& beside) {
  const Image& baseline = *reference.image;
  png::RowProgress progress;
  compare::CompareOptions options = engineOptions(settings);
  options.checkpointRows = [&](int rows) {
    return progress.waitForRows(static_cast<std::size_t>(rows));
  };
  // The comparison of the upload's rows, made once the decoder has placed them.
  std::optional<compare::Comparison> comparison;
  std::once_flag made;
  const auto comparisonOfRows = [&]() -> compare::Comparison& {
    std::call_once(made, [&] {
      comparison.emplace(baseline, progress.rgba(), progress.width(), progress.height(), options,
                         progress.sameRows());
    });
    return *comparison;
  };
  // A file decoded band by band is compared by the threads that decode it, each comparing the
  // rows that are final after each band it decoded; a file decoded on one thread is compared by
  // a pool thread a band of rows behind. Whatever happens, that thread is stopped and waited
  // for before the rows it reads can go.
  std::optional<compare::CompareResult> early;
  std::shared_ptr<compare::TaskPool::Task> following;
  try {
    following = compare::TaskPool::shared().post([&] {
      try {
        if (!progress.waitForStart() || progress.inBands()) return;
        early = comparisonOfRows().finish();
      } catch (const compare::ComparisonAbandoned&) {
        // The fast decoder gave up; the comparison is redone on the general decoder's image.
      }
    });
  } catch (const std::system_error&) {
    // No thread to spare: the comparison follows the decoding.
  }
  std::exception_ptr failure;
  struct Settled {
    png::RowProgress& progress;
    std::shared_ptr<compare::TaskPool::Task>& following;
    std::exception_ptr& failure;
    ~Settled() {
      progress.fail();  // releases a comparison waiting for rows that will not come
      if (!following) return;
      try {
        // Not yet started (the pool is busy): withdrawn, and the comparison runs below.
        following->finish();
      } catch (...) {
        failure = std::current_exception();
      }
    }
  };
  DecodedMatch match;
  bool fast = false;
  {
    const Settled settled{progress, following, failure};
    match.current = pool.decode(
                            upload, &progress, &reference,
                            [&] { comparisonOfRows().diffReady(progress.rows()); }, beside)
                        .image;
    fast = progress.complete();  // else the general decoder made the image
  }
  if (failure) std::rethrow_exception(failure);
  if (fast && !early && progress.inBands()) early = comparisonOfRows().finish();
  match.outcome = fast && early ? outcomeOf(std::move(*early))
                                : matchImages(baseline, *match.current, settings);
  return match;
}

std::shared_ptr<Image> diffImage(const Image& baseline, const MatchOutcome& outcome) {
  if (!outcome.comparison) return nullptr;
  return std::make_shared<Image>(compare::makeDiffImage(baseline, *outcome.comparison));
}

std::optional<Json> changesOf(const MatchOutcome& outcome, std::size_t maxBoxes) {
  if (!outcome.comparison) return std::nullopt;
  const compare::CompareResult& found = *outcome.comparison;
  if (found.sizesDiffer) return Json{{"sizesDiffer", true}};
  Json boxes = Json::array();
  for (std::size_t i = 0; i < found.differences.size() && i < maxBoxes; ++i) {
    const PixelRect& r = found.differences[i];
    boxes.push_back(Json::array({r.left, r.top, r.width, r.height}));
  }
  std::size_t more = found.differences.size() - boxes.size();
  return Json{{"pixels", found.differingPixels}, {"boxes", std::move(boxes)}, {"moreBoxes", more}};
}

std::optional<AccessibilityVerdict> checkAccessibility(const Image& image,
                                                       const MatchSettings& settings) {
  if (settings.accessibility.empty()) return std::nullopt;
  AccessibilityVerdict verdict;
  const AccessibilityLevel level = settings.accessibilityLevel == AccessibilityLevel::AAA
                                       ? AccessibilityLevel::AAA
                                       : AccessibilityLevel::AA;
  verdict.level = std::string(compare::accessibilityLevelName(level));
  for (const AccessibilityRegion& r : settings.accessibility) {
    const AccessibilityRegion region{boundedRect(r.rect), r.type};
    verdict.passed = verdict.passed && compare::checkContrast(image, region, level).passed;
  }
  return verdict;
}

}  // namespace saffra::server
