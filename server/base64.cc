#include "server/base64.h"

#include <array>

namespace saffra::server {

namespace {

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
  // A final quantum of two or three sextets carries one or two bytes; one sextet carries none.
  if (sextets == 1 || padding > 2 || (padding > 0 && sextets + padding != 4)) return std::nullopt;
  if (sextets == 2) {
    out.push_back(static_cast<std::uint8_t>(accumulator >> 4));
  } else if (sextets == 3) {
    out.push_back(static_cast<std::uint8_t>(accumulator >> 10));
    out.push_back(static_cast<std::uint8_t>(accumulator >> 2));
  }
  return out;
}

}  // namespace saffra::server
