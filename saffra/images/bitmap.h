// Conversions between images and flat lists of channel values, and the byte conversion of such
// lists.
//
// The library's Image holds straight (not premultiplied) RGBA. The channel list is read from a
// premultiplied bitmap and the byte bitmap is read back as premultiplied, so both conversions
// pass through premultiplied values where a premultiplied bitmap would be drawn or read:
// - convertImageToBitmapARGB8 first premultiplies each colour (C * A / 255 rounded to nearest)
//   and then divides it by A / 255.0 again, truncating; opaque pixels keep their exact values,
//   translucent ones may lose a little, transparent ones become 0;
// - convertBitmapRGBA8ToUIImage takes the bytes as premultiplied R, G, B, A and stores
//   min(255, round(C * 255 / A)) (0 where A is 0) in the straight image.
// Arithmetic on floats is 64-bit.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "saffra/platform/geometry.h"
#include "saffra/platform/image.h"

namespace saffra {

/// Channel values, four per pixel, pixels in row-major order from the top-left.
using ChannelList = std::vector<std::int64_t>;

/// Image to channel list and byte bitmap to image.
namespace Bitmap {

/// The image's pixels as alpha, blue, green, red per pixel (in that order, despite the name),
/// colours un-premultiplied as described above. An absent image gives an empty list.
ChannelList convertImageToBitmapARGB8(const std::shared_ptr<Image>& image);

/// An image at scale 1 of trunc(size.width) x trunc(size.height) pixels from premultiplied
/// R, G, B, A bytes, rows without padding. Gives nullptr for a size below 1 x 1 and, after
/// writing "Error allocating color space" to the system log, when the pixel memory cannot be
/// allocated. Throws Exception "InvalidImageException" when `bitmap` is shorter than the size
/// needs or the size is beyond the image limits.
std::shared_ptr<Image> convertBitmapRGBA8ToUIImage(std::vector<std::uint8_t> bitmap,
                                                   const Size& size);

}  // namespace Bitmap

/// Conversions of lists of numbers.
namespace Utility {

/// A byte buffer of the list's length; byte i is the low 8 bits of element i (modulo 256).
std::vector<std::uint8_t> convertToArrayOfBytes(const ChannelList& list);

}  // namespace Utility

namespace detail {
/// The channel list of an image as bytes (every value lies in 0...255), for the resize.
std::vector<std::uint8_t> channelBytesARGB8(const Image& image);
/// The channel values of `count` pixels from pixel number `first` (row-major) into `out`.
void channelBytesARGB8(const Image& image, std::size_t first, std::size_t count, std::uint8_t* out);
}  // namespace detail

}  // namespace saffra
