#include "server/pixel_pool.h"

#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "saffra/platform/exception.h"
#include "saffra/platform/png.h"

namespace saffra::server {
namespace {

Image patterned(std::size_t width, std::size_t height, int seed) {
  Image image(width, height);
  for (std::size_t i = 0; i < image.pixels().size(); ++i) {
    image.mutableData()[i] = static_cast<std::uint8_t>((i * 7 + seed * 31) ^ (i >> 5));
  }
  return image;
}

std::vector<std::uint8_t> corpusFile(const char* name) {
  std::ifstream in(std::string(SAFFRA_CORPUS_DIR) + "/" + name, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

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
  const Image wide = patterned(64, 20, 1), narrow = patterned(7, 9, 2);
  // Our RGBA files, an RGB file (decoded straight too) and a palette one (general decoder).
  std::vector<std::vector<std::uint8_t>> pngs = {wide.pngData(),
                                                 narrow.pngData(),
                                                 corpusFile("app-screenshot-dialog-841x631.png"),
                                                 corpusFile("icon-tile-64x64.png"),
                                                 patterned(64, 20, 3).pngData(),
                                                 wide.pngData()};
  for (const auto& png : pngs) {
    std::shared_ptr<const Image> expected = Image::fromPNGData(png);
    std::shared_ptr<const Image> decoded = pool->decodePNG(png);
    ASSERT_EQ(decoded->width(), expected->width());
    ASSERT_EQ(decoded->height(), expected->height());
    EXPECT_EQ(decoded->pixels(), expected->pixels());
  }
  std::shared_ptr<const Image> held = pool->decodePNG(pngs[0]);
  EXPECT_EQ(pool->count(), 0u);
  held.reset();
  EXPECT_EQ(pool->count(), 1u);

  std::vector<std::uint8_t> truncated = wide.pngData();
  truncated.resize(truncated.size() / 2);
  for (const auto& broken : {truncated, std::vector<std::uint8_t>{1, 2, 3}, {}}) {
    EXPECT_THROW(pool->decodePNG(broken), Exception);
  }
  EXPECT_EQ(pool->count(), 1u);
}

// Images may outlive their pool; their buffers are then simply freed.
TEST(PixelPoolTest, ImagesOutliveThePool) {
  auto pool = std::make_shared<PixelPool>(4, 1u << 20);
  std::shared_ptr<const Image> image = pool->decodePNG(patterned(5, 5, 4).pngData());
  pool.reset();
  EXPECT_EQ(image->pixels(), patterned(5, 5, 4).pixels());
}

}  // namespace
}  // namespace saffra::server
