#include "saffra/platform/png_fast.h"

#include <bit>
#include <cstdlib>
#include <cstring>
#include <vector>

#ifdef SAFFRA_HAVE_LIBDEFLATE
#include <libdeflate.h>
#endif
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace saffra::png {

static_assert(std::endian::native == std::endian::little, "pixels are packed little-endian");

#ifdef SAFFRA_HAVE_LIBDEFLATE

namespace {

std::uint32_t bigEndian(const std::uint8_t* p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

struct Decompressor {
  libdeflate_decompressor* d = libdeflate_alloc_decompressor();
  ~Decompressor() { libdeflate_free_decompressor(d); }
};

#if defined(__SSE2__)
// Loads four bytes (a pixel and, for 3-byte pixels, one byte beyond it: every row is followed
// by at least one readable byte) and stores the Bpp (3 or 4) bytes of one pixel.
inline __m128i loadPixel(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return _mm_cvtsi32_si128(static_cast<int>(v));
}
template <std::size_t Bpp>
inline void storePixel(std::uint8_t* p, __m128i v) {
  const auto bits = static_cast<std::uint32_t>(_mm_cvtsi128_si32(v));
  std::memcpy(p, &bits, Bpp);
}
inline __m128i absolute(__m128i v) {
  return _mm_max_epi16(v, _mm_sub_epi16(_mm_setzero_si128(), v));
}

// The Paeth filter one pixel at a time in 16-bit lanes: each predictor needs the pixel just
// decoded to its left.
template <std::size_t Bpp>
void unpaeth(std::uint8_t* __restrict row, const std::uint8_t* __restrict prev, std::size_t n) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i low = _mm_set1_epi16(0xff);
  __m128i a = zero, c = zero;
  for (std::size_t i = 0; i < n; i += Bpp) {
    const __m128i b = _mm_unpacklo_epi8(loadPixel(prev + i), zero);
    const __m128i x = _mm_unpacklo_epi8(loadPixel(row + i), zero);
    const __m128i pa = absolute(_mm_sub_epi16(b, c));
    const __m128i pb = absolute(_mm_sub_epi16(a, c));
    const __m128i pc = absolute(_mm_sub_epi16(_mm_add_epi16(a, b), _mm_add_epi16(c, c)));
    // a where pa <= pb and pa <= pc, else b where pb <= pc, else c.
    const __m128i useC = _mm_cmpgt_epi16(pb, pc);
    const __m128i bOrC = _mm_or_si128(_mm_and_si128(useC, c), _mm_andnot_si128(useC, b));
    const __m128i notA = _mm_or_si128(_mm_cmpgt_epi16(pa, pb), _mm_cmpgt_epi16(pa, pc));
    const __m128i predictor = _mm_or_si128(_mm_and_si128(notA, bOrC), _mm_andnot_si128(notA, a));
    a = _mm_and_si128(_mm_add_epi16(x, predictor), low);
    storePixel<Bpp>(row + i, _mm_packus_epi16(a, zero));
    c = b;
  }
}
#endif

// Reverses the scanline filters of one row in place; `prev` is the row above (unfiltered) or
// nullptr for the first row.
bool unfilter(std::uint8_t type, std::uint8_t* __restrict row, const std::uint8_t* __restrict prev,
              std::size_t n, std::size_t bpp) {
  switch (type) {
    case 0:
      return true;
    case 1:
      for (std::size_t i = bpp; i < n; ++i)
        row[i] = static_cast<std::uint8_t>(row[i] + row[i - bpp]);
      return true;
    case 2: {
      if (!prev) return true;
      std::size_t i = 0;
#if defined(__SSE2__)
      for (; i + 16 <= n; i += 16) {
        const __m128i sum =
            _mm_add_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row + i)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(prev + i)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(row + i), sum);
      }
#endif
      for (; i < n; ++i) row[i] = static_cast<std::uint8_t>(row[i] + prev[i]);
      return true;
    }
    case 3:
      for (std::size_t i = 0; i < n; ++i) {
        const int left = i >= bpp ? row[i - bpp] : 0, up = prev ? prev[i] : 0;
        row[i] = static_cast<std::uint8_t>(row[i] + ((left + up) >> 1));
      }
      return true;
    case 4: {
      if (!prev) return unfilter(1, row, nullptr, n, bpp);
#if defined(__SSE2__)
      if (bpp == 3) {
        unpaeth<3>(row, prev, n);
      } else {
        unpaeth<4>(row, prev, n);
      }
#else
      for (std::size_t i = 0; i < n; ++i) {
        const int a = i >= bpp ? row[i - bpp] : 0, b = prev[i], c = i >= bpp ? prev[i - bpp] : 0;
        const int pa = std::abs(b - c), pb = std::abs(a - c), pc = std::abs(a + b - 2 * c);
        const int predictor = (pa <= pb && pa <= pc) ? a : (pb <= pc ? b : c);
        row[i] = static_cast<std::uint8_t>(row[i] + predictor);
      }
#endif
      return true;
    }
    default:
      return false;
  }
}

}  // namespace

std::shared_ptr<Image> decodeCommon(const std::uint8_t* data, std::size_t size, double scale) {
  std::vector<std::uint8_t> rgba;
  std::size_t width = 0, height = 0;
  if (!decodeCommonInto(data, size, rgba, width, height)) return nullptr;
  return std::make_shared<Image>(width, height, std::move(rgba), scale);
}

bool decodeCommonInto(const std::uint8_t* data, std::size_t size, std::vector<std::uint8_t>& rgba,
                      std::size_t& outWidth, std::size_t& outHeight) {
  static constexpr std::uint8_t kSignature[8] = {137, 80, 78, 71, 13, 10, 26, 10};
  if (!data || size < 8 + 25 || std::memcmp(data, kSignature, 8) != 0) return false;
  std::size_t width = 0, height = 0, bpp = 0;
  static thread_local std::vector<std::uint8_t> compressed;
  compressed.clear();
  bool ended = false;
  for (std::size_t at = 8; at + 12 <= size && !ended;) {
    const std::size_t length = bigEndian(data + at);
    if (length > size - at - 12) return false;
    const std::uint8_t* type = data + at + 4;
    const std::uint8_t* body = type + 4;
    if (libdeflate_crc32(0, type, length + 4) != bigEndian(body + length)) return false;
    if (at == 8) {
      // IHDR: 8-bit truecolour with or without alpha, deflate, standard filters, no interlace.
      if (std::memcmp(type, "IHDR", 4) != 0 || length != 13) return false;
      width = bigEndian(body);
      height = bigEndian(body + 4);
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
    }
    at += 12 + length;
  }
  if (!ended || compressed.empty()) return false;

  const std::size_t rowBytes = width * bpp;
  // The inflated rows go to a buffer each thread keeps, so large images cost no fresh memory.
  // One spare byte at the end lets the filters read whole words.
  static thread_local std::vector<std::uint8_t> raw;
  const std::size_t rawSize = height * (rowBytes + 1);
  raw.resize(rawSize + 1);

  static thread_local Decompressor decompressor;
  if (!decompressor.d ||
      libdeflate_zlib_decompress(decompressor.d, compressed.data(), compressed.size(), raw.data(),
                                 rawSize, nullptr) != LIBDEFLATE_SUCCESS) {
    return false;
  }
  rgba.resize(width * height * 4);
  const std::uint8_t* prev = nullptr;
  for (std::size_t y = 0; y < height; ++y) {
    std::uint8_t* line = &raw[y * (rowBytes + 1)];
    std::uint8_t* row = line + 1;
    if (!unfilter(line[0], row, prev, rowBytes, bpp)) return false;
    std::uint8_t* out = &rgba[y * width * 4];
    if (bpp == 4) {
      std::memcpy(out, row, rowBytes);
    } else {
      for (std::size_t x = 0; x < width; ++x) {
        const std::uint32_t pixel = std::uint32_t{row[x * 3]} | std::uint32_t{row[x * 3 + 1]} << 8 |
                                    std::uint32_t{row[x * 3 + 2]} << 16 | 0xff000000u;
        std::memcpy(out + x * 4, &pixel, 4);  // little-endian: R, G, B, A in memory
      }
    }
    prev = row;
  }
  outWidth = width;
  outHeight = height;
  if (raw.capacity() > (std::size_t{64} << 20)) std::vector<std::uint8_t>().swap(raw);
  return true;
}

#else

std::shared_ptr<Image> decodeCommon(const std::uint8_t*, std::size_t, double) {
  return nullptr;
}

#endif

}  // namespace saffra::png
