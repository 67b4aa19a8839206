// Uploads decoded into pooled buffers.
#include "server/pixel_pool.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "saffra/platform/exception.h"
#include "testing/png_files.h"

namespace saffra::server {
namespace {

using saffra::testing::randomImage;
using saffra::testing::readFile;
const std::filesystem::path kCorpus = SAFFRA_CORPUS_DIR;

TEST(PixelPoolTest, KeepsBuffersWithinItsBoundsAndHandsOutTheBestFit) {
  auto pool = std::make_shared<PixelPool>(2, 1000);
  std::vector<std::uint8_t> small(100), medium(300), large(600), huge(2000);
  pool->give(std::move(small));
  pool->give(std::move(large));
  EXPECT_EQ(pool->count(), 2u);
  EXPECT_EQ(pool->bytes(), 700u);
  pool->give(std::move(huge));  // over the byte bound by itself: freed
  EXPECT_EQ(pool->bytes(), 700u);
  pool->give(std::move(medium));  // the smallest spare buffer makes room
  EXPECT_EQ(pool->bytes(), 900u);

  EXPECT_EQ(pool->take(250).capacity(), 300u);   // the smallest that fits
  EXPECT_EQ(pool->take(5000).capacity(), 600u);  // none fits: the largest
  EXPECT_TRUE(pool->take(10).empty());           // none left: a new one
  EXPECT_EQ(pool->bytes(), 0u);

  auto none = std::make_shared<PixelPool>(0, 1000);
  none->give(std::vector<std::uint8_t>(10));
  EXPECT_EQ(none->count(), 0u);
}

// Buffers pass from image to image of other sizes and kinds; every decode gives exactly the
// pixels of the general decoder, and a buffer returns to the pool when its image goes.
TEST(PixelPoolTest, DecodesIntoReusedBuffersLikeTheGeneralDecoder) {
  auto pool = std::make_shared<PixelPool>(1, 1u << 20);
  const Image wide = *randomImage(64, 20, false, 1), narrow = *randomImage(7, 9, false, 2);
  // Our RGBA files, an RGB file (decoded straight too) and a palette one (general decoder).
  std::vector<std::vector<std::uint8_t>> pngs = {
      wide.pngData(),
      narrow.pngData(),
      readFile(kCorpus / "app-screenshot-dialog-841x631.png"),
      readFile(kCorpus / "icon-tile-64x64.png"),
      randomImage(64, 20, true, 3)->pngData(),
      wide.pngData()};
  for (const auto& png : pngs) {
    std::shared_ptr<const Image> expected = Image::fromPNGData(png);
    std::shared_ptr<const Image> decoded = pool->decode(png).image;
    ASSERT_EQ(decoded->width(), expected->width());
    ASSERT_EQ(decoded->height(), expected->height());
    EXPECT_EQ(decoded->pixels(), expected->pixels());
  }
  std::shared_ptr<const Image> held = pool->decode(pngs[0]).image;
  EXPECT_EQ(pool->count(), 0u);
  held.reset();
  EXPECT_EQ(pool->count(), 1u);

  std::vector<std::uint8_t> truncated = wide.pngData();
  truncated.resize(truncated.size() / 2);
  for (const auto& broken : {truncated, std::vector<std::uint8_t>{1, 2, 3}, {}}) {
    EXPECT_THROW(pool->decode(broken).image, Exception);
  }
  EXPECT_EQ(pool->count(), 1u);

  // Images may outlive their pool; their buffers are then simply freed.
  held = pool->decode(narrow.pngData()).image;
  pool.reset();
  EXPECT_EQ(held->pixels(), narrow.pixels());
}

}  // namespace
}  // namespace saffra::server
