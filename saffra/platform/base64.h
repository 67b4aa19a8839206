// Base64 encoding in the standard alphabet with padding. The upload form puts a carriage return and
// line feed between 64-character lines and none after the last one, so 48 input bytes give exactly
// 64 characters. Encoding runs at memory speed: it is on the path of every uploaded screenshot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace saffra::base64 {

/// The encoded length of `size` bytes: with CR LF between lines of `lineLength` characters when
/// `lineLength` is non-zero (it must then be a multiple of 4).
std::size_t encodedLength(std::size_t size, std::size_t lineLength = 0);

/// Encodes in one line, without breaks.
std::string encode(const std::uint8_t* data, std::size_t size);
std::string encode(const std::vector<std::uint8_t>& data);

/// Encodes with CR LF between 64-character lines and no break after the last line.
std::string encodeLines64(const std::uint8_t* data, std::size_t size);
std::string encodeLines64(const std::vector<std::uint8_t>& data);

}  // namespace saffra::base64
