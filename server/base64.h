// Decoding of the base64 text that carries uploaded screenshots.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace saffra::server {

/// Decodes standard base64 (A-Z a-z 0-9 + /, "=" padding). Line breaks and other blanks
/// anywhere in the text are skipped, so CR LF after every 64 characters is accepted; missing
/// padding is tolerated. Returns nothing for any other character, for text after the padding
/// and for a length that cannot be base64.
std::optional<std::vector<std::uint8_t>> decodeBase64(std::string_view text);

/// Decodes base64 written as a JSON string, in one pass over the JSON text: `text` starts just
/// after the string's opening quote, and decoding stops at its closing quote, whose offset goes
/// to `length`. The escapes "\/", "\r", "\n" and "\t" are understood; "\r", "\n", "\t" and
/// spaces are skipped as decodeBase64 skips blanks. Returns nothing when the string holds any
/// other escape or character, has no closing quote, or is not base64 as decodeBase64 reads it;
/// otherwise the result is what decodeBase64 gives for the string's value.
std::optional<std::vector<std::uint8_t>> decodeBase64InJsonString(std::string_view text,
                                                                  std::size_t& length);

}  // namespace saffra::server
