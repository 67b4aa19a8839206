#include "saffra/platform/png_fast.h"

#include <gtest/gtest.h>
#include <spng.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "saffra/platform/cpu.h"
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
          SCOPED_TRACE(std::string(portable ? "portable, " : "") + "bpp " + std::to_string(bpp) +
                       ", width " + std::to_string(width) + ", first filter " +
                       std::to_string(order[0]));
          const std::vector<std::uint8_t> png = filteredPng(pixels, width, height, bpp, order);
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
        const std::size_t rows = std::max(heightA, heightB);
        std::vector<std::uint8_t> pixels(width * rows * 4);
        std::uint32_t seed = 777;
        for (std::size_t i = 0; i < pixels.size(); ++i) {
          seed = seed * 1103515245 + 12345;
          pixels[i] = static_cast<std::uint8_t>((seed >> 16) % 5 == 0 ? seed >> 8 : i / 4 * 5);
          if (bpp == 3 && i % 4 == 3) pixels[i] = 255;
        }
        std::vector<std::uint8_t> other = pixels;
        for (std::size_t i = 0; i < width * 4; ++i) {
          if (bpp == 3 && i % 4 == 3) continue;  // RGB files keep opaque alpha
          other[3 * width * 4 + i] += 9;
          other[4 * width * 4 + i] += 9;
          if (i < width * 2) other[8 * width * 4 + i] ^= 0x5a;
        }
        std::vector<std::uint8_t> pixelsA(pixels.begin(), pixels.begin() + width * heightA * 4);
        std::vector<std::uint8_t> pixelsB(other.begin(), other.begin() + width * heightB * 4);
        for (const auto& orderA : orders) {
          for (const auto& orderB : orders) {
            SCOPED_TRACE("bpp " + std::to_string(bpp) + ", width " + std::to_string(width) +
                         ", heights " + std::to_string(heightA) + "/" + std::to_string(heightB) +
                         ", orders " + std::to_string(orderA.size()) + "/" +
                         std::to_string(orderB.size()));
            const auto first = filteredPng(pixelsA, width, heightA, bpp, orderA);
            // Some RGB files are paired with an RGBA file of the same pixels.
            const std::size_t bppB = bpp == 3 && orderB.size() % 2 ? 4 : bpp;
            const auto second = filteredPng(pixelsB, width, heightB, bppB, orderB);
            std::vector<std::uint8_t> rgbaA, rgbaB, same;
            DecodedPixels a{rgbaA}, b{rgbaB};
            ASSERT_TRUE(decodeCommonPairInto(first, second, a, b, same));
            EXPECT_EQ(rgbaA, pixelsA);
            EXPECT_EQ(rgbaB, pixelsB);
            EXPECT_EQ(b.width, width);
            EXPECT_EQ(b.height, heightB);
            ASSERT_EQ(same.size(), heightB);
            for (std::size_t y = 0; y < heightB; ++y) {
              const bool equal = y < heightA && y != 3 && y != 4 && y != 8;
              EXPECT_EQ(same[y], equal ? 1 : 0) << "row " << y;
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
  std::vector<std::uint8_t> rgb(7 * 4 * 4, 90);
  for (std::size_t i = 3; i < rgb.size(); i += 4) rgb[i] = 255;
  const auto narrowPng = narrow.pngData(), widePng = wide.pngData();
  const auto rgbPng = filteredPng(rgb, 7, 4, 3, {4});
  std::vector<std::uint8_t> rgbaA, rgbaB, same;
  DecodedPixels a{rgbaA}, b{rgbaB};
  ASSERT_TRUE(decodeCommonPairInto(narrowPng, widePng, a, b, same));
  EXPECT_EQ(rgbaA, narrow.pixels());
  EXPECT_EQ(rgbaB, wide.pixels());
  ASSERT_TRUE(decodeCommonPairInto(narrowPng, rgbPng, a, b, same));
  EXPECT_EQ(rgbaB, rgb);
  EXPECT_EQ(same, std::vector<std::uint8_t>(4, 0));
  std::vector<std::uint8_t> truncated(widePng.begin(), widePng.end() - 20);
  EXPECT_FALSE(decodeCommonPairInto(narrowPng, truncated, a, b, same));
  EXPECT_FALSE(decodeCommonPairInto(truncated, narrowPng, a, b, same));
}

// The corpus pairs (same screen, same encoder) decode together to each file's own pixels.
TEST(PngFastTest, DecodesCorpusPairsTogetherLikeEachAlone) {
  const std::filesystem::path dir = std::filesystem::path(SAFFRA_CORPUS_DIR) / "pairs";
  int pairs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    const std::size_t cut = name.find("--");
    if (cut == std::string::npos) continue;
    SCOPED_TRACE(name);
    const auto first = readFile(dir / (name.substr(0, cut) + ".png"));
    const auto second = readFile(entry.path());
    std::vector<std::uint8_t> rgbaA, rgbaB, same;
    DecodedPixels a{rgbaA}, b{rgbaB};
    ASSERT_TRUE(decodeCommonPairInto(first, second, a, b, same));
    EXPECT_EQ(rgbaA, decodeWithSpng(first));
    EXPECT_EQ(rgbaB, decodeWithSpng(second));
    const std::size_t row = a.width * 4;
    for (std::size_t y = 0; y < same.size(); ++y) {
      if (same[y]) {
        ASSERT_EQ(std::memcmp(&rgbaA[y * row], &rgbaB[y * row], row), 0) << "row " << y;
      }
    }
    ++pairs;
  }
  EXPECT_GE(pairs, 8);
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
