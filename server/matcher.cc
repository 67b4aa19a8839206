#include "server/matcher.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "server/accessibility.h"

namespace saffra::server {

namespace {

// Marks the pixels of `rect` (clipped to the canvas) in a row-major mask.
void markRect(std::vector<bool>& mask, std::size_t width, std::size_t height, const PixelRect& r) {
  PixelSpan span = clipToImage(r, width, height);
  for (std::size_t y = span.y0; y < span.y1; ++y) {
    for (std::size_t x = span.x0; x < span.x1; ++x) mask[y * width + x] = true;
  }
}

bool samePixel(const Image& a, const Image& b, std::size_t x, std::size_t y) {
  bool inA = x < a.width() && y < a.height();
  bool inB = x < b.width() && y < b.height();
  if (inA != inB) return false;
  return !inA || std::memcmp(a.pixel(x, y), b.pixel(x, y), 4) == 0;
}

// Exact comparison of every pixel outside the ignored areas. Floating areas are ignored as a
// whole: their content may move, which an exact comparison cannot follow.
MatchOutcome exactComparison(const Image& baseline, const Image& current,
                             const MatchSettings& settings) {
  std::size_t width = std::max(baseline.width(), current.width());
  std::size_t height = std::max(baseline.height(), current.height());
  std::vector<bool> ignored(width * height, false);
  for (const PixelRect& r : settings.ignore) markRect(ignored, width, height, r);
  for (const FloatingRegion& f : settings.floating) markRect(ignored, width, height, f.rect);

  std::vector<bool> different(width * height, false);
  bool anyDifference = false;
  for (std::size_t y = 0; y < height; ++y) {
    for (std::size_t x = 0; x < width; ++x) {
      std::size_t i = y * width + x;
      if (!ignored[i] && !samePixel(baseline, current, x, y)) {
        different[i] = true;
        anyDifference = true;
      }
    }
  }
  MatchOutcome outcome;
  outcome.matches = !anyDifference;
  if (outcome.matches) return outcome;

  // Diff image: the baseline in pale grey, differing pixels in magenta.
  auto diff = std::make_shared<Image>(width, height);
  std::uint8_t* out = diff->mutableData();
  for (std::size_t y = 0; y < height; ++y) {
    for (std::size_t x = 0; x < width; ++x) {
      std::uint8_t* p = out + (y * width + x) * 4;
      if (different[y * width + x]) {
        p[0] = 255, p[1] = 0, p[2] = 255, p[3] = 255;
        continue;
      }
      std::uint8_t grey = 255;
      if (x < baseline.width() && y < baseline.height()) {
        const std::uint8_t* b = baseline.pixel(x, y);
        unsigned luma = (b[0] * 299u + b[1] * 587u + b[2] * 114u) / 1000u;
        grey = static_cast<std::uint8_t>(160 + luma * 95 / 255);
      }
      p[0] = p[1] = p[2] = grey;
      p[3] = 255;
    }
  }
  outcome.diff = std::move(diff);
  return outcome;
}

}  // namespace

MatchOutcome matchImages(const Image& baseline, const Image& current,
                         const MatchSettings& settings) {
  if (settings.matchLevel == MatchLevel::None) return {true, nullptr};
  return exactComparison(baseline, current, settings);
}

std::optional<AccessibilityVerdict> checkAccessibility(const Image& image,
                                                       const MatchSettings& settings) {
  if (settings.accessibility.empty()) return std::nullopt;
  AccessibilityVerdict verdict;
  verdict.level = settings.accessibilityLevel == "AAA" ? "AAA" : "AA";
  verdict.passed = contrastPasses(image, settings.accessibility, verdict.level);
  return verdict;
}

}  // namespace saffra::server
