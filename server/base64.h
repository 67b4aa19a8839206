// Decoding of the base64 text that carries uploaded screenshots.
#pragma once

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

}  // namespace saffra::server
