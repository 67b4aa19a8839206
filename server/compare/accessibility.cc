#include "server/compare/accessibility.h"

#include "server/compare/pixel_levels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace saffra::compare {

namespace {

double linear(std::uint8_t channel) {
  const double c = channel / 255.0;
  return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
}

struct Bin {
  std::uint64_t count = 0;
  std::uint64_t r = 0, g = 0, b = 0;
};

}  // namespace

double relativeLuminance(std::uint8_t r, std::uint8_t g, std::uint8_t b) {
  return 0.2126 * linear(r) + 0.7152 * linear(g) + 0.0722 * linear(b);
}

double contrastRatio(double luminanceA, double luminanceB) {
  const double hi = std::max(luminanceA, luminanceB), lo = std::min(luminanceA, luminanceB);
  return (hi + 0.05) / (lo + 0.05);
}

double requiredContrast(AccessibilityLevel level, AccessibilityRegionType type) {
  if (type == AccessibilityRegionType::IgnoreContrast) return 0;
  const bool text = type == AccessibilityRegionType::RegularText;
  const bool large =
      type == AccessibilityRegionType::LargeText || type == AccessibilityRegionType::BoldText;
  switch (level) {
    case AccessibilityLevel::AA:
      return text ? 4.5 : 3.0;
    case AccessibilityLevel::AAA:
      return text ? 7.0 : large ? 4.5 : 3.0;
    default:
      return 0;
  }
}

AccessibilityResult checkContrast(const Image& image, const AccessibilityRegion& region,
                                  AccessibilityLevel level) {
  const detail::Pixels pixels{image.data(), static_cast<int>(image.width()),
                              static_cast<int>(image.height())};
  return detail::checkContrast(pixels, region, level);
}

AccessibilityResult detail::checkContrast(const Pixels& image, const AccessibilityRegion& region,
                                          AccessibilityLevel level) {
  AccessibilityResult result;
  result.region = region;
  result.requiredRatio = requiredContrast(level, region.type);
  result.checked = result.requiredRatio > 0;

  const PixelRect& r = region.rect;
  const auto limit = [](std::int64_t v, std::size_t max) {
    return static_cast<std::size_t>(std::clamp<std::int64_t>(v, 0, static_cast<std::int64_t>(max)));
  };
  const std::size_t x0 = limit(r.left, static_cast<std::size_t>(image.width)),
                    x1 = limit(r.right(), static_cast<std::size_t>(image.width));
  const std::size_t y0 = limit(r.top, static_cast<std::size_t>(image.height)),
                    y1 = limit(r.bottom(), static_cast<std::size_t>(image.height));
  if (!r.isEmpty() && x0 < x1 && y0 < y1) {
    std::vector<Bin> bins(4096);
    for (std::size_t y = y0; y < y1; ++y) {
      for (std::size_t x = x0; x < x1; ++x) {
        const std::uint8_t* p = image.data + (y * image.width + x) * 4;
        std::array<unsigned, 3> c{p[0], p[1], p[2]};
        for (unsigned& v : c) v = 255 - ((255 - v) * p[3]) / 255;
        Bin& bin = bins[(c[0] >> 4) << 8 | (c[1] >> 4) << 4 | (c[2] >> 4)];
        ++bin.count, bin.r += c[0], bin.g += c[1], bin.b += c[2];
      }
    }
    const auto most = [&](auto&& eligible) {
      std::size_t best = bins.size();
      for (std::size_t k = 0; k < bins.size(); ++k) {
        if (bins[k].count && eligible(k) &&
            (best == bins.size() || bins[k].count > bins[best].count)) {
          best = k;
        }
      }
      return best;
    };
    const std::size_t background = most([](std::size_t) { return true; });
    // The foreground must differ by more than one group on some channel, so the background's
    // own noise and the first anti-aliasing steps around it are not taken for text.
    const std::size_t foreground = most([&](std::size_t k) {
      for (int shift : {8, 4, 0}) {
        const int a = static_cast<int>((k >> shift) & 15),
                  b = static_cast<int>((background >> shift) & 15);
        if (std::abs(a - b) > 1) return true;
      }
      return false;
    });
    if (foreground != bins.size()) {
      const auto luminance = [&](std::size_t k) {
        const Bin& bin = bins[k];
        return relativeLuminance(static_cast<std::uint8_t>(bin.r / bin.count),
                                 static_cast<std::uint8_t>(bin.g / bin.count),
                                 static_cast<std::uint8_t>(bin.b / bin.count));
      };
      result.contrastRatio = contrastRatio(luminance(background), luminance(foreground));
    }
  }
  result.passed = !result.checked || result.contrastRatio >= result.requiredRatio;
  return result;
}

}  // namespace saffra::compare
