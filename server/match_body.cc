#include "server/match_body.h"

#include <cstring>
#include <string>

#include "server/base64.h"

namespace saffra::server {

namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/// The offset just after the closing quote of the string starting at `at` (its opening quote),
/// or npos when it has none. `escaped` tells whether the string holds a backslash.
std::size_t stringEnd(std::string_view text, std::size_t at, bool& escaped) {
  escaped = false;
  for (std::size_t i = at + 1; i < text.size(); ++i) {
    if (text[i] == '\\') {
      escaped = true;
      ++i;
    } else if (text[i] == '"') {
      return i + 1;
    }
  }
  return std::string_view::npos;
}

/// An object or array being scanned.
struct Frame {
  bool object = false;
  /// The next string in this object is a key.
  bool expectKey = false;
  /// This object is the top-level "appOutput" value.
  bool appOutput = false;
  /// The last key seen in this object.
  std::string_view key;
};

}  // namespace

std::optional<MatchBody> readMatchBody(std::string_view text) {
  std::vector<Frame> stack;
  int appOutputKeys = 0;
  int screenshotKeys = 0;
  std::size_t valueStart = 0, valueEnd = 0;  // the screenshot's string, quotes included
  std::vector<std::uint8_t> screenshot;
  std::size_t i = 0;
  while (i < text.size() && isBlank(text[i])) ++i;
  if (i == text.size() || text[i] != '{') return std::nullopt;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') {
      if (stack.empty()) return std::nullopt;
      Frame& frame = stack.back();
      if (frame.object && frame.expectKey) {
        bool escaped = false;
        std::size_t end = stringEnd(text, i, escaped);
        if (end == std::string_view::npos) return std::nullopt;
        // Keys that matter here are compared as written, so they must be written plainly.
        if (escaped && (stack.size() == 1 || frame.appOutput)) return std::nullopt;
        frame.key = text.substr(i + 1, end - i - 2);
        frame.expectKey = false;
        if (stack.size() == 1 && frame.key == "appOutput") ++appOutputKeys;
        if (frame.appOutput && frame.key == "screenshot64") ++screenshotKeys;
        i = end - 1;
      } else if (frame.appOutput && frame.key == "screenshot64") {
        std::size_t length = 0;
        auto bytes = decodeBase64InJsonString(text.substr(i + 1), length);
        if (!bytes || length == 0) return std::nullopt;
        screenshot = std::move(*bytes);
        valueStart = i;
        valueEnd = i + length + 2;
        i = valueEnd - 1;
      } else {
        bool escaped = false;
        std::size_t end = stringEnd(text, i, escaped);
        if (end == std::string_view::npos) return std::nullopt;
        i = end - 1;
      }
    } else if (c == '{' || c == '[') {
      const bool appOutput = c == '{' && stack.size() == 1 && stack.back().object &&
                             !stack.back().expectKey && stack.back().key == "appOutput";
      stack.push_back(Frame{c == '{', c == '{', appOutput, {}});
    } else if (c == '}' || c == ']') {
      if (stack.empty()) return std::nullopt;
      stack.pop_back();
      if (stack.empty()) break;
    } else if (c == ',') {
      if (stack.empty()) return std::nullopt;
      if (stack.back().object) stack.back().expectKey = true;
    }
  }
  if (appOutputKeys != 1 || screenshotKeys != 1 || valueEnd == 0) return std::nullopt;

  std::string rest;
  rest.reserve(text.size() - (valueEnd - valueStart) + 2);
  rest.append(text.substr(0, valueStart)).append("\"\"").append(text.substr(valueEnd));
  std::optional<Json> body = json::parse(rest);
  if (!body || !body->is_object()) return std::nullopt;
  const Json* appOutput = json::find(*body, "appOutput");
  const Json* value =
      appOutput && appOutput->is_object() ? json::find(*appOutput, "screenshot64") : nullptr;
  if (!value || !value->is_string() || !value->get_ref<const std::string&>().empty()) {
    return std::nullopt;
  }
  return MatchBody{std::move(*body), std::move(screenshot)};
}

}  // namespace saffra::server
