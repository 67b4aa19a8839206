#include "saffra/base/configurable.h"

#include "saffra/platform/exception.h"
#include "saffra/platform/format.h"

namespace saffra::Configurable {

namespace {

// Length of the white-space or line-break character that ends at `end` (exclusive), or 0.
std::size_t whiteSpaceBefore(std::string_view s, std::size_t end) {
  if (end == 0) return 0;
  unsigned char c = static_cast<unsigned char>(s[end - 1]);
  if (c == ' ' || (c >= '\t' && c <= '\r')) return 1;
  if (end >= 2 && static_cast<unsigned char>(s[end - 2]) == 0xC2 && (c == 0x85 || c == 0xA0)) {
    return 2;  // U+0085, U+00A0
  }
  if (end >= 3) {
    auto b0 = static_cast<unsigned char>(s[end - 3]);
    auto b1 = static_cast<unsigned char>(s[end - 2]);
    unsigned code = ((b0 & 0x0Fu) << 12) | ((b1 & 0x3Fu) << 6) | (c & 0x3Fu);
    if ((b0 & 0xF0u) == 0xE0u && (b1 & 0xC0u) == 0x80u && (c & 0xC0u) == 0x80u &&
        (code == 0x1680 || (code >= 0x2000 && code <= 0x200A) || code == 0x2028 || code == 0x2029 ||
         code == 0x202F || code == 0x205F || code == 0x3000)) {
      return 3;
    }
  }
  return 0;
}

// Length of the white-space or line-break character that starts at `begin`, or 0.
std::size_t whiteSpaceAt(std::string_view s, std::size_t begin) {
  for (std::size_t length = 1; length <= 3 && begin + length <= s.size(); ++length) {
    if (whiteSpaceBefore(s.substr(0, begin + length), begin + length) == length) return length;
  }
  return 0;
}

bool isEndOfSentence(char c) {
  return c == '.' || c == '!' || c == '?' || c == '\n';
}

}  // namespace

bool containsString(std::string_view receiver, std::string_view s) {
  return receiver.find(s) != std::string_view::npos;
}

bool containsOneOfStrings(std::string_view receiver, const std::vector<OptString>& strings) {
  for (const OptString& s : strings) {
    if (!s) return false;
    if (containsString(receiver, *s)) return true;
  }
  return false;
}

bool isEndOfSentence(std::string_view s) {
  return s.size() == 1 && isEndOfSentence(s[0]);
}

std::string stringByTrimmingSpaces(std::string_view s) {
  std::size_t begin = 0;
  while (std::size_t n = whiteSpaceAt(s, begin)) begin += n;
  std::size_t end = s.size();
  while (end > begin) {
    std::size_t n = whiteSpaceBefore(s, end);
    if (n == 0) break;
    end -= n;
  }
  return std::string(s.substr(begin, end - begin));
}

bool isInteger(std::string_view s) {
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

std::string priceStringCorrection(std::string_view s) {
  std::string result;
  result.reserve(s.size());
  for (char c : s) {
    if (c == '.') continue;
    result.push_back(c == ',' ? '.' : c);
  }
  return result;
}

std::string cutFirstSentenceFromString(std::string& s) {
  if (s.empty()) return "";
  std::size_t last = s.size() - 1;
  std::size_t end = 0;
  while (end < last && !isEndOfSentence(s[end])) ++end;
  std::string result = s.substr(0, end + 1);
  s.erase(0, end + 1);
  return result;
}

std::string cutLastSentenceFromString(std::string& s) {
  // Scans from the character before the last one; a text without an end of sentence there is
  // left alone.
  for (std::size_t i = s.size() >= 2 ? s.size() - 1 : 0; i-- > 0;) {
    if (isEndOfSentence(s[i])) {
      std::string result = s.substr(i + 1);
      s.erase(i + 1);
      return result;
    }
  }
  return "";
}

std::string cutLastWordFromString(std::string& s) {
  std::size_t blank = s.rfind(' ');
  if (blank == std::string::npos) {
    // The range would start one character before the text.
    throw Exception("NSRangeException",
                    format("Range {-1, %li} out of bounds; string length %li",
                           static_cast<long>(s.size()) + 1, static_cast<long>(s.size())));
  }
  std::string result = s.substr(blank);
  s.erase(blank);
  return result;
}

}  // namespace saffra::Configurable
