#include "server/matcher.h"

#include <algorithm>

#include "server/compare/accessibility.h"
#include "server/compare/compare.h"

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

}  // namespace

MatchOutcome matchImages(const Image& baseline, const Image& current,
                         const MatchSettings& settings) {
  compare::CompareResult result =
      compare::compareImages(baseline, current, engineOptions(settings));
  MatchOutcome outcome;
  outcome.matches = result.matches;
  if (!result.matches) {
    outcome.comparison = std::make_shared<const compare::CompareResult>(std::move(result));
  }
  return outcome;
}

std::shared_ptr<Image> diffImage(const Image& baseline, const MatchOutcome& outcome) {
  if (!outcome.comparison) return nullptr;
  return std::make_shared<Image>(compare::makeDiffImage(baseline, *outcome.comparison));
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
