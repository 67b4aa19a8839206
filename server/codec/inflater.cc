#include "server/codec/inflater.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include <libdeflate.h>

#include "saffra/platform/internal/bytes.h"
#include "saffra/platform/internal/cpu.h"
#include "saffra/platform/internal/deflate_tables.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if SAFFRA_X86_DISPATCH
#include <immintrin.h>
#endif

namespace saffra::inflate {

namespace {

// Decoding-table entries, 32 bits each:
//   bits 0-4    bits the entry consumes (a code's length; for a link, the main table's bits)
//   bits 5-8    what the entry is (kLiteral, kValue, kEnd, kLink; none: an invalid code)
//   bits 9-12   extra bits that follow the code (for a link: the subtable's index bits)
//   bits 16-31  the literal byte, the length or distance base, or the subtable's start
enum : std::uint32_t { kLiteral = 1u << 5, kValue = 1u << 6, kEnd = 1u << 7, kLink = 1u << 8 };

constexpr std::uint32_t entry(std::uint32_t kind, std::uint32_t value, std::uint32_t extra = 0) {
  return kind | extra << 9 | value << 16;
}
inline unsigned bitsOf(std::uint32_t e) {
  return e & 31u;
}
inline unsigned extraOf(std::uint32_t e) {
  return (e >> 9) & 15u;
}
inline std::uint32_t valueOf(std::uint32_t e) {
  return e >> 16;
}

using deflate::kCodeLengthOrder;
using deflate::kDistanceBase;
using deflate::kDistanceExtra;
using deflate::kLengthBase;
using deflate::kLengthExtra;

constexpr unsigned kLitlenBits = 11, kDistanceBits = 8, kPrecodeBits = 7;
// Main table plus room for every subtable the largest alphabet could need.
constexpr std::size_t kLitlenEntries = (1u << kLitlenBits) + 288 * 16;
constexpr std::size_t kDistanceEntries = (1u << kDistanceBits) + 32 * 128;

// Finishes reading a code whose main-table entry `e` was looked up from the low bits of `bits`:
// a link is followed into its subtable, and the code's bits are consumed. Returns the code's
// entry. (Free-standing so the decoding loop can use it on its own local bit buffer.)
inline std::uint32_t finishCode(const std::uint32_t* table, std::uint32_t e, unsigned mainBits,
                                std::uint64_t& bits, unsigned& count) {
  if (e & kLink) {
    bits >>= mainBits;
    count -= mainBits;
    e = table[valueOf(e) + (bits & ((1u << extraOf(e)) - 1))];
  }
  bits >>= bitsOf(e);
  count -= bitsOf(e);
  return e;
}
// The entry of the next code in `table`, its bits consumed.
inline std::uint32_t readCode(const std::uint32_t* table, unsigned mainBits, std::uint64_t& bits,
                              unsigned& count) {
  return finishCode(table, table[bits & ((1u << mainBits) - 1)], mainBits, bits, count);
}

inline std::uint32_t reverseBits(std::uint32_t code, unsigned length) {
  std::uint32_t r = 0;
  for (unsigned i = 0; i < length; ++i, code >>= 1) r = r << 1 | (code & 1u);
  return r;
}

// Builds the table of the canonical Huffman code whose symbol s has length lengths[s] (0: not
// used); codes longer than `mainBits` continue in subtables after the main table. Codes left
// unassigned in an incomplete code decode as invalid. False for an over-subscribed code, an
// incomplete one zlib would refuse (`lengthsCode`: the code of the code lengths) or a table that
// would not fit `capacity`.
template <class EntryOf>
bool buildTable(const std::uint8_t* lengths, unsigned count, unsigned mainBits,
                std::uint32_t* table, std::size_t capacity, EntryOf entryOf,
                bool lengthsCode = false) {
  unsigned counts[16] = {};
  for (unsigned s = 0; s < count; ++s) ++counts[lengths[s]];
  counts[0] = 0;
  int left = 1;
  unsigned longest = 0;
  for (unsigned len = 1; len <= 15; ++len) {
    left = left * 2 - static_cast<int>(counts[len]);
    if (left < 0) return false;
    if (counts[len]) longest = len;
  }
  // As zlib: an incomplete code is refused, but for a literal/length or distance code of one
  // symbol (of length 1) or of none at all.
  if (left > 0 && (lengthsCode || longest > 1)) return false;
  unsigned offsets[16] = {};
  for (unsigned len = 1; len < 15; ++len) offsets[len + 1] = offsets[len] + counts[len];
  std::uint16_t sorted[288];
  for (unsigned s = 0; s < count; ++s) {
    if (lengths[s]) sorted[offsets[lengths[s]]++] = static_cast<std::uint16_t>(s);
  }
  const std::size_t mainSize = std::size_t{1} << mainBits;
  std::memset(table, 0, mainSize * sizeof *table);
  std::size_t next = mainSize;  // where the next subtable starts
  std::uint32_t prefix = ~0u, subStart = 0;
  unsigned subBits = 0;
  unsigned remaining[16];
  std::memcpy(remaining, counts, sizeof remaining);
  std::uint32_t code = 0;
  unsigned k = 0;
  for (unsigned len = 1; len <= 15; ++len, code <<= 1) {
    for (unsigned n = 0; n < counts[len]; ++n, ++code, ++k) {
      const std::uint32_t e = entryOf(sorted[k]);
      const std::uint32_t reversed = reverseBits(code, len);
      --remaining[len];
      if (len <= mainBits) {
        for (std::size_t i = reversed; i < mainSize; i += std::size_t{1} << len) table[i] = e | len;
        continue;
      }
      const std::uint32_t low = reversed & static_cast<std::uint32_t>(mainSize - 1);
      if (low != prefix) {
        // A new subtable, as large as the codes still to come under this prefix need.
        prefix = low;
        subBits = len - mainBits;
        int room = (1 << subBits) - static_cast<int>(remaining[len]) - 1;
        while (room > 0 && subBits + mainBits < 15) {
          ++subBits;
          room = room * 2 - static_cast<int>(remaining[subBits + mainBits]);
        }
        const std::size_t size = std::size_t{1} << subBits;
        if (next + size > capacity) return false;
        subStart = static_cast<std::uint32_t>(next);
        std::memset(table + next, 0, size * sizeof *table);
        next += size;
        table[low] = entry(kLink, subStart, subBits) | mainBits;
      }
      const unsigned subLength = len - mainBits;
      for (std::size_t i = reversed >> mainBits; i < (std::size_t{1} << subBits);
           i += std::size_t{1} << subLength) {
        table[subStart + i] = e | subLength;
      }
    }
  }
  return true;
}

#if SAFFRA_X86_DISPATCH
// The 16-byte pattern of a match at distance d < 16 in one shuffle.
// Shuffle indexes that repeat the first d bytes of a register, for each distance d < 16.
struct RepeatIndexes {
  alignas(16) std::uint8_t v[16][16];
  constexpr RepeatIndexes() : v{} {
    for (unsigned d = 1; d < 16; ++d) {
      for (unsigned i = 0; i < 16; ++i) v[d][i] = static_cast<std::uint8_t>(i % d);
    }
  }
};
constexpr RepeatIndexes kRepeat;

// The 16-byte pattern of a match at distance d < 16 in one shuffle.
SAFFRA_TARGET_SSSE3 __m128i repeatSsse3(const std::uint8_t* src, unsigned d) {
  return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src)),
                          _mm_load_si128(reinterpret_cast<const __m128i*>(kRepeat.v[d])));
}
#endif

// Writes the `length` bytes of a match at `distance` behind `out`, in 16-byte stores (up to 31
// bytes past the match, which the output slack allows and later bytes overwrite).
inline void copyMatch(std::uint8_t* out, std::size_t distance, std::size_t length, bool ssse3) {
  const std::uint8_t* src = out - distance;
#if defined(__SSE2__)
  if (distance >= 16 || length <= distance) {
    // No store reaches bytes a later load of this match reads before they are written. Most
    // matches are short: the first 32 bytes go without a test.
    const auto copy16 = [&](std::size_t n) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + n),
                       _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + n)));
    };
    copy16(0);
    copy16(16);
    for (std::size_t n = 32; n < length; n += 16) copy16(n);
    return;
  }
  // A run of a short pattern: its first 16 bytes, stored again every whole number of periods.
  __m128i pattern;
  if (distance == 1) {
    pattern = _mm_set1_epi8(static_cast<char>(src[0]));
  } else if (distance == 4) {
    pattern = _mm_set1_epi32(static_cast<int>(bytes::load32(src)));
  } else if (distance == 8) {
    pattern = _mm_set1_epi64x(static_cast<long long>(bytes::load64(src)));
  }
#if SAFFRA_X86_DISPATCH
  else if (ssse3) {
    pattern = repeatSsse3(src, static_cast<unsigned>(distance));
  }
#endif
  else {
    alignas(16) std::uint8_t repeated[16];
    for (std::size_t i = 0; i < 16; ++i) repeated[i] = src[i % distance];
    pattern = _mm_load_si128(reinterpret_cast<const __m128i*>(repeated));
  }
  const std::size_t step = 16 - 16 % distance;
  for (std::size_t n = 0; n < length; n += step) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + n), pattern);
  }
#else
  (void)ssse3;
  for (std::size_t n = 0; n < length; ++n) out[n] = src[n];
#endif
}

struct Tables {
  std::uint32_t litlen[kLitlenEntries];
  std::uint32_t distance[kDistanceEntries];
  std::uint32_t precode[1u << kPrecodeBits];
};

std::uint32_t litlenEntry(unsigned symbol) {
  if (symbol < 256) return entry(kLiteral, symbol);
  if (symbol == 256) return kEnd;
  if (symbol - 257 < 29) {
    return entry(kValue, kLengthBase[symbol - 257], kLengthExtra[symbol - 257]);
  }
  return 0;  // 286 and 287 never occur in a valid stream
}
std::uint32_t distanceEntry(unsigned symbol) {
  return symbol < 30 ? entry(kValue, kDistanceBase[symbol], kDistanceExtra[symbol]) : 0;
}

// The state of the bit reader and the output while a stream is inflated.
class Inflater {
 public:
  // Output goes to `out`, which holds `capacity` bytes (and the slack after them) of the
  // `outSize` the stream must fill; with less room than that, bytes are moved back to its start
  // as the stream goes on (see slide).
  Inflater(const std::uint8_t* in, std::size_t inSize, std::uint8_t* out, std::size_t capacity,
           std::size_t outSize, Framing framing = Framing::Zlib)
      : framing_(framing),
        in_(in),
        inEnd_(in + inSize),
        out_(out),
        outStart_(out),
        capacity_(std::min(capacity, outSize)),
        total_(outSize),
        outEnd_(out + capacity_) {}

  // Inflates until at least `target` bytes of output are final or the stream has ended (and
  // then checks its end). False on damage of any kind, from then on.
  bool advance(std::size_t target) {
    if (failed_) return false;
    target = std::max(std::min(target, total_), produced());
    if (total_ - offset_ > capacity_ && target > produced()) {
      // Room for a stored block (64 KiB) or a step of a block (261 bytes) begun below target.
      constexpr std::size_t kMargin = kMinCapacity - 32768;
      if (target - offset_ + kMargin > capacity_) slide();
      if (total_ - offset_ > capacity_) {
        target = std::min(target, offset_ + capacity_ - kMargin);
        // A buffer too small for what its caller keeps is refused rather than left unmoving.
        if (target <= produced()) failed_ = true;
      }
    }
    if (failed_) return false;
    if (!advanceTo(outStart_ + (target - offset_), target == total_)) failed_ = true;
    // The checksum runs over each piece while it is still in the caches.
    adler_ = libdeflate_adler32(adler_, adlerDone_, static_cast<std::size_t>(out_ - adlerDone_));
    adlerDone_ = out_;
    if (!failed_ && ended_ && !finished_) {
      failed_ = !checkEnd();
      finished_ = !failed_;
    }
    return !failed_;
  }
  std::size_t produced() const { return offset_ + static_cast<std::size_t>(out_ - outStart_); }
  bool finished() const { return finished_; }
  std::uint32_t adler() const { return adler_; }
  std::size_t offset() const { return offset_; }
  void release(std::size_t position) { released_ = std::max(released_, position); }

 private:
  // Moves the output the stream may still refer to (its last 32 KiB) and what the caller has
  // not released to the start of the buffer.
  void slide() {
    const std::size_t produced = this->produced();
    const std::size_t keepFrom =
        std::max(offset_, std::min(released_, produced - std::min<std::size_t>(produced, 32768)));
    const std::size_t shift = keepFrom - offset_;
    if (shift == 0) return;
    std::memmove(outStart_, outStart_ + shift, produced - keepFrom);
    offset_ = keepFrom;
    out_ -= shift;
    adlerDone_ -= shift;
    outEnd_ = outStart_ + std::min(capacity_, total_ - offset_);
  }

  bool advanceTo(const std::uint8_t* target, bool toEnd) {
    if (!started_ && framing_ != Framing::Zlib) started_ = true;
    if (!started_) {
      started_ = true;
      if (!zlibHeaderAccepted(in_, static_cast<std::size_t>(inEnd_ - in_))) return false;
      in_ += 2;
    }
    while (!ended_ && (out_ < target || toEnd)) {
      if (!inBlock_) {
        // A band that is not the last ends right after a stored block, where its input ends.
        if (lastBlock_ || (framing_ == Framing::Band && count_ == 0 && in_ == inEnd_)) {
          ended_ = true;
          break;
        }
        if (!refill()) return false;
        lastBlock_ = bits_ & 1;
        if (lastBlock_ && framing_ == Framing::Band) return false;
        const unsigned type = (bits_ >> 1) & 3;
        consume(3);
        if (type == 0) {
          if (!stored()) return false;
          continue;
        }
        if (type == 3 || !(type == 1 ? fixedTables() : dynamicTables())) return false;
        inBlock_ = true;
      }
      switch (huffman(toEnd ? nullptr : target)) {
        case Block::kDamaged:
          return false;
        case Block::kEnded:
          inBlock_ = false;
          break;
        case Block::kPaused:
          return true;
      }
    }
    return true;
  }

  // The Adler-32 checksum follows the last block on the next byte boundary.
  bool checkEnd() {
    alignToByte();
    if (framing_ != Framing::Zlib) return in_ == inEnd_ && produced() == total_;
    if (in_ > inEnd_ || inEnd_ - in_ < 4 || produced() != total_) return false;
    return adler_ == bytes::loadBigEndian32(in_);
  }

  // Tops the bit buffer up to at least 56 bits. The bytes past the input are zeros the caller
  // leaves; a stream still reading once they are used up is refused.
  bool refill() {
    if (in_ > inEnd_ + 8) return false;
    bits_ |= bytes::load64(in_) << count_;
    in_ += (63 - count_) >> 3;
    count_ |= 56;
    return true;
  }
  void consume(unsigned n) {
    bits_ >>= n;
    count_ -= n;
  }
  std::uint32_t take(unsigned n) {
    const auto v = static_cast<std::uint32_t>(bits_ & ((std::uint64_t{1} << n) - 1));
    consume(n);
    return v;
  }

  // Drops the bits to the next byte boundary and gives the whole bytes still in the buffer
  // back to the input.
  void alignToByte() {
    consume(count_ & 7);
    in_ -= count_ >> 3;
    bits_ = 0;
    count_ = 0;
  }

  bool stored() {
    alignToByte();
    if (in_ > inEnd_ || inEnd_ - in_ < 4) return false;
    const unsigned length = in_[0] | unsigned{in_[1]} << 8;
    const unsigned inverse = in_[2] | unsigned{in_[3]} << 8;
    in_ += 4;
    if (length != (~inverse & 0xffffu)) return false;
    if (static_cast<std::size_t>(inEnd_ - in_) < length ||
        static_cast<std::size_t>(outEnd_ - out_) < length) {
      return false;
    }
    std::memcpy(out_, in_, length);
    in_ += length;
    out_ += length;
    return true;
  }

  bool fixedTables() {
    std::uint8_t lengths[288 + 32];
    std::memset(lengths, 8, 144);
    std::memset(lengths + 144, 9, 112);
    std::memset(lengths + 256, 7, 24);
    std::memset(lengths + 280, 8, 8);
    std::memset(lengths + 288, 5, 32);
    return buildTable(lengths, 288, kLitlenBits, tables_.litlen, kLitlenEntries, litlenEntry) &&
           buildTable(lengths + 288, 32, kDistanceBits, tables_.distance, kDistanceEntries,
                      distanceEntry);
  }

  bool dynamicTables() {
    if (!refill()) return false;
    const unsigned litlens = take(5) + 257, distances = take(5) + 1, precodes = take(4) + 4;
    if (litlens > 286 || distances > 30) return false;
    std::uint8_t precode[19] = {};
    for (unsigned i = 0; i < precodes; ++i) {
      if (!refill()) return false;
      precode[kCodeLengthOrder[i]] = static_cast<std::uint8_t>(take(3));
    }
    if (!buildTable(
            precode, 19, kPrecodeBits, tables_.precode, std::size_t{1} << kPrecodeBits,
            [](unsigned s) { return entry(kValue, s); }, true)) {
      return false;
    }
    std::uint8_t lengths[286 + 30];
    const unsigned total = litlens + distances;
    for (unsigned i = 0; i < total;) {
      if (!refill()) return false;
      const std::uint32_t e = readCode(tables_.precode, kPrecodeBits, bits_, count_);
      if (!(e & kValue)) return false;
      const unsigned symbol = valueOf(e);
      if (symbol < 16) {
        lengths[i++] = static_cast<std::uint8_t>(symbol);
        continue;
      }
      unsigned repeat = 0;
      std::uint8_t value = 0;
      if (symbol == 16) {
        if (i == 0) return false;
        value = lengths[i - 1];
        repeat = 3 + take(2);
      } else if (symbol == 17) {
        repeat = 3 + take(3);
      } else {
        repeat = 11 + take(7);
      }
      if (repeat > total - i) return false;
      std::memset(lengths + i, value, repeat);
      i += repeat;
    }
    if (lengths[256] == 0) return false;  // a block needs its end code
    return buildTable(lengths, litlens, kLitlenBits, tables_.litlen, kLitlenEntries, litlenEntry) &&
           buildTable(lengths + litlens, distances, kDistanceBits, tables_.distance,
                      kDistanceEntries, distanceEntry);
  }

  // The codes of one block up to its end code. The reader's state lives in locals here: the
  // output is written through a byte pointer, which could alias the members and would make
  // the compiler keep them in memory.
  enum class Block { kEnded, kPaused, kDamaged };
  Block huffman(const std::uint8_t* pauseAt) {
    const std::uint8_t* in = in_;
    std::uint8_t* out = out_;
    std::uint64_t bits = bits_;
    unsigned count = count_;
    const std::uint8_t* const inLimit = inEnd_ + 8;
    std::uint8_t* const outStart = outStart_;
    std::uint8_t* const outEnd = outEnd_;
    // Far from the end of the output, one test per step covers what it can write (three
    // literals, or two and a match of at most 258 bytes).
    constexpr std::ptrdiff_t kRoom = 261;
    const std::uint32_t* const litlen = tables_.litlen;
    const std::uint32_t* const distances = tables_.distance;
    const auto refill = [&] {
      bits |= bytes::load64(in) << count;
      in += (63 - count) >> 3;
      count |= 56;
    };
    const auto consume = [&](unsigned n) {
      bits >>= n;
      count -= n;
    };
    const auto decode = [&](const std::uint32_t* table, unsigned mainBits) {
      return readCode(table, mainBits, bits, count);
    };
    const auto extra = [&](std::uint32_t e) {
      const unsigned n = extraOf(e);
      const auto v = static_cast<std::uint32_t>(bits & ((std::uint64_t{1} << n) - 1));
      consume(n);
      return v;
    };
    Block result = Block::kDamaged;
    for (;;) {
      if (pauseAt && out >= pauseAt) {
        result = Block::kPaused;
        break;
      }
      if (in > inLimit) break;
      // The buffer holds at least 16 bits of the stream here (each step consumes at most 48 of
      // the 64 a refill leaves), so the next code is looked up beside the refill.
      std::uint32_t e = litlen[bits & ((1u << kLitlenBits) - 1)];
      refill();
      e = finishCode(litlen, e, kLitlenBits, bits, count);
      const bool room = outEnd - out >= kRoom;
      // Up to three literals per refill (15 bits each at most).
      if (e & kLiteral) {
        if (!room && out == outEnd) break;
        *out++ = static_cast<std::uint8_t>(valueOf(e));
        e = decode(litlen, kLitlenBits);
        if (e & kLiteral) {
          if (!room && out == outEnd) break;
          *out++ = static_cast<std::uint8_t>(valueOf(e));
          e = decode(litlen, kLitlenBits);
          if (e & kLiteral) {
            if (!room && out == outEnd) break;
            *out++ = static_cast<std::uint8_t>(valueOf(e));
            continue;
          }
        }
        // A length code's extra bits (5 at most), a distance code and its extra bits (13 at
        // most) may still be needed.
        if (in > inLimit) break;
        refill();
      }
      if (!(e & kValue)) {
        if (e & kEnd) result = Block::kEnded;  // else an invalid code
        break;
      }
      // The distance code's entry is looked up beside the length's extra bits.
      std::uint32_t d = distances[(bits >> extraOf(e)) & ((1u << kDistanceBits) - 1)];
      const std::size_t length = valueOf(e) + extra(e);
      d = finishCode(distances, d, kDistanceBits, bits, count);
      if (!(d & kValue)) break;
      const std::size_t distance = valueOf(d) + extra(d);
      if (distance > static_cast<std::size_t>(out - outStart) ||
          (!room && length > static_cast<std::size_t>(outEnd - out))) {
        break;
      }
      copyMatch(out, distance, length, ssse3_);
      out += length;
    }
    in_ = in;
    out_ = out;
    bits_ = bits;
    count_ = count;
    return result;
  }

  const Framing framing_;
  const std::uint8_t* in_;
  const std::uint8_t* const inEnd_;
  std::uint8_t* out_;
  std::uint8_t* const outStart_;
  const std::size_t capacity_, total_;
  // Where the buffer may be written up to now: the end of the output, or of the buffer.
  std::uint8_t* outEnd_;
  std::size_t offset_ = 0;    // bytes of output moved out of the buffer
  std::size_t released_ = 0;  // the caller needs no byte before this one any more
  std::uint64_t bits_ = 0;
  unsigned count_ = 0;  // valid bits in bits_ (the bits above them are the bytes that follow)
  const bool ssse3_ = cpu::hasSsse3();
  bool started_ = false, inBlock_ = false, lastBlock_ = false, ended_ = false;
  bool finished_ = false, failed_ = false;
  std::uint32_t adler_ = 1;
  const std::uint8_t* adlerDone_ = outStart_;
  // Not zeroed: a table is filled whole (main part and subtables) before a block reads it.
  std::unique_ptr<Tables> tablesOwned_ = std::make_unique_for_overwrite<Tables>();
  Tables& tables_ = *tablesOwned_;
};

}  // namespace

bool zlibHeaderAccepted(const std::uint8_t* in, std::size_t inSize) {
  if (inSize < 2) return false;
  const unsigned cmf = in[0], flg = in[1];
  return (cmf & 15) == 8 && (cmf >> 4) <= 7 && !(flg & 0x20) && (cmf * 256 + flg) % 31 == 0;
}

struct Stream::State : Inflater {
  using Inflater::Inflater;
};

Stream::Stream(const std::uint8_t* in, std::size_t inSize, std::uint8_t* out, std::size_t outSize)
    : state_(std::make_unique<State>(in, inSize, out, outSize, outSize)) {}
Stream::Stream(const std::uint8_t* in, std::size_t inSize, std::uint8_t* buffer,
               std::size_t capacity, std::size_t outSize, Framing framing)
    : state_(std::make_unique<State>(in, inSize, buffer, capacity, outSize, framing)) {}
std::size_t Stream::offset() const {
  return state_->offset();
}
void Stream::release(std::size_t position) {
  state_->release(position);
}
Stream::~Stream() = default;
bool Stream::advance(std::size_t target) {
  return state_->advance(target);
}
std::size_t Stream::produced() const {
  return state_->produced();
}
bool Stream::finished() const {
  return state_->finished();
}
std::uint32_t Stream::adler() const {
  return state_->adler();
}

bool zlib(const std::uint8_t* in, std::size_t inSize, std::uint8_t* out, std::size_t outSize) {
  Inflater inflater(in, inSize, out, outSize, outSize);
  return inflater.advance(outSize) && inflater.finished();
}

}  // namespace saffra::inflate
