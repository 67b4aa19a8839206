// Unaligned reads and big-endian writes of fixed-size integers in byte buffers, shared by the
// image codecs and the resizer. Internal: not part of the public API.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

namespace saffra::bytes {

/// The four bytes at `p` as one word in native byte order (no alignment needed).
inline std::uint32_t load32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

/// The eight bytes at `p` as one word in native byte order (no alignment needed).
inline std::uint64_t load64(const std::uint8_t* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

/// The four bytes at `p` read most significant first, as PNG stores lengths and checksums.
inline std::uint32_t loadBigEndian32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

/// Appends `v` to `out` most significant byte first.
inline void appendBigEndian32(std::vector<std::uint8_t>& out, std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
}

}  // namespace saffra::bytes
