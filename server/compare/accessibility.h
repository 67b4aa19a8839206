// Contrast checks of accessibility regions, for the comparison engine and the service's
// results pages.
#pragma once

#include "saffra/platform/image.h"
#include "server/compare/compare.h"

namespace saffra::compare {

/// The relative luminance of an sRGB colour (0 black to 1 white).
double relativeLuminance(std::uint8_t r, std::uint8_t g, std::uint8_t b);
/// The contrast ratio of two relative luminances, 1 to 21.
double contrastRatio(double luminanceA, double luminanceB);
/// The ratio a region of `type` needs at `level`: AA asks 4.5 for regular text and 3 for large
/// or bold text and graphical objects; AAA asks 7, 4.5 and 3. 0 when nothing is required
/// (level None or type IgnoreContrast).
double requiredContrast(AccessibilityLevel level, AccessibilityRegionType type);

/// Measures the region of `image`: the background is its most frequent colour, the foreground
/// the most frequent colour clearly apart from it (colours are grouped 16 levels per channel and
/// averaged; transparency is read over white). A region of one colour measures 1.
AccessibilityResult checkContrast(const Image& image, const AccessibilityRegion& region,
                                  AccessibilityLevel level);

namespace detail {
struct Pixels;
/// The same on raw pixels, for the engine's own use.
AccessibilityResult checkContrast(const Pixels& image, const AccessibilityRegion& region,
                                  AccessibilityLevel level);
}  // namespace detail

}  // namespace saffra::compare
