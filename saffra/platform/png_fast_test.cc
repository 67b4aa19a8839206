#include "saffra/platform/png_fast.h"

#include <gtest/gtest.h>
#include <spng.h>

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
