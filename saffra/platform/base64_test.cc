#include "saffra/platform/base64.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "saffra/platform/image.h"
#include "saffra/platform/png.h"
#include "testing/png_files.h"

namespace saffra::base64 {
namespace {

using testing::Bytes;

TEST(Base64EncodeTest, UploadTextHasLinesOf64WithCrLfBetweenAndNoneAfterTheLast) {
  for (std::size_t size : {0, 1, 2, 3, 47, 48, 49, 95, 96, 97, 1000}) {
    SCOPED_TRACE(size);
    Bytes data(size);
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i * 37 + 5);
    const std::string text = base64::encodeLines64(data);
    std::string expected = base64::encode(data);
    for (std::size_t at = 64; at < expected.size(); at += 66) expected.insert(at, "\r\n");
    EXPECT_EQ(text, expected);
    EXPECT_EQ(text.size(), base64::encodedLength(size, 64));
    EXPECT_EQ(testing::decodeBase64(text), data);
  }
  // The upload text is the image's PNG file in such lines.
  auto image = Image::fromPNGFile(std::string(SAFFRA_CORPUS_DIR) + "/icon-tile-64x64.png");
  const std::string text = png::encodeBase64Lines64(*image);
  EXPECT_EQ(text, base64::encodeLines64(image->pngData()));
  EXPECT_EQ(Image::fromPNGData(testing::decodeBase64(text).value())->pixels(), image->pixels());
  EXPECT_EQ(base64::encode(Bytes{'f', 'o', 'o', 'b', 'a', 'r', 'x'}), "Zm9vYmFyeA==");
  EXPECT_EQ(base64::encode(Bytes{0xFB, 0xFF}), "+/8=");
}

}  // namespace
}  // namespace saffra::base64
