#include "saffra/platform/png.h"

#include <libdeflate.h>
#include <spng.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>

#include "saffra/platform/base64.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/internal/bytes.h"
#include "saffra/platform/internal/deflate_tables.h"
#include "saffra/platform/internal/png_format.h"

namespace saffra::png {

namespace {

using bytes::load32;
using bytes::load64;

// ---------------------------------------------------------------------------------------------
// Decoding

struct ContextDeleter {
  void operator()(spng_ctx* ctx) const { spng_ctx_free(ctx); }
};
using Context = std::unique_ptr<spng_ctx, ContextDeleter>;

[[noreturn]] void fail(const std::string& what, int code) {
  throw Exception("InvalidImageException", what + ": " + spng_strerror(code));
}

// ---------------------------------------------------------------------------------------------
// Deflate tables

constexpr std::size_t kWindow = 32768;
constexpr unsigned kMaxMatch = 258;
constexpr unsigned kMinMatch = 4;
constexpr std::size_t kBlockSymbols = std::size_t{1} << 15;
constexpr int kHashBits = 15;
constexpr int kLitLenSymbols = 286;
constexpr int kDistSymbols = 30;
// Images are compressed in independent bands of about this many bytes of scanlines (at least
// kMinBandRows rows): small enough to share out over cores and to skip where two files agree,
// large enough that restarting the matcher costs little.
constexpr std::size_t kBandBytes = std::size_t{256} << 10;
constexpr std::size_t kMinBandRows = 16;

using deflate::kDistanceBase;
using deflate::kDistanceExtra;
using deflate::kLengthBase;
using deflate::kLengthExtra;

// Match length (3..258) to its length code minus 257.
constexpr std::array<std::uint8_t, 259> makeLengthCodes() {
  std::array<std::uint8_t, 259> table{};
  for (int code = 0; code < 29; ++code) {
    for (int len = kLengthBase[code];
         len < kLengthBase[code] + (1 << kLengthExtra[code]) && len <= 258; ++len) {
      table[len] = static_cast<std::uint8_t>(code);
    }
  }
  table[258] = 28;  // 258 has its own code without extra bits
  return table;
}
constexpr std::array<std::uint8_t, 259> kLengthCode = makeLengthCodes();

inline unsigned distanceCode(unsigned distance) {
  if (distance <= 4) return distance - 1;
  unsigned x = distance - 1;
  int top = 31 - __builtin_clz(x);
  return 2 * static_cast<unsigned>(top) + ((x >> (top - 1)) & 1);
}

// Number of equal bytes at a and b, at most `limit`.
inline unsigned matchLength(const std::uint8_t* a, const std::uint8_t* b, std::size_t limit) {
  std::size_t n = 0;
  while (n + 8 <= limit) {
    std::uint64_t diff = load64(a + n) ^ load64(b + n);
    if (diff) return static_cast<unsigned>(n + (__builtin_ctzll(diff) >> 3));
    n += 8;
  }
  while (n < limit && a[n] == b[n]) ++n;
  return static_cast<unsigned>(n);
}

// ---------------------------------------------------------------------------------------------
// Huffman codes

// Code lengths of at most `maxBits` for the symbols of non-zero frequency (two or more of them):
// a Huffman tree built from frequencies sorted in ascending order, then lengths over the limit
// folded back while keeping the code complete.
void buildLengths(const std::uint32_t* freq, int n, int maxBits, std::uint8_t* lengths) {
  std::fill(lengths, lengths + n, 0);
  std::array<int, 288> symbols;
  int m = 0;
  for (int i = 0; i < n; ++i) {
    if (freq[i]) symbols[m++] = i;
  }
  std::sort(symbols.begin(), symbols.begin() + m,
            [&](int a, int b) { return freq[a] != freq[b] ? freq[a] < freq[b] : a < b; });
  if (m == 0) return;
  if (m == 1) {
    lengths[symbols[0]] = 1;
    return;
  }
  std::array<std::uint64_t, 576> weight;
  std::array<int, 576> parent;
  for (int i = 0; i < m; ++i) weight[i] = freq[symbols[i]];
  int leaf = 0, node = m, next = m;
  for (int k = 0; k < m - 1; ++k) {
    int pick[2];
    for (int& p : pick) {
      if (leaf < m && (node >= next || weight[leaf] <= weight[node])) {
        p = leaf++;
      } else {
        p = node++;
      }
    }
    weight[next] = weight[pick[0]] + weight[pick[1]];
    parent[pick[0]] = parent[pick[1]] = next;
    ++next;
  }
  std::array<int, 576> depth;
  depth[next - 1] = 0;
  for (int i = next - 2; i >= 0; --i) depth[i] = depth[parent[i]] + 1;

  std::array<int, 290> count{};
  for (int i = 0; i < m; ++i) ++count[std::min(depth[i], maxBits + 1)];
  count[maxBits] += count[maxBits + 1];
  std::uint32_t total = 0;
  for (int b = 1; b <= maxBits; ++b) total += static_cast<std::uint32_t>(count[b]) << (maxBits - b);
  while (total != (1u << maxBits)) {
    --count[maxBits];
    for (int b = maxBits - 1; b > 0; --b) {
      if (count[b]) {
        --count[b];
        count[b + 1] += 2;
        break;
      }
    }
    --total;
  }
  int i = 0;  // the rarest symbols get the longest codes
  for (int b = maxBits; b >= 1; --b) {
    for (int c = 0; c < count[b]; ++c) lengths[symbols[i++]] = static_cast<std::uint8_t>(b);
  }
}

// Canonical codes, bit-reversed for the least-significant-bit-first writer.
void buildCodes(const std::uint8_t* lengths, int n, std::uint16_t* codes) {
  int blCount[16] = {};
  for (int i = 0; i < n; ++i) ++blCount[lengths[i]];
  blCount[0] = 0;
  int nextCode[16] = {};
  int code = 0;
  for (int b = 1; b < 16; ++b) {
    code = (code + blCount[b - 1]) << 1;
    nextCode[b] = code;
  }
  for (int i = 0; i < n; ++i) {
    int len = lengths[i];
    if (!len) continue;
    unsigned c = static_cast<unsigned>(nextCode[len]++);
    unsigned reversed = 0;
    for (int b = 0; b < len; ++b) reversed |= ((c >> b) & 1u) << (len - 1 - b);
    codes[i] = static_cast<std::uint16_t>(reversed);
  }
}

// Makes sure at least two symbols are used, as every Huffman code of a block must be complete.
void ensureTwoSymbols(std::uint32_t* freq, int n) {
  int used = 0;
  for (int i = 0; i < n && used < 2; ++i) used += freq[i] != 0;
  for (int i = 0; i < n && used < 2; ++i) {
    if (!freq[i]) {
      freq[i] = 1;
      ++used;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Bit output

class BitWriter {
 public:
  explicit BitWriter(std::vector<std::uint8_t>& out) : out_(out) {}

  /// Makes room for `bytes` more bytes.
  void reserve(std::size_t bytes) {
    if (out_.size() < pos_ + bytes + 8) out_.resize(std::max(out_.size() * 2, pos_ + bytes + 8));
  }
  /// Appends the low `n` bits of `bits` (n <= 32; no bits above n may be set).
  void put(std::uint64_t bits, unsigned n) {
    buffer_ |= bits << count_;
    count_ += n;
    if (count_ >= 32) {
      std::uint32_t word = static_cast<std::uint32_t>(buffer_);
      std::uint8_t bytes[4] = {
          static_cast<std::uint8_t>(word), static_cast<std::uint8_t>(word >> 8),
          static_cast<std::uint8_t>(word >> 16), static_cast<std::uint8_t>(word >> 24)};
      std::memcpy(out_.data() + pos_, bytes, 4);
      pos_ += 4;
      buffer_ >>= 32;
      count_ -= 32;
    }
  }
  /// Pads with zero bits to the next byte boundary and writes out what is buffered.
  void alignToByte() {
    while (count_ > 0) {
      out_[pos_++] = static_cast<std::uint8_t>(buffer_);
      buffer_ >>= 8;
      count_ = count_ > 8 ? count_ - 8 : 0;
    }
    buffer_ = 0;
  }
  void putByte(std::uint8_t b) { out_[pos_++] = b; }
  /// Bytes written so far (after alignToByte: all of them).
  std::size_t position() const { return pos_; }
  void finish() {
    alignToByte();
    out_.resize(pos_);
  }

 private:
  std::vector<std::uint8_t>& out_;
  std::size_t pos_ = 0;
  std::uint64_t buffer_ = 0;
  unsigned count_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Compressing one band of rows

// Compresses bands of rows of a contiguous RGBA image, one after another, as unfiltered PNG
// scanlines into raw deflate blocks, and computes their Adler-32. Each band stands alone: its
// matches reach no row before it, and each band but the last of the image ends on a byte
// boundary with an empty stored block, so a decoder can inflate every band on its own.
class BandCompressor {
 public:
  BandCompressor(const std::uint8_t* pixels, std::size_t width)
      : pixels_(pixels), rowBytes_(width * 4) {}

  /// Compresses rows [y0, y1) after the bands compressed before; returns the band's bytes.
  std::size_t compress(std::size_t y0, std::size_t y1, bool lastBand) {
    if (symbols_.empty()) symbols_.resize(kBlockSymbols);
    // The hash table is kept from band to band: entries of rows before y0 count as empty.
    if (table_.empty()) table_.assign(std::size_t{1} << kHashBits, Entry{0, kNoRow});
    const std::size_t bandStart = writer_.position();
    const std::size_t R = rowBytes_;
    const std::size_t L = R + 1;  // a scanline with its filter byte
    const bool aboveInWindow = L <= kWindow;
    std::vector<Entry>& table = table_;
    static constexpr std::uint8_t kFilterNone = 0;

    for (std::size_t y = y0; y < y1; ++y) {
      const std::uint8_t* row = pixels_ + y * R;
      adler_ = libdeflate_adler32(adler_, &kFilterNone, 1);
      adler_ = libdeflate_adler32(adler_, row, R);
      literal(kFilterNone);
      std::size_t i = 0;
      while (i < R) {
        const std::size_t maxLen = std::min<std::size_t>(kMaxMatch, R - i);
        unsigned bestLen = 0;
        unsigned bestDist = 0;
        if (maxLen >= kMinMatch) {
          const std::uint8_t* p = row + i;
          const std::uint32_t current = load32(p);
          if (i >= 4 && load32(p - 4) == current) {
            bestLen = matchLength(p, p - 4, maxLen);
            bestDist = 4;
          }
          if (bestLen < maxLen && y > y0 && aboveInWindow && load32(p - R) == current) {
            unsigned len = matchLength(p, p - R, maxLen);
            if (len > bestLen) {
              bestLen = len;
              bestDist = static_cast<unsigned>(L);
            }
          }
          const std::uint32_t h = (current * 2654435761u) >> (32 - kHashBits);
          const Entry candidate = table[h];
          table[h] = Entry{static_cast<std::uint32_t>(y * R + i), static_cast<std::uint32_t>(y)};
          if (bestLen < maxLen && candidate.row != kNoRow && candidate.row >= y0) {
            const std::size_t from = candidate.pos;
            const std::size_t cy = candidate.row;
            // Distance in the scanline stream, where each row carries one more byte.
            const std::size_t distance = (y * R + i + y) - (from + cy);
            if (distance <= kWindow && load32(pixels_ + from) == current) {
              std::size_t limit = std::min(maxLen, (cy + 1) * R - from);
              unsigned len = matchLength(p, pixels_ + from, limit);
              if (len > bestLen) {
                bestLen = len;
                bestDist = static_cast<unsigned>(distance);
              }
            }
          }
        }
        if (bestLen >= kMinMatch) {
          match(bestLen, bestDist);
          i += bestLen;
        } else {
          literal(row[i]);
          ++i;
        }
      }
    }
    if (count_ > 0 || lastBand) flushBlock(lastBand);
    if (!lastBand) {
      // An empty stored block ends the band on a byte boundary without ending the stream.
      writer_.reserve(8);
      writer_.put(0, 3);
      writer_.alignToByte();
      for (std::uint8_t b : {0x00, 0x00, 0xFF, 0xFF}) writer_.putByte(b);
    } else {
      writer_.alignToByte();
    }
    return writer_.position() - bandStart;
  }

  /// Ends the output after the last band and lets the working memory go.
  void finish() {
    writer_.finish();
    symbols_ = {};
    table_ = {};
  }

  std::vector<std::uint8_t>& output() { return out_; }
  std::uint32_t adler() const { return adler_; }

 private:
  void literal(std::uint8_t byte) {
    symbols_[count_++] = byte;
    ++litFreq_[byte];
    if (count_ == kBlockSymbols) flushBlock(false);
  }

  void match(unsigned length, unsigned distance) {
    symbols_[count_++] = (length << 16) | distance;
    ++litFreq_[257 + kLengthCode[length]];
    ++distFreq_[distanceCode(distance)];
    if (count_ == kBlockSymbols) flushBlock(false);
  }

  void flushBlock(bool final) {
    litFreq_[256] = 1;
    ensureTwoSymbols(litFreq_.data(), kLitLenSymbols);
    ensureTwoSymbols(distFreq_.data(), kDistSymbols);
    std::uint8_t litLen[kLitLenSymbols], distLen[kDistSymbols];
    std::uint16_t litCode[kLitLenSymbols] = {}, distCode[kDistSymbols] = {};
    buildLengths(litFreq_.data(), kLitLenSymbols, 15, litLen);
    buildLengths(distFreq_.data(), kDistSymbols, 15, distLen);
    buildCodes(litLen, kLitLenSymbols, litCode);
    buildCodes(distLen, kDistSymbols, distCode);

    // Room for exactly this block: its symbols' code lengths and extra bits, plus the header
    // (at most about 300 bytes). A worst-case guess per symbol would make the output buffer
    // grow to several times the compressed size.
    std::size_t bits = 0;
    for (int c = 0; c < kLitLenSymbols; ++c) {
      bits += std::size_t{litFreq_[c]} * (litLen[c] + (c > 256 ? kLengthExtra[c - 257] : 0u));
    }
    for (int c = 0; c < kDistSymbols; ++c) {
      bits += std::size_t{distFreq_[c]} * (distLen[c] + kDistanceExtra[c]);
    }
    writer_.reserve(bits / 8 + 1024);
    writer_.put(final ? 1 : 0, 1);
    writer_.put(2, 2);  // dynamic Huffman codes
    writeCodeLengths(litLen, distLen);

    for (std::size_t k = 0; k < count_; ++k) {
      const std::uint32_t s = symbols_[k];
      if (s < 256) {
        writer_.put(litCode[s], litLen[s]);
        continue;
      }
      const unsigned length = s >> 16;
      const unsigned distance = s & 0xFFFFu;
      const unsigned lc = kLengthCode[length];
      writer_.put(litCode[257 + lc] | (std::uint64_t{length - kLengthBase[lc]} << litLen[257 + lc]),
                  litLen[257 + lc] + kLengthExtra[lc]);
      const unsigned dc = distanceCode(distance);
      writer_.put(distCode[dc] | (std::uint64_t{distance - kDistanceBase[dc]} << distLen[dc]),
                  distLen[dc] + kDistanceExtra[dc]);
    }
    writer_.put(litCode[256], litLen[256]);
    litFreq_.fill(0);
    distFreq_.fill(0);
    count_ = 0;
  }

  // The block header after the block type: both code-length tables, run-length coded.
  void writeCodeLengths(const std::uint8_t* litLen, const std::uint8_t* distLen) {
    int nlit = kLitLenSymbols;
    while (nlit > 257 && litLen[nlit - 1] == 0) --nlit;
    int ndist = kDistSymbols;
    while (ndist > 1 && distLen[ndist - 1] == 0) --ndist;
    std::uint8_t all[kLitLenSymbols + kDistSymbols];
    std::memcpy(all, litLen, static_cast<std::size_t>(nlit));
    std::memcpy(all + nlit, distLen, static_cast<std::size_t>(ndist));
    const int total = nlit + ndist;

    struct Run {
      std::uint8_t symbol;
      std::uint8_t extra;
    };
    Run runs[kLitLenSymbols + kDistSymbols];
    int nruns = 0;
    std::uint32_t freq[19] = {};
    auto add = [&](int symbol, int extra) {
      runs[nruns++] = Run{static_cast<std::uint8_t>(symbol), static_cast<std::uint8_t>(extra)};
      ++freq[symbol];
    };
    for (int i = 0; i < total;) {
      const std::uint8_t v = all[i];
      int run = 1;
      while (i + run < total && all[i + run] == v) ++run;
      i += run;
      if (v == 0) {
        while (run >= 11) {
          int r = std::min(run, 138);
          add(18, r - 11);
          run -= r;
        }
        if (run >= 3) {
          add(17, run - 3);
          run = 0;
        }
      } else {
        add(v, 0);
        --run;
        while (run >= 3) {
          int r = std::min(run, 6);
          add(16, r - 3);
          run -= r;
        }
      }
      while (run-- > 0) add(v, 0);
    }
    ensureTwoSymbols(freq, 19);
    std::uint8_t clLen[19];
    std::uint16_t clCode[19] = {};
    buildLengths(freq, 19, 7, clLen);
    buildCodes(clLen, 19, clCode);
    constexpr const auto& kOrder = deflate::kCodeLengthOrder;
    int nclen = 19;
    while (nclen > 4 && clLen[kOrder[nclen - 1]] == 0) --nclen;
    writer_.put(static_cast<unsigned>(nlit - 257), 5);
    writer_.put(static_cast<unsigned>(ndist - 1), 5);
    writer_.put(static_cast<unsigned>(nclen - 4), 4);
    for (int k = 0; k < nclen; ++k) writer_.put(clLen[kOrder[k]], 3);
    static constexpr unsigned kExtraBits[19] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                0, 0, 0, 0, 0, 0, 2, 3, 7};
    for (int k = 0; k < nruns; ++k) {
      const Run& r = runs[k];
      writer_.put(clCode[r.symbol], clLen[r.symbol]);
      if (kExtraBits[r.symbol]) writer_.put(r.extra, kExtraBits[r.symbol]);
    }
  }

  struct Entry {
    std::uint32_t pos;  // offset in pixels_
    std::uint32_t row;
  };
  static constexpr std::uint32_t kNoRow = 0xFFFFFFFFu;

  const std::uint8_t* pixels_;
  std::size_t rowBytes_;
  std::vector<Entry> table_;
  std::vector<std::uint8_t> out_;
  BitWriter writer_{out_};
  std::vector<std::uint32_t> symbols_;
  std::size_t count_ = 0;
  std::array<std::uint32_t, kLitLenSymbols> litFreq_{};
  std::array<std::uint32_t, kDistSymbols> distFreq_{};
  std::uint32_t adler_ = 1;
};

void putChunk(std::vector<std::uint8_t>& out, const char* type, const std::uint8_t* data,
              std::size_t size) {
  bytes::appendBigEndian32(out, static_cast<std::uint32_t>(size));
  std::size_t start = out.size();
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), data, data + size);
  bytes::appendBigEndian32(out, libdeflate_crc32(0, out.data() + start, size + 4));
}

// Rows of each independently compressed band: about kBandBytes of scanlines, whole rows.
std::size_t rowsPerBand(std::size_t width) {
  return std::max<std::size_t>(kMinBandRows, (kBandBytes + width * 4) / (width * 4 + 1));
}

unsigned threadCount(std::size_t width, std::size_t height, std::size_t bands, unsigned threads) {
  if (threads == 0) {
    if (width * height < 256 * 1024) return 1;
    threads = std::clamp(std::thread::hardware_concurrency(), 1u, 4u);
  }
  return static_cast<unsigned>(std::min<std::size_t>(threads, bands));
}

// Encodes a contiguous image (stride = width * 4).
std::vector<std::uint8_t> encodeContiguous(const std::uint8_t* rgba, std::size_t width,
                                           std::size_t height, unsigned threads) {
  const std::size_t bandRows = rowsPerBand(width);
  const std::size_t bands = (height + bandRows - 1) / bandRows;
  const unsigned parts = threadCount(width, height, bands, threads);
  // Part k compresses bands [first(k), first(k + 1)), one after another.
  const auto first = [&](unsigned k) { return bands * k / parts; };
  std::vector<std::unique_ptr<BandCompressor>> compressors;
  for (unsigned k = 0; k < parts; ++k)
    compressors.push_back(std::make_unique<BandCompressor>(rgba, width));
  std::vector<std::size_t> bandBytes(bands);
  std::vector<std::exception_ptr> errors(parts);
  auto run = [&](unsigned k) {
    try {
      for (std::size_t band = first(k); band < first(k + 1); ++band) {
        bandBytes[band] = compressors[k]->compress(
            band * bandRows, std::min(height, (band + 1) * bandRows), band + 1 == bands);
      }
      compressors[k]->finish();
    } catch (...) {
      errors[k] = std::current_exception();
    }
  };
  std::vector<std::thread> workers;
  std::vector<unsigned> inline_;
  for (unsigned k = 1; k < parts; ++k) {
    try {
      workers.emplace_back(run, k);
    } catch (...) {
      inline_.push_back(k);  // no thread available: compress it here
    }
  }
  run(0);
  for (unsigned k : inline_) run(k);
  for (auto& w : workers) w.join();
  for (auto& e : errors) {
    if (e) std::rethrow_exception(e);
  }

  std::uint32_t adler = compressors[0]->adler();
  std::size_t compressed = 0;
  for (unsigned k = 0; k < parts; ++k) {
    compressed += compressors[k]->output().size();
    if (k > 0) {
      const std::size_t rows = std::min(height, first(k + 1) * bandRows) - first(k) * bandRows;
      adler = static_cast<std::uint32_t>(adler32_combine(
          adler, compressors[k]->adler(), static_cast<z_off_t>(rows * (width * 4 + 1))));
    }
  }

  std::vector<std::uint8_t> out;
  out.reserve(8 + 25 + 12 + 12 + 8 * bands + 2 + compressed + 4 + 12);
  out.insert(out.end(), kPngSignature, kPngSignature + 8);
  std::uint8_t ihdr[13];
  for (int i = 0; i < 4; ++i) {
    ihdr[i] = static_cast<std::uint8_t>(width >> (24 - 8 * i));
    ihdr[4 + i] = static_cast<std::uint8_t>(height >> (24 - 8 * i));
  }
  ihdr[8] = 8;   // bits per channel
  ihdr[9] = 6;   // RGBA
  ihdr[10] = 0;  // deflate
  ihdr[11] = 0;  // adaptive filtering (each row says "none")
  ihdr[12] = 0;  // not interlaced
  putChunk(out, "IHDR", ihdr, sizeof ihdr);
  if (bands > 1) {
    // Where each band starts, for decoders that inflate bands on several cores or compare
    // them with another file's (see kBandChunkType).
    std::vector<std::uint8_t> index;
    index.reserve(8 * bands);
    for (std::size_t band = 0; band < bands; ++band) {
      bytes::appendBigEndian32(
          index,
          static_cast<std::uint32_t>(std::min(height, (band + 1) * bandRows) - band * bandRows));
      bytes::appendBigEndian32(index, static_cast<std::uint32_t>(bandBytes[band]));
    }
    putChunk(out, kBandChunkType, index.data(), index.size());
  }

  // One IDAT chunk: zlib header (32K window, fastest), the bands, Adler-32.
  bytes::appendBigEndian32(out, static_cast<std::uint32_t>(2 + compressed + 4));
  const std::size_t idatStart = out.size();
  for (char c : {'I', 'D', 'A', 'T'}) out.push_back(static_cast<std::uint8_t>(c));
  out.push_back(0x78);
  out.push_back(0x01);
  for (auto& part : compressors) {
    out.insert(out.end(), part->output().begin(), part->output().end());
    part->output() = {};
  }
  bytes::appendBigEndian32(out, adler);
  bytes::appendBigEndian32(out,
                           libdeflate_crc32(0, out.data() + idatStart, out.size() - idatStart));
  putChunk(out, "IEND", nullptr, 0);
  return out;
}

}  // namespace

std::shared_ptr<Image> decode(const std::uint8_t* data, std::size_t size, double scale) {
  if (!data || size == 0) throw Exception("InvalidImageException", "Not a PNG image: no data");
  Context ctx(spng_ctx_new(0));
  if (!ctx) throw Exception("InvalidImageException", "Cannot create PNG decoder");
  // Limits stop decompression bombs before any pixel memory is allocated.
  spng_set_image_limits(ctx.get(), Image::kMaxDimension, Image::kMaxDimension);
  spng_set_chunk_limits(ctx.get(), 64u << 20, 64u << 20);
  if (int rc = spng_set_png_buffer(ctx.get(), data, size)) fail("Not a PNG image", rc);

  spng_ihdr ihdr{};
  if (int rc = spng_get_ihdr(ctx.get(), &ihdr)) fail("Not a PNG image", rc);
  if (std::size_t{ihdr.width} * ihdr.height > Image::kMaxPixels) {
    throw Exception("InvalidImageException", "PNG image size " + std::to_string(ihdr.width) + "x" +
                                                 std::to_string(ihdr.height) + " is too large");
  }
  // Deflate expands at most 1032:1, so a file far too small for the scanlines its header
  // declares is refused before any pixel memory is allocated.
  const std::size_t channels = ihdr.color_type == 2   ? 3
                               : ihdr.color_type == 4 ? 2
                               : ihdr.color_type == 6 ? 4
                                                      : 1;
  const std::size_t scanlines =
      (std::size_t{ihdr.width} * channels * ihdr.bit_depth + 7) / 8 * ihdr.height + ihdr.height;
  if (scanlines > size * 1040 + 65536) {
    throw Exception("InvalidImageException",
                    "PNG image of " + std::to_string(size) + " bytes is too small for its size " +
                        std::to_string(ihdr.width) + "x" + std::to_string(ihdr.height));
  }
  std::size_t outSize = 0;
  if (int rc = spng_decoded_image_size(ctx.get(), SPNG_FMT_RGBA8, &outSize))
    fail("Bad PNG image", rc);
  std::vector<std::uint8_t> pixels(outSize);
  if (int rc =
          spng_decode_image(ctx.get(), pixels.data(), outSize, SPNG_FMT_RGBA8, SPNG_DECODE_TRNS)) {
    fail("Corrupt PNG image", rc);
  }
  return std::make_shared<Image>(ihdr.width, ihdr.height, std::move(pixels), scale);
}

std::vector<std::uint8_t> encode(const std::uint8_t* rgba, std::size_t width, std::size_t height,
                                 std::size_t stride) {
  return encode(rgba, width, height, stride, EncodeOptions{});
}

std::vector<std::uint8_t> encode(const std::uint8_t* rgba, std::size_t width, std::size_t height,
                                 std::size_t stride, const EncodeOptions& options) {
  if (width == 0 || height == 0 || width > Image::kMaxDimension || height > Image::kMaxDimension ||
      width * height > Image::kMaxPixels) {
    throw Exception(
        "InvalidImageException",
        "Cannot encode an image of size " + std::to_string(width) + "x" + std::to_string(height));
  }
  if (!rgba) throw Exception("InvalidImageException", "Cannot encode an image without pixels");
  if (stride < width * 4)
    throw Exception("InvalidImageException", "Row stride is shorter than a row");
  if (stride == width * 4) return encodeContiguous(rgba, width, height, options.threads);
  std::vector<std::uint8_t> packed(width * height * 4);
  for (std::size_t y = 0; y < height; ++y) {
    std::memcpy(&packed[y * width * 4], rgba + y * stride, width * 4);
  }
  return encodeContiguous(packed.data(), width, height, options.threads);
}

std::string encodeBase64Lines64(const Image& image) {
  std::vector<std::uint8_t> bytes = image.pngData();
  return base64::encodeLines64(bytes);
}

}  // namespace saffra::png
