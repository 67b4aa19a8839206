// A fast decoder for the PNG files screenshots usually are (8-bit RGB or RGBA, not interlaced,
// no transparency key), for the codec's own use. Everything else is left to the general decoder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
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

}  // namespace saffra::png
