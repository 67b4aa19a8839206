#include "server/codec/png_decoder.h"

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "saffra/platform/internal/bytes.h"
#include "saffra/platform/internal/cpu.h"
#include "saffra/platform/internal/png_format.h"
#include "server/codec/inflater.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if SAFFRA_X86_DISPATCH
#include <immintrin.h>
#endif

namespace saffra::png {

static_assert(std::endian::native == std::endian::little, "pixels are packed little-endian");

namespace {

// Rows are rebuilt straight into the RGBA output: the filtered bytes of a row are spread to
// 4-byte pixels (alpha 0 for RGB), the filter is undone against the row above in the output,
// and for RGB the alpha bytes are set to 255 on the way out. The filters work byte by byte
// with the pixel to the left, so undoing them on 4-byte pixels gives the same colour bytes;
// the alpha bytes of RGB rows carry no information and are overwritten.
//
// Reads may run up to 16 bytes past a row's filtered bytes and writes up to 12 bytes past an
// output row: the callers leave that much room after both buffers.

#if defined(__SSE2__)

inline __m128i load128(const std::uint8_t* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}
inline void store128(std::uint8_t* p, __m128i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
}

// Four pixels from `src` as RGBA lanes: 12 bytes of RGB spread to 16 (alpha 0), or 16 of RGBA.
template <std::size_t Bpp>
inline __m128i loadPixels(const std::uint8_t* src) {
  const __m128i v = load128(src);
  if constexpr (Bpp == 4) {
    return v;
  } else {
    // Pixel k sits at byte 3k and belongs at byte 4k: shift the register left by k bytes and
    // keep lane k.
    const __m128i rgb = _mm_set_epi32(0, 0, 0, 0x00ffffff);
    return _mm_or_si128(_mm_or_si128(_mm_and_si128(v, rgb),
                                     _mm_and_si128(_mm_slli_si128(v, 1), _mm_slli_si128(rgb, 4))),
                        _mm_or_si128(_mm_and_si128(_mm_slli_si128(v, 2), _mm_slli_si128(rgb, 8)),
                                     _mm_and_si128(_mm_slli_si128(v, 3), _mm_slli_si128(rgb, 12))));
  }
}

template <std::size_t Bpp>
inline __m128i alphaBits() {
  return Bpp == 3 ? _mm_set1_epi32(static_cast<int>(0xff000000u)) : _mm_setzero_si128();
}

// Spreads the row's pixels into `out` unchanged (the None filter, and the first step of the
// filters that go pixel by pixel).
template <std::size_t Bpp>
void spreadRow(const std::uint8_t* src, std::uint8_t* out, std::size_t width, __m128i alpha) {
  for (std::size_t x = 0; x < width; x += 4) {
    store128(out + x * 4, _mm_or_si128(loadPixels<Bpp>(src + x * Bpp), alpha));
  }
}

template <std::size_t Bpp>
void unfilterSub(const std::uint8_t* src, std::uint8_t* out, std::size_t width) {
  const __m128i alpha = alphaBits<Bpp>();
  __m128i left = _mm_setzero_si128();
  for (std::size_t x = 0; x < width; x += 4) {
    // A running sum over the four pixels, then the last pixel of the group before.
    __m128i v = loadPixels<Bpp>(src + x * Bpp);
    v = _mm_add_epi8(v, _mm_slli_si128(v, 4));
    v = _mm_add_epi8(v, _mm_slli_si128(v, 8));
    v = _mm_or_si128(_mm_add_epi8(v, left), alpha);
    store128(out + x * 4, v);
    left = _mm_shuffle_epi32(v, 0xff);
  }
}

template <std::size_t Bpp>
void unfilterUp(const std::uint8_t* src, const std::uint8_t* prev, std::uint8_t* out,
                std::size_t width) {
  const __m128i alpha = alphaBits<Bpp>();
  for (std::size_t x = 0; x < width; x += 4) {
    const __m128i v = _mm_add_epi8(loadPixels<Bpp>(src + x * Bpp), load128(prev + x * 4));
    store128(out + x * 4, _mm_or_si128(v, alpha));
  }
}

#if SAFFRA_X86_DISPATCH
// RGB rows on processors with SSSE3: four pixels spread with one byte shuffle instead of the
// shifts and masks of loadPixels<3>.
SAFFRA_TARGET_SSSE3 inline __m128i loadRgbShuffled(const std::uint8_t* src) {
  return _mm_shuffle_epi8(load128(src),
                          _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1));
}
SAFFRA_TARGET_SSSE3 void spreadRgbSsse3(const std::uint8_t* src, std::uint8_t* out,
                                        std::size_t width, __m128i alpha) {
  for (std::size_t x = 0; x < width; x += 4) {
    store128(out + x * 4, _mm_or_si128(loadRgbShuffled(src + x * 3), alpha));
  }
}
SAFFRA_TARGET_SSSE3 void unfilterSubRgbSsse3(const std::uint8_t* src, std::uint8_t* out,
                                             std::size_t width) {
  const __m128i alpha = alphaBits<3>();
  __m128i left = _mm_setzero_si128();
  for (std::size_t x = 0; x < width; x += 4) {
    __m128i v = loadRgbShuffled(src + x * 3);
    v = _mm_add_epi8(v, _mm_slli_si128(v, 4));
    v = _mm_add_epi8(v, _mm_slli_si128(v, 8));
    v = _mm_or_si128(_mm_add_epi8(v, left), alpha);
    store128(out + x * 4, v);
    left = _mm_shuffle_epi32(v, 0xff);
  }
}
SAFFRA_TARGET_SSSE3 void unfilterUpRgbSsse3(const std::uint8_t* src, const std::uint8_t* prev,
                                            std::uint8_t* out, std::size_t width) {
  const __m128i alpha = alphaBits<3>();
  for (std::size_t x = 0; x < width; x += 4) {
    const __m128i v = _mm_add_epi8(loadRgbShuffled(src + x * 3), load128(prev + x * 4));
    store128(out + x * 4, _mm_or_si128(v, alpha));
  }
}
#endif

// The filters above, with the shuffling versions for RGB where the processor has them.
template <std::size_t Bpp>
void spread(const std::uint8_t* src, std::uint8_t* out, std::size_t width, __m128i alpha) {
#if SAFFRA_X86_DISPATCH
  if (Bpp == 3 && cpu::hasSsse3()) return spreadRgbSsse3(src, out, width, alpha);
#endif
  spreadRow<Bpp>(src, out, width, alpha);
}
template <std::size_t Bpp>
void sub(const std::uint8_t* src, std::uint8_t* out, std::size_t width) {
#if SAFFRA_X86_DISPATCH
  if (Bpp == 3 && cpu::hasSsse3()) return unfilterSubRgbSsse3(src, out, width);
#endif
  unfilterSub<Bpp>(src, out, width);
}
template <std::size_t Bpp>
void up(const std::uint8_t* src, const std::uint8_t* prev, std::uint8_t* out, std::size_t width) {
#if SAFFRA_X86_DISPATCH
  if (Bpp == 3 && cpu::hasSsse3()) return unfilterUpRgbSsse3(src, prev, out, width);
#endif
  unfilterUp<Bpp>(src, prev, out, width);
}

inline __m128i loadPixel16(const std::uint8_t* p) {
  return _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(bytes::load32(p))),
                           _mm_setzero_si128());
}
inline void storePixel16(std::uint8_t* p, __m128i v, __m128i alpha) {
  const __m128i packed = _mm_or_si128(_mm_packus_epi16(v, v), alpha);
  const auto bits = static_cast<std::uint32_t>(_mm_cvtsi128_si32(packed));
  std::memcpy(p, &bits, 4);
}

// The Average filter on spread pixels in `out`, one pixel at a time in 16-bit lanes.
void unfilterAverage(std::uint8_t* out, const std::uint8_t* prev, std::size_t width,
                     __m128i alpha) {
  const __m128i low = _mm_set1_epi16(0xff);
  __m128i a = _mm_setzero_si128();
  for (std::size_t x = 0; x < width; ++x) {
    const __m128i b = loadPixel16(prev + x * 4);
    const __m128i v = loadPixel16(out + x * 4);
    a = _mm_and_si128(_mm_add_epi16(v, _mm_srli_epi16(_mm_add_epi16(a, b), 1)), low);
    storePixel16(out + x * 4, a, alpha);
  }
}

// One Paeth step on pixels in 16-bit lanes: `a` left, `b` above, `c` above-left, `v` the
// filtered value; returns the decoded pixel. The lanes are independent, so a register may
// hold pixels of two rows. Everything that does not depend on `a` is worked out beside the
// chain of steps through it, which is seven operations long: pb = |a - c| and
// pc = |a + b - 2c| as maxima of differences, the three comparisons, and a choice among
// v + a, v + b and v + c (byte additions keep the sums modulo 256).
inline __m128i paeth(__m128i a, __m128i b, __m128i c, __m128i v) {
  const __m128i e = _mm_sub_epi16(b, c);
  const __m128i pa = _mm_max_epi16(e, _mm_sub_epi16(c, b));
  const __m128i eMinusC = _mm_sub_epi16(e, c), cMinusE = _mm_sub_epi16(c, e);
  const __m128i pb = _mm_max_epi16(_mm_sub_epi16(a, c), _mm_sub_epi16(c, a));
  const __m128i pc = _mm_max_epi16(_mm_add_epi16(a, eMinusC), _mm_sub_epi16(cMinusE, a));
  const __m128i va = _mm_add_epi8(v, a), vb = _mm_add_epi8(v, b), vc = _mm_add_epi8(v, c);
  // a where pa <= pb and pa <= pc, else b where pb <= pc, else c.
  const __m128i useC = _mm_cmpgt_epi16(pb, pc);
  const __m128i notA = _mm_or_si128(_mm_cmpgt_epi16(pa, pb), _mm_cmpgt_epi16(pa, pc));
  const __m128i vbOrC = _mm_or_si128(_mm_and_si128(useC, vc), _mm_andnot_si128(useC, vb));
  return _mm_or_si128(_mm_and_si128(notA, vbOrC), _mm_andnot_si128(notA, va));
}

// The Paeth filter on spread pixels [from, to) of `out`, one pixel at a time: each predictor
// needs the pixel just decoded to its left. `left` and `aboveLeft` carry that state.
void unfilterPaeth(std::uint8_t* out, const std::uint8_t* prev, std::size_t from, std::size_t to,
                   __m128i& left, __m128i& aboveLeft, __m128i alpha) {
  __m128i a = left, c = aboveLeft;  // in registers, whatever `out` may alias
  for (std::size_t x = from; x < to; ++x) {
    const __m128i b = loadPixel16(prev + x * 4);
    a = paeth(a, b, c, loadPixel16(out + x * 4));
    storePixel16(out + x * 4, a, alpha);
    c = b;
  }
  left = a, aboveLeft = c;
}

// A Paeth row being rebuilt: its filtered bytes, its pixels (spread, rebuilt in place), the row
// above and the alpha bits its pixels get on the way out.
struct PaethRow {
  const std::uint8_t* filtered;
  std::size_t bpp;
  std::uint8_t* out;
  const std::uint8_t* prev;
  __m128i alpha;

  __m128i filteredPixel(std::size_t x) const {
    std::uint32_t bits = 0;
    std::memcpy(&bits, filtered + x * bpp, bpp);
    return _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(bits)), _mm_setzero_si128());
  }
  std::uint32_t stored(std::size_t x) const { return bytes::load32(out + x * 4); }
  std::uint32_t packed(__m128i pixel) const {
    return static_cast<std::uint32_t>(
        _mm_cvtsi128_si32(_mm_or_si128(_mm_packus_epi16(pixel, pixel), alpha)));
  }
};

// Each pixel of a Paeth row needs the one just rebuilt to its left, a chain of steps that leaves
// most of the processor idle. So a row is rebuilt as stretches side by side, two chains per
// register and two registers at once: a stretch that does not start its row starts from a
// guess of the pixel before it, the pixel above that one, which a screen's flat areas make
// right. Where the guess was wrong, redoFromGuess() rebuilds the stretch again from the true
// pixel until a pixel comes out as before: from there on both agree, as the filter reads
// nothing else of the row to the left.
constexpr std::size_t kMinStretch = 8;

struct Stretch {
  const PaethRow* row;
  std::size_t from;
};

#if SAFFRA_X86_DISPATCH
// The four chains of paethStretches() in one AVX2 register (chain k in its k-th 64 bits): the
// same steps, half the instructions.
SAFFRA_TARGET_AVX2 inline __m256i paeth4(__m256i a, __m256i b, __m256i c, __m256i v) {
  const __m256i e = _mm256_sub_epi16(b, c);
  const __m256i pa = _mm256_abs_epi16(e);
  const __m256i d = _mm256_sub_epi16(a, c);
  const __m256i pb = _mm256_abs_epi16(d), pc = _mm256_abs_epi16(_mm256_add_epi16(d, e));
  const __m256i va = _mm256_add_epi8(v, a), vb = _mm256_add_epi8(v, b);
  const __m256i vc = _mm256_add_epi8(v, c);
  // a where pa <= pb and pa <= pc, else b where pb <= pc, else c.
  const __m256i notA = _mm256_or_si256(_mm256_cmpgt_epi16(pa, pb), _mm256_cmpgt_epi16(pa, pc));
  const __m256i vbOrC = _mm256_blendv_epi8(vb, vc, _mm256_cmpgt_epi16(pb, pc));
  return _mm256_blendv_epi8(va, vbOrC, notA);
}

// Pixel i of four rows, one per chain, as 16-bit lanes.
template <class Row>
SAFFRA_TARGET_AVX2 inline __m256i gatherPixels(const Row (&rows)[4], std::size_t i) {
  __m128i pixel[4];
  for (int k = 0; k < 4; ++k) {
    pixel[k] = _mm_cvtsi32_si128(static_cast<int>(bytes::load32(rows[k] + i * 4)));
  }
  return _mm256_cvtepu8_epi16(_mm_unpacklo_epi64(_mm_unpacklo_epi32(pixel[0], pixel[1]),
                                                 _mm_unpacklo_epi32(pixel[2], pixel[3])));
}
// Four chains' states (each in the low half of its own register) in one register.
SAFFRA_TARGET_AVX2 inline __m256i joinChains(const __m128i (&parts)[4]) {
  return _mm256_set_m128i(_mm_unpacklo_epi64(parts[2], parts[3]),
                          _mm_unpacklo_epi64(parts[0], parts[1]));
}

SAFFRA_TARGET_AVX2 void paethStretchesAvx2(std::uint8_t* const (&outs)[4],
                                           const std::uint8_t* const (&prevs)[4],
                                           const __m128i (&start)[4], const __m128i (&alphas)[4],
                                           std::size_t length, __m128i (&left)[4],
                                           __m128i (&aboveLeft)[4]) {
  __m256i a = joinChains(start), c = a;
  // The alpha bits of each chain's pixels where packing puts them (bytes 0-7 of each half).
  const __m256i alpha = _mm256_set_m128i(_mm_unpacklo_epi32(alphas[2], alphas[3]),
                                         _mm_unpacklo_epi32(alphas[0], alphas[1]));
  for (std::size_t i = 0; i < length; ++i) {
    const __m256i b = gatherPixels(prevs, i);
    a = paeth4(a, b, c, gatherPixels(outs, i));
    c = b;
    const __m256i packed = _mm256_or_si256(_mm256_packus_epi16(a, a), alpha);
    const __m128i low = _mm256_castsi256_si128(packed), high = _mm256_extracti128_si256(packed, 1);
    const std::uint32_t words[4] = {static_cast<std::uint32_t>(_mm_cvtsi128_si32(low)),
                                    static_cast<std::uint32_t>(_mm_extract_epi32(low, 1)),
                                    static_cast<std::uint32_t>(_mm_cvtsi128_si32(high)),
                                    static_cast<std::uint32_t>(_mm_extract_epi32(high, 1))};
    for (int k = 0; k < 4; ++k) std::memcpy(outs[k] + i * 4, &words[k], 4);
  }
  const __m128i zero = _mm_setzero_si128();
  const __m128i halves[2][2] = {{_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1)},
                                {_mm256_castsi256_si128(c), _mm256_extracti128_si256(c, 1)}};
  for (int k = 0; k < 4; ++k) {
    const bool high = k % 2 != 0;
    left[k] = high ? _mm_unpackhi_epi64(halves[0][k / 2], zero)
                   : _mm_unpacklo_epi64(halves[0][k / 2], zero);
    aboveLeft[k] = high ? _mm_unpackhi_epi64(halves[1][k / 2], zero)
                        : _mm_unpacklo_epi64(halves[1][k / 2], zero);
  }
}
#endif

// Runs four stretches of `length` pixels side by side; `left` and `aboveLeft` receive each
// chain's state after its last pixel (in the low half).
void paethStretches(const Stretch (&s)[4], std::size_t length, __m128i (&left)[4],
                    __m128i (&aboveLeft)[4]) {
  const __m128i zero = _mm_setzero_si128();
  const auto start = [&](int k) {
    return s[k].from ? loadPixel16(s[k].row->prev + (s[k].from - 1) * 4) : zero;
  };
  __m128i a[2], c[2], alpha[2];
  for (int r = 0; r < 2; ++r) {
    a[r] = c[r] = _mm_unpacklo_epi64(start(2 * r), start(2 * r + 1));
    alpha[r] = _mm_unpacklo_epi32(s[2 * r].row->alpha, s[2 * r + 1].row->alpha);
  }
  std::uint8_t* outs[4];
  const std::uint8_t* prevs[4];
  for (int k = 0; k < 4; ++k) {
    outs[k] = s[k].row->out + s[k].from * 4;
    prevs[k] = s[k].row->prev + s[k].from * 4;
  }
#if SAFFRA_X86_DISPATCH
  if (cpu::hasAvx2()) {
    const __m128i starts[4] = {start(0), start(1), start(2), start(3)};
    const __m128i alphas[4] = {s[0].row->alpha, s[1].row->alpha, s[2].row->alpha, s[3].row->alpha};
    paethStretchesAvx2(outs, prevs, starts, alphas, length, left, aboveLeft);
    return;
  }
#endif
  for (std::size_t i = 0; i < length; ++i) {
    for (int r = 0; r < 2; ++r) {
      std::uint8_t* one = outs[2 * r] + i * 4;
      std::uint8_t* two = outs[2 * r + 1] + i * 4;
      const __m128i b = _mm_unpacklo_epi64(loadPixel16(prevs[2 * r] + i * 4),
                                           loadPixel16(prevs[2 * r + 1] + i * 4));
      a[r] = paeth(a[r], b, c[r], _mm_unpacklo_epi64(loadPixel16(one), loadPixel16(two)));
      c[r] = b;
      const __m128i packed = _mm_or_si128(_mm_packus_epi16(a[r], a[r]), alpha[r]);
      const auto low = static_cast<std::uint32_t>(_mm_cvtsi128_si32(packed));
      const auto high = static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(packed, 4)));
      std::memcpy(one, &low, 4);
      std::memcpy(two, &high, 4);
    }
  }
  for (int k = 0; k < 4; ++k) {
    const bool high = k % 2 != 0;
    left[k] = high ? _mm_unpackhi_epi64(a[k / 2], zero) : _mm_unpacklo_epi64(a[k / 2], zero);
    aboveLeft[k] = high ? _mm_unpackhi_epi64(c[k / 2], zero) : _mm_unpacklo_epi64(c[k / 2], zero);
  }
}

// Rebuilds pixels [from, to) of `row` again from the true pixel before `from`, if the guess of
// it was wrong, until one comes out as before.
void redoFromGuess(const PaethRow& row, std::size_t from, std::size_t to) {
  const auto guessed = bytes::load32(row.prev + (from - 1) * 4) |
                       static_cast<std::uint32_t>(_mm_cvtsi128_si32(row.alpha));
  if (row.stored(from - 1) == guessed) return;
  __m128i a = loadPixel16(row.out + (from - 1) * 4), c = loadPixel16(row.prev + (from - 1) * 4);
  for (std::size_t x = from; x < to; ++x) {
    const __m128i b = loadPixel16(row.prev + x * 4);
    a = paeth(a, b, c, row.filteredPixel(x));
    c = b;
    const std::uint32_t value = row.packed(a);
    if (value == row.stored(x)) return;
    std::memcpy(row.out + x * 4, &value, 4);
  }
}

// One Paeth row alone, as four stretches.
void unfilterPaethRow(const PaethRow& row, std::size_t width) {
  __m128i left[4], aboveLeft[4];
  const std::size_t length = width / 4;
  if (length < kMinStretch) {
    left[0] = aboveLeft[0] = _mm_setzero_si128();
    unfilterPaeth(row.out, row.prev, 0, width, left[0], aboveLeft[0], row.alpha);
    return;
  }
  paethStretches({{&row, 0}, {&row, length}, {&row, 2 * length}, {&row, 3 * length}}, length, left,
                 aboveLeft);
  unfilterPaeth(row.out, row.prev, 4 * length, width, left[3], aboveLeft[3], row.alpha);
  for (std::size_t k = 1; k < 4; ++k) {
    redoFromGuess(row, k * length, k < 3 ? (k + 1) * length : width);
  }
}

// Paeth rows of two images of the same width, as two stretches each.
void unfilterPaethRows(const PaethRow& first, const PaethRow& second, std::size_t width) {
  __m128i left[4], aboveLeft[4];
  const std::size_t length = width / 2;
  if (length < kMinStretch) {
    for (const PaethRow* row : {&first, &second}) {
      left[0] = aboveLeft[0] = _mm_setzero_si128();
      unfilterPaeth(row->out, row->prev, 0, width, left[0], aboveLeft[0], row->alpha);
    }
    return;
  }
  paethStretches({{&first, 0}, {&first, length}, {&second, 0}, {&second, length}}, length, left,
                 aboveLeft);
  unfilterPaeth(first.out, first.prev, 2 * length, width, left[1], aboveLeft[1], first.alpha);
  unfilterPaeth(second.out, second.prev, 2 * length, width, left[3], aboveLeft[3], second.alpha);
  redoFromGuess(first, length, width);
  redoFromGuess(second, length, width);
}

// Rebuilds output row `out` from the filtered bytes `src`; `prev` is the output row above, or
// nullptr for the first row. False for an unknown filter type.
template <std::size_t Bpp>
bool decodeRow(std::uint8_t type, const std::uint8_t* src, const std::uint8_t* prev,
               std::uint8_t* out, std::size_t width) {
  const __m128i alpha = alphaBits<Bpp>();
  if (!prev) {
    // Above the first row every byte reads as 0: Up is None and Paeth is Sub.
    if (type == 2) type = 0;
    if (type == 4) type = 1;
  }
  switch (type) {
    case 0:
      spread<Bpp>(src, out, width, alpha);
      return true;
    case 1:
      sub<Bpp>(src, out, width);
      return true;
    case 2:
      up<Bpp>(src, prev, out, width);
      return true;
    case 3: {
      spread<Bpp>(src, out, width, _mm_setzero_si128());
      static thread_local std::vector<std::uint8_t> zeros;
      if (!prev) {
        zeros.assign(width * 4, 0);
        prev = zeros.data();
      }
      unfilterAverage(out, prev, width, alpha);
      return true;
    }
    case 4:
      spread<Bpp>(src, out, width, _mm_setzero_si128());
      unfilterPaethRow({src, Bpp, out, prev, alpha}, width);
      return true;
    default:
      return false;
  }
}

#else

// Portable version of the above, byte by byte.
template <std::size_t Bpp>
bool decodeRow(std::uint8_t type, const std::uint8_t* src, const std::uint8_t* prev,
               std::uint8_t* out, std::size_t width) {
  if (type > 4) return false;
  for (std::size_t x = 0; x < width; ++x) {
    for (std::size_t c = 0; c < 4; ++c) out[x * 4 + c] = c < Bpp ? src[x * Bpp + c] : 0;
  }
  const std::size_t n = width * 4;
  for (std::size_t i = 0; i < n; ++i) {
    const int a = i >= 4 ? out[i - 4] : 0, b = prev ? prev[i] : 0;
    const int c = prev && i >= 4 ? prev[i - 4] : 0;
    int predictor = 0;
    switch (type) {
      case 1:
        predictor = a;
        break;
      case 2:
        predictor = b;
        break;
      case 3:
        predictor = (a + b) >> 1;
        break;
      case 4: {
        const int pa = std::abs(b - c), pb = std::abs(a - c), pc = std::abs(a + b - 2 * c);
        predictor = (pa <= pb && pa <= pc) ? a : (pb <= pc ? b : c);
        break;
      }
      default:
        break;
    }
    out[i] = static_cast<std::uint8_t>(out[i] + predictor);
  }
  if (Bpp == 3) {
    for (std::size_t x = 0; x < width; ++x) out[x * 4 + 3] = 255;
  }
  return true;
}

#endif

// The rows of one image while it is rebuilt: `raw` holds the inflated rows (each a filter type
// byte and `width` * Bpp filtered bytes), `rgba` receives width * 4 bytes per row.
template <std::size_t Bpp>
struct Rows {
  const std::uint8_t* raw;
  std::uint8_t* rgba;
  std::size_t width, height;
  std::size_t rawOffset = 0;  // the position in the inflated rows of raw[0]
  // Where the last row is rebuilt instead, when what follows it is not this decoding's to
  // overwrite (see the note on reads and writes above).
  std::uint8_t* lastRow = nullptr;

  std::size_t rawRow() const { return width * Bpp + 1; }
  std::size_t outRow() const { return width * 4; }
  const std::uint8_t* filtered(std::size_t y) const { return raw + (y * rawRow() - rawOffset); }
  std::uint8_t type(std::size_t y) const { return filtered(y)[0]; }
  std::uint8_t* out(std::size_t y) const {
    return lastRow && y + 1 == height ? lastRow : rgba + y * outRow();
  }
  // A Paeth row with a row above: one step of a chain through every pixel.
  bool isPaeth(std::size_t y) const { return y > 0 && y < height && type(y) == 4; }

  bool decode(std::size_t y) const {
    return decodeRow<Bpp>(type(y), filtered(y) + 1, y ? out(y - 1) : nullptr, out(y), width);
  }
#if defined(__SSE2__)
  void spread(std::size_t y) const {
    png::spread<Bpp>(filtered(y) + 1, out(y), width, _mm_setzero_si128());
  }
  // Row y, a Paeth row, as a PaethRow (spread first).
  PaethRow paethRow(std::size_t y) const {
    spread(y);
    return {filtered(y) + 1, Bpp, out(y), out(y - 1), alphaBits<Bpp>()};
  }
#endif
};

// Rebuilds rows [from, to) of one image.
template <std::size_t Bpp>
bool decodeRows(const Rows<Bpp>& rows, std::size_t from, std::size_t to) {
  for (std::size_t y = from; y < to; ++y) {
    if (!rows.decode(y)) return false;
  }
  return true;
}

// Rebuilds two images of the same width, as a comparison reads them, as far as both have
// inflated rows: a row of `b` whose filtered bytes are those of the same row of `a`, and whose
// row above (if its filter reads it) holds the same pixels, is a copy of `a`'s row and is not
// rebuilt; a Paeth row of `b` that must be rebuilt runs beside the same row of `a` when that is
// Paeth too (whatever the two pixel formats), each as two stretches. Screenshots of the same screen
// share most rows, and their encoder picks the same filters for the same rows.
template <std::size_t BppA, std::size_t BppB>
class RowsTogether {
 public:
  RowsTogether(const Rows<BppA>& a, const Rows<BppB>& b, std::uint8_t* same)
      : a_(a), b_(b), same_(same), height_(std::min(a.height, b.height)) {
    sameFiltered_.assign(height_, 0);
  }

  // Rebuilds the rows not done yet below `limit` (rows both images hold whole).
  bool upTo(std::size_t limit) {
    limit = std::min(limit, height_);
    if constexpr (BppA == BppB) {  // files of other pixel formats share no filtered bytes
      for (; checked_ < limit; ++checked_) {
        sameFiltered_[checked_] =
            std::memcmp(a_.filtered(checked_), b_.filtered(checked_), a_.rawRow()) == 0;
      }
    }
    const Rows<BppA>& a = a_;
    const Rows<BppB>& b = b_;
    std::uint8_t* const same = same_;
    // Whether b's row y is a copy of a's: its filter ignores the row above, or that row holds
    // the same pixels in both (above row 0 every byte reads as zero in both).
    const auto copied = [&](std::size_t y) {
      return sameFiltered_[y] && (b.type(y) <= 1 || y == 0 || same[y - 1]);
    };
    const auto compareRow = [&](std::size_t y) {
      same[y] = std::memcmp(a.out(y), b.out(y), a.outRow()) == 0;
    };
    // Rebuilds b's row y, or copies a's, once a's row is done.
    bool ok = true;
    const auto finishB = [&](std::size_t y, bool copy) {
      if (copy) {
        std::memcpy(b.out(y), a.out(y), a.outRow());
        same[y] = 1;
        return;
      }
      if (!b.decode(y)) ok = false;
      compareRow(y);
    };
    std::size_t y = next_;
    while (y < limit && ok) {
      const bool copy = copied(y);
#if defined(__SSE2__)
      if (!copy && a.isPaeth(y) && b.isPaeth(y)) {
        unfilterPaethRows(a.paethRow(y), b.paethRow(y), a.width);
        compareRow(y++);
        continue;
      }
#endif
      if (!a.decode(y)) return false;
      finishB(y, copy);
      ++y;
    }
    next_ = y;
    return ok;
  }

  // Once both are inflated: the rows past the shorter image's end belong to the taller alone.
  bool finish() {
    return upTo(height_) && decodeRows(a_, height_, a_.height) &&
           decodeRows(b_, height_, b_.height);
  }

 private:
  const Rows<BppA>& a_;
  const Rows<BppB>& b_;
  std::uint8_t* same_;
  const std::size_t height_;
  std::vector<std::uint8_t> sameFiltered_;
  std::size_t checked_ = 0, next_ = 0;
};

struct Header {
  std::size_t width = 0, height = 0, bpp = 0;
};

// A PNG of the common kind, its chunks read: the header and the compressed rows.
struct Common {
  explicit Common(std::vector<std::uint8_t>& buffer) : compressed(buffer) {}

  Header header;
  // The IDAT chunks' bytes, then the padding the inflater reads past them.
  std::vector<std::uint8_t>& compressed;
  std::size_t compressedSize = 0;
  // The body of the file's band list (kBandChunkType), if it has one.
  std::span<const std::uint8_t> bandList;

  std::size_t rawRow() const { return header.width * header.bpp + 1; }
};

// Reads the chunks of a PNG of the common kind. False for any other kind of file, or any
// damage to its chunks.
bool readCommon(const std::uint8_t* data, std::size_t size, Common& png) {
  if (!data || size < 8 + 25 || std::memcmp(data, kPngSignature, 8) != 0) return false;
  std::size_t width = 0, height = 0, bpp = 0;
  std::vector<std::uint8_t>& compressed = png.compressed;
  compressed.clear();
  bool ended = false;
  png.bandList = {};
  for (std::size_t at = 8; at + 12 <= size && !ended;) {
    const std::size_t length = bytes::loadBigEndian32(data + at);
    if (length > size - at - 12) return false;
    const std::uint8_t* type = data + at + 4;
    const std::uint8_t* body = type + 4;
    if (libdeflate_crc32(0, type, length + 4) != bytes::loadBigEndian32(body + length))
      return false;
    if (at == 8) {
      // IHDR: 8-bit truecolour with or without alpha, deflate, standard filters, no interlace.
      if (std::memcmp(type, "IHDR", 4) != 0 || length != 13) return false;
      width = bytes::loadBigEndian32(body);
      height = bytes::loadBigEndian32(body + 4);
      if (body[8] != 8 || (body[9] != 2 && body[9] != 6) || body[10] || body[11] || body[12]) {
        return false;
      }
      bpp = body[9] == 6 ? 4 : 3;
      if (width == 0 || height == 0 || width > Image::kMaxDimension ||
          height > Image::kMaxDimension || width * height > Image::kMaxPixels) {
        return false;
      }
    } else if (std::memcmp(type, "IDAT", 4) == 0) {
      compressed.insert(compressed.end(), body, body + length);
    } else if (std::memcmp(type, "tRNS", 4) == 0 || std::memcmp(type, "PLTE", 4) == 0) {
      return false;  // a transparency key (or an unexpected palette): the general decoder
    } else if (std::memcmp(type, "IEND", 4) == 0) {
      ended = true;
    } else if (std::memcmp(type, kBandChunkType, 4) == 0) {
      png.bandList = {body, length};
    }
    at += 12 + length;
  }
  if (!ended || compressed.empty()) return false;
  png.compressedSize = compressed.size();
  compressed.resize(png.compressedSize + inflate::kInputPadding, 0);
  png.header = {width, height, bpp};
  return true;
}

// Rows are inflated and rebuilt piece by piece, about this many inflated bytes at a time, so
// each piece is rebuilt (and checksummed) while it is still in the processor's caches.
constexpr std::size_t kPiece = std::size_t{48} << 10;
constexpr std::size_t kSlack = 32;  // spare bytes after the inflated and the rebuilt rows
static_assert(kSlack >= inflate::kOutputSlack);

// The inflation of `height` rows of `rawRow` bytes into `raw`: one PNG's rows, or a band of
// them. With `reuse`, `raw` is a buffer of a few hundred KiB used again from its start (the
// caller rebuilds rows as they come and releases them), so the inflated rows never leave the
// processor's caches; else it holds every row.
struct Inflation {
  std::size_t rawRow, height;
  std::vector<std::uint8_t>& raw;
  inflate::Stream stream;

  Inflation(const Common& p, std::vector<std::uint8_t>& r, bool reuse = false)
      : Inflation(p.compressed.data(), p.compressedSize, p.rawRow(), p.header.height, r, reuse,
                  inflate::Framing::Zlib) {}
  Inflation(const std::uint8_t* in, std::size_t inSize, std::size_t rowBytes, std::size_t rows,
            std::vector<std::uint8_t>& r, bool reuse, inflate::Framing framing)
      : rawRow(rowBytes),
        height(rows),
        raw(sized(r, capacity(rowBytes, rows, reuse))),
        stream(in, inSize, r.data(), capacity(rowBytes, rows, reuse), rowBytes * rows, framing) {}
  static std::size_t capacity(std::size_t rawRow, std::size_t rows, bool reuse) {
    if (!reuse) return rawRow * rows;
    const std::size_t step = std::max(kPiece, rawRow);
    return std::min(rawRow * rows,
                    std::max(std::size_t{512} << 10, inflate::kMinCapacity + 4 * step));
  }
  static std::vector<std::uint8_t>& sized(std::vector<std::uint8_t>& r, std::size_t capacity) {
    r.resize(capacity + kSlack);
    return r;
  }
  // Inflates at least the rows before `rows` (or all); false on damage.
  bool advance(std::size_t rows) { return stream.finished() || stream.advance(rows * rawRow); }
  // The caller needs no row before `rows` any more.
  void release(std::size_t rows) { stream.release(rows * rawRow); }
  // Rows inflated whole.
  std::size_t rowsReady() const { return stream.finished() ? height : stream.produced() / rawRow; }
  std::size_t rowsPerPiece() const { return std::max<std::size_t>(1, kPiece / rawRow); }
};

// Inflates and rebuilds every row of `rows` piece by piece, calling `piece(rowsDone)` after
// each. A band that stands alone (`standalone`) must not filter its first row against the
// row above, which belongs to another band.
template <std::size_t Bpp, class Piece>
bool inflateAndRebuild(Inflation& inflation, Rows<Bpp> rows, bool standalone, Piece piece) {
  std::size_t done = 0;
  while (!inflation.stream.finished()) {
    if (!inflation.advance(done + inflation.rowsPerPiece())) return false;
    const std::size_t ready = inflation.rowsReady();
    rows.rawOffset = inflation.stream.offset();
    if (standalone && done == 0 && ready > 0 && rows.type(0) > 1) return false;
    if (!decodeRows(rows, done, ready)) return false;
    done = ready;
    inflation.release(done);
    piece(done);
  }
  return true;
}

// The inflated rows go to buffers each thread keeps, so large images cost no fresh memory;
// unusually large ones are let go afterwards.
void releaseIfLarge(std::vector<std::uint8_t>& raw) {
  if (raw.capacity() > (std::size_t{64} << 20)) std::vector<std::uint8_t>().swap(raw);
}

template <std::size_t Bpp>
Rows<Bpp> rowsOf(const std::vector<std::uint8_t>& raw, DecodedPixels& out, const Header& h) {
  // Spare bytes after the output let the rows be rebuilt in whole 16-byte words.
  out.rgba.resize(h.height * h.width * 4 + kSlack);
  out.width = h.width;
  out.height = h.height;
  return {raw.data(), out.rgba.data(), h.width, h.height};
}

bool rowsDone(bool ok, DecodedPixels& out) {
  if (ok) out.rgba.resize(out.width * out.height * 4);
  return ok;
}

// Inflates and rebuilds all rows of one image into `out`, publishing them to `progress`.
bool decodeAlone(const Common& png, std::vector<std::uint8_t>& raw, DecodedPixels& out,
                 RowProgress* progress = nullptr) {
  Inflation inflation(png, raw, true);
  const auto run = [&](auto rows) {
    if (progress) progress->begin(out.rgba.data(), out.width, out.height);
    return inflateAndRebuild(inflation, rows, false, [&](std::size_t done) {
      if (progress) progress->publish(done);
    });
  };
  const Header& h = png.header;
  return rowsDone(h.bpp == 4 ? run(rowsOf<4>(raw, out, h)) : run(rowsOf<3>(raw, out, h)), out);
}

// Inflates two images of the same width side by side and rebuilds them together.
bool decodeTogether(const Common& pngA, std::vector<std::uint8_t>& rawA, DecodedPixels& a,
                    const Common& pngB, std::vector<std::uint8_t>& rawB, DecodedPixels& b,
                    std::uint8_t* same) {
  Inflation inflationA(pngA, rawA), inflationB(pngB, rawB);
  const auto run = [&](const auto& rowsA, const auto& rowsB) {
    RowsTogether together(rowsA, rowsB, same);
    std::size_t done = 0;
    while (!inflationA.stream.finished() || !inflationB.stream.finished()) {
      const std::size_t target = done + inflationA.rowsPerPiece();
      if (!inflationA.advance(target) || !inflationB.advance(target)) return false;
      done = std::min(inflationA.rowsReady(), inflationB.rowsReady());
      if (!together.upTo(done)) return false;
    }
    return together.finish();
  };
  const Header &ha = pngA.header, &hb = pngB.header;
  bool ok = false;
  if (ha.bpp == 4) {
    ok = hb.bpp == 4 ? run(rowsOf<4>(rawA, a, ha), rowsOf<4>(rawB, b, hb))
                     : run(rowsOf<4>(rawA, a, ha), rowsOf<3>(rawB, b, hb));
  } else {
    ok = hb.bpp == 4 ? run(rowsOf<3>(rawA, a, ha), rowsOf<4>(rawB, b, hb))
                     : run(rowsOf<3>(rawA, a, ha), rowsOf<3>(rawB, b, hb));
  }
  return rowsDone(ok, a) && rowsDone(ok, b);
}

}  // namespace

std::shared_ptr<Image> decodeCommon(const std::uint8_t* data, std::size_t size, double scale) {
  std::vector<std::uint8_t> rgba;
  std::size_t width = 0, height = 0;
  if (!decodeCommonInto(data, size, rgba, width, height)) return nullptr;
  return std::make_shared<Image>(width, height, std::move(rgba), scale);
}

bool decodeCommonInto(const std::uint8_t* data, std::size_t size, std::vector<std::uint8_t>& rgba,
                      std::size_t& width, std::size_t& height, RowProgress* progress) {
  static thread_local std::vector<std::uint8_t> compressed, raw;
  Common png{compressed};
  DecodedPixels out{rgba};
  const bool ok = readCommon(data, size, png) && decodeAlone(png, raw, out, progress);
  releaseIfLarge(raw);
  releaseIfLarge(compressed);
  if (!ok) {
    if (progress) progress->fail();
    return false;
  }
  width = out.width;
  height = out.height;
  return true;
}

bool decodeCommonPairInto(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second,
                          DecodedPixels& a, DecodedPixels& b, std::vector<std::uint8_t>& sameRows) {
  static thread_local std::vector<std::uint8_t> compressedA, compressedB, rawA, rawB;
  Common pngA{compressedA}, pngB{compressedB};
  if (!readCommon(first.data(), first.size(), pngA) ||
      !readCommon(second.data(), second.size(), pngB)) {
    return false;
  }
  sameRows.assign(pngB.header.height, 0);
  const bool ok = pngA.header.width != pngB.header.width
                      ? decodeAlone(pngA, rawA, a) && decodeAlone(pngB, rawB, b)
                      : decodeTogether(pngA, rawA, a, pngB, rawB, b, sameRows.data());
  for (auto* buffer : {&rawA, &rawB, &compressedA, &compressedB}) releaseIfLarge(*buffer);
  return ok;
}

// ---------------------------------------------------------------------------------------------
// Files compressed in bands

struct BandIndex {
  struct Band {
    std::size_t firstRow = 0, rows = 0;
    std::size_t offset = 0, size = 0;  // the band's deflate blocks in `compressed`
    std::uint32_t adler = 1;           // of the band's inflated rows
  };
  Header header;
  std::vector<std::uint8_t> compressed;  // the IDAT chunks' bytes
  std::vector<Band> bands;
};

struct BandedDecoder::State {
  std::vector<std::uint8_t> compressed;
  Common png{compressed};
  std::vector<BandIndex::Band> bands;
  std::uint8_t* rgba = nullptr;
  RowProgress* progress = nullptr;
  std::shared_ptr<const BandIndex> reference;
  const std::uint8_t* referenceRgba = nullptr;
  std::vector<std::uint8_t> copied;  // per band: 1 where it is the reference's band

  std::atomic<std::size_t> next{0};
  std::atomic<bool> failed{false};
  std::mutex mutex;                // guards what follows
  std::vector<std::uint8_t> done;  // per band
  std::size_t doneBefore = 0;      // bands [0, doneBefore) are all done
  std::shared_ptr<const BandIndex> index;

  // Reads the band list: bands of at least one row and one byte that cover every row and
  // every byte between the zlib header and the Adler-32.
  bool readBands() {
    const std::span<const std::uint8_t> list = png.bandList;
    if (list.size() < 16 || list.size() % 8 != 0) return false;
    std::size_t row = 0, offset = 2;
    for (std::size_t at = 0; at < list.size(); at += 8) {
      BandIndex::Band band;
      band.firstRow = row;
      band.rows = bytes::loadBigEndian32(list.data() + at);
      band.offset = offset;
      band.size = bytes::loadBigEndian32(list.data() + at + 4);
      if (band.rows == 0 || band.size == 0 || band.rows > png.header.height - row ||
          band.size > png.compressedSize - offset) {
        return false;
      }
      row += band.rows;
      offset += band.size;
      bands.push_back(band);
    }
    return row == png.header.height && png.compressedSize >= 6 && offset == png.compressedSize - 4;
  }

  // Band k's bytes and place are those of the reference's band k, which were decoded alone.
  bool sameAsReference(std::size_t k) const {
    if (!reference || !referenceRgba) return false;
    const BandIndex& r = *reference;
    if (r.header.width != png.header.width || r.header.height != png.header.height ||
        r.header.bpp != png.header.bpp || r.bands.size() != bands.size()) {
      return false;
    }
    const BandIndex::Band &a = bands[k], &b = r.bands[k];
    return a.firstRow == b.firstRow && a.rows == b.rows && a.size == b.size &&
           std::memcmp(compressed.data() + a.offset, r.compressed.data() + b.offset, a.size) == 0;
  }

  template <std::size_t Bpp>
  bool inflateBand(BandIndex::Band& band) {
    static thread_local std::vector<std::uint8_t> raw, last;
    const Header& h = png.header;
    const auto framing =
        &band == &bands.back() ? inflate::Framing::LastBand : inflate::Framing::Band;
    Inflation inflation(compressed.data() + band.offset, band.size, png.rawRow(), band.rows, raw,
                        true, framing);
    // The band's last row is rebuilt aside: rebuilding writes a little past a row's end, into
    // the next band's first row, which another thread may have rebuilt already.
    last.resize(h.width * 4 + kSlack);
    const std::size_t outRow = h.width * 4;
    Rows<Bpp> rows{raw.data(), rgba + band.firstRow * outRow, h.width, band.rows};
    rows.lastRow = last.data();
    const bool ok = inflateAndRebuild(inflation, rows, true, [](std::size_t) {});
    if (ok) {
      std::memcpy(rgba + (band.firstRow + band.rows - 1) * outRow, last.data(), outRow);
      band.adler = inflation.stream.adler();
    }
    releaseIfLarge(raw);
    return ok;
  }

  bool decodeBand(std::size_t k) {
    BandIndex::Band& band = bands[k];
    if (copied[k]) {
      const std::size_t outRow = png.header.width * 4;
      std::memcpy(rgba + band.firstRow * outRow, referenceRgba + band.firstRow * outRow,
                  band.rows * outRow);
      band.adler = reference->bands[k].adler;
      return true;
    }
    return png.header.bpp == 4 ? inflateBand<4>(band) : inflateBand<3>(band);
  }

  void bandDone(std::size_t k) {
    std::size_t rows = 0;
    {
      std::lock_guard lock(mutex);
      done[k] = 1;
      if (k != doneBefore) return;
      while (doneBefore < bands.size() && done[doneBefore]) ++doneBefore;
      rows = doneBefore < bands.size() ? bands[doneBefore].firstRow : png.header.height;
    }
    if (progress) progress->publish(rows);
  }
};

BandedDecoder::BandedDecoder() : state_(std::make_unique<State>()) {}
BandedDecoder::~BandedDecoder() = default;

bool BandedDecoder::open(std::span<const std::uint8_t> file, std::vector<std::uint8_t>& rgba,
                         RowProgress* progress, std::shared_ptr<const BandIndex> reference,
                         const std::uint8_t* referenceRgba) {
  State& s = *state_;
  if (!readCommon(file.data(), file.size(), s.png) || s.png.bandList.empty() || !s.readBands()) {
    return false;
  }
  if (!inflate::zlibHeaderAccepted(s.compressed.data(), s.png.compressedSize)) return false;
  const Header& h = s.png.header;
  rgba.resize(h.width * h.height * 4);
  s.rgba = rgba.data();
  s.progress = progress;
  s.reference = std::move(reference);
  s.referenceRgba = referenceRgba;
  s.done.assign(s.bands.size(), 0);
  s.copied.assign(s.bands.size(), 0);
  std::vector<std::uint8_t> sameRows;
  for (std::size_t k = 0; k < s.bands.size(); ++k) {
    if (!s.sameAsReference(k)) continue;
    s.copied[k] = 1;
    sameRows.resize(h.height, 0);
    std::memset(sameRows.data() + s.bands[k].firstRow, 1, s.bands[k].rows);
  }
  if (progress) progress->begin(s.rgba, h.width, h.height, std::move(sameRows), true);
  return true;
}

std::size_t BandedDecoder::width() const {
  return state_->png.header.width;
}
std::size_t BandedDecoder::height() const {
  return state_->png.header.height;
}

bool BandedDecoder::work(const std::function<void()>& afterBand) {
  State& s = *state_;
  try {
    for (std::size_t k = s.next++; k < s.bands.size() && !s.failed; k = s.next++) {
      if (!s.decodeBand(k)) {
        s.failed = true;
        break;
      }
      s.bandDone(k);
      if (afterBand) afterBand();
    }
  } catch (...) {
    s.failed = true;  // no memory for a band's buffers
  }
  return !s.failed;
}

bool BandedDecoder::finish() {
  State& s = *state_;
  bool ok = !s.failed && s.doneBefore == s.bands.size();
  if (ok) {
    // The stream's checksum from the bands' ones.
    std::uint32_t adler = s.bands[0].adler;
    for (std::size_t k = 1; k < s.bands.size(); ++k) {
      adler = static_cast<std::uint32_t>(adler32_combine(
          adler, s.bands[k].adler, static_cast<z_off_t>(s.bands[k].rows * s.png.rawRow())));
    }
    ok = adler == bytes::loadBigEndian32(s.compressed.data() + s.png.compressedSize - 4);
  }
  if (!ok) {
    if (s.progress) s.progress->fail();
    return false;
  }
  auto index = std::make_shared<BandIndex>();
  index->header = s.png.header;
  s.compressed.resize(s.png.compressedSize);
  index->compressed = std::move(s.compressed);
  index->bands = std::move(s.bands);
  s.index = std::move(index);
  return true;
}

std::shared_ptr<const BandIndex> BandedDecoder::index() const {
  return state_->index;
}

}  // namespace saffra::png
