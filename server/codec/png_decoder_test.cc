#include "server/codec/png_decoder.h"

#include <gtest/gtest.h>
#include <spng.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <thread>

#include "saffra/platform/exception.h"
#include "saffra/platform/image.h"
#include "saffra/platform/internal/cpu.h"
#include "saffra/platform/png.h"
#include "testing/png_files.h"

namespace saffra::png {
namespace {

using namespace saffra::testing;
const std::filesystem::path kCorpus = SAFFRA_CORPUS_DIR;

// The scanlines of RGBA `pixels` (`bpp` 3 drops alpha) whose row y uses filter
// types[y % size], filtered here byte by byte as the format defines.
Bytes filteredRows(const Bytes& pixels, std::size_t width, std::size_t height, std::size_t bpp,
                   const std::vector<int>& types) {
  const std::size_t rowBytes = width * bpp;
  Bytes rows(height * rowBytes);
  for (std::size_t i = 0; i < width * height; ++i) {
    for (std::size_t c = 0; c < bpp; ++c) rows[i * bpp + c] = pixels[i * 4 + c];
  }
  Bytes raw;
  for (std::size_t y = 0; y < height; ++y) {
    const int type = types[y % types.size()];
    raw.push_back(static_cast<std::uint8_t>(type));
    for (std::size_t i = 0; i < rowBytes; ++i) {
      const int x = rows[y * rowBytes + i];
      const int a = i >= bpp ? rows[y * rowBytes + i - bpp] : 0;
      const int b = y > 0 ? rows[(y - 1) * rowBytes + i] : 0;
      const int c = y > 0 && i >= bpp ? rows[(y - 1) * rowBytes + i - bpp] : 0;
      const int pa = std::abs(b - c), pb = std::abs(a - c), pc = std::abs(a + b - 2 * c);
      const int predictors[5] = {0, a, b, (a + b) / 2,
                                 pa <= pb && pa <= pc ? a : (pb <= pc ? b : c)};
      raw.push_back(static_cast<std::uint8_t>(x - predictors[type]));
    }
  }
  return raw;
}

Bytes filteredPng(const Bytes& pixels, std::size_t width, std::size_t height, std::size_t bpp,
                  const std::vector<int>& types) {
  return pngWith(width, height, bpp, zlibCompress(filteredRows(pixels, width, height, bpp, types)));
}

// RGBA pixels, mostly smooth with sharp steps every few bytes (so every Paeth choice occurs);
// opaque when `bpp` is 3.
Bytes steppedPixels(std::size_t count, std::size_t bpp, std::uint32_t seed, unsigned every,
                    unsigned slope) {
  Bytes pixels(count * 4);
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    seed = seed * 1103515245 + 12345;
    pixels[i] = static_cast<std::uint8_t>((seed >> 16) % every == 0 ? seed >> 8 : i / 4 * slope);
    if (bpp == 3 && i % 4 == 3) pixels[i] = 255;
  }
  return pixels;
}

// The general decoder's reading of the same bytes.
Bytes decodeWithSpng(const Bytes& png) {
  spng_ctx* ctx = spng_ctx_new(0);
  spng_set_png_buffer(ctx, png.data(), png.size());
  std::size_t size = 0;
  spng_decoded_image_size(ctx, SPNG_FMT_RGBA8, &size);
  Bytes out(size);
  EXPECT_EQ(spng_decode_image(ctx, out.data(), size, SPNG_FMT_RGBA8, SPNG_DECODE_TRNS), 0);
  spng_ctx_free(ctx);
  return out;
}

// Two files decoded together.
struct Pair {
  Bytes rgbaA, rgbaB, same;
  DecodedPixels a{rgbaA}, b{rgbaB};
  bool decode(const Bytes& first, const Bytes& second) {
    return decodeCommonPairInto(first, second, a, b, same);
  }
};

// The library's own files are of the common kind: translucent pixels and the scale intact.
// Damage of any kind is left to the general decoder (which refuses it).
TEST(PngDecoderTest, DecodesTheLibrarysFilesAndLeavesDamagedOnesToTheGeneralDecoder) {
  const std::shared_ptr<Image> source = randomImage(37, 9, false, 11);
  const Bytes good = source->pngData();
  const std::shared_ptr<Image> image = decodeCommon(good.data(), good.size(), 2.0);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->pixels(), source->pixels());
  EXPECT_EQ(image->scale(), 2.0);

  const auto edited = [&](auto edit) {
    Bytes bytes = good;
    edit(bytes);
    return bytes;
  };
  const std::pair<const char*, Bytes> cases[] = {
      {"empty", {}},
      {"corrupt", edited([](Bytes& b) { b[b.size() / 2] ^= 0x55; })},
      {"truncated", edited([](Bytes& b) { b.resize(b.size() - 20); })},
      {"header checksum", edited([](Bytes& b) { b[8 + 8 + 13] ^= 1; })},
      {"chunk length", edited([](Bytes& b) { b[8] = 0x7f; })},
      {"jpeg", {0xFF, 0xD8, 0xFF, 0xE0, 0, 16, 'J', 'F', 'I', 'F', 0}},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(decodeCommon(bytes.data(), bytes.size(), 1.0), nullptr);
    EXPECT_THROW(Image::fromPNGData(bytes), Exception);
  }
  EXPECT_EQ(decodeCommon(nullptr, 0, 1.0), nullptr);
}

// Every corpus screenshot (all filter types occur in them) decodes to the very pixels the
// general decoder gives; the palette one is left to the general decoder. Each pair (same
// screen, same encoder) decodes together to each file's own pixels.
TEST(PngDecoderTest, DecodesCorpusFilesAloneAndInPairsLikeTheGeneralDecoder) {
  int fast = 0, pairs = 0;
  for (const auto& dir : {kCorpus, kCorpus / "pairs"}) {
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      const std::string name = entry.path().filename().string();
      if (entry.path().extension() != ".png") continue;
      SCOPED_TRACE(name);
      const Bytes bytes = readFile(entry.path());
      const std::shared_ptr<Image> image = decodeCommon(bytes.data(), bytes.size(), 1.0);
      if (!image) {
        EXPECT_NE(name.find("dialog"), std::string::npos);
        continue;
      }
      ++fast;
      const Bytes pixels = decodeWithSpng(bytes);
      EXPECT_EQ(image->pixels(), pixels);

      const std::size_t cut = name.find("--");
      if (cut == std::string::npos) continue;
      const Bytes first = readFile(dir / (name.substr(0, cut) + ".png"));
      Pair pair;
      ASSERT_TRUE(pair.decode(first, bytes));
      EXPECT_EQ(pair.rgbaA, decodeWithSpng(first));
      EXPECT_EQ(pair.rgbaB, pixels);
      const std::size_t row = pair.a.width * 4;
      for (std::size_t y = 0; y < pair.same.size(); ++y) {
        if (pair.same[y]) {
          ASSERT_EQ(std::memcmp(&pair.rgbaA[y * row], &pair.rgbaB[y * row], row), 0) << y;
        }
      }
      ++pairs;
    }
  }
  EXPECT_GT(fast, 20);
  EXPECT_GE(pairs, 8);
}

// Every filter type, alone and next to each other, on RGB and RGBA rows of widths around the
// 4-pixel steps of the row decoder and the four Paeth stretches, with the processor's own
// kernels and with the portable ones.
TEST(PngDecoderTest, UndoesEveryFilterOnRgbAndRgbaRowsOfAnyWidth) {
  const std::vector<std::vector<int>> orders = {
      {0}, {1}, {2}, {3}, {4}, {4, 4, 4, 2}, {3, 4, 1, 4, 4, 0, 2, 4}, {2, 3, 4, 4, 1}};
  for (const bool portable : {false, true}) {
    cpu::useBaselineKernels(portable);
    for (const std::size_t bpp : {3u, 4u}) {
      for (const std::size_t width : {1u, 2u, 3u, 4u, 5u, 7u, 8u, 13u, 33u}) {
        const Bytes pixels = steppedPixels(width * 11, bpp, 12345, 7, 3);
        for (const auto& order : orders) {
          SCOPED_TRACE(::testing::Message()
                       << (portable ? "portable, " : "") << "bpp " << bpp << ", width " << width
                       << ", first filter " << order[0]);
          const Bytes png = filteredPng(pixels, width, 11, bpp, order);
          const std::shared_ptr<Image> image = decodeCommon(png.data(), png.size(), 1.0);
          ASSERT_TRUE(image);
          EXPECT_EQ(image->pixels(), pixels);
          EXPECT_EQ(decodeWithSpng(png), pixels);
        }
      }
    }
  }
  cpu::useBaselineKernels(false);
}

// Two files decoded together give each file's own pixels, whatever filters either uses row by
// row, and rows reported the same are the same. The second image shares most rows with the
// first; rows 3 and 4 are shifted alike (so an Up row 4 has the same filtered bytes in both
// files but other pixels), and half of row 8 is changed.
TEST(PngDecoderTest, DecodesTwoFilesTogetherLikeEachAlone) {
  const std::vector<std::vector<int>> orders = {{4},
                                                {1, 2},
                                                {4, 4, 4, 2},
                                                {2, 2, 4, 4},
                                                {4, 4, 2, 2},
                                                {2, 3, 4, 4, 1},
                                                {3, 4, 1, 4, 4, 0, 2, 4}};
  for (const std::size_t bpp : {3u, 4u}) {
    for (const std::size_t width : {1u, 2u, 3u, 5u, 33u}) {
      for (const auto& [heightA, heightB] : {std::pair{11u, 11u}, {9u, 13u}, {13u, 9u}}) {
        const Bytes pixels = steppedPixels(width * std::max(heightA, heightB), bpp, 777, 5, 5);
        Bytes other = pixels;
        for (std::size_t i = 0; i < width * 4; ++i) {
          if (bpp == 3 && i % 4 == 3) continue;  // RGB files keep opaque alpha
          other[3 * width * 4 + i] += 9;
          other[4 * width * 4 + i] += 9;
          if (i < width * 2) other[8 * width * 4 + i] ^= 0x5a;
        }
        const Bytes pixelsA(pixels.begin(), pixels.begin() + width * heightA * 4);
        const Bytes pixelsB(other.begin(), other.begin() + width * heightB * 4);
        for (const auto& orderA : orders) {
          for (const auto& orderB : orders) {
            SCOPED_TRACE(::testing::Message()
                         << "bpp " << bpp << ", width " << width << ", heights " << heightA << "/"
                         << heightB << ", orders " << orderA.size() << "/" << orderB.size());
            // Some RGB files are paired with an RGBA file of the same pixels.
            const std::size_t bppB = bpp == 3 && orderB.size() % 2 ? 4 : bpp;
            Pair pair;
            ASSERT_TRUE(pair.decode(filteredPng(pixelsA, width, heightA, bpp, orderA),
                                    filteredPng(pixelsB, width, heightB, bppB, orderB)));
            EXPECT_EQ(pair.rgbaA, pixelsA);
            EXPECT_EQ(pair.rgbaB, pixelsB);
            EXPECT_EQ(pair.b.width, width);
            EXPECT_EQ(pair.b.height, heightB);
            ASSERT_EQ(pair.same.size(), heightB);
            for (std::size_t y = 0; y < heightB; ++y) {
              const bool equal = y < heightA && y != 3 && y != 4 && y != 8;
              EXPECT_EQ(pair.same[y], equal ? 1 : 0) << "row " << y;
            }
          }
        }
      }
    }
  }
}

// Files that cannot share rows (other widths, other pixel formats) still decode; a damaged one
// fails the pair.
TEST(PngDecoderTest, DecodesUnlikeFilesTogetherAndRefusesDamagedOnes) {
  Image narrow(7, 4), wide(9, 4);
  for (std::size_t i = 0; i < narrow.pixels().size(); ++i) narrow.mutableData()[i] = 200;
  Bytes rgb(7 * 4 * 4, 90);
  for (std::size_t i = 3; i < rgb.size(); i += 4) rgb[i] = 255;
  const Bytes narrowPng = narrow.pngData(), widePng = wide.pngData();
  Pair pair;
  ASSERT_TRUE(pair.decode(narrowPng, widePng));
  EXPECT_EQ(pair.rgbaA, narrow.pixels());
  EXPECT_EQ(pair.rgbaB, wide.pixels());
  ASSERT_TRUE(pair.decode(narrowPng, filteredPng(rgb, 7, 4, 3, {4})));
  EXPECT_EQ(pair.rgbaB, rgb);
  EXPECT_EQ(pair.same, Bytes(4, 0));
  const Bytes truncated(widePng.begin(), widePng.end() - 20);
  EXPECT_FALSE(pair.decode(narrowPng, truncated));
  EXPECT_FALSE(pair.decode(truncated, narrowPng));
}

struct Band {
  std::size_t rows, bytes;
};

std::vector<Band> bandsOf(const Bytes& png) {
  std::vector<Chunk> chunks = chunksOf(png);
  const Chunk* list = findChunk(chunks, kBandChunkType);
  std::vector<Band> bands;
  for (std::size_t at = 0; list && at + 8 <= list->body.size(); at += 8) {
    bands.push_back({load32(&list->body[at]), load32(&list->body[at + 4])});
  }
  return bands;
}

// A band list's body: rows and bytes of each band.
Bytes bandList(std::initializer_list<std::size_t> rowsAndBytes) {
  Bytes list;
  for (const std::size_t v : rowsAndBytes) put32(list, v);
  return list;
}

// A decoding on `threads` threads; the pixels go to `rgba`.
struct Decoded {
  bool opened = false, ok = false;
  std::shared_ptr<const BandIndex> index;
  Bytes sameRows;
  bool progressComplete = false;
};

Decoded decodeBanded(const Bytes& png, Bytes& rgba, int threads, const Decoded* reference = nullptr,
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
void expectRefusedInBandsButDecodedWhole(const Bytes& png, const Image& image) {
  Bytes rgba;
  const Decoded d = decodeBanded(png, rgba, 2);
  EXPECT_TRUE(d.opened);
  EXPECT_FALSE(d.ok);
  EXPECT_FALSE(d.progressComplete);
  std::size_t width = 0, height = 0;
  ASSERT_TRUE(decodeCommonInto(png.data(), png.size(), rgba, width, height));
  EXPECT_EQ(rgba, image.pixels());
}

std::shared_ptr<Image> phoneScreenshot() {
  const Bytes bytes = readFile(kCorpus / "pairs" / "phone-help-steps-1170x2532.png");
  return decode(bytes.data(), bytes.size());
}

// Each band of an encoded screenshot inflates on its own, from an empty window, to exactly its
// rows; and since bands stand alone, the bytes do not depend on how many threads encoded them.
TEST(BandedDecoderTest, EncoderWritesBandsThatInflateAlone) {
  const std::shared_ptr<Image> image = phoneScreenshot();
  const Bytes png = image->pngData();
  EXPECT_EQ(encode(image->data(), image->width(), image->height(), image->width() * 4, {3}), png);

  std::vector<Chunk> chunks = chunksOf(png);
  const Bytes& stream = findChunk(chunks, "IDAT")->body;
  const std::vector<Band> bands = bandsOf(png);
  ASSERT_GE(bands.size(), 10u);
  const std::size_t rawRow = image->width() * 4 + 1;
  std::size_t row = 0, offset = 2;
  for (std::size_t k = 0; k < bands.size(); ++k) {
    SCOPED_TRACE(k);
    Bytes out(bands[k].rows * rawRow + 1);
    z_stream z{};
    ASSERT_EQ(inflateInit2(&z, -15), Z_OK);
    z.next_in = const_cast<std::uint8_t*>(&stream[offset]);
    z.avail_in = static_cast<uInt>(bands[k].bytes);
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(inflate(&z, Z_SYNC_FLUSH), k + 1 == bands.size() ? Z_STREAM_END : Z_OK);
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
TEST(BandedDecoderTest, DecodesBandsOnThreadsAndCopiesThoseTheReferenceShares) {
  const std::shared_ptr<Image> image = phoneScreenshot();
  const Bytes png = image->pngData();
  Bytes first;
  const Decoded whole = decodeBanded(png, first, 3);
  ASSERT_TRUE(whole.opened && whole.ok);
  EXPECT_EQ(first, image->pixels());
  EXPECT_TRUE(whole.progressComplete);
  EXPECT_TRUE(whole.sameRows.empty());
  ASSERT_TRUE(whole.index);

  // A change of a few rows in the middle.
  Image changed(image->width(), image->height(), image->pixels());
  const std::size_t row = changed.width() * 4;
  for (std::size_t y = 1200; y < 1206; ++y) {
    for (std::size_t x = 100; x < 300; ++x) changed.mutableData()[y * row + x * 4] ^= 0x80;
  }
  const Bytes changedPng = changed.pngData();
  for (int threads : {1, 2}) {
    Bytes second;
    const Decoded against = decodeBanded(changedPng, second, threads, &whole, first.data());
    ASSERT_TRUE(against.opened && against.ok);
    EXPECT_EQ(second, changed.pixels());
    EXPECT_TRUE(against.progressComplete);
    ASSERT_EQ(against.sameRows.size(), changed.height());
    std::size_t same = 0;
    for (std::size_t y = 0; y < changed.height(); ++y) {
      same += against.sameRows[y];
      if (against.sameRows[y]) {
        ASSERT_EQ(std::memcmp(&second[y * row], &first[y * row], row), 0);
      }
    }
    EXPECT_EQ(against.sameRows[1203], 0);
    EXPECT_GT(same, changed.height() * 9 / 10);
  }

  // A reference of another size shares nothing.
  const Image smaller(image->width(), image->height() - 64,
                      {image->pixels().begin(), image->pixels().end() - 64 * row});
  Bytes other, third;
  const Decoded small = decodeBanded(smaller.pngData(), other, 2);
  ASSERT_TRUE(small.ok);
  const Decoded unrelated = decodeBanded(png, third, 2, &small, other.data());
  EXPECT_TRUE(unrelated.ok);
  EXPECT_TRUE(unrelated.sameRows.empty());
  EXPECT_EQ(third, image->pixels());
}

// A damaged band and a checksum that does not match are refused, also against a reference that
// shares the undamaged bands; a list that does not add up is not even opened; bands that do not
// stand alone are refused, though the file still decodes as a whole.
TEST(BandedDecoderTest, RefusesDamageAndBandsThatDoNotStandAlone) {
  Image source(300, 700);
  for (std::size_t i = 0; i < source.pixels().size(); ++i) {
    source.mutableData()[i] = static_cast<std::uint8_t>((i / 4 % 300) * 3 + i / 1200 / 7);
  }
  const Bytes png = source.pngData();
  const std::vector<Band> bands = bandsOf(png);
  ASSERT_GE(bands.size(), 3u);
  Bytes rgba;
  const Decoded reference = decodeBanded(png, rgba, 2);
  ASSERT_TRUE(reference.ok);
  EXPECT_EQ(rgba, source.pixels());

  const auto edited = [&](auto edit) {
    std::vector<Chunk> chunks = chunksOf(png);
    edit(findChunk(chunks, "IDAT")->body, findChunk(chunks, kBandChunkType)->body);
    return pngOf(chunks);
  };
  const std::size_t middle = 2 + bands[0].bytes + bands[1].bytes / 2;
  for (const Bytes& bad : {edited([&](auto&idat, auto&) { idat[middle] ^= 0x10; }),
                           edited([&](auto&idat, auto&) { idat[idat.size() - 1] ^= 1; })}) {
    Bytes out, out2;
    const Decoded d = decodeBanded(bad, out, 2);
    EXPECT_TRUE(d.opened);
    EXPECT_FALSE(d.ok);
    EXPECT_FALSE(d.progressComplete);
    EXPECT_FALSE(decodeBanded(bad, out2, 2, &reference, rgba.data()).ok);
  }
  for (const Bytes& bad : {edited([](auto&, auto& list) { list[3] += 1; }),  // a row too many
                           edited([](auto&, auto& list) { list[7] += 1; }),  // a byte too many
                           edited([](auto&, auto& list) { list.resize(8); })}) {
    Bytes out;
    EXPECT_FALSE(decodeBanded(bad, out, 1).opened);
  }

  // The same rows compressed by zlib as one stream, listed as if cut into bands: the cuts are
  // not where blocks end, or matches reach across them.
  const Bytes zlibbed = zlibCompress(filteredRows(source.pixels(), 300, 700, 4, {0}));
  const std::size_t deflated = zlibbed.size() - 6;
  expectRefusedInBandsButDecodedWhole(
      pngWith(300, 700, 4, zlibbed,
              {{kBandChunkType, bandList({350, deflated / 2, 350, deflated - deflated / 2})}}),
      source);
}

// Another encoder's bands (zlib with a full flush between them) are decoded band by band when
// they keep the rules; a band whose first row is filtered against the row above (in the band
// before) is refused, though the file decodes whole.
TEST(BandedDecoderTest, DecodesOtherEncodersBandsThatKeepTheRules) {
  const std::size_t width = 64, height = 50, split = 20;
  Image source(width, height);
  for (std::size_t i = 0; i < source.pixels().size(); ++i) {
    source.mutableData()[i] = static_cast<std::uint8_t>(i * 13 / 7 + i / 256);
  }
  const auto bandedPng = [&](int filter) {
    Bytes raw = filteredRows(source.pixels(), width, height, 4, {filter});
    Bytes stream(compressBound(raw.size()) + 64);
    z_stream z{};
    deflateInit(&z, 6);
    z.next_out = stream.data();
    z.avail_out = static_cast<uInt>(stream.size());
    z.next_in = raw.data();
    z.avail_in = static_cast<uInt>(split * (width * 4 + 1));
    deflate(&z, Z_FULL_FLUSH);  // the band ends on a byte boundary, with nothing to refer back to
    const std::size_t firstBytes = z.total_out - 2;
    z.avail_in = static_cast<uInt>(raw.size() - split * (width * 4 + 1));
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    stream.resize(z.total_out);
    deflateEnd(&z);
    const Bytes list =
        bandList({split, firstBytes, height - split, stream.size() - 6 - firstBytes});
    return pngWith(width, height, 4, stream, {{kBandChunkType, list}});
  };

  Bytes rgba;
  EXPECT_TRUE(decodeBanded(bandedPng(1), rgba, 2).ok);
  EXPECT_EQ(rgba, source.pixels());
  expectRefusedInBandsButDecodedWhole(bandedPng(2), source);
}

}  // namespace
}  // namespace saffra::png
