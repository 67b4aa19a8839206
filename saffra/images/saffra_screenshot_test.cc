// Cropping real screenshots, the out-of-bounds failure, and saving images to disk.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "saffra/images/image_utils.h"
#include "saffra/images/logger.h"
#include "saffra/images/saffra_screenshot.h"
#include "saffra/results/exceptions.h"

namespace saffra {
namespace {

namespace fs = std::filesystem;

// A 100 x 200 piece of a real phone screenshot.
std::shared_ptr<Image> phonePiece() {
  static auto image = ImageUtils::cropRect(
      Rect(40, 300, 100, 200),
      Image::fromPNGFile(std::string(SAFFRA_CORPUS_DIR) + "/phone-help-cards-1170x2532.png"));
  return image;
}

// The pixels of `image` in [x, x + w) x [y, y + h).
std::vector<std::uint8_t> pixelsOf(const Image& image, std::size_t x, std::size_t y, std::size_t w,
                                   std::size_t h) {
  std::vector<std::uint8_t> out;
  for (std::size_t r = y; r < y + h; ++r) {
    out.insert(out.end(), image.pixel(x, r), image.pixel(x, r) + w * 4);
  }
  return out;
}

class TempDir {
 public:
  TempDir()
      : path_(fs::temp_directory_path() /
              ("saffra-images-" + std::to_string(::getpid()) + "-" + std::to_string(counter_++))) {
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~TempDir() { fs::remove_all(path_); }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  const fs::path& path() const { return path_; }

 private:
  static inline int counter_ = 0;
  fs::path path_;
};

TEST(SaffraScreenshotTest, CropRegionScalesAndClipsToTheImage) {
  struct Case {
    Rect region;
    double scale;
    std::size_t x, y, w, h;
  };
  const Case cases[] = {
      {Rect(10, 20, 30, 40), 1, 10, 20, 30, 40},   {Rect(10, 20, 30, 40), 2, 20, 40, 60, 80},
      {Rect(90, 190, 50, 50), 1, 90, 190, 10, 10}, {Rect(-5, -5, 10, 10), 1, 0, 0, 5, 5},
      {Rect(10.5, 20.2, 5, 5), 1, 10, 20, 6, 6},  // rounded outward to whole pixels
  };
  auto source = phonePiece();
  auto screenshot = std::make_shared<SaffraImagesScreenshot>(source);
  for (const auto& c : cases) {
    SCOPED_TRACE(toString(c.region) + " scale " + std::to_string(c.scale));
    auto cropped = screenshot->cropRegion(std::make_shared<Region>(c.region), c.scale);
    ASSERT_TRUE(std::dynamic_pointer_cast<SaffraImagesScreenshot>(cropped));
    ASSERT_TRUE(cropped->image());
    EXPECT_EQ(cropped->image()->width(), c.w);
    EXPECT_EQ(cropped->image()->height(), c.h);
    EXPECT_EQ(cropped->image()->pixels(), pixelsOf(*source, c.x, c.y, c.w, c.h));
  }
}

TEST(SaffraScreenshotTest, RegionOutsideTheImageIsOutOfBounds) {
  auto screenshot = std::make_shared<SaffraImagesScreenshot>(phonePiece());
  LogCapture log;
  try {
    screenshot->cropRegion(std::make_shared<Region>(Rect(150, 10, 10, 10)), 1);
    FAIL() << "no exception";
  } catch (const OutOfBoundsException& e) {
    EXPECT_EQ(e.name(), "OutOfBoundsException");
    EXPECT_EQ(e.reason(),
              "Region [{{150, 10}, {10, 10}}] is out of screenshot bounds [{{0, 0}, {100, 200}}]");
  }
  EXPECT_TRUE(log.contains(
      "intersecting this region ({{150, 10}, {10, 10}}) with {{0, 0}, {100, 200}} ..."));
  // A region that only touches the right edge does not overlap either.
  EXPECT_THROW(screenshot->cropRegion(std::make_shared<Region>(Rect(50, 10, 10, 10)), 2),
               OutOfBoundsException);
  EXPECT_THROW(screenshot->cropRegion(nullptr, 1), OutOfBoundsException);
}

TEST(SaffraScreenshotTest, StatusBarDownscaleAndTheGeneralClass) {
  auto source = phonePiece();
  auto screenshot = std::make_shared<SaffraImagesScreenshot>(source);
  auto withoutBar = screenshot->cropStatusBarWithHeight(20, 2);
  ASSERT_TRUE(withoutBar->image());
  EXPECT_EQ(withoutBar->image()->pixels(), pixelsOf(*source, 0, 40, 100, 160));
  EXPECT_FALSE(screenshot->cropStatusBarWithHeight(150, 2)->image());

  auto scaled = screenshot->downscale(0.5);
  EXPECT_TRUE(std::dynamic_pointer_cast<SaffraImagesScreenshot>(scaled));
  EXPECT_EQ(scaled->image(), source);

  // Without a cropper, crops hold no image but the bounds rule still applies.
  SaffraScreenshot general(source);
  EXPECT_FALSE(general.imageCropper());
  EXPECT_FALSE(general.cropRegion(std::make_shared<Region>(Rect(10, 20, 30, 40)), 1)->image());
  EXPECT_FALSE(general.cropStatusBarWithHeight(20, 1)->image());
  EXPECT_EQ(general.downscale(3)->image(), source);
  EXPECT_THROW(general.cropRegion(std::make_shared<Region>(Rect(150, 10, 10, 10)), 1),
               OutOfBoundsException);
}

TEST(ImageUtilsTest, CropRectEdges) {
  auto source = phonePiece();
  EXPECT_FALSE(ImageUtils::cropRect(Rect(100, 0, 10, 10), source));  // outside
  EXPECT_FALSE(ImageUtils::cropRect(Rect(10, 10, 0, 10), source));   // no width
  EXPECT_FALSE(ImageUtils::cropRect(Rect(NAN, 0, 10, 10), source));
  EXPECT_FALSE(ImageUtils::cropRect(Rect(0, 0, 10, 10), nullptr));
  auto flipped = ImageUtils::cropRect(Rect(30, 40, -10, -20), source);  // standardised
  ASSERT_TRUE(flipped);
  EXPECT_EQ(flipped->pixels(), pixelsOf(*source, 20, 20, 10, 20));
}

TEST(ImageUtilsTest, SaveCreatesFoldersAndReportsFailures) {
  TempDir dir;
  auto image = phonePiece();
  const std::string nested = dir / "a/b/c/shot.png";
  ImageUtils::saveImage(image, nested);
  EXPECT_EQ(Image::fromPNGFile(nested)->pixels(), image->pixels());
  ImageUtils::saveImage(image, nested);  // overwrites
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / "a/b/c"), fs::directory_iterator()), 1);

  std::ofstream(dir / "file.png") << "not a folder";
  fs::create_directories(dir / "folder.png");
  struct Case {
    std::string path;
    std::shared_ptr<Image> image;
    std::string reasonStart;
  };
  const Case cases[] = {
      {dir / "file.png/sub/shot.png", image,
       "Could not create the folder " + dir / "file.png/sub" + ": "},
      {dir / "file.png/shot.png", image, "Failed to save image"},
      {dir / "folder.png", image, "Failed to save image"},
      {dir / "absent.png", nullptr, "Failed to save image"},
  };
  for (const auto& c : cases) {
    try {
      ImageUtils::saveImage(c.image, c.path);
      ADD_FAILURE() << c.path;
    } catch (const SaffraException& e) {
      EXPECT_EQ(e.name(), "SaffraException");
      EXPECT_EQ(e.reason().rfind(c.reasonStart, 0), 0u) << e.reason();
    }
  }
  EXPECT_FALSE(fs::exists(dir / "absent.png"));
  // No temporary files are left behind by the failed writes.
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 3);
}

}  // namespace
}  // namespace saffra
