// Bicubic resizing of images. The arithmetic is fixed: an integer cubic evaluated in 64-bit
// floats and clamped to 0...255, a horizontal then a vertical pass to an intermediate size that
// is a whole multiple of the target, then, when that multiple is above 1, a box average that
// also reverses the channel order. Without averaging, the alpha, blue, green, red values of the
// channel list are handed on as red, green, blue, alpha; that difference between the two
// branches is deliberate. The work runs on flat byte buffers (every value lies in 0...255).
#pragma once

#include <cstdint>
#include <memory>

#include "saffra/platform/geometry.h"
#include "saffra/platform/image.h"

namespace saffra::Resize {

/// Same as resizeImageUsingBicubicInterpolation; there is no other resizing path.
std::shared_ptr<Image> resizeImage(const std::shared_ptr<Image>& image, const Size& newSize);

/// A new image of trunc(newSize) pixels at scale 1. The source size in pixels is
/// trunc(scale * trunc(size in points)). Throws Exception "NSInvalidArgumentException" for a
/// target below 1 x 1 (or beyond the image limits), and Exception "NSRangeException" for a
/// source (or an absent image) less than 2 pixels wide or high, which the interpolation would
/// read beyond.
std::shared_ptr<Image> resizeImageUsingBicubicInterpolation(const std::shared_ptr<Image>& image,
                                                            const Size& newSize);

/// With a0 = p3 - p2 - p0 + p1, a1 = p0 - p1 - a0, a2 = p2 - p0 (integers):
/// trunc(clamp(p1 + (a2 t + (a1 t^2 + t^3 a0)), 0, 255)) in 64-bit floats; NaN gives 0.
std::int64_t interpolateCubic(std::int64_t p0, std::int64_t p1, std::int64_t p2, std::int64_t p3,
                              double t);

}  // namespace saffra::Resize
