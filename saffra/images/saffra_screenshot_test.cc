// Cropping real screenshots, the out-of-bounds failure, and saving images to disk, also as
// debug screenshots.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "saffra/base/logger.h"
#include "saffra/images/debug_screenshots_provider.h"
#include "saffra/images/image_utils.h"
#include "saffra/images/saffra_screenshot.h"
#include "saffra/results/exceptions.h"
#include "testing/scoped_environment.h"

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

// A fresh temporary folder, removed with all it holds at the end.
class TempDir {
 public:
  TempDir() {
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~TempDir() { fs::remove_all(path_); }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  const fs::path& path() const { return path_; }

 private:
  static inline int counter_ = 0;
  fs::path path_ = fs::temp_directory_path() / ("saffra-images-" + std::to_string(::getpid()) +
                                                "-" + std::to_string(counter_++));
};

// A temporary folder that is the documents folder while it lives.
struct TemporaryDocuments : TempDir {
  ScopedEnvironment environment{{{"XDG_DATA_HOME", path().string()}}};
};

std::vector<std::string> filesIn(const fs::path& folder) {
  std::vector<std::string> names;
  if (!fs::exists(folder)) return names;
  for (const auto& entry : fs::directory_iterator(folder))
    names.push_back(entry.path().filename().string());
  return names;
}

// A time stamp of the form 2024_03_05_14_07_09_123.
const std::string kStamp = R"(\d{4}(_\d\d){5}_\d{3})";

bool isStampedName(const std::string& name, const std::string& prefix, const std::string& suffix) {
  return std::regex_match(name, std::regex(prefix + kStamp + "_" + suffix + R"(\.png)"));
}

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
  EXPECT_EQ(filesIn(dir / "a/b/c").size(), 1u);

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
  EXPECT_EQ(filesIn(dir.path()).size(), 3u);
}

TEST(DebugScreenshotsProviderTest, PathRules) {
  TemporaryDocuments documents;
  const std::string defaultPath = documents / "Quorvant/Screenshots";
  DebugScreenshotsProvider provider;
  EXPECT_EQ(DebugScreenshotsProvider::defaultPath(), defaultPath);
  EXPECT_EQ(provider.path(), defaultPath);

  const std::pair<OptString, std::string> cases[] = {{"/tmp/shots", "/tmp/shots/"},
                                                     {"/tmp/shots/", "/tmp/shots/"},
                                                     {std::nullopt, defaultPath},
                                                     {"", "/"}};
  for (const auto& [input, stored] : cases) {
    provider.setPath(input);
    EXPECT_EQ(provider.path(), stored) << input.value_or("(absent)");
  }
}

TEST(DebugScreenshotsProviderTest, FileProviderWritesTimeStampedPngs) {
  TemporaryDocuments documents;
  const fs::path folder = documents.path() / "shots";
  FileDebugScreenshotsProvider provider;
  provider.setPath(folder.string() + "/");
  provider.setPrefix("p_");
  EXPECT_TRUE(std::regex_match(*provider.formattedTimeStamp(), std::regex(kStamp)));

  auto image = phonePiece();
  provider.save(image, "original screenshot");
  auto names = filesIn(folder);
  ASSERT_EQ(names.size(), 1u);
  EXPECT_TRUE(isStampedName(names[0], "p_", "original screenshot")) << names[0];
  EXPECT_EQ(Image::fromPNGFile((folder / names[0]).string())->pixels(), image->pixels());

  provider.setDateFromatter(nullptr);
  EXPECT_FALSE(provider.formattedTimeStamp());
  provider.save(image, "scaled");
  EXPECT_TRUE(fs::exists(folder / "p_(null)_scaled.png"));

  // Write failures reach the caller; the null provider writes nothing.
  std::ofstream(documents / "blocker") << "a file where a folder should be";
  provider.setPath(documents / "blocker");
  EXPECT_THROW(provider.save(image, "scaled"), SaffraException);
  NullDebugScreenshotsProvider dropping;
  dropping.setPath(documents.path().string());
  dropping.save(image, "scaled");
  EXPECT_EQ(filesIn(documents.path()).size(), 2u);  // "shots" and "blocker"
}

TEST(DebugScreenshotsProviderTest, DefaultPathWithoutSwitchGluesThePrefixToTheFolderName) {
  TemporaryDocuments documents;
  // A provider given the default path directly, not through setPath, has no final separator.
  FileDebugScreenshotsProvider provider;
  provider.save(phonePiece(), "scaled");
  auto names = filesIn(documents / "Quorvant");
  ASSERT_EQ(names.size(), 1u);
  EXPECT_TRUE(isStampedName(names[0], "Screenshotsscreenshot_", "scaled")) << names[0];

  // After a switch (prefix and path handed over through the setters) the folder is used.
  FileDebugScreenshotsProvider switched;
  switched.setPrefix(provider.prefix());
  switched.setPath(provider.path());
  switched.save(phonePiece(), "scaled");
  EXPECT_EQ(filesIn(documents / "Quorvant/Screenshots").size(), 1u);
}

}  // namespace
}  // namespace saffra
