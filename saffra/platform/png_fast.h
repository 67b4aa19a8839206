// A fast decoder for the PNG files screenshots usually are (8-bit RGB or RGBA, not interlaced,
// no transparency key), for the codec's own use. Everything else is left to the general decoder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "saffra/platform/image.h"

namespace saffra::png {

/// Decodes `data` when it is a well-formed PNG of the common kind; nullptr for anything else
/// (other formats, damage of any sort), which the caller then hands to the general decoder.
std::shared_ptr<Image> decodeCommon(const std::uint8_t* data, std::size_t size, double scale);

/// The same into a caller's buffer, whose memory is reused when it is large enough (repeated
/// decoding then touches no fresh memory). Returns false, leaving `rgba` unspecified, for
/// anything decodeCommon would not decode.
bool decodeCommonInto(const std::uint8_t* data, std::size_t size, std::vector<std::uint8_t>& rgba,
                      std::size_t& width, std::size_t& height);

/// Pixels decoded into a caller's buffer (reused when large enough), with their size.
struct DecodedPixels {
  std::vector<std::uint8_t>& rgba;
  std::size_t width = 0, height = 0;
};

/// Decodes two files of the common kind that are about to be compared: like decodeCommonInto
/// on each, but rows the two files share are rebuilt once, which makes a pair of screenshots
/// of the same screen much cheaper than two files. `sameRows` receives one byte per row of
/// the second image: 1 where the row holds the very pixels of the first's row (0 says
/// nothing). False, leaving the buffers unspecified, when either file is not one decodeCommon
/// would decode.
bool decodeCommonPairInto(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second,
                          DecodedPixels& a, DecodedPixels& b, std::vector<std::uint8_t>& sameRows);

}  // namespace saffra::png
