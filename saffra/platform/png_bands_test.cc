// Files compressed in independent bands: the encoder's promise (each band inflates alone) and
// the banded decoder, with and without a reference file, on good and damaged input.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <thread>

#include "saffra/platform/image.h"
#include "saffra/platform/png.h"
#include "saffra/platform/png_fast.h"

namespace saffra::png {
namespace {

std::uint32_t load32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

// A PNG's chunks, to look into and to put together again (with fresh checksums).
struct Chunk {
  std::string type;
  std::vector<std::uint8_t> body;
};

std::vector<Chunk> chunksOf(const std::vector<std::uint8_t>& png) {
  std::vector<Chunk> chunks;
  for (std::size_t at = 8; at + 12 <= png.size();) {
    const std::size_t length = load32(&png[at]);
    chunks.push_back({std::string(png.begin() + at + 4, png.begin() + at + 8),
                      {png.begin() + at + 8, png.begin() + at + 8 + length}});
    at += 12 + length;
  }
  return chunks;
}

std::vector<std::uint8_t> pngOf(const std::vector<Chunk>& chunks) {
  std::vector<std::uint8_t> png = {137, 80, 78, 71, 13, 10, 26, 10};
  const auto put32 = [&](std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8)
      png.push_back(static_cast<std::uint8_t>(v >> shift));
  };
  for (const Chunk& c : chunks) {
    put32(static_cast<std::uint32_t>(c.body.size()));
    const std::size_t start = png.size();
    png.insert(png.end(), c.type.begin(), c.type.end());
    png.insert(png.end(), c.body.begin(), c.body.end());
    put32(static_cast<std::uint32_t>(
        crc32(0, png.data() + start, static_cast<uInt>(png.size() - start))));
  }
  return png;
}

Chunk* find(std::vector<Chunk>& chunks, const std::string& type) {
  for (Chunk& c : chunks) {
    if (c.type == type) return &c;
  }
  return nullptr;
}

struct Band {
  std::size_t rows, bytes;
};

std::vector<Band> bandsOf(const std::vector<std::uint8_t>& png) {
  std::vector<Chunk> chunks = chunksOf(png);
  const Chunk* list = find(chunks, kBandChunkType);
  std::vector<Band> bands;
  if (!list) return bands;
  for (std::size_t at = 0; at + 8 <= list->body.size(); at += 8) {
    bands.push_back({load32(&list->body[at]), load32(&list->body[at + 4])});
  }
  return bands;
}

// An image's scanlines, every row filtered with None (0), Sub (1) or Up (2).
std::vector<std::uint8_t> scanlines(const Image& image, int filter) {
  std::vector<std::uint8_t> raw;
  const std::size_t row = image.width() * 4;
  const std::uint8_t* p = image.data();
  for (std::size_t y = 0; y < image.height(); ++y) {
    raw.push_back(static_cast<std::uint8_t>(filter));
    for (std::size_t i = 0; i < row; ++i) {
      const int a = i >= 4 ? p[y * row + i - 4] : 0;
      const int b = y > 0 ? p[(y - 1) * row + i] : 0;
      raw.push_back(static_cast<std::uint8_t>(p[y * row + i] - (filter == 1   ? a
                                                                : filter == 2 ? b
                                                                              : 0)));
    }
  }
  return raw;
}

// A band list's body: rows and bytes of each band.
std::vector<std::uint8_t> bandList(std::initializer_list<std::size_t> rowsAndBytes) {
  std::vector<std::uint8_t> list;
  for (const std::size_t v : rowsAndBytes) {
    for (int shift = 24; shift >= 0; shift -= 8)
      list.push_back(static_cast<std::uint8_t>(v >> shift));
  }
  return list;
}

std::shared_ptr<Image> screenshot(const char* name) {
  std::ifstream in(std::filesystem::path(SAFFRA_CORPUS_DIR) / "pairs" / name, std::ios::binary);
  const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
  return decode(bytes.data(), bytes.size());
}

// A decoding on `threads` threads; the pixels go to `rgba`.
struct Decoded {
  bool opened = false, ok = false;
  std::shared_ptr<const BandIndex> index;
  std::vector<std::uint8_t> sameRows;
  bool progressComplete = false;
};

Decoded decodeBanded(const std::vector<std::uint8_t>& png, std::vector<std::uint8_t>& rgba,
                     int threads, const Decoded* reference = nullptr,
                     const std::uint8_t* referenceRgba = nullptr) {
  Decoded d;
  RowProgress progress;
  BandedDecoder decoder;
  d.opened =
      decoder.open(png, rgba, &progress, reference ? reference->index : nullptr, referenceRgba);
  if (!d.opened) return d;
  std::vector<std::thread> helpers;
  for (int k = 1; k < threads; ++k) helpers.emplace_back([&] { decoder.work(); });
  decoder.work();
  for (auto& h : helpers) h.join();
  d.ok = decoder.finish();
  d.index = decoder.index();
  if (progress.sameRows())
    d.sameRows.assign(progress.sameRows(), progress.sameRows() + decoder.height());
  d.progressComplete = progress.complete();
  return d;
}

// A valid file whose listed bands do not keep the rules: opened, refused, and decoded whole.
void expectRefusedInBandsButDecodedWhole(const std::vector<std::uint8_t>& png, const Image& image) {
  std::vector<std::uint8_t> rgba;
  const Decoded d = decodeBanded(png, rgba, 2);
  EXPECT_TRUE(d.opened);
  EXPECT_FALSE(d.ok);
  EXPECT_FALSE(d.progressComplete);
  std::size_t width = 0, height = 0;
  ASSERT_TRUE(decodeCommonInto(png.data(), png.size(), rgba, width, height));
  EXPECT_EQ(rgba, image.pixels());
}

// Each band of an encoded screenshot inflates on its own, from an empty window, to exactly its
// rows; and since bands stand alone, the bytes do not depend on how many threads encoded them.
TEST(PngBandsTest, EncoderWritesBandsThatInflateAlone) {
  const std::shared_ptr<Image> image = screenshot("phone-help-steps-1170x2532.png");
  ASSERT_TRUE(image);
  const std::vector<std::uint8_t> png = image->pngData();
  EXPECT_EQ(encode(image->data(), image->width(), image->height(), image->width() * 4, {3}), png);

  std::vector<Chunk> chunks = chunksOf(png);
  const std::vector<std::uint8_t>& stream = find(chunks, "IDAT")->body;
  const std::vector<Band> bands = bandsOf(png);
  ASSERT_GE(bands.size(), 10u);
  const std::size_t rawRow = image->width() * 4 + 1;
  std::size_t row = 0, offset = 2;
  for (std::size_t k = 0; k < bands.size(); ++k) {
    SCOPED_TRACE(k);
    std::vector<std::uint8_t> out(bands[k].rows * rawRow + 1);
    z_stream z{};
    ASSERT_EQ(inflateInit2(&z, -15), Z_OK);
    z.next_in = const_cast<std::uint8_t*>(&stream[offset]);
    z.avail_in = static_cast<uInt>(bands[k].bytes);
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    const int rc = inflate(&z, Z_SYNC_FLUSH);
    EXPECT_EQ(rc, k + 1 == bands.size() ? Z_STREAM_END : Z_OK);
    EXPECT_EQ(z.avail_in, 0u);
    EXPECT_EQ(z.total_out, bands[k].rows * rawRow);
    inflateEnd(&z);
    for (std::size_t y = 0; y < bands[k].rows; ++y) {
      ASSERT_EQ(out[y * rawRow], 0);
      ASSERT_EQ(
          std::memcmp(&out[y * rawRow + 1], image->data() + (row + y) * (rawRow - 1), rawRow - 1),
          0);
    }
    row += bands[k].rows;
    offset += bands[k].bytes;
  }
  EXPECT_EQ(row, image->height());
  EXPECT_EQ(offset + 4, stream.size());

  // Small images are one band, without a list.
  EXPECT_TRUE(bandsOf(Image(40, 30).pngData()).empty());
}

// Bands decoded on several threads give the image; against a reference, the bands whose bytes
// it shares are copied and reported as known to be the same, and the rest decoded.
TEST(PngBandsTest, DecodesBandsOnThreadsAndCopiesThoseTheReferenceShares) {
  const std::shared_ptr<Image> image = screenshot("phone-help-steps-1170x2532.png");
  ASSERT_TRUE(image);
  const std::vector<std::uint8_t> png = image->pngData();
  std::vector<std::uint8_t> first;
  const Decoded whole = decodeBanded(png, first, 3);
  ASSERT_TRUE(whole.opened && whole.ok);
  EXPECT_EQ(first, image->pixels());
  EXPECT_TRUE(whole.progressComplete);
  EXPECT_TRUE(whole.sameRows.empty());
  ASSERT_TRUE(whole.index);

  // A change of a few rows in the middle.
  Image changed(image->width(), image->height(), image->pixels());
  for (std::size_t y = 1200; y < 1206; ++y) {
    for (std::size_t x = 100; x < 300; ++x)
      changed.mutableData()[(y * changed.width() + x) * 4] ^= 0x80;
  }
  const std::vector<std::uint8_t> changedPng = changed.pngData();
  for (int threads : {1, 2}) {
    std::vector<std::uint8_t> second;
    const Decoded against = decodeBanded(changedPng, second, threads, &whole, first.data());
    ASSERT_TRUE(against.opened && against.ok);
    EXPECT_EQ(second, changed.pixels());
    EXPECT_TRUE(against.progressComplete);
    ASSERT_EQ(against.sameRows.size(), changed.height());
    std::size_t same = 0;
    for (std::size_t y = 0; y < changed.height(); ++y) {
      same += against.sameRows[y];
      if (against.sameRows[y]) {
        ASSERT_EQ(std::memcmp(&second[y * changed.width() * 4], &first[y * changed.width() * 4],
                              changed.width() * 4),
                  0);
      }
    }
    EXPECT_EQ(against.sameRows[1203], 0);
    EXPECT_GT(same, changed.height() * 9 / 10);
  }

  // A reference of another size shares nothing.
  const Image smaller(
      image->width(), image->height() - 64,
      {image->pixels().begin(),
       image->pixels().end() - static_cast<std::ptrdiff_t>(64 * image->width() * 4)});
  std::vector<std::uint8_t> other, third;
  const Decoded small = decodeBanded(smaller.pngData(), other, 2);
  ASSERT_TRUE(small.ok);
  const Decoded unrelated = decodeBanded(png, third, 2, &small, other.data());
  EXPECT_TRUE(unrelated.ok);
  EXPECT_TRUE(unrelated.sameRows.empty());
  EXPECT_EQ(third, image->pixels());
}

// A damaged band, a checksum that does not match, a list that does not add up, and bands that
// do not stand alone are refused; a list that does not add up is not even opened, and a valid
// file with bands that do not stand alone still decodes as a whole.
TEST(PngBandsTest, RefusesDamageAndBandsThatDoNotStandAlone) {
  Image source(300, 700);
  for (std::size_t i = 0; i < source.pixels().size(); ++i) {
    source.mutableData()[i] = static_cast<std::uint8_t>((i / 4 % 300) * 3 + i / 1200 / 7);
  }
  const std::vector<std::uint8_t> png = source.pngData();
  ASSERT_GE(bandsOf(png).size(), 3u);
  std::vector<std::uint8_t> rgba;
  ASSERT_TRUE(decodeBanded(png, rgba, 2).ok);
  EXPECT_EQ(rgba, source.pixels());
  const Decoded reference = decodeBanded(png, rgba, 2);

  const auto edited = [&](auto edit) {
    std::vector<Chunk> chunks = chunksOf(png);
    edit(find(chunks, "IDAT")->body, find(chunks, kBandChunkType)->body);
    return pngOf(chunks);
  };
  const std::vector<Band> bands = bandsOf(png);
  const std::size_t middle = 2 + bands[0].bytes + bands[1].bytes / 2;
  const std::vector<std::vector<std::uint8_t>> refused = {
      edited([&](auto& idat, auto&) { idat[middle] ^= 0x10; }),
      edited([&](auto& idat, auto&) { idat[idat.size() - 1] ^= 1; }),
  };
  for (const auto& bad : refused) {
    std::vector<std::uint8_t> out;
    const Decoded d = decodeBanded(bad, out, 2);
    EXPECT_TRUE(d.opened);
    EXPECT_FALSE(d.ok);
    EXPECT_FALSE(d.progressComplete);
    // Against a reference that shares the undamaged bands: still refused.
    std::vector<std::uint8_t> out2;
    EXPECT_FALSE(decodeBanded(bad, out2, 2, &reference, rgba.data()).ok);
  }

  const std::vector<std::vector<std::uint8_t>> unopened = {
      edited([](auto&, auto& list) { list[3] += 1; }),  // one row too many
      edited([](auto&, auto& list) { list[7] += 1; }),  // one byte too many
      edited([](auto&, auto& list) { list.resize(8); }),
  };
  for (const auto& bad : unopened) {
    std::vector<std::uint8_t> out;
    EXPECT_FALSE(decodeBanded(bad, out, 1).opened);
  }

  // The same rows compressed by zlib as one stream, listed as if cut into bands: the cuts are
  // not where blocks end, or matches reach across them.
  const std::vector<std::uint8_t> raw = scanlines(source, 0);
  uLongf size = compressBound(raw.size());
  std::vector<std::uint8_t> zlibbed(size);
  compress2(zlibbed.data(), &size, raw.data(), raw.size(), 6);
  zlibbed.resize(size);
  const std::size_t deflated = size - 6;
  std::vector<Chunk> chunks = chunksOf(png);
  find(chunks, "IDAT")->body = zlibbed;
  find(chunks, kBandChunkType)->body = bandList({350, deflated / 2, 350, deflated - deflated / 2});
  expectRefusedInBandsButDecodedWhole(pngOf(chunks), source);
}

// Another encoder's bands (zlib with a full flush between them) are decoded band by band when
// they keep the rules; a band whose first row is filtered against the row above (in the band
// before) is refused, though the file decodes whole.
TEST(PngBandsTest, DecodesOtherEncodersBandsThatKeepTheRules) {
  const std::size_t width = 64, height = 50, split = 20;
  Image source(width, height);
  for (std::size_t i = 0; i < source.pixels().size(); ++i) {
    source.mutableData()[i] = static_cast<std::uint8_t>(i * 13 / 7 + i / 256);
  }
  const auto bandedPng = [&](int filter) {
    std::vector<std::uint8_t> raw = scanlines(source, filter);
    const std::size_t row = width * 4;
    std::vector<std::uint8_t> stream(compressBound(raw.size()) + 64);
    z_stream z{};
    deflateInit(&z, 6);
    z.next_out = stream.data();
    z.avail_out = static_cast<uInt>(stream.size());
    z.next_in = raw.data();
    z.avail_in = static_cast<uInt>(split * (row + 1));
    deflate(&z, Z_FULL_FLUSH);  // the band ends on a byte boundary, with nothing to refer back to
    const std::size_t firstBytes = z.total_out - 2;
    z.avail_in = static_cast<uInt>(raw.size() - split * (row + 1));
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    stream.resize(z.total_out);
    deflateEnd(&z);

    std::vector<Chunk> chunks = chunksOf(source.pngData());
    find(chunks, "IDAT")->body = stream;
    chunks.insert(chunks.begin() + 1, {kBandChunkType, bandList({split, firstBytes, height - split,
                                                                 stream.size() - 6 - firstBytes})});
    return pngOf(chunks);
  };

  std::vector<std::uint8_t> rgba;
  const std::vector<std::uint8_t> sub = bandedPng(1);
  EXPECT_TRUE(decodeBanded(sub, rgba, 2).ok);
  EXPECT_EQ(rgba, source.pixels());

  expectRefusedInBandsButDecodedWhole(bandedPng(2), source);
}

}  // namespace
}  // namespace saffra::png
