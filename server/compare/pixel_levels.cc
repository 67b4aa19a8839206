#include "server/compare/pixel_levels.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "saffra/platform/internal/cpu.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if SAFFRA_X86_DISPATCH
#include <immintrin.h>
#endif

namespace saffra::compare::detail {

namespace {

// Pixels are handled as packed little-endian words: R in the low byte, A in the high one.
inline std::uint32_t load(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

inline const std::uint8_t* at(const Pixels& image, int x, int y) {
  return image.data + (static_cast<std::size_t>(y) * image.width + x) * 4;
}

struct Yiq {
  float y, i, q;
};

// The YIQ transform's coefficients by magnitude (the signs are in toYiq()), shared by the
// scalar and the vector conversions so that all of them compute the very same floats.
constexpr float kY[3] = {0.29889531f, 0.58662247f, 0.11448223f};
constexpr float kI[3] = {0.59597799f, 0.27417610f, 0.32180189f};
constexpr float kQ[3] = {0.21147017f, 0.52261711f, 0.31114694f};

// YIQ of a colour blended over white (so transparency reads as the page behind it).
inline Yiq toYiq(std::uint32_t v) {
  float r = static_cast<float>(v & 255u);
  float g = static_cast<float>((v >> 8) & 255u);
  float b = static_cast<float>((v >> 16) & 255u);
  const std::uint32_t alpha = v >> 24;
  if (alpha < 255) {
    const float f = static_cast<float>(alpha) / 255.0f;
    r = 255.0f + (r - 255.0f) * f;
    g = 255.0f + (g - 255.0f) * f;
    b = 255.0f + (b - 255.0f) * f;
  }
  return {r * kY[0] + g * kY[1] + b * kY[2], r * kI[0] - g * kI[1] - b * kI[2],
          r * kQ[0] - g * kQ[1] + b * kQ[2]};
}

inline float distance(const Yiq& a, const Yiq& b) {
  const float dy = a.y - b.y, di = a.i - b.i, dq = a.q - b.q;
  return 0.5053f * dy * dy + 0.299f * di * di + 0.1957f * dq * dq;
}

// The largest possible distance (black against white).
constexpr float kMaxDistance = 35215.0f;
constexpr float kStrictLimit =
    static_cast<float>(kStrictThreshold * kStrictThreshold) * kMaxDistance;
constexpr float kAntialiasLimit =
    static_cast<float>(kAntialiasThreshold * kAntialiasThreshold) * kMaxDistance;

// Between opaque colours whose channels each differ by at most d, the distance is at most
// (0.5053 * 1 + 0.299 * 1.192^2 + 0.1957 * 1.045^2) d^2 < 1.144 d^2 (the sums of the
// coefficients' magnitudes bound each YIQ difference): for d = 17 under 331, below the Strict
// limit.
constexpr int kNearChannels = 17;
static_assert(1.144f * kNearChannels * kNearChannels < kStrictLimit);

// A pixel over the Strict limit, with what the scan measured of it: both colours' YIQ and
// their distance (the very values toYiq() and distance() give), or only that anti-aliasing
// explains it (`explained`: the distance is within the anti-aliasing limit, or each colour
// passes explainedBy's blend test in the other image), in which case the rest is not filled in.
struct FarPixel {
  int index;
  Yiq a, b;
  float distance;
  bool explained = false;
};

#if defined(__SSE2__)

// Four pixels' YIQ in float lanes, with exactly the operations of toYiq (an opaque pixel's
// alpha factor is 1, which leaves its channels as they are).
struct YiqLanes {
  __m128 y, i, q;
};

inline YiqLanes toYiq(__m128i pixels) {
  const __m128i byte = _mm_set1_epi32(255);
  const __m128 white = _mm_set1_ps(255.0f);
  const __m128 f = _mm_div_ps(_mm_cvtepi32_ps(_mm_srli_epi32(pixels, 24)), white);
  const auto channel = [&](int shift) {
    const __m128 v = _mm_cvtepi32_ps(_mm_and_si128(_mm_srli_epi32(pixels, shift), byte));
    return _mm_add_ps(white, _mm_mul_ps(_mm_sub_ps(v, white), f));
  };
  const __m128 r = channel(0), g = channel(8), b = channel(16);
  const auto mix = [&](const float(&k)[3], bool minusG, bool minusB) {
    const __m128 rr = _mm_mul_ps(r, _mm_set1_ps(k[0])), gg = _mm_mul_ps(g, _mm_set1_ps(k[1]));
    const __m128 bb = _mm_mul_ps(b, _mm_set1_ps(k[2]));
    const __m128 sum = minusG ? _mm_sub_ps(rr, gg) : _mm_add_ps(rr, gg);
    return minusB ? _mm_sub_ps(sum, bb) : _mm_add_ps(sum, bb);
  };
  return {mix(kY, false, false), mix(kI, true, true), mix(kQ, true, false)};
}

// The distances of four pixel pairs, as distance() computes them.
inline __m128 distance(const YiqLanes& a, const YiqLanes& b) {
  const __m128 dy = _mm_sub_ps(a.y, b.y), di = _mm_sub_ps(a.i, b.i), dq = _mm_sub_ps(a.q, b.q);
  return _mm_add_ps(_mm_add_ps(_mm_mul_ps(_mm_mul_ps(_mm_set1_ps(0.5053f), dy), dy),
                               _mm_mul_ps(_mm_mul_ps(_mm_set1_ps(0.299f), di), di)),
                    _mm_mul_ps(_mm_mul_ps(_mm_set1_ps(0.1957f), dq), dq));
}

inline YiqLanes broadcast(const Yiq& v) {
  return {_mm_set1_ps(v.y), _mm_set1_ps(v.i), _mm_set1_ps(v.q)};
}

// Three pixels from `p` in the low lanes, the fourth lane zero (never read past them).
inline __m128i loadThree(const std::uint8_t* p) {
  return _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)),
                            _mm_cvtsi32_si128(static_cast<int>(load(p + 8))));
}

#endif

#if SAFFRA_X86_DISPATCH

// Eight pixels at a time on processors with AVX2: the same operations as toYiq() and
// distance() in wider lanes (no fused multiply-adds, so every lane rounds as they do).
struct YiqLanes8 {
  __m256 y, i, q;
};

// With `opaque` (all eight pixels' alpha 255) the blend over white is left out: its factor is
// 1, and 255 + (v - 255) * 1 is v exactly in floats.
SAFFRA_TARGET_AVX2 inline YiqLanes8 toYiq8(__m256i pixels, bool opaque) {
  const __m256i byte = _mm256_set1_epi32(255);
  const __m256 white = _mm256_set1_ps(255.0f);
  const __m256 f =
      opaque ? white : _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_srli_epi32(pixels, 24)), white);
  const auto channel = [&](int shift) SAFFRA_TARGET_AVX2 {
    const __m256 v = _mm256_cvtepi32_ps(
        _mm256_and_si256(_mm256_srl_epi32(pixels, _mm_cvtsi32_si128(shift)), byte));
    return opaque ? v : _mm256_add_ps(white, _mm256_mul_ps(_mm256_sub_ps(v, white), f));
  };
  const __m256 r = channel(0), g = channel(8), b = channel(16);
  const auto mix = [&](const float(&k)[3], bool minusG, bool minusB) SAFFRA_TARGET_AVX2 {
    const __m256 rr = _mm256_mul_ps(r, _mm256_set1_ps(k[0]));
    const __m256 gg = _mm256_mul_ps(g, _mm256_set1_ps(k[1]));
    const __m256 bb = _mm256_mul_ps(b, _mm256_set1_ps(k[2]));
    const __m256 sum = minusG ? _mm256_sub_ps(rr, gg) : _mm256_add_ps(rr, gg);
    return minusB ? _mm256_sub_ps(sum, bb) : _mm256_add_ps(sum, bb);
  };
  return {mix(kY, false, false), mix(kI, true, true), mix(kQ, true, false)};
}

SAFFRA_TARGET_AVX2 inline __m256 distance8(const YiqLanes8& a, const YiqLanes8& b) {
  const __m256 dy = _mm256_sub_ps(a.y, b.y), di = _mm256_sub_ps(a.i, b.i);
  const __m256 dq = _mm256_sub_ps(a.q, b.q);
  return _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(_mm256_mul_ps(_mm256_set1_ps(0.5053f), dy), dy),
                                     _mm256_mul_ps(_mm256_mul_ps(_mm256_set1_ps(0.299f), di), di)),
                       _mm256_mul_ps(_mm256_mul_ps(_mm256_set1_ps(0.1957f), dq), dq));
}

// The rows around one row pair, for the blend test of eight pixels at a time: rows y - 1, y and
// y + 1 of each image, pointing at the pixel of the scan's first column. Groups of eight
// starting at `first` <= i with i + 8 <= `end` have all their neighbours inside both images.
struct BlendRows {
  const std::uint8_t* a[3];
  const std::uint8_t* b[3];
  int first, end;
};

// explainedBy's blend test for the eight pixels of `target` against the 3x3 neighbourhoods of
// pixels i .. i + 7 of `rows`: bit k is set when each colour channel of pixel k lies between
// the neighbourhood's minimum and maximum, with kBlendSlack to spare.
SAFFRA_TARGET_AVX2 inline unsigned blendedAvx2(const std::uint8_t* const (&rows)[3], int i,
                                               __m256i target) {
  __m256i lo = _mm256_set1_epi8(-1), hi = _mm256_setzero_si256();
  for (const std::uint8_t* row : rows) {
    for (const int x : {i - 1, i, i + 1}) {
      const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + x * 4));
      lo = _mm256_min_epu8(lo, v);
      hi = _mm256_max_epu8(hi, v);
    }
  }
  const __m256i slack = _mm256_set1_epi8(static_cast<char>(kBlendSlack));
  const __m256i inside = _mm256_and_si256(
      _mm256_cmpeq_epi8(_mm256_max_epu8(target, _mm256_subs_epu8(lo, slack)), target),
      _mm256_cmpeq_epi8(_mm256_min_epu8(target, _mm256_adds_epu8(hi, slack)), target));
  // A pixel passes when its three colour bytes do and it and the whole neighbourhood are
  // opaque: between translucent colours a blend says nothing about what shows.
  const __m256i alpha = _mm256_set1_epi32(static_cast<int>(0xff000000u));
  const __m256i passed = _mm256_and_si256(
      _mm256_cmpeq_epi32(_mm256_or_si256(inside, alpha), _mm256_set1_epi32(-1)),
      _mm256_cmpeq_epi32(_mm256_and_si256(_mm256_and_si256(lo, target), alpha), alpha));
  return static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(passed)));
}

// The Strict scan of one row pair eight pixels at a time: for each group of eight with pixels
// over the Strict limit (bits of `over`), calls settled(first pixel, over), and unless that
// settled them all, far(FarPixel) for each of them left to right. With `blend`, pixels that
// anti-aliasing plainly explains are told so (FarPixel::explained) without the per-pixel
// tests. Explained pixels cannot count, so while open(first pixel) says their tile does not
// count yet, mark(first pixel, pixels, value) marks them at once: a group in which anti-aliasing
// explains every differing pixel kUnresolved without measuring distances, a group whose far
// pixels it all explains kForgiven. Returns the first pixel it did not look at.
template <class Settled, class Open, class Mark, class Far>
SAFFRA_TARGET_AVX2 int farPixelsAvx2(const std::uint8_t* ra, const std::uint8_t* rb, int width,
                                     const BlendRows* blend, Settled&& settled, Open&& open,
                                     Mark&& mark, Far&& far) {
  const __m256 antialias = _mm256_set1_ps(kAntialiasLimit);
  const __m256 strict = _mm256_set1_ps(kStrictLimit);
  const __m256i opaque = _mm256_set1_epi32(static_cast<int>(0xff000000u));
  const __m256i near = _mm256_set1_epi8(kNearChannels);
  int i = 0;
  for (; i + 8 <= width; i += 8) {
    const __m256i va = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(ra + i * 4));
    const __m256i vb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rb + i * 4));
    if (_mm256_movemask_epi8(_mm256_cmpeq_epi8(va, vb)) == -1) continue;
    // As in the four-pixel scan: near opaque colours cannot be over the limit.
    const __m256i spread = _mm256_or_si256(_mm256_subs_epu8(va, vb), _mm256_subs_epu8(vb, va));
    const bool allOpaque = _mm256_movemask_epi8(_mm256_cmpeq_epi8(
                               _mm256_and_si256(va, vb), opaque)) == static_cast<int>(0x88888888u);
    if (allOpaque &&
        _mm256_movemask_epi8(_mm256_cmpeq_epi8(_mm256_max_epu8(spread, near), near)) == -1) {
      continue;
    }
    // In a tile that counts already, far pixels count without these tests (see settled()).
    unsigned blended = 0;
    if (blend && i >= blend->first && i + 8 <= blend->end && open(i)) {
      blended = blendedAvx2(blend->b, i, va) & blendedAvx2(blend->a, i, vb);
      const unsigned differing = ~static_cast<unsigned>(_mm256_movemask_ps(
                                     _mm256_castsi256_ps(_mm256_cmpeq_epi32(va, vb)))) &
                                 0xffu;
      if (!(differing & ~blended)) {
        mark(i, differing, kUnresolved);
        continue;
      }
    }
    const YiqLanes8 ya = toYiq8(va, allOpaque), yb = toYiq8(vb, allOpaque);
    const __m256 d = distance8(ya, yb);
    unsigned over = static_cast<unsigned>(_mm256_movemask_ps(_mm256_cmp_ps(d, strict, _CMP_GT_OQ)));
    if (!over || settled(i, over)) continue;
    const unsigned explained =
        blended |
        static_cast<unsigned>(_mm256_movemask_ps(_mm256_cmp_ps(d, antialias, _CMP_LE_OQ)));
    if (!(over & ~explained)) {  // settled() found the tile open
      mark(i, over, kForgiven);
      continue;
    }
    alignas(32) float lanes[7][8];
    for (int k = 0; const __m256 v : {ya.y, ya.i, ya.q, yb.y, yb.i, yb.q, d}) {
      _mm256_store_ps(lanes[k++], v);
    }
    for (; over; over &= over - 1) {
      const int k = __builtin_ctz(over);
      if (explained >> k & 1) {
        far(FarPixel{i + k, {}, {}, 0.0f, true});
        continue;
      }
      far(FarPixel{i + k,
                   {lanes[0][k], lanes[1][k], lanes[2][k]},
                   {lanes[3][k], lanes[4][k], lanes[5][k]},
                   lanes[6][k]});
    }
  }
  return i;
}

#endif

#if SAFFRA_X86_DISPATCH
// Whether any of three rows of three pixels (the fourth lane of each row unused) is within
// `limit` of `target`: two rows in one 8-lane conversion, the third in four lanes.
SAFFRA_TARGET_AVX2 bool anyNearAvx2(const __m128i (&rows)[3], const Yiq& target, float limit) {
  const YiqLanes8 two = toYiq8(_mm256_set_m128i(rows[1], rows[0]), false);
  const YiqLanes8 t = {_mm256_set1_ps(target.y), _mm256_set1_ps(target.i),
                       _mm256_set1_ps(target.q)};
  const __m256 near = _mm256_cmp_ps(distance8(two, t), _mm256_set1_ps(limit), _CMP_LE_OQ);
  if (_mm256_movemask_ps(near) & 0x77) return true;
  const __m128 last = _mm_cmple_ps(distance(toYiq(rows[2]), broadcast(target)), _mm_set1_ps(limit));
  return (_mm_movemask_ps(last) & 0x7) != 0;
}
#endif

// The set bits of a 16-bit mask. std::popcount becomes a library call on processors the build
// does not assume to have the instruction; this stays inline.
inline int bitCount(unsigned v) {
  v = v - ((v >> 1) & 0x5555u);
  v = (v & 0x3333u) + ((v >> 2) & 0x3333u);
  v = (v + (v >> 4)) & 0x0f0fu;
  return static_cast<int>((v + (v >> 8)) & 0x1fu);
}

// True when `target` could be a re-rendering of the pixels of `image` within one pixel of
// (x, y): one of them is within `limit` of it, or its colour lies between theirs (channel by
// channel, with a little slack), as a blend of neighbouring glyph and background pixels does.
bool explainedBy(const Pixels& image, int x, int y, std::uint32_t target, const Yiq& targetYiq,
                 float limit, [[maybe_unused]] bool avx2) {
  const int w = image.width, h = image.height;
#if defined(__SSE2__)
  if (x > 0 && y > 0 && x + 1 < w && y + 1 < h) {
    // Away from the edges the 3x3 neighbourhood is three loads of three pixels.
    const std::size_t stride = static_cast<std::size_t>(w) * 4;
    const std::uint8_t* p = at(image, x - 1, y - 1);
    const __m128i rows[3] = {loadThree(p), loadThree(p + stride), loadThree(p + 2 * stride)};
    // The blend test: channel minima and maxima over the nine pixels (lane 0 after folding
    // lanes 1 and 2 into it; the empty fourth lane is never folded in).
    __m128i lo = _mm_min_epu8(_mm_min_epu8(rows[0], rows[1]), rows[2]);
    __m128i hi = _mm_max_epu8(_mm_max_epu8(rows[0], rows[1]), rows[2]);
    lo = _mm_min_epu8(_mm_min_epu8(lo, _mm_srli_si128(lo, 4)), _mm_srli_si128(lo, 8));
    hi = _mm_max_epu8(_mm_max_epu8(hi, _mm_srli_si128(hi, 4)), _mm_srli_si128(hi, 8));
    const __m128i slack = _mm_set1_epi8(static_cast<char>(kBlendSlack));
    const __m128i t = _mm_cvtsi32_si128(static_cast<int>(target));
    const __m128i inside =
        _mm_and_si128(_mm_cmpeq_epi8(_mm_max_epu8(t, _mm_subs_epu8(lo, slack)), t),
                      _mm_cmpeq_epi8(_mm_min_epu8(t, _mm_adds_epu8(hi, slack)), t));
    const bool opaque =
        (target >> 24) == 255u && (static_cast<std::uint32_t>(_mm_cvtsi128_si32(lo)) >> 24) == 255u;
    if (opaque && (_mm_movemask_epi8(inside) & 0x7) == 0x7) return true;
#if SAFFRA_X86_DISPATCH
    if (avx2) return anyNearAvx2(rows, targetYiq, limit);
#endif
    const YiqLanes targets = broadcast(targetYiq);
    const __m128 bound = _mm_set1_ps(limit);
    for (const __m128i& row : rows) {
      const __m128 near = _mm_cmple_ps(distance(toYiq(row), targets), bound);
      if (_mm_movemask_ps(near) & 0x7) return true;
    }
    return false;
  }
#endif
  const int x0 = std::max(x - 1, 0), x1 = std::min(x + 1, w - 1);
  const int y0 = std::max(y - 1, 0), y1 = std::min(y + 1, h - 1);
  // The blend test first: integer work only, and it settles most anti-aliased pixels.
  int lo[4] = {255, 255, 255, 255}, hi[3] = {0, 0, 0};
  for (int yy = y0; yy <= y1; ++yy) {
    const std::uint8_t* row = at(image, 0, yy);
    for (int xx = x0; xx <= x1; ++xx) {
      for (int c = 0; c < 3; ++c) {
        const int channel = row[xx * 4 + c];
        lo[c] = std::min(lo[c], channel), hi[c] = std::max(hi[c], channel);
      }
      lo[3] = std::min(lo[3], int{row[xx * 4 + 3]});
    }
  }
  // Between translucent colours a blend says nothing about what shows.
  bool between = lo[3] == 255 && (target >> 24) == 255u;
  for (int c = 0; c < 3; ++c) {
    const int channel = static_cast<int>((target >> (8 * c)) & 255u);
    between = between && channel >= lo[c] - kBlendSlack && channel <= hi[c] + kBlendSlack;
  }
  if (between) return true;
  for (int yy = y0; yy <= y1; ++yy) {
    const std::uint8_t* row = at(image, 0, yy);
    for (int xx = x0; xx <= x1; ++xx) {
      if (distance(toYiq(load(row + xx * 4)), targetYiq) <= limit) return true;
    }
  }
  return false;
}

// A channel of a colour blended over white, as it shows.
inline int overWhite(int channel, int alpha) {
  return 255 - ((255 - channel) * alpha + 127) / 255;
}

inline bool contrasting(const std::uint8_t* p, const std::uint8_t* q) {
  const bool opaque = (p[3] & q[3]) == 255;
  for (int c = 0; c < 3; ++c) {
    const int a = opaque ? p[c] : overWhite(p[c], p[3]);
    const int b = opaque ? q[c] : overWhite(q[c], q[3]);
    if (std::abs(a - b) > kEdgeContrast) return true;
  }
  return false;
}

// True when the pixel at (x, y) contrasts with its right or lower neighbour.
bool edgeAt(const Pixels& image, int x, int y) {
  const int w = image.width, h = image.height;
  const std::uint8_t* p = at(image, x, y);
  return (x + 1 < w && contrasting(p, p + 4)) || (y + 1 < h && contrasting(p, p + w * 4));
}

bool edgeNear(const Pixels& image, int x, int y) {
  const int w = image.width, h = image.height;
  for (int yy = std::max(y - 1, 0); yy <= std::min(y + 1, h - 1); ++yy) {
    for (int xx = std::max(x - 1, 0); xx <= std::min(x + 1, w - 1); ++xx) {
      if (edgeAt(image, xx, yy)) return true;
    }
  }
  return false;
}

// The element boxes of an area: colour edges joined across small gaps, each joined group
// replaced by its filled bounding box. One byte per pixel, 1 inside a box.
std::vector<std::uint8_t> elementBoxes(const Pixels& image, int x0, int y0, int w, int h) {
  const std::size_t n = static_cast<std::size_t>(w) * h;
  std::vector<std::uint8_t> joined(n, 0);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const std::uint8_t* p = at(image, x0 + x, y0 + y);
      const bool edge = (x + 1 < w && contrasting(p, p + 4)) ||
                        (y + 1 < h && contrasting(p, p + image.width * 4));
      joined[static_cast<std::size_t>(y) * w + x] = edge;
    }
  }
  // Join along rows, then along columns, across gaps no wider than the join distances.
  for (int y = 0; y < h; ++y) {
    std::uint8_t* row = &joined[static_cast<std::size_t>(y) * w];
    int last = -1;
    for (int x = 0; x < w; ++x) {
      if (!row[x]) continue;
      if (last >= 0 && x - last - 1 <= kLayoutJoinX) std::fill(row + last + 1, row + x, 1);
      last = x;
    }
  }
  std::vector<int> lastInColumn(w, -1);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      if (!joined[static_cast<std::size_t>(y) * w + x]) continue;
      const int last = lastInColumn[x];
      if (last >= 0 && y - last - 1 <= kLayoutJoinY) {
        for (int yy = last + 1; yy < y; ++yy) joined[static_cast<std::size_t>(yy) * w + x] = 1;
      }
      lastInColumn[x] = y;
    }
  }
  // Flood-fill each 8-connected group and paint its bounding box.
  std::vector<std::uint8_t> boxes(n, 0);
  std::vector<std::size_t> stack;
  for (std::size_t start = 0; start < n; ++start) {
    if (joined[start] != 1) continue;
    int left = w, top = h, right = -1, bottom = -1;
    joined[start] = 2;
    stack.push_back(start);
    while (!stack.empty()) {
      const std::size_t k = stack.back();
      stack.pop_back();
      const int x = static_cast<int>(k % w), y = static_cast<int>(k / w);
      left = std::min(left, x), right = std::max(right, x);
      top = std::min(top, y), bottom = std::max(bottom, y);
      for (int yy = std::max(y - 1, 0); yy <= std::min(y + 1, h - 1); ++yy) {
        for (int xx = std::max(x - 1, 0); xx <= std::min(x + 1, w - 1); ++xx) {
          const std::size_t q = static_cast<std::size_t>(yy) * w + xx;
          if (joined[q] == 1) {
            joined[q] = 2;
            stack.push_back(q);
          }
        }
      }
    }
    for (int y = top; y <= bottom; ++y) {
      std::fill_n(&boxes[static_cast<std::size_t>(y) * w + left], right - left + 1, 1);
    }
  }
  return boxes;
}

bool anySetNear(const std::vector<std::uint8_t>& map, int w, int h, int x, int y) {
  for (int yy = std::max(y - 1, 0); yy <= std::min(y + 1, h - 1); ++yy) {
    for (int xx = std::max(x - 1, 0); xx <= std::min(x + 1, w - 1); ++xx) {
      if (map[static_cast<std::size_t>(yy) * w + xx]) return true;
    }
  }
  return false;
}

}  // namespace

std::size_t diffExact(const Span& s) {
  std::size_t count = 0;
  const std::size_t bytes = static_cast<std::size_t>(s.width) * 4;
  for (int j = 0; j < s.height; ++j) {
    const std::uint8_t* ra = at(*s.a, s.ax, s.ay + j);
    const std::uint8_t* rb = at(*s.b, s.bx, s.by + j);
    if (std::memcmp(ra, rb, bytes) == 0) continue;
    std::uint8_t* m = s.mask + j * s.maskStride;
    for (int i = 0; i < s.width; ++i) {
      const std::uint32_t pa = load(ra + i * 4), pb = load(rb + i * 4);
      if (pa == pb || ((pa >> 24) == 0 && (pb >> 24) == 0)) continue;
      m[i] = kCounted;
      ++count;
    }
  }
  return count;
}

std::size_t diffStrict(const Span& s, bool shapesOnly) {
  std::size_t count = 0;
  const std::size_t bytes = static_cast<std::size_t>(s.width) * 4;
  // Unexplained differences so far in each 8x8 tile of the current band of rows. Once a tile
  // holds enough to count as changed, its other differing pixels count without the
  // anti-aliasing test: the verdict cannot change, and large changes stay cheap.
  constexpr int kTile = 8;
  static thread_local std::vector<int> band;
  // Rows the decoder found equal in both images need no look, where the area is at the same
  // place in both.
  const std::uint8_t* knownSame =
      s.b->sameRows && s.ax == s.bx && s.ay == s.by ? s.b->sameRows + s.by : nullptr;
  [[maybe_unused]] const bool avx2 = cpu::hasAvx2();
  for (int j = 0; j < s.height; ++j) {
    if (j % kTile == 0) band.assign(static_cast<std::size_t>(s.width / kTile + 1), 0);
    const std::uint8_t* ra = at(*s.a, s.ax, s.ay + j);
    const std::uint8_t* rb = at(*s.b, s.bx, s.by + j);
    if ((knownSame && knownSame[j]) || std::memcmp(ra, rb, bytes) == 0) continue;
    std::uint8_t* m = s.mask + j * s.maskStride;
    // Settles a pixel that differs visibly.
    const auto visible = [&](const FarPixel& p) {
      const int i = p.index;
      int& inTile = band[i / kTile];
      if (shapesOnly || inTile < kMinClusterPixels) {
        const std::uint32_t pa = load(ra + i * 4), pb = load(rb + i * 4);
        const int xa = s.ax + i, yA = s.ay + j, xb = s.bx + i, yB = s.by + j;
        // Each pixel is in the other's neighbourhood, so colours within the anti-aliasing
        // limit of each other explain each other both ways.
        if (p.explained || p.distance <= kAntialiasLimit ||
            (explainedBy(*s.b, xb, yB, pa, p.a, kAntialiasLimit, avx2) &&
             explainedBy(*s.a, xa, yA, pb, p.b, kAntialiasLimit, avx2))) {
          m[i] = kForgiven;
          return;
        }
        if (shapesOnly && (!edgeAt(*s.a, xa, yA) || edgeNear(*s.b, xb, yB)) &&
            (!edgeAt(*s.b, xb, yB) || edgeNear(*s.a, xa, yA))) {
          m[i] = kForgiven;
          return;
        }
      }
      m[i] = kCandidate;
      ++inTile;
      ++count;
    };
    int i = 0;
#if SAFFRA_X86_DISPATCH
    if (avx2) {
      // The scan's groups of eight are rows of tiles: once a tile counts as changed, the far
      // pixels of its later groups count at once.
      const auto settled = [&](int first, unsigned over) {
        int& inTile = band[first / kTile];
        if (shapesOnly || inTile < kMinClusterPixels) return false;
        const int n = __builtin_popcount(over);
        inTile += n;
        count += static_cast<std::size_t>(n);
        for (; over; over &= over - 1) m[first + __builtin_ctz(over)] = kCandidate;
        return true;
      };
      // Rows around this one in both images, where there are such rows.
      const int yA = s.ay + j, yB = s.by + j;
      BlendRows blend;
      const bool inside = yA > 0 && yA + 1 < s.a->height && yB > 0 && yB + 1 < s.b->height;
      if (inside) {
        for (int r = 0; r < 3; ++r) {
          blend.a[r] = at(*s.a, s.ax, yA - 1 + r);
          blend.b[r] = at(*s.b, s.bx, yB - 1 + r);
        }
        blend.first = std::max({1 - s.ax, 1 - s.bx, 0});
        blend.end = std::min(s.a->width - 1 - s.ax, s.b->width - 1 - s.bx);
      }
      const auto open = [&](int first) {
        return shapesOnly || band[first / kTile] < kMinClusterPixels;
      };
      const auto mark = [&](int first, unsigned pixels, std::uint8_t value) {
        for (; pixels; pixels &= pixels - 1) m[first + __builtin_ctz(pixels)] = value;
      };
      i = farPixelsAvx2(ra, rb, s.width, inside ? &blend : nullptr, settled, open, mark, visible);
    }
#endif
#if defined(__SSE2__)
    // Four pixels at a time: equal ones are skipped, and the perceptual distance of the others
    // is measured in float lanes.
    const __m128 strict = _mm_set1_ps(kStrictLimit);
    const __m128i opaque = _mm_set1_epi32(static_cast<int>(0xff000000u));
    const __m128i near = _mm_set1_epi8(kNearChannels);
    for (; i + 4 <= s.width; i += 4) {
      const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i*>(ra + i * 4));
      const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rb + i * 4));
      if (_mm_movemask_epi8(_mm_cmpeq_epi8(va, vb)) == 0xffff) continue;
      // Opaque pixels whose channels all differ by at most kNearChannels are within the
      // Strict limit whatever the colours, so the float work is skipped for them.
      const __m128i spread = _mm_or_si128(_mm_subs_epu8(va, vb), _mm_subs_epu8(vb, va));
      if (_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_and_si128(va, vb), opaque)) == 0x8888 &&
          _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_max_epu8(spread, near), near)) == 0xffff) {
        continue;
      }
      const YiqLanes ya = toYiq(va), yb = toYiq(vb);
      const __m128 d = distance(ya, yb);
      int far = _mm_movemask_ps(_mm_cmpgt_ps(d, strict));
      if (!far) continue;
      alignas(16) float lanes[7][4];
      for (int k = 0; const __m128 v : {ya.y, ya.i, ya.q, yb.y, yb.i, yb.q, d}) {
        _mm_store_ps(lanes[k++], v);
      }
      for (; far; far &= far - 1) {
        const int k = __builtin_ctz(static_cast<unsigned>(far));
        visible(FarPixel{i + k,
                         {lanes[0][k], lanes[1][k], lanes[2][k]},
                         {lanes[3][k], lanes[4][k], lanes[5][k]},
                         lanes[6][k]});
      }
    }
#endif
    for (; i < s.width; ++i) {
      const std::uint32_t pa = load(ra + i * 4), pb = load(rb + i * 4);
      if (pa == pb) continue;
      const Yiq ya = toYiq(pa), yb = toYiq(pb);
      const float d = distance(ya, yb);
      if (d <= kStrictLimit) continue;
      visible(FarPixel{i, ya, yb, d});
    }
  }
  return count;
}

void resolveForgiven(const Pixels& a, const Pixels& b, std::uint8_t* mask) {
  std::uint8_t* const end = mask + static_cast<std::size_t>(a.width) * a.height;
  for (std::uint8_t* m = mask; m < end; ++m) {
    m = static_cast<std::uint8_t*>(std::memchr(m, kUnresolved, static_cast<std::size_t>(end - m)));
    if (!m) break;
    const std::size_t k = static_cast<std::size_t>(m - mask);
    const float d = distance(toYiq(load(a.data + k * 4)), toYiq(load(b.data + k * 4)));
    *m = d > kStrictLimit ? kForgiven : kSame;
  }
}

std::size_t diffLayout(const Span& s) {
  const int w = s.width, h = s.height;
  // Only where Strict sees a difference can the arrangement differ: box edges that shift with
  // anti-aliasing alone are not looked at.
  std::vector<std::uint8_t> strict(static_cast<std::size_t>(w) * h, 0);
  diffStrict({s.a, s.b, s.ax, s.ay, s.bx, s.by, w, h, strict.data(), static_cast<std::size_t>(w)},
             false);
  if (cluster(strict.data(), w, w, h, 0, 0).counted == 0) return 0;
  constexpr int kTile = 8;
  const int tilesX = (w + kTile - 1) / kTile, tilesY = (h + kTile - 1) / kTile;
  std::vector<std::uint8_t> near(static_cast<std::size_t>(tilesX) * tilesY, 0);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      if (strict[static_cast<std::size_t>(y) * w + x] != kCounted) continue;
      const int tx = x / kTile, ty = y / kTile;
      for (int yy = std::max(ty - 1, 0); yy <= std::min(ty + 1, tilesY - 1); ++yy) {
        for (int xx = std::max(tx - 1, 0); xx <= std::min(tx + 1, tilesX - 1); ++xx) {
          near[static_cast<std::size_t>(yy) * tilesX + xx] = 1;
        }
      }
    }
  }

  const std::vector<std::uint8_t> boxesA = elementBoxes(*s.a, s.ax, s.ay, w, h);
  const std::vector<std::uint8_t> boxesB = elementBoxes(*s.b, s.bx, s.by, w, h);
  std::size_t count = 0;
  for (int y = 0; y < h; ++y) {
    std::uint8_t* m = s.mask + y * s.maskStride;
    for (int x = 0; x < w; ++x) {
      const std::size_t k = static_cast<std::size_t>(y) * w + x;
      if (boxesA[k] == boxesB[k] ||
          !near[static_cast<std::size_t>(y / kTile) * tilesX + x / kTile]) {
        continue;
      }
      // A box edge that moved by one pixel is forgiven.
      const bool nearOther =
          boxesA[k] ? anySetNear(boxesB, w, h, x, y) : anySetNear(boxesA, w, h, x, y);
      if (nearOther) {
        m[x] = kForgiven;
      } else {
        m[x] = kCandidate;
        ++count;
      }
    }
  }
  return count;
}

Clusters cluster(std::uint8_t* mask, std::size_t maskStride, int width, int height, int originX,
                 int originY) {
  Clusters result;
  if (width <= 0 || height <= 0) return result;
  constexpr int kTile = 8;
  const int tilesX = (width + kTile - 1) / kTile, tilesY = (height + kTile - 1) / kTile;
  const auto tile = [&](int tx, int ty) { return static_cast<std::size_t>(ty) * tilesX + tx; };
  // Per-tile scratch lives in buffers each thread keeps (fresh memory costs page faults).
  const std::size_t tiles = static_cast<std::size_t>(tilesX) * tilesY;
  static thread_local std::vector<int> counts;
  counts.assign(tiles, 0);
  std::size_t marked = 0;
  for (int y = 0; y < height; ++y) {
    const std::uint8_t* m = mask + y * maskStride;
    int x = 0;
#if defined(__SSE2__)
    // Sixteen mask bytes (two tiles) at a time.
    for (; x + 16 <= width; x += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(m + x));
      const unsigned candidates =
          static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(kCandidate))));
      const unsigned high =
          candidates |
          static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(kCounted))));
      if (!high) continue;
      marked += bitCount(high);
      counts[tile(x / kTile, y / kTile)] += bitCount(candidates & 0xffu);
      counts[tile(x / kTile + 1, y / kTile)] += bitCount(candidates >> 8);
    }
#endif
    for (; x < width; ++x) {
      if (m[x] == kCandidate) ++counts[tile(x / kTile, y / kTile)];
      if (m[x] == kCounted || m[x] == kCandidate) ++marked;
    }
  }
  if (marked == 0) return result;

  // Tiles whose candidates count: those in or next to a 2x2-tile window holding enough.
  static thread_local std::vector<std::uint8_t> counting, hot, seen;
  counting.assign(tiles, 0);
  {
    hot.assign(tiles, 0);
    for (int ty = 0; ty < tilesY; ++ty) {
      for (int tx = 0; tx < tilesX; ++tx) {
        int sum = 0;
        for (int dy = 0; dy < 2 && ty + dy < tilesY; ++dy) {
          for (int dx = 0; dx < 2 && tx + dx < tilesX; ++dx) sum += counts[tile(tx + dx, ty + dy)];
        }
        if (sum < kMinClusterPixels) continue;
        for (int dy = 0; dy < 2 && ty + dy < tilesY; ++dy) {
          for (int dx = 0; dx < 2 && tx + dx < tilesX; ++dx) hot[tile(tx + dx, ty + dy)] = 1;
        }
      }
    }
    for (int ty = 0; ty < tilesY; ++ty) {
      for (int tx = 0; tx < tilesX; ++tx) {
        if (!hot[tile(tx, ty)]) continue;
        for (int y = std::max(ty - 1, 0); y <= std::min(ty + 1, tilesY - 1); ++y) {
          for (int x = std::max(tx - 1, 0); x <= std::min(tx + 1, tilesX - 1); ++x) {
            counting[tile(x, y)] = 1;
          }
        }
      }
    }
  }

  // Settle every candidate and note the bounding box of the counted pixels of each tile.
  struct Box {
    int left = 1 << 30, top = 1 << 30, right = -1, bottom = -1;
  };
  static thread_local std::vector<Box> tileBoxes;
  tileBoxes.assign(tiles, Box{});
  const auto addToBox = [](Box& b, int x, int y) {
    b.left = std::min(b.left, x), b.right = std::max(b.right, x);
    b.top = std::min(b.top, y), b.bottom = std::max(b.bottom, y);
  };
  for (int y = 0; y < height; ++y) {
    std::uint8_t* m = mask + y * maskStride;
    int x = 0;
#if defined(__SSE2__)
    for (; x + 16 <= width; x += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(m + x));
      const __m128i isCandidate = _mm_cmpeq_epi8(v, _mm_set1_epi8(kCandidate));
      const unsigned candidates = static_cast<unsigned>(_mm_movemask_epi8(isCandidate));
      unsigned counted =
          static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(kCounted))));
      if (!(candidates | counted)) continue;
      const std::size_t k0 = tile(x / kTile, y / kTile), k1 = k0 + 1;
      if (candidates) {
        // Candidates of counting tiles become kCounted (3 - 1), the others kForgiven (3 - 2).
        const __m128i step = _mm_set_epi64x(counting[k1] ? 0x0101010101010101 : 0x0202020202020202,
                                            counting[k0] ? 0x0101010101010101 : 0x0202020202020202);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(m + x),
                         _mm_sub_epi8(v, _mm_and_si128(isCandidate, step)));
        counted |=
            (counting[k0] ? candidates & 0xffu : 0u) | (counting[k1] ? candidates & 0xff00u : 0u);
      }
      const unsigned halves[2] = {counted & 0xffu, counted >> 8};
      for (int h = 0; h < 2; ++h) {
        if (!halves[h]) continue;
        result.counted += bitCount(halves[h]);
        Box& b = tileBoxes[h ? k1 : k0];
        addToBox(b, x + h * kTile + std::countr_zero(halves[h]), y);
        addToBox(b, x + h * kTile + 31 - std::countl_zero(halves[h]), y);
      }
    }
#endif
    for (; x < width; ++x) {
      if (m[x] == kCounted) {
        ++result.counted;
        addToBox(tileBoxes[tile(x / kTile, y / kTile)], x, y);
        continue;
      }
      if (m[x] != kCandidate) continue;
      const std::size_t k = tile(x / kTile, y / kTile);
      if (!counting[k]) {
        m[x] = kForgiven;
        continue;
      }
      m[x] = kCounted;
      ++result.counted;
      addToBox(tileBoxes[k], x, y);
    }
  }

  // Difference boxes: 8-connected groups of tiles with counted pixels.
  seen.assign(tiles, 0);
  std::vector<std::size_t> stack;
  for (std::size_t start = 0; start < counts.size(); ++start) {
    if (seen[start] || tileBoxes[start].right < 0) continue;
    Box group;
    seen[start] = 1;
    stack.push_back(start);
    while (!stack.empty()) {
      const std::size_t k = stack.back();
      stack.pop_back();
      const Box& b = tileBoxes[k];
      group.left = std::min(group.left, b.left), group.right = std::max(group.right, b.right);
      group.top = std::min(group.top, b.top), group.bottom = std::max(group.bottom, b.bottom);
      const int tx = static_cast<int>(k % tilesX), ty = static_cast<int>(k / tilesX);
      for (int y = std::max(ty - 1, 0); y <= std::min(ty + 1, tilesY - 1); ++y) {
        for (int x = std::max(tx - 1, 0); x <= std::min(tx + 1, tilesX - 1); ++x) {
          const std::size_t q = tile(x, y);
          if (!seen[q] && tileBoxes[q].right >= 0) {
            seen[q] = 1;
            stack.push_back(q);
          }
        }
      }
    }
    result.boxes.push_back({originX + group.left, originY + group.top, group.right - group.left + 1,
                            group.bottom - group.top + 1});
  }
  return result;
}

}  // namespace saffra::compare::detail
