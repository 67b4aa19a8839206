// PNG encoding checked against an independent decoder (libpng), decoding of bad input, and the
// base64 upload text.
#include <gtest/gtest.h>
#include <png.h>
#include <zlib.h>

#include <cstring>
#include <random>

#include "saffra/platform/base64.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/image.h"
#include "saffra/platform/png.h"

namespace saffra {
namespace {

// Pixels as libpng's simplified reader sees them, or a failure message.
std::vector<std::uint8_t> decodeWithLibpng(const std::vector<std::uint8_t>& file,
                                           std::size_t& width, std::size_t& height) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&image, file.data(), file.size())) {
    ADD_FAILURE() << image.message;
    return {};
  }
  image.format = PNG_FORMAT_RGBA;
  std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) {
    ADD_FAILURE() << image.message;
    return {};
  }
  width = image.width;
  height = image.height;
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

TEST(PngEncodeTest, IndependentDecoderReadsTheSamePixels) {
  struct Case {
    const char* name;
    std::shared_ptr<Image> image;
  };
  const Case cases[] = {
      {"1x1 opaque", randomImage(1, 1, true, 1)},
      {"1x1 transparent", std::make_shared<Image>(1, 1)},
      {"odd width translucent", randomImage(7, 5, false, 2)},
      {"one row", randomImage(333, 1, false, 3)},
      {"one column", randomImage(1, 333, true, 4)},
      {"noise defeats matching", randomImage(257, 129, false, 5)},
      {"few colours make long matches", randomImage(601, 97, false, 6, 2)},
      {"rows wider than the window", randomImage(9000, 4, true, 7, 2)},
  };
  for (const auto& c : cases) {
    for (unsigned threads : {1u, 3u}) {
      SCOPED_TRACE(std::string(c.name) + " threads " + std::to_string(threads));
      const Image& img = *c.image;
      auto file = png::encode(img.data(), img.width(), img.height(), img.stride(), {threads});
      std::size_t w = 0, h = 0;
      EXPECT_EQ(decodeWithLibpng(file, w, h), img.pixels());
      EXPECT_EQ(w, img.width());
      EXPECT_EQ(h, img.height());
    }
  }
}

TEST(PngEncodeTest, CorpusScreenshotsRoundTripAndCompressWell) {
  for (const char* name : {"phone-docs-index-1170x2532.png", "app-screenshot-dialog-841x631.png"}) {
    SCOPED_TRACE(name);
    auto image = Image::fromPNGFile(std::string(SAFFRA_CORPUS_DIR) + "/" + name);
    auto file = image->pngData();
    std::size_t w = 0, h = 0;
    EXPECT_EQ(decodeWithLibpng(file, w, h), image->pixels());
    // Screenshots are mostly flat: a fifth of the raw size is far more than they need.
    EXPECT_LT(file.size(), image->pixels().size() / 5);
  }
}

TEST(PngEncodeTest, RowStrideIsHonoured) {
  auto image = randomImage(5, 3, false, 9);
  std::vector<std::uint8_t> padded(3 * 32, 0xEE);
  for (int y = 0; y < 3; ++y) std::memcpy(&padded[y * 32], image->data() + y * 20, 20);
  auto file = png::encode(padded.data(), 5, 3, 32);
  EXPECT_EQ(Image::fromPNGData(file)->pixels(), image->pixels());
  EXPECT_THROW(png::encode(padded.data(), 5, 3, 19), Exception);
  EXPECT_THROW(png::encode(padded.data(), 0, 3, 32), Exception);
}

TEST(PngDecodeTest, BadInputGivesInvalidImageException) {
  auto good = randomImage(16, 16, false, 11)->pngData();
  auto corruptData = good;
  corruptData[good.size() / 2] ^= 0x55;  // inside IDAT: checksum no longer matches
  auto truncated = good;
  truncated.resize(good.size() - 20);
  // Valid headers that claim 60000 x 60000 pixels (beyond the limits) and 8000 x 8000 pixels
  // (within them, but far more than the file's data can hold): both refused before any pixel
  // memory exists.
  auto withSize = [&](std::uint32_t side) {
    auto bytes = good;
    for (int i = 0; i < 8; ++i)
      bytes[16 + i] = static_cast<std::uint8_t>(side >> (24 - 8 * (i % 4)));
    auto crc = static_cast<std::uint32_t>(crc32(0, &bytes[12], 17));
    for (int i = 0; i < 4; ++i) bytes[29 + i] = static_cast<std::uint8_t>(crc >> (24 - 8 * i));
    return bytes;
  };
  const std::vector<std::uint8_t> jpeg = {0xFF, 0xD8, 0xFF, 0xE0, 0, 16, 'J', 'F', 'I', 'F', 0};

  const std::pair<const char*, std::vector<std::uint8_t>> cases[] = {
      {"empty", {}},
      {"corrupt", corruptData},
      {"truncated", truncated},
      {"huge", withSize(60000)},
      {"bomb", withSize(8000)},
      {"jpeg", jpeg},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
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
  EXPECT_THROW(Image::fromPNGFile("/nonexistent/file.png"), Exception);
  EXPECT_THROW(Image::fromPNGFile(SAFFRA_CORPUS_DIR), Exception);  // a folder, not a file
}

TEST(Base64Test, LinesOf64WithCrLfBetweenAndNoneAfterTheLast) {
  for (std::size_t size : {0, 1, 2, 3, 47, 48, 49, 95, 96, 97, 1000}) {
    SCOPED_TRACE(size);
    std::vector<std::uint8_t> data(size);
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i * 37 + 5);
    const std::string text = base64::encodeLines64(data);
    EXPECT_EQ(text.size(), base64::encodedLength(size, 64));
    std::size_t start = 0;
    while (true) {
      auto end = text.find("\r\n", start);
      std::string line =
          text.substr(start, end == std::string::npos ? std::string::npos : end - start);
      if (end == std::string::npos) {
        EXPECT_LE(line.size(), 64u);
        break;
      }
      EXPECT_EQ(line.size(), 64u);
      start = end + 2;
    }
    EXPECT_EQ(text.find('\n') == std::string::npos, size <= 48);
    EXPECT_EQ(base64::decode(text), data);
    EXPECT_EQ(base64::decode(base64::encode(data)), data);
  }
  EXPECT_EQ(base64::encode(std::vector<std::uint8_t>{'f', 'o', 'o', 'b', 'a', 'r', 'x'}),
            "Zm9vYmFyeA==");
  EXPECT_EQ(base64::encode(std::vector<std::uint8_t>{0xFB, 0xFF}), "+/8=");
  EXPECT_FALSE(base64::decode("Zm9v!"));
  EXPECT_FALSE(base64::decode("Zm9vY"));
  EXPECT_FALSE(base64::decode("Zg==Zg=="));
}

TEST(Base64Test, UploadTextIsThePngOfTheImage) {
  auto image = Image::fromPNGFile(std::string(SAFFRA_CORPUS_DIR) + "/icon-tile-64x64.png");
  const std::string text = png::encodeBase64Lines64(*image);
  EXPECT_NE(text.find("\r\n"), std::string::npos);
  EXPECT_NE(text.substr(text.size() - 2), "\r\n");
  auto bytes = base64::decode(text);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(Image::fromPNGData(*bytes)->pixels(), image->pixels());
}

}  // namespace
}  // namespace saffra
