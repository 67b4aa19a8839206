#include "saffra/platform/png.h"

#include <gtest/gtest.h>
#include <png.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "saffra/platform/exception.h"
#include "saffra/platform/image.h"
#include "testing/png_files.h"

namespace saffra::png {
namespace {

using namespace saffra::testing;
const std::filesystem::path kCorpus = SAFFRA_CORPUS_DIR;

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

// Translucent pixels and the scale survive a round trip.
TEST(PngDecodeTest, RoundTripsTranslucentPixelsAndScale) {
  Image source(37, 5);
  for (std::size_t i = 0; i < source.pixels().size(); ++i) {
    source.mutableData()[i] = static_cast<std::uint8_t>(i * 7 + i / 13);
  }
  const std::shared_ptr<Image> image = Image::fromPNGData(source.pngData(), 2.0);
  EXPECT_EQ(image->pixels(), source.pixels());
  EXPECT_EQ(image->size(), (Size{18.5, 2.5}));
}

// Damaged, oversized and foreign input is refused with a reason.
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
    Bytes& header = findChunk(chunks, "IHDR")->body;
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
  EXPECT_THROW(Image(100000, 100000), Exception);
}

}  // namespace
}  // namespace saffra::png
