// Reading of match-window request bodies. Their screenshot, a PNG of several megabytes written
// as one base64 JSON string, makes up nearly all of the body; the quick reader decodes it
// straight from the body's text and hands only the rest of the body to the JSON parser.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "saffra/platform/json.h"

namespace saffra::server {

/// A match-window body whose screenshot was decoded while reading it.
struct MatchBody {
  /// The body as json::parse reads it, except that appOutput.screenshot64 is "".
  Json body;
  /// The bytes that decodeBase64 gives for appOutput.screenshot64.
  std::vector<std::uint8_t> screenshot;
};

/// Reads a body that is a JSON object with exactly one "appOutput" key whose object has
/// exactly one "screenshot64" key, whose value is a non-empty string of base64 characters with
/// nothing but "\/" and line-break escapes. Returns nothing for any other text (malformed JSON,
/// a missing, doubled or escaped key, another kind of value, other escapes, invalid base64);
/// such bodies are for json::parse and decodeBase64 to judge.
std::optional<MatchBody> readMatchBody(std::string_view text);

}  // namespace saffra::server
