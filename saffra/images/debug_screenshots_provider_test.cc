// Debug screenshot folders, file names and failures.
#include "saffra/images/debug_screenshots_provider.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "saffra/results/exceptions.h"

namespace saffra {
namespace {

namespace fs = std::filesystem;

// Points the documents folder at a fresh temporary folder while it lives.
class TemporaryDocuments {
 public:
  TemporaryDocuments()
      : root_(fs::temp_directory_path() / ("saffra-debug-" + std::to_string(::getpid()))) {
    fs::remove_all(root_);
    fs::create_directories(root_);
    if (const char* old = std::getenv("XDG_DATA_HOME")) old_ = old;
    setenv("XDG_DATA_HOME", root_.c_str(), 1);
  }
  ~TemporaryDocuments() {
    if (old_)
      setenv("XDG_DATA_HOME", old_->c_str(), 1);
    else
      unsetenv("XDG_DATA_HOME");
    fs::remove_all(root_);
  }
  const fs::path& root() const { return root_; }

 private:
  fs::path root_;
  std::optional<std::string> old_;
};

std::shared_ptr<Image> smallImage() {
  auto image = std::make_shared<Image>(3, 2);
  for (std::size_t i = 0; i < image->pixels().size(); ++i)
    image->mutableData()[i] = static_cast<std::uint8_t>(i * 9);
  return image;
}

std::vector<std::string> filesIn(const fs::path& folder) {
  std::vector<std::string> names;
  if (!fs::exists(folder)) return names;
  for (const auto& entry : fs::directory_iterator(folder))
    names.push_back(entry.path().filename().string());
  return names;
}

// True for a time stamp of the form 2024_03_05_14_07_09_123.
bool isTimeStamp(const std::string& s) {
  const std::string shape = "dddd_dd_dd_dd_dd_dd_ddd";
  if (s.size() != shape.size()) return false;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(s[i])) : s[i] != '_')
      return false;
  }
  return true;
}

// The time stamp in a file name prefix + stamp + "_" + suffix + ".png", or "" when it does not
// have that form.
std::string stampIn(const std::string& name, const std::string& prefix, const std::string& suffix) {
  const std::string tail = "_" + suffix + ".png";
  if (name.size() < prefix.size() + tail.size() || name.rfind(prefix, 0) != 0 ||
      name.compare(name.size() - tail.size(), tail.size(), tail) != 0) {
    return "";
  }
  return name.substr(prefix.size(), name.size() - prefix.size() - tail.size());
}

TEST(DebugScreenshotsProviderTest, PathRules) {
  TemporaryDocuments documents;
  const std::string defaultPath = documents.root().string() + "/Quorvant/Screenshots";
  DebugScreenshotsProvider provider;
  EXPECT_EQ(DebugScreenshotsProvider::defaultPath(), defaultPath);
  EXPECT_EQ(provider.path(), defaultPath);
  EXPECT_EQ(provider.prefix(), "screenshot_");

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
  const fs::path folder = documents.root() / "shots";
  FileDebugScreenshotsProvider provider;
  provider.setPath(folder.string() + "/");
  provider.setPrefix("p_");
  EXPECT_TRUE(isTimeStamp(*provider.formattedTimeStamp()));

  auto image = smallImage();
  provider.save(image, "original screenshot");
  auto names = filesIn(folder);
  ASSERT_EQ(names.size(), 1u);
  EXPECT_TRUE(isTimeStamp(stampIn(names[0], "p_", "original screenshot"))) << names[0];
  EXPECT_EQ(Image::fromPNGFile((folder / names[0]).string())->pixels(), image->pixels());

  provider.setDateFromatter(nullptr);
  EXPECT_FALSE(provider.formattedTimeStamp());
  provider.save(image, "scaled");
  EXPECT_TRUE(fs::exists(folder / "p_(null)_scaled.png"));
}

TEST(DebugScreenshotsProviderTest, DefaultPathWithoutSwitchGluesThePrefixToTheFolderName) {
  TemporaryDocuments documents;
  // A provider given the default path directly, not through setPath, has no final separator.
  FileDebugScreenshotsProvider provider;
  provider.save(smallImage(), "scaled");
  auto names = filesIn(documents.root() / "Quorvant");
  ASSERT_EQ(names.size(), 1u);
  EXPECT_TRUE(isTimeStamp(stampIn(names[0], "Screenshotsscreenshot_", "scaled"))) << names[0];

  // After a switch (prefix and path handed over through the setters) the folder is used.
  FileDebugScreenshotsProvider switched;
  switched.setPrefix(provider.prefix());
  switched.setPath(provider.path());
  switched.save(smallImage(), "scaled");
  EXPECT_EQ(filesIn(documents.root() / "Quorvant" / "Screenshots").size(), 1u);
}

TEST(DebugScreenshotsProviderTest, NullProviderDropsAndFileProviderReportsFailures) {
  TemporaryDocuments documents;
  NullDebugScreenshotsProvider dropping;
  dropping.setPath(documents.root().string());
  dropping.save(smallImage(), "scaled");
  EXPECT_TRUE(filesIn(documents.root()).empty());

  std::ofstream(documents.root() / "blocker") << "a file where a folder should be";
  FileDebugScreenshotsProvider provider;
  provider.setPath((documents.root() / "blocker" / "shots").string());
  try {
    provider.save(smallImage(), "scaled");
    FAIL() << "no exception";
  } catch (const SaffraException& e) {
    EXPECT_NE(e.reason().find("blocker/shots"), std::string::npos) << e.reason();
  }
  provider.setPath((documents.root() / "blocker").string());
  try {
    provider.save(smallImage(), "scaled");
    FAIL() << "no exception";
  } catch (const SaffraException& e) {
    EXPECT_EQ(e.reason(), "Failed to save image");
  }
}

}  // namespace
}  // namespace saffra
