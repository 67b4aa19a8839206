// Channel lists, byte conversion and the bicubic resize, against hand values and a direct
// transcription of the resize on plain 64-bit lists.
#include <gtest/gtest.h>

#include <cmath>

#include "saffra/base/logger.h"
#include "saffra/images/bitmap.h"
#include "saffra/images/resize.h"
#include "saffra/platform/exception.h"
#include "testing/png_files.h"

namespace saffra {
namespace {

std::shared_ptr<Image> imageOf(std::size_t width, std::size_t height,
                               std::vector<std::uint8_t> rgba) {
  return std::make_shared<Image>(width, height, std::move(rgba));
}

std::shared_ptr<Image> solid(std::size_t width, std::size_t height,
                             std::array<std::uint8_t, 4> px) {
  std::vector<std::uint8_t> rgba;
  for (std::size_t i = 0; i < width * height; ++i) rgba.insert(rgba.end(), px.begin(), px.end());
  return imageOf(width, height, rgba);
}

// The resize written out step by step on 64-bit lists, without any of the library's shortcuts.
std::vector<std::uint8_t> referenceResizeBytes(const std::shared_ptr<Image>& image, std::int64_t nw,
                                               std::int64_t nh) {
  const ChannelList src = Bitmap::convertImageToBitmapARGB8(image);
  const auto sw = static_cast<std::int64_t>(image->width());
  const auto sh = static_cast<std::int64_t>(image->height());
  const std::int64_t fx = std::max<std::int64_t>(sw / nw, 1),
                     fy = std::max<std::int64_t>(sh / nh, 1);
  const std::int64_t iw = fx * nw, ih = fy * nh;
  auto at = [](const ChannelList& l, std::int64_t i) { return l.at(static_cast<std::size_t>(i)); };
  ChannelList h(static_cast<std::size_t>(sh * iw * 4));
  for (std::int64_t y = 0; y < sh; ++y) {
    for (std::int64_t x = 0; x < iw; ++x) {
      double sx = static_cast<double>(x * (sw - 1)) / static_cast<double>(iw);
      auto ix = static_cast<std::int64_t>(std::floor(sx));
      double t = sx - static_cast<double>(ix);
      for (std::int64_t c = 0; c < 4; ++c) {
        std::int64_t b = (y * sw + ix) * 4 + c;
        std::int64_t p0 = ix > 0 ? at(src, b - 4) : 2 * at(src, b) - at(src, b + 4);
        std::int64_t p1 = at(src, b), p2 = at(src, b + 4);
        std::int64_t p3 = sw - 2 > ix ? at(src, b + 8) : 2 * p2 - p1;
        h[static_cast<std::size_t>((y * iw + x) * 4 + c)] =
            Resize::interpolateCubic(p0, p1, p2, p3, t);
      }
    }
  }
  ChannelList v(static_cast<std::size_t>(ih * iw * 4));
  for (std::int64_t y = 0; y < ih; ++y) {
    double sy = static_cast<double>(y * (sh - 1)) / static_cast<double>(ih);
    auto iy = static_cast<std::int64_t>(std::floor(sy));
    double t = sy - static_cast<double>(iy);
    for (std::int64_t x = 0; x < iw; ++x) {
      for (std::int64_t c = 0; c < 4; ++c) {
        std::int64_t b = (iy * iw + x) * 4 + c, row = 4 * iw;
        std::int64_t p0 = iy > 0 ? at(h, b - row) : 2 * at(h, b) - at(h, b + row);
        std::int64_t p1 = at(h, b), p2 = at(h, b + row);
        std::int64_t p3 = sh - 2 > iy ? at(h, b + 2 * row) : 2 * p2 - p1;
        v[static_cast<std::size_t>((y * iw + x) * 4 + c)] =
            Resize::interpolateCubic(p0, p1, p2, p3, t);
      }
    }
  }
  if (fx * fy < 2) return Utility::convertToArrayOfBytes(v);
  ChannelList out(static_cast<std::size_t>(nw * nh * 4));
  for (std::int64_t y = 0; y < nh; ++y) {
    for (std::int64_t x = 0; x < nw; ++x) {
      std::int64_t sum[4] = {};
      for (std::int64_t i = 0; i < fx; ++i) {
        for (std::int64_t j = 0; j < fy; ++j) {
          for (int c = 0; c < 4; ++c) sum[c] += at(v, ((j + y * fy) * iw + i + x * fx) * 4 + c);
        }
      }
      for (int c = 0; c < 4; ++c)
        out[static_cast<std::size_t>((y * nw + x) * 4 + c)] = sum[3 - c] / (fx * fy);
    }
  }
  return Utility::convertToArrayOfBytes(out);
}

TEST(ResizeTest, InterpolateCubic) {
  struct Case {
    std::int64_t p0, p1, p2, p3;
    double t;
    std::int64_t expected;
  };
  const Case cases[] = {
      {10, 20, 30, 40, 0.5, 25},     {0, 255, 255, 0, 0.5, 255},     // 318.75 clamped
      {255, 0, 0, 255, 0.5, 0},                                      // -63.75 clamped
      {-100, 0, 100, 200, 0.25, 34}, {-100, 0, 100, 200, 0.75, 65},  // truncated, not rounded
      {7, 99, 3, 1000, 0.0, 99},     {1, 2, 3, 4, NAN, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Resize::interpolateCubic(c.p0, c.p1, c.p2, c.p3, c.t), c.expected)
        << c.p0 << " " << c.p1 << " " << c.p2 << " " << c.p3 << " t=" << c.t;
  }
}

TEST(BitmapTest, ChannelListIsAlphaBlueGreenRedUnpremultipliedAndBytesArePremultiplied) {
  auto image = imageOf(3, 1, {10, 20, 30, 255, 200, 100, 50, 128, 9, 9, 9, 0});
  // Opaque exact; translucent through premultiplied bytes 100, 50, 25; transparent all 0.
  EXPECT_EQ(Bitmap::convertImageToBitmapARGB8(image),
            (ChannelList{255, 30, 20, 10, 128, 49, 99, 199, 0, 0, 0, 0}));
  EXPECT_TRUE(Bitmap::convertImageToBitmapARGB8(nullptr).empty());

  // The other way, bytes are read as premultiplied.
  image = Bitmap::convertBitmapRGBA8ToUIImage({10, 20, 30, 255, 100, 50, 25, 128, 0, 0, 0, 0},
                                              Size{3.9, 1.2});
  ASSERT_TRUE(image);
  EXPECT_EQ(image->width(), 3u);
  EXPECT_EQ(image->height(), 1u);
  EXPECT_EQ(image->scale(), 1.0);
  EXPECT_EQ(image->pixels(),
            (std::vector<std::uint8_t>{10, 20, 30, 255, 199, 100, 50, 128, 0, 0, 0, 0}));
  EXPECT_FALSE(Bitmap::convertBitmapRGBA8ToUIImage({1, 2, 3, 4}, Size{0.5, 1}));
  EXPECT_THROW(Bitmap::convertBitmapRGBA8ToUIImage({1, 2, 3, 4}, Size{2, 1}), Exception);
  EXPECT_EQ(Utility::convertToArrayOfBytes({-1, 256, 257, 65535, 7}),
            (std::vector<std::uint8_t>{255, 0, 1, 255, 7}));
  EXPECT_TRUE(Utility::convertToArrayOfBytes({}).empty());
}

std::vector<std::uint8_t> pixelsOf(const std::shared_ptr<Image>& image) {
  return image ? image->pixels() : std::vector<std::uint8_t>{};
}

TEST(ResizeTest, HandWorkedResults) {
  // 4x4 to 2x2: fx = fy = 2, averaging four pixels, so an opaque colour comes back as it was.
  EXPECT_EQ(pixelsOf(Resize::resizeImage(solid(4, 4, {10, 20, 30, 255}), Size{2, 2})),
            solid(2, 2, {10, 20, 30, 255})->pixels());
  // 3x3 to 2x2: 3 / 2 = 1, so alpha, blue, green, red are read as red, green, blue, alpha:
  // bytes 255, 30, 20, 10 are a premultiplied pixel with alpha 10, which saturates the colours.
  EXPECT_EQ(pixelsOf(Resize::resizeImageUsingBicubicInterpolation(solid(3, 3, {10, 20, 30, 255}),
                                                                  Size{2, 2})),
            solid(2, 2, {255, 255, 255, 10})->pixels());
  // 2x2 to 4x4, red 0 on the left, 100 on the right: sx = x / 4, giving 0, 34, 50, 65 across.
  // Those values end up in the alpha byte, which reading as premultiplied leaves alone.
  auto out = Resize::resizeImage(
      imageOf(2, 2, {0, 0, 0, 255, 100, 0, 0, 255, 0, 0, 0, 255, 100, 0, 0, 255}), Size{4, 4});
  ASSERT_TRUE(out);
  const std::uint8_t expected[4] = {0, 34, 50, 65};
  for (std::size_t y = 0; y < 4; ++y) {
    for (std::size_t x = 0; x < 4; ++x)
      EXPECT_EQ(out->pixel(x, y)[3], expected[x]) << x << "," << y;
  }
}

TEST(ResizeTest, MatchesTheStepByStepDefinition) {
  struct Case {
    std::size_t w, h;
    double nw, nh;
  };
  const Case cases[] = {{4, 4, 2, 2},     {3, 3, 2, 2},      {2, 2, 4, 4}, {7, 5, 3, 2},
                        {10, 6, 3, 3},    {9, 13, 4.7, 5.2}, {2, 3, 5, 1}, {31, 17, 31, 17},
                        {64, 48, 16, 12}, {5, 40, 2, 3}};
  unsigned seed = 1;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h) + " to " + std::to_string(c.nw) +
                 "x" + std::to_string(c.nh));
    auto image = testing::randomImage(c.w, c.h, false, seed++);
    auto nw = static_cast<std::int64_t>(c.nw), nh = static_cast<std::int64_t>(c.nh);
    EXPECT_EQ(pixelsOf(Resize::resizeImage(image, Size{c.nw, c.nh})),
              pixelsOf(Bitmap::convertBitmapRGBA8ToUIImage(referenceResizeBytes(image, nw, nh),
                                                           Size{c.nw, c.nh})));
  }
}

TEST(ResizeTest, SizesItCannotHandleRaiseBeforeReading) {
  const std::pair<std::shared_ptr<Image>, const char*> narrow[] = {
      {testing::randomImage(1, 5, false, 1), "one pixel wide"},
      {testing::randomImage(5, 1, false, 2), "one pixel high"},
      {nullptr, "absent"},
  };
  for (const auto& [image, what] : narrow) {
    try {
      Resize::resizeImage(image, Size{3, 3});
      ADD_FAILURE() << what;
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "NSRangeException") << what;
    }
  }
  for (Size target : {Size{0, 5}, Size{5, 0.5}, Size{NAN, 2}, Size{-3, 2}, Size{1e9, 2}}) {
    try {
      Resize::resizeImage(testing::randomImage(4, 4, false, 3), target);
      ADD_FAILURE() << toString(target);
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "NSInvalidArgumentException");
    }
  }
}

}  // namespace
}  // namespace saffra
