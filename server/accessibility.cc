#include "server/accessibility.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace saffra::server {

namespace {

// The linear value of each 8-bit sRGB channel value.
const std::array<double, 256>& linearTable() {
  static const std::array<double, 256> table = [] {
    std::array<double, 256> t{};
    for (std::size_t i = 0; i < t.size(); ++i) {
      double c = static_cast<double>(i) / 255.0;
      t[i] = c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
    }
    return t;
  }();
  return table;
}

// Luminance of an RGBA pixel composed over white (channels rounded to 8 bits).
double relativeLuminance(const std::uint8_t* p) {
  const auto& linear = linearTable();
  unsigned alpha = p[3];
  auto over = [&](std::uint8_t c) { return (c * alpha + 255u * (255u - alpha) + 127u) / 255u; };
  return 0.2126 * linear[over(p[0])] + 0.7152 * linear[over(p[1])] + 0.0722 * linear[over(p[2])];
}

}  // namespace

double contrastRatio(const Image& image, const PixelRect& rect) {
  PixelSpan span = clipToImage(rect, image.width(), image.height());
  if (span.empty()) return 1.0;
  double lightest = 0.0;
  double darkest = 1.0;
  for (std::size_t y = span.y0; y < span.y1; ++y) {
    for (std::size_t x = span.x0; x < span.x1; ++x) {
      double l = relativeLuminance(image.pixel(x, y));
      lightest = std::max(lightest, l);
      darkest = std::min(darkest, l);
    }
  }
  return (lightest + 0.05) / (darkest + 0.05);
}

double requiredContrast(std::string_view regionType, std::string_view level) {
  bool aaa = level == "AAA";
  if (regionType == "IgnoreContrast") return 0.0;
  if (regionType == "RegularText") return aaa ? 7.0 : 4.5;
  if (regionType == "LargeText" || regionType == "BoldText") return aaa ? 4.5 : 3.0;
  return 3.0;  // graphical objects, and any type a client may add later
}

bool contrastPasses(const Image& image, const std::vector<AccessibilityRegion>& regions,
                    std::string_view level) {
  return std::all_of(regions.begin(), regions.end(), [&](const AccessibilityRegion& r) {
    double needed = requiredContrast(r.type, level);
    return needed == 0.0 || contrastRatio(image, r.rect) >= needed;
  });
}

}  // namespace saffra::server
