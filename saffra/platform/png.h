// The PNG codec behind saffra::Image.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "saffra/platform/image.h"

namespace saffra::png {

/// Decodes any PNG (palette, grey, 16-bit, with or without alpha) to 8-bit RGBA. Throws
/// Exception "InvalidImageException" with a reason for corrupt, truncated or oversized input.
std::shared_ptr<Image> decode(const std::uint8_t* data, std::size_t size, double scale = 1.0);

/// Encodes 8-bit RGBA pixels (rows `stride` bytes apart) as a lossless PNG.
std::vector<std::uint8_t> encode(const std::uint8_t* rgba, std::size_t width, std::size_t height,
                                 std::size_t stride);

}  // namespace saffra::png
