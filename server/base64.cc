#include "server/base64.h"

#include <array>

namespace saffra::server {

namespace {

constexpr std::uint8_t kQuote = 0xFB;
constexpr std::uint8_t kEscape = 0xFC;
constexpr std::uint8_t kPad = 0xFD;
constexpr std::uint8_t kBlank = 0xFE;
constexpr std::uint8_t kInvalid = 0xFF;

constexpr std::array<std::uint8_t, 256> makeTable() {
  std::array<std::uint8_t, 256> table{};
  for (auto& v : table) v = kInvalid;
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  for (char c : {' ', '\t', '\r', '\n'}) table[static_cast<unsigned char>(c)] = kBlank;
  return table;
}

constexpr std::array<std::uint8_t, 256> kTable = makeTable();

// Raw characters inside a JSON string: control characters are not allowed there unescaped.
constexpr std::array<std::uint8_t, 256> makeJsonTable() {
  std::array<std::uint8_t, 256> table = makeTable();
  for (char c : {'\t', '\r', '\n'}) table[static_cast<unsigned char>(c)] = kInvalid;
  table['='] = kPad;
  table['"'] = kQuote;
  table['\\'] = kEscape;
  return table;
}

constexpr std::array<std::uint8_t, 256> kJsonTable = makeJsonTable();

/// A final quantum of two or three sextets carries one or two bytes; one sextet carries none.
/// Writes the bytes of a final quantum of `sextets` sextets (with `padding` "=") and checks it
/// as decodeBase64 does.
bool finishQuantum(std::uint32_t accumulator, int sextets, int padding, std::uint8_t*& out) {
  if (sextets == 1 || padding > 2 || (padding > 0 && sextets + padding != 4)) return false;
  if (sextets == 2) {
    *out++ = static_cast<std::uint8_t>(accumulator >> 4);
  } else if (sextets == 3) {
    *out++ = static_cast<std::uint8_t>(accumulator >> 10);
    *out++ = static_cast<std::uint8_t>(accumulator >> 2);
  }
  return true;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> decodeBase64(std::string_view text) {
  std::vector<std::uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  std::uint32_t accumulator = 0;
  int sextets = 0;  // sextets collected in the current quantum
  int padding = 0;  // "=" seen so far
  for (char c : text) {
    if (c == '=') {
      ++padding;
      continue;
    }
    std::uint8_t value = kTable[static_cast<unsigned char>(c)];
    if (value == kBlank) continue;
    if (value == kInvalid || padding > 0) return std::nullopt;
    accumulator = (accumulator << 6) | value;
    if (++sextets == 4) {
      out.push_back(static_cast<std::uint8_t>(accumulator >> 16));
      out.push_back(static_cast<std::uint8_t>(accumulator >> 8));
      out.push_back(static_cast<std::uint8_t>(accumulator));
      accumulator = 0;
      sextets = 0;
    }
  }
  std::uint8_t tail[2];
  std::uint8_t* end = tail;
  if (!finishQuantum(accumulator, sextets, padding, end)) return std::nullopt;
  out.insert(out.end(), tail, end);
  return out;
}

std::optional<std::vector<std::uint8_t>> decodeBase64InJsonString(std::string_view text,
                                                                  std::size_t& length) {
  std::vector<std::uint8_t> bytes(text.size() / 4 * 3 + 3);
  std::uint8_t* out = bytes.data();
  const auto* const begin = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = begin + text.size();
  const unsigned char* p = begin;
  std::uint32_t accumulator = 0;
  int sextets = 0;
  int padding = 0;
  for (;;) {
    // Whole quanta of four plain characters, the bulk of the text.
    if (sextets == 0 && padding == 0) {
      while (end - p >= 4) {
        const std::uint32_t a = kJsonTable[p[0]], b = kJsonTable[p[1]], c = kJsonTable[p[2]],
                            d = kJsonTable[p[3]];
        if ((a | b | c | d) >= 64) break;
        const std::uint32_t n = a << 18 | b << 12 | c << 6 | d;
        out[0] = static_cast<std::uint8_t>(n >> 16);
        out[1] = static_cast<std::uint8_t>(n >> 8);
        out[2] = static_cast<std::uint8_t>(n);
        out += 3;
        p += 4;
      }
    }
    if (p == end) return std::nullopt;  // no closing quote
    std::uint8_t value = kJsonTable[*p++];
    if (value == kQuote) break;
    if (value == kEscape) {
      if (p == end) return std::nullopt;
      const unsigned char escaped = *p++;
      if (escaped == 'r' || escaped == 'n' || escaped == 't') continue;
      if (escaped != '/') return std::nullopt;
      value = kTable['/'];
    }
    if (value == kBlank) continue;
    if (value == kPad) {
      ++padding;
      continue;
    }
    if (value == kInvalid || padding > 0) return std::nullopt;
    accumulator = (accumulator << 6) | value;
    if (++sextets == 4) {
      *out++ = static_cast<std::uint8_t>(accumulator >> 16);
      *out++ = static_cast<std::uint8_t>(accumulator >> 8);
      *out++ = static_cast<std::uint8_t>(accumulator);
      accumulator = 0;
      sextets = 0;
    }
  }
  if (!finishQuantum(accumulator, sextets, padding, out)) return std::nullopt;
  length = static_cast<std::size_t>(p - begin) - 1;
  bytes.resize(static_cast<std::size_t>(out - bytes.data()));
  return bytes;
}

}  // namespace saffra::server
