// The PNG codec: the encoder held to libpng's reading, the fast decoder (rows, pairs of files,
// bands) held to libspng's and zlib's, damaged input, and the base64 upload text.
#include <gtest/gtest.h>
#include <png.h>
#include <spng.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <random>
#include <string>
#include <thread>

#include "saffra/platform/base64.h"
#include "saffra/platform/cpu.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/image.h"
#include "saffra/platform/png.h"
#include "saffra/platform/png_fast.h"

namespace saffra::png {
namespace {

using Bytes = std::vector<std::uint8_t>;
const std::filesystem::path kCorpus = SAFFRA_CORPUS_DIR;

Bytes readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::uint32_t load32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

void put32(Bytes& out, std::size_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
}

// A PNG's chunks, to look into and to put together again (with fresh checksums).
struct Chunk {
  std::string type;
  Bytes body;
};

std::vector<Chunk> chunksOf(const Bytes& png) {
  std::vector<Chunk> chunks;
  for (std::size_t at = 8; at + 12 <= png.size();) {
    const std::size_t length = load32(&png[at]);
    chunks.push_back({std::string(png.begin() + at + 4, png.begin() + at + 8),
                      {png.begin() + at + 8, png.begin() + at + 8 + length}});
    at += 12 + length;
  }
  return chunks;
}

Bytes pngOf(const std::vector<Chunk>& chunks) {
  Bytes png = {137, 80, 78, 71, 13, 10, 26, 10};
  for (const Chunk& c : chunks) {
    put32(png, c.body.size());
    const std::size_t start = png.size();
    png.insert(png.end(), c.type.begin(), c.type.end());
    png.insert(png.end(), c.body.begin(), c.body.end());
    put32(png, crc32(0, png.data() + start, static_cast<uInt>(png.size() - start)));
  }
  return png;
}

Chunk* find(std::vector<Chunk>& chunks, const std::string& type) {
  for (Chunk& c : chunks) {
    if (c.type == type) return &c;
  }
  return nullptr;
}

// An 8-bit RGBA (bpp 4) or RGB (bpp 3) file holding the zlib stream `idat`, `extra` chunks first.
Bytes pngWith(std::size_t width, std::size_t height, std::size_t bpp, Bytes idat,
              std::vector<Chunk> extra = {}) {
  Bytes header;
  put32(header, width);
  put32(header, height);
  header.insert(header.end(), {8, static_cast<std::uint8_t>(bpp == 4 ? 6 : 2), 0, 0, 0});
  extra.insert(extra.begin(), {"IHDR", header});
  extra.push_back({"IDAT", std::move(idat)});
  extra.push_back({"IEND", {}});
  return pngOf(extra);
}

Bytes zlibCompress(const Bytes& raw) {
  uLongf size = compressBound(raw.size());
  Bytes out(size);
  compress2(out.data(), &size, raw.data(), raw.size(), 6);
  out.resize(size);
  return out;
}

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

std::shared_ptr<Image> randomImage(std::size_t width, std::size_t height, bool opaque,
                                   unsigned seed, int palette = 256) {
  std::mt19937 rng(seed);
  auto image = std::make_shared<Image>(width, height);
  std::uint8_t* p = image->mutableData();
  for (std::size_t i = 0; i < width * height * 4; ++i) {
    p[i] = static_cast<std::uint8_t>(rng() % palette * (255 / std::max(palette - 1, 1)));
    if (opaque && i % 4 == 3) p[i] = 255;
  }
  return image;
}

// Pixels as libpng's simplified reader sees them, or a failure.
Bytes decodeWithLibpng(const Bytes& file, std::size_t& width, std::size_t& height) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  Bytes pixels;
  if (png_image_begin_read_from_memory(&image, file.data(), file.size())) {
    image.format = PNG_FORMAT_RGBA;
    pixels.resize(PNG_IMAGE_SIZE(image));
    width = image.width;
    height = image.height;
    if (png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) return pixels;
  }
  ADD_FAILURE() << image.message;
  return {};
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

TEST(PngEncodeTest, IndependentDecoderReadsTheSamePixels) {
  const std::pair<const char*, std::shared_ptr<Image>> cases[] = {
      {"1x1 opaque", randomImage(1, 1, true, 1)},
      {"1x1 transparent", std::make_shared<Image>(1, 1)},
      {"odd width translucent", randomImage(7, 5, false, 2)},
      {"one row", randomImage(333, 1, false, 3)},
      {"one column", randomImage(1, 333, true, 4)},
      {"noise defeats matching", randomImage(257, 129, false, 5)},
      {"few colours make long matches", randomImage(601, 97, false, 6, 2)},
      {"rows wider than the window", randomImage(9000, 4, true, 7, 2)},
  };
  for (const auto& [name, image] : cases) {
    for (unsigned threads : {1u, 3u}) {
      SCOPED_TRACE(std::string(name) + " threads " + std::to_string(threads));
      auto file =
          encode(image->data(), image->width(), image->height(), image->stride(), {threads});
      std::size_t w = 0, h = 0;
      EXPECT_EQ(decodeWithLibpng(file, w, h), image->pixels());
      EXPECT_EQ(w, image->width());
      EXPECT_EQ(h, image->height());
    }
  }
  // Screenshots are mostly flat: a fifth of the raw size is far more than they need.
  for (const char* name : {"phone-docs-index-1170x2532.png", "app-screenshot-dialog-841x631.png"}) {
    SCOPED_TRACE(name);
    auto image = Image::fromPNGFile(kCorpus / name);
    auto file = image->pngData();
    std::size_t w = 0, h = 0;
    EXPECT_EQ(decodeWithLibpng(file, w, h), image->pixels());
    EXPECT_LT(file.size(), image->pixels().size() / 5);
  }
}

TEST(PngEncodeTest, RowStrideIsHonoured) {
  auto image = randomImage(5, 3, false, 9);
  Bytes padded(3 * 32, 0xEE);
  for (int y = 0; y < 3; ++y) std::memcpy(&padded[y * 32], image->data() + y * 20, 20);
  EXPECT_EQ(Image::fromPNGData(encode(padded.data(), 5, 3, 32))->pixels(), image->pixels());
  EXPECT_THROW(encode(padded.data(), 5, 3, 19), Exception);
  EXPECT_THROW(encode(padded.data(), 0, 3, 32), Exception);
}

// The library's own files take the fast path, translucent pixels and scale intact.
TEST(PngDecodeTest, RoundTripsTranslucentPixelsAndScale) {
  Image source(37, 5);
  for (std::size_t i = 0; i < source.pixels().size(); ++i) {
    source.mutableData()[i] = static_cast<std::uint8_t>(i * 7 + i / 13);
  }
  const Bytes bytes = source.pngData();
  const std::shared_ptr<Image> image = decodeCommon(bytes.data(), bytes.size(), 2.0);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->pixels(), source.pixels());
  EXPECT_EQ(image->scale(), 2.0);
  EXPECT_EQ(Image::fromPNGData(bytes, 2.0)->size(), (Size{18.5, 2.5}));
}

// Damaged input is never decoded by the fast path; the general decoder then refuses it.
TEST(PngDecodeTest, BadInputGivesInvalidImageException) {
  const Bytes good = randomImage(16, 16, false, 11)->pngData();
  const auto edited = [&](auto edit) {
    Bytes bytes = good;
    edit(bytes);
    return bytes;
  };
  // Valid headers that claim 60000 x 60000 pixels (beyond the limits) and 8000 x 8000 pixels
  // (within them, but far more than the file's data can hold): both refused before any pixel
  // memory exists.
  const auto withSize = [&](std::size_t side) {
    std::vector<Chunk> chunks = chunksOf(good);
    Bytes& header = find(chunks, "IHDR")->body;
    header.erase(header.begin(), header.begin() + 8);
    Bytes sides;
    put32(sides, side);
    put32(sides, side);
    header.insert(header.begin(), sides.begin(), sides.end());
    return pngOf(chunks);
  };
  const std::pair<const char*, Bytes> cases[] = {
      {"empty", {}},
      {"corrupt", edited([](Bytes& b) { b[b.size() / 2] ^= 0x55; })},  // IDAT checksum fails
      {"truncated", edited([](Bytes& b) { b.resize(b.size() - 20); })},
      {"header checksum", edited([](Bytes& b) { b[8 + 8 + 13] ^= 1; })},
      {"chunk length", edited([](Bytes& b) { b[8] = 0x7f; })},
      {"half", edited([](Bytes& b) { b.resize(b.size() / 2); })},
      {"huge", withSize(60000)},
      {"bomb", withSize(8000)},
      {"jpeg", {0xFF, 0xD8, 0xFF, 0xE0, 0, 16, 'J', 'F', 'I', 'F', 0}},
      {"signature only", {0x89, 'P', 'N', 'G', 1, 2, 3}},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(decodeCommon(bytes.data(), bytes.size(), 1.0), nullptr);
    try {
      Image::fromPNGData(bytes);
      ADD_FAILURE() << "decoded";
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "InvalidImageException");
      EXPECT_FALSE(e.reason().empty());
      if (std::string(name) == "bomb") {
        EXPECT_NE(e.reason().find("too small"), std::string::npos);
      }
    }
  }
  EXPECT_EQ(decodeCommon(nullptr, 0, 1.0), nullptr);
  EXPECT_THROW(Image::fromPNGFile("/nonexistent/file.png"), Exception);
  EXPECT_THROW(Image::fromPNGFile(SAFFRA_CORPUS_DIR), Exception);  // a folder, not a file
  EXPECT_THROW(Image(100000, 100000), Exception);
}

TEST(Base64Test, UploadTextHasLinesOf64WithCrLfBetweenAndNoneAfterTheLast) {
  for (std::size_t size : {0, 1, 2, 3, 47, 48, 49, 95, 96, 97, 1000}) {
    SCOPED_TRACE(size);
    Bytes data(size);
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i * 37 + 5);
    const std::string text = base64::encodeLines64(data);
    std::string expected = base64::encode(data);
    for (std::size_t at = 64; at < expected.size(); at += 66) expected.insert(at, "\r\n");
    EXPECT_EQ(text, expected);
    EXPECT_EQ(text.size(), base64::encodedLength(size, 64));
    EXPECT_EQ(base64::decode(text), data);
    EXPECT_EQ(base64::decode(base64::encode(data)), data);
  }
  // The upload text is the image's PNG file in such lines.
  auto image = Image::fromPNGFile(kCorpus / "icon-tile-64x64.png");
  const std::string text = encodeBase64Lines64(*image);
  EXPECT_EQ(text, base64::encodeLines64(image->pngData()));
  EXPECT_EQ(Image::fromPNGData(base64::decode(text).value())->pixels(), image->pixels());
  EXPECT_EQ(base64::encode(Bytes{'f', 'o', 'o', 'b', 'a', 'r', 'x'}), "Zm9vYmFyeA==");
  EXPECT_EQ(base64::encode(Bytes{0xFB, 0xFF}), "+/8=");
  EXPECT_FALSE(base64::decode("Zm9v!"));
  EXPECT_FALSE(base64::decode("Zm9vY"));
  EXPECT_FALSE(base64::decode("Zg==Zg=="));
}

// Every corpus screenshot (all filter types occur in them) decodes to the very pixels the
// general decoder gives; the palette one is left to the general decoder. Each pair (same
// screen, same encoder) decodes together to each file's own pixels.
TEST(PngFastTest, DecodesCorpusFilesAloneAndInPairsLikeTheGeneralDecoder) {
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
TEST(PngFastTest, UndoesEveryFilterOnRgbAndRgbaRowsOfAnyWidth) {
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
TEST(PngFastTest, DecodesTwoFilesTogetherLikeEachAlone) {
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
TEST(PngFastTest, DecodesUnlikeFilesTogetherAndRefusesDamagedOnes) {
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
  const Chunk* list = find(chunks, kBandChunkType);
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
TEST(PngBandsTest, EncoderWritesBandsThatInflateAlone) {
  const std::shared_ptr<Image> image = phoneScreenshot();
  const Bytes png = image->pngData();
  EXPECT_EQ(encode(image->data(), image->width(), image->height(), image->width() * 4, {3}), png);

  std::vector<Chunk> chunks = chunksOf(png);
  const Bytes& stream = find(chunks, "IDAT")->body;
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
TEST(PngBandsTest, DecodesBandsOnThreadsAndCopiesThoseTheReferenceShares) {
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
TEST(PngBandsTest, RefusesDamageAndBandsThatDoNotStandAlone) {
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
    edit(find(chunks, "IDAT")->body, find(chunks, kBandChunkType)->body);
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
TEST(PngBandsTest, DecodesOtherEncodersBandsThatKeepTheRules) {
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
