#include "server/codec/inflater.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "saffra/platform/internal/cpu.h"

namespace saffra::inflate {
namespace {

using Bytes = std::vector<std::uint8_t>;

// `data` compressed by zlib with the given level and strategy.
Bytes compress(const Bytes& data, int level, int strategy = Z_DEFAULT_STRATEGY) {
  z_stream z{};
  EXPECT_EQ(deflateInit2(&z, level, Z_DEFLATED, 15, 9, strategy), Z_OK);
  Bytes out(deflateBound(&z, data.size()) + 16);
  z.next_in = const_cast<std::uint8_t*>(data.data());
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

// `stream` followed by the zeros the inflater may read past its end.
Bytes padded(const Bytes& stream) {
  Bytes bytes(stream);
  bytes.resize(stream.size() + kInputPadding, 0);
  return bytes;
}

// Inflates `stream` into exactly `size` bytes, with the padding and slack the inflater needs.
bool inflateTo(const Bytes& stream, std::size_t size, Bytes& out) {
  out.assign(size + kOutputSlack, 0xee);
  const bool ok = zlib(padded(stream).data(), stream.size(), out.data(), size);
  out.resize(size);
  return ok;
}

// Data of the kinds a PNG holds: runs of one byte, runs of short patterns at every period
// below and around the 16-byte store, rows repeated from far back, literals, all mixed.
Bytes mixedData(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  Bytes data;
  while (data.size() < size) {
    const unsigned kind = random() % 4;
    const std::size_t length = 1 + random() % 700;
    if (kind == 0) {  // noise
      for (std::size_t i = 0; i < length; ++i) data.push_back(static_cast<std::uint8_t>(random()));
    } else if (kind == 1 || data.size() < 64) {  // a short pattern repeated
      const std::size_t period = 1 + random() % 40;
      Bytes pattern(period);
      for (auto& b : pattern) b = static_cast<std::uint8_t>(random());
      for (std::size_t i = 0; i < length; ++i) data.push_back(pattern[i % period]);
    } else {  // a stretch of earlier data, near or far
      const std::size_t back = 1 + random() % std::min<std::size_t>(data.size(), 40000);
      const std::size_t from = data.size() - back;
      for (std::size_t i = 0; i < length; ++i) data.push_back(data[from + i]);
    }
  }
  data.resize(size);
  return data;
}

// Every block type and match shape that zlib writes comes back byte for byte, whether the
// processor's shuffle is used for short patterns or not.
TEST(InflateTest, InflatesWhatZlibWritesExactly) {
  const std::pair<int, int> settings[] = {{0, Z_DEFAULT_STRATEGY},
                                          {1, Z_DEFAULT_STRATEGY},
                                          {6, Z_DEFAULT_STRATEGY},
                                          {9, Z_DEFAULT_STRATEGY},
                                          {6, Z_FIXED},
                                          {6, Z_RLE},
                                          {6, Z_HUFFMAN_ONLY}};
  for (const bool baseline : {false, true}) {
    cpu::useBaselineKernels(baseline);
    for (unsigned seed = 1; seed <= 6; ++seed) {
      const Bytes data = mixedData(seed * 40000, seed);
      for (const auto& [level, strategy] : settings) {
        SCOPED_TRACE(::testing::Message()
                     << "seed " << seed << " level " << level << " strategy " << strategy);
        Bytes out;
        ASSERT_TRUE(inflateTo(compress(data, level, strategy), data.size(), out));
        ASSERT_EQ(out, data);
      }
    }
  }
  cpu::useBaselineKernels(false);
  // Nothing at all, and a single byte.
  for (const Bytes& data : {Bytes{}, Bytes{42}}) {
    Bytes out;
    EXPECT_TRUE(inflateTo(compress(data, 6), data.size(), out));
    EXPECT_EQ(out, data);
  }
}

// A stream is refused, without reading or writing out of bounds (the sanitizer builds check
// that), when it is cut short, damaged anywhere, holds more or less than the size asked for,
// needs a preset dictionary or has a bad header; a damaged stream never passes as good data.
TEST(InflateTest, RefusesDamagedStreamsAndWrongSizes) {
  const Bytes data = mixedData(30000, 7);
  const Bytes stream = compress(data, 6);
  Bytes out;
  ASSERT_TRUE(inflateTo(stream, data.size(), out));
  EXPECT_FALSE(inflateTo(stream, data.size() - 1, out));
  EXPECT_FALSE(inflateTo(stream, data.size() + 1, out));
  for (std::size_t cut = 0; cut < stream.size(); cut += 1 + cut / 7) {
    EXPECT_FALSE(inflateTo(Bytes(stream.begin(), stream.begin() + cut), data.size(), out))
        << "cut at " << cut;
  }
  std::mt19937 random(11);
  for (int k = 0; k < 3000; ++k) {
    Bytes damaged = stream;
    const std::size_t at = random() % damaged.size();
    damaged[at] ^= static_cast<std::uint8_t>(1u << (random() % 8));
    if (inflateTo(damaged, data.size(), out)) {
      EXPECT_EQ(out, data) << "flip at " << at;
    }
  }
  // Random bytes behind a valid header, and streams of garbage of every small length.
  for (int k = 0; k < 3000; ++k) {
    Bytes garbage(2 + random() % 600);
    for (auto& b : garbage) b = static_cast<std::uint8_t>(random());
    garbage[0] = 0x78, garbage[1] = 0x9c;
    EXPECT_FALSE(inflateTo(garbage, 1000, out));
  }
  Bytes dictionary = stream, header = stream;
  dictionary[1] = 0xbb;  // 0x78bb: the preset-dictionary flag, header check still valid
  header[1] ^= 1;
  EXPECT_FALSE(inflateTo(dictionary, data.size(), out));
  EXPECT_FALSE(inflateTo(header, data.size(), out));
}

// Advances `s` by `step` bytes at a time (releasing all output first when `release`) until it
// finishes, at most 1000 times; true when a step failed.
bool failsOnSomeStep(Stream& s, std::size_t step, bool release) {
  for (int k = 0; k < 1000 && !s.finished(); ++k) {
    if (release) s.release(s.produced());
    if (!s.advance(s.produced() + step)) return true;
  }
  return false;
}

// Piece by piece, in steps of any size, the stream gives the same bytes and the same checks:
// it finishes only at its verified end, and a damaged stream fails on some step and stays
// failed.
TEST(InflateTest, InflatesPieceByPieceLikeAllAtOnce) {
  const Bytes data = mixedData(200000, 9);
  const Bytes stream = compress(data, 6), input = padded(stream);
  std::mt19937 random(5);
  for (const std::size_t step : {1ul, 100ul, 4096ul, 65536ul, 1000000ul}) {
    Bytes out(data.size() + kOutputSlack);
    Stream s(input.data(), stream.size(), out.data(), data.size());
    std::size_t produced = 0;
    while (!s.finished()) {
      ASSERT_TRUE(s.advance(produced + 1 + random() % step));
      ASSERT_GE(s.produced(), produced);
      // What a step reports final is already the data's.
      ASSERT_TRUE(
          std::equal(out.begin() + produced, out.begin() + s.produced(), data.begin() + produced))
          << step;
      produced = s.produced();
    }
    EXPECT_EQ(produced, data.size());
    EXPECT_TRUE(std::equal(data.begin(), data.end(), out.begin())) << step;
  }
  Bytes damaged = input, out(data.size() + kOutputSlack);
  damaged[stream.size() - 2] ^= 1;  // the checksum
  Stream s(damaged.data(), stream.size(), out.data(), data.size());
  EXPECT_TRUE(failsOnSomeStep(s, 5000, false));
  EXPECT_FALSE(s.finished());
  EXPECT_FALSE(s.advance(data.size()));
}

// Through a small buffer used again and again, the stream gives the same bytes: stored blocks
// of 64 KiB, far matches and any step size, with the caller keeping a varying tail. A matching
// checksum is still required at the end.
TEST(InflateTest, InflatesThroughAReusedBuffer) {
  const Bytes data = mixedData(1500000, 11);
  std::mt19937 random(7);
  for (const int level : {0, 1, 6, 9}) {
    const Bytes stream = compress(data, level), input = padded(stream);
    for (const std::size_t step : {1000ul, 50000ul}) {
      const std::size_t capacity = kMinCapacity + 4 * step;
      Bytes buffer(capacity + kOutputSlack);
      Stream s(input.data(), stream.size(), buffer.data(), capacity, data.size());
      std::size_t checked = 0;
      while (!s.finished()) {
        ASSERT_TRUE(s.advance(checked + 1 + random() % step)) << level << " " << step;
        // Everything not yet released is still in the buffer, where the offset says.
        ASSERT_LE(s.offset(), checked);
        ASSERT_TRUE(std::equal(buffer.begin() + (checked - s.offset()),
                               buffer.begin() + (s.produced() - s.offset()),
                               data.begin() + checked))
            << level << " " << step;
        // Keep a few bytes of the last piece, as a reader holding a partial row does.
        const std::size_t keep = std::min<std::size_t>(random() % step, s.produced() - checked);
        s.release(s.produced() - keep);
        checked = s.produced() - keep;
      }
      EXPECT_EQ(s.produced(), data.size());
      EXPECT_GT(s.offset(), 0u);
    }
    Bytes damaged = input, buffer(kMinCapacity + 20000 + kOutputSlack);
    damaged[stream.size() - 1] ^= 1;  // the checksum
    Stream s(damaged.data(), stream.size(), buffer.data(), kMinCapacity + 20000, data.size());
    EXPECT_TRUE(failsOnSomeStep(s, 10000, true)) << level;
  }
  // A buffer with no room beyond what the stream must keep fails instead of standing still.
  const Bytes stream = compress(data, 6), input = padded(stream);
  Bytes buffer(kMinCapacity + kOutputSlack);
  Stream s(input.data(), stream.size(), buffer.data(), kMinCapacity, data.size());
  EXPECT_TRUE(failsOnSomeStep(s, 10000, true));
}

}  // namespace
}  // namespace saffra::inflate
