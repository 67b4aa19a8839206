#include "saffra/platform/base64.h"

#include <array>
#include <cstring>

namespace saffra::base64 {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Two output characters for every 12-bit value, so that three input bytes need two lookups.
std::array<char, 8192> makePairs() {
  std::array<char, 8192> table{};
  for (int v = 0; v < 4096; ++v) {
    table[2 * v] = kAlphabet[v >> 6];
    table[2 * v + 1] = kAlphabet[v & 63];
  }
  return table;
}

const std::array<char, 8192> kPairs = makePairs();

// Encodes whole groups of three bytes; `groups` is the number of groups.
inline char* encodeGroups(const std::uint8_t* in, std::size_t groups, char* out) {
  const char* pairs = kPairs.data();
  // Two groups (six bytes) per step read through one 8-byte load where the input allows it.
  while (groups >= 2) {
    std::uint32_t a = (std::uint32_t{in[0]} << 16) | (std::uint32_t{in[1]} << 8) | in[2];
    std::uint32_t b = (std::uint32_t{in[3]} << 16) | (std::uint32_t{in[4]} << 8) | in[5];
    std::memcpy(out, pairs + 2 * (a >> 12), 2);
    std::memcpy(out + 2, pairs + 2 * (a & 0xFFF), 2);
    std::memcpy(out + 4, pairs + 2 * (b >> 12), 2);
    std::memcpy(out + 6, pairs + 2 * (b & 0xFFF), 2);
    in += 6;
    out += 8;
    groups -= 2;
  }
  if (groups) {
    std::uint32_t a = (std::uint32_t{in[0]} << 16) | (std::uint32_t{in[1]} << 8) | in[2];
    std::memcpy(out, pairs + 2 * (a >> 12), 2);
    std::memcpy(out + 2, pairs + 2 * (a & 0xFFF), 2);
    out += 4;
  }
  return out;
}

// Encodes the last one or two bytes with padding.
inline char* encodeTail(const std::uint8_t* in, std::size_t rest, char* out) {
  if (rest == 0) return out;
  std::uint32_t v = std::uint32_t{in[0]} << 16;
  if (rest == 2) v |= std::uint32_t{in[1]} << 8;
  out[0] = kAlphabet[(v >> 18) & 63];
  out[1] = kAlphabet[(v >> 12) & 63];
  out[2] = rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
  out[3] = '=';
  return out + 4;
}

std::string encodeWithLines(const std::uint8_t* data, std::size_t size, std::size_t lineLength) {
  std::string text(encodedLength(size, lineLength), '\0');
  if (size == 0) return text;
  char* out = text.data();
  const std::size_t groups = size / 3;
  if (lineLength == 0) {
    out = encodeGroups(data, groups, out);
  } else {
    const std::size_t groupsPerLine = lineLength / 4;
    std::size_t done = 0;
    while (done < groups) {
      std::size_t n = std::min(groupsPerLine, groups - done);
      if (done) {
        out[0] = '\r';
        out[1] = '\n';
        out += 2;
      }
      out = encodeGroups(data + 3 * done, n, out);
      done += n;
    }
    // A padded final group starts a new line when the last full line is complete.
    if (size % 3 && groups && groups % groupsPerLine == 0) {
      out[0] = '\r';
      out[1] = '\n';
      out += 2;
    }
  }
  encodeTail(data + 3 * groups, size % 3, out);
  return text;
}

}  // namespace

std::size_t encodedLength(std::size_t size, std::size_t lineLength) {
  std::size_t chars = (size + 2) / 3 * 4;
  if (lineLength == 0 || chars == 0) return chars;
  std::size_t lines = (chars + lineLength - 1) / lineLength;
  return chars + 2 * (lines - 1);
}

std::string encode(const std::uint8_t* data, std::size_t size) {
  return encodeWithLines(data, size, 0);
}

std::string encode(const std::vector<std::uint8_t>& data) {
  return encode(data.data(), data.size());
}

std::string encodeLines64(const std::uint8_t* data, std::size_t size) {
  return encodeWithLines(data, size, 64);
}

std::string encodeLines64(const std::vector<std::uint8_t>& data) {
  return encodeLines64(data.data(), data.size());
}

}  // namespace saffra::base64
