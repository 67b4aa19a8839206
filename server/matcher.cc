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

compare::PixelRect engineRect(const PixelRect& r) {
  return {bounded(r.left), bounded(r.top), bounded(r.width), bounded(r.height)};
}

std::vector<compare::PixelRect> engineRects(const std::vector<PixelRect>& rects) {
  std::vector<compare::PixelRect> out;
  out.reserve(rects.size());
  for (const PixelRect& r : rects) out.push_back(engineRect(r));
  return out;
}

compare::MatchLevel engineLevel(MatchLevel level) {
  switch (level) {
    case MatchLevel::None:
      return compare::MatchLevel::None;
    case MatchLevel::Layout:
      return compare::MatchLevel::Layout;
    case MatchLevel::Content:
      return compare::MatchLevel::Content;
    case MatchLevel::Strict:
      return compare::MatchLevel::Strict;
    case MatchLevel::Exact:
      return compare::MatchLevel::Exact;
  }
  return compare::MatchLevel::Strict;
}

// The engine's options for a step. Accessibility is checked separately (checkAccessibility),
// also for steps that have no baseline to compare with.
compare::CompareOptions engineOptions(const MatchSettings& s) {
  compare::CompareOptions o;
  o.level = engineLevel(s.matchLevel);
  o.ignoreRegions = engineRects(s.ignore);
  o.layoutRegions = engineRects(s.layout);
  o.strictRegions = engineRects(s.strict);
  o.contentRegions = engineRects(s.content);
  for (const FloatingRegion& f : s.floating) {
    o.floatingRegions.push_back({engineRect(f.rect), bounded(f.maxUpOffset),
                                 bounded(f.maxDownOffset), bounded(f.maxLeftOffset),
                                 bounded(f.maxRightOffset)});
  }
  o.keepMask = true;
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
    outcome.diff = std::make_shared<Image>(compare::makeDiffImage(baseline, result));
  }
  return outcome;
}

std::optional<AccessibilityVerdict> checkAccessibility(const Image& image,
                                                       const MatchSettings& settings) {
  if (settings.accessibility.empty()) return std::nullopt;
  AccessibilityVerdict verdict;
  verdict.level = settings.accessibilityLevel == "AAA" ? "AAA" : "AA";
  compare::AccessibilityLevel level = compare::accessibilityLevelFromName(verdict.level);
  for (const AccessibilityRegion& r : settings.accessibility) {
    compare::AccessibilityRegion region{engineRect(r.rect),
                                        compare::accessibilityRegionTypeFromName(r.type)};
    verdict.passed = verdict.passed && compare::checkContrast(image, region, level).passed;
  }
  return verdict;
}

}  // namespace saffra::server
