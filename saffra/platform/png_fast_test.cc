#include "saffra/platform/png_fast.h"

#include <gtest/gtest.h>
#include <spng.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "saffra/platform/exception.h"
#include "saffra/platform/png.h"

namespace saffra::png {
namespace {

std::vector<std::uint8_t> readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// The general decoder's reading of the same bytes.
std::vector<std::uint8_t> decodeWithSpng(const std::vector<std::uint8_t>& png) {
  spng_ctx* ctx = spng_ctx_new(0);
  spng_set_png_buffer(ctx, png.data(), png.size());
  std::size_t size = 0;
  spng_decoded_image_size(ctx, SPNG_FMT_RGBA8, &size);
  std::vector<std::uint8_t> out(size);
  EXPECT_EQ(spng_decode_image(ctx, out.data(), size, SPNG_FMT_RGBA8, SPNG_DECODE_TRNS), 0);
  spng_ctx_free(ctx);
  return out;
}

// Every corpus screenshot (all filter types occur in them) decodes to the very pixels the
// general decoder gives; the palette one is left to the general decoder.
TEST(PngFastTest, DecodesCorpusScreenshotsExactlyLikeTheGeneralDecoder) {
  int fast = 0;
  for (const auto& dir : {std::filesystem::path(SAFFRA_CORPUS_DIR),
                          std::filesystem::path(SAFFRA_CORPUS_DIR) / "pairs"}) {
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      if (entry.path().extension() != ".png") continue;
      SCOPED_TRACE(entry.path().filename().string());
      const std::vector<std::uint8_t> bytes = readFile(entry.path());
      const std::shared_ptr<Image> image = decodeCommon(bytes.data(), bytes.size(), 1.0);
      if (!image) {
        EXPECT_NE(entry.path().filename().string().find("dialog"), std::string::npos);
        continue;
      }
      ++fast;
      EXPECT_EQ(image->pixels(), decodeWithSpng(bytes));
    }
  }
  EXPECT_GT(fast, 20);
}

// A PNG of `pixels` (RGBA, `bpp` 3 drops alpha) whose row y uses filter types[y % size],
// filtered here byte by byte as the format defines.
std::vector<std::uint8_t> filteredPng(const std::vector<std::uint8_t>& pixels, std::size_t width,
                                      std::size_t height, std::size_t bpp,
                                      const std::vector<int>& types) {
  const std::size_t rowBytes = width * bpp;
  std::vector<std::uint8_t> rows(height * rowBytes);
  for (std::size_t i = 0; i < width * height; ++i) {
    for (std::size_t c = 0; c < bpp; ++c) rows[i * bpp + c] = pixels[i * 4 + c];
  }
  std::vector<std::uint8_t> raw;
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
  uLongf compressedSize = compressBound(raw.size());
  std::vector<std::uint8_t> compressed(compressedSize);
  compress2(compressed.data(), &compressedSize, raw.data(), raw.size(), 6);
  compressed.resize(compressedSize);

  std::vector<std::uint8_t> png = {137, 80, 78, 71, 13, 10, 26, 10};
  const auto chunk = [&](const char* type, const std::vector<std::uint8_t>& body) {
    const auto put32 = [&](std::uint32_t v) {
      for (int shift = 24; shift >= 0; shift -= 8)
        png.push_back(static_cast<std::uint8_t>(v >> shift));
    };
    put32(static_cast<std::uint32_t>(body.size()));
    const std::size_t start = png.size();
    png.insert(png.end(), type, type + 4);
    png.insert(png.end(), body.begin(), body.end());
    put32(static_cast<std::uint32_t>(
        crc32(0, png.data() + start, static_cast<uInt>(png.size() - start))));
  };
  std::vector<std::uint8_t> header(13, 0);
  for (int i = 0; i < 4; ++i) {
    header[i] = static_cast<std::uint8_t>(width >> (24 - 8 * i));
    header[4 + i] = static_cast<std::uint8_t>(height >> (24 - 8 * i));
  }
  header[8] = 8;
  header[9] = bpp == 4 ? 6 : 2;
  chunk("IHDR", header);
  chunk("IDAT", compressed);
  chunk("IEND", {});
  return png;
}

// Every filter type, alone and next to each other (runs of Paeth rows are decoded two at a
// time), on RGB and RGBA rows of widths around the 4-pixel steps of the row decoder.
TEST(PngFastTest, UndoesEveryFilterOnRgbAndRgbaRowsOfAnyWidth) {
  const std::vector<std::vector<int>> orders = {
      {0}, {1}, {2}, {3}, {4}, {4, 4, 4, 2}, {3, 4, 1, 4, 4, 0, 2, 4}, {2, 3, 4, 4, 1}};
  for (const std::size_t bpp : {3u, 4u}) {
    for (const std::size_t width : {1u, 2u, 3u, 4u, 5u, 7u, 8u, 13u, 33u}) {
      const std::size_t height = 11;
      std::vector<std::uint8_t> pixels(width * height * 4);
      std::uint32_t seed = 12345;
      for (std::size_t i = 0; i < pixels.size(); ++i) {
        seed = seed * 1103515245 + 12345;
        // Mostly smooth with sharp steps, so every Paeth choice occurs.
        pixels[i] = static_cast<std::uint8_t>((seed >> 16) % 7 == 0 ? seed >> 8 : i / 4 * 3);
        if (bpp == 3 && i % 4 == 3) pixels[i] = 255;
      }
      for (const auto& order : orders) {
        SCOPED_TRACE("bpp " + std::to_string(bpp) + ", width " + std::to_string(width) +
                     ", first filter " + std::to_string(order[0]));
        const std::vector<std::uint8_t> png = filteredPng(pixels, width, height, bpp, order);
        const std::shared_ptr<Image> image = decodeCommon(png.data(), png.size(), 1.0);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->pixels(), pixels);
        EXPECT_EQ(decodeWithSpng(png), pixels);
      }
    }
  }
}

TEST(PngFastTest, RoundTripsRgbaWithTransparency) {
  Image source(37, 5);
  for (std::size_t i = 0; i < source.pixels().size(); ++i) {
    source.mutableData()[i] = static_cast<std::uint8_t>(i * 7 + i / 13);
  }
  const std::vector<std::uint8_t> bytes = source.pngData();
  const std::shared_ptr<Image> image = decodeCommon(bytes.data(), bytes.size(), 2.0);
  ASSERT_TRUE(image);
  EXPECT_EQ(image->pixels(), source.pixels());
  EXPECT_EQ(image->scale(), 2.0);
}

// Damaged input is never decoded by the fast path; the general decoder then reports it.
TEST(PngFastTest, LeavesDamagedDataToTheGeneralDecoder) {
  Image source(16, 16);
  std::vector<std::uint8_t> bytes = source.pngData();
  std::vector<std::uint8_t> badCrc = bytes;
  badCrc[8 + 8 + 13] ^= 1;  // the IHDR checksum
  std::vector<std::uint8_t> truncated(bytes.begin(), bytes.end() - 20);
  std::vector<std::uint8_t> badLength = bytes;
  badLength[8] = 0x7f;
  for (const auto* damaged : {&badCrc, &truncated, &badLength}) {
    EXPECT_EQ(decodeCommon(damaged->data(), damaged->size(), 1.0), nullptr);
  }
  EXPECT_THROW(decode(truncated.data(), truncated.size()), Exception);
  EXPECT_EQ(decodeCommon(nullptr, 0, 1.0), nullptr);
}

}  // namespace
}  // namespace saffra::png
