// Image files of the store: written beside the checks that use them, kept or dropped, and never
// trusted when a file is not whole.
#include "server/store.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "server/service_test_support.h"
#include "server/upload_file.h"

namespace saffra::server {
namespace {

using testing::TempFolder;

std::vector<std::uint8_t> bytesOf(const std::string& text) {
  return std::vector<std::uint8_t>(text.begin(), text.end());
}

// The files under the image folder, temporary ones included.
std::size_t filesIn(const std::filesystem::path& folder) {
  std::size_t n = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder / "images")) {
    n += entry.is_regular_file();
  }
  return n;
}

// A file that a power loss cut short (it never reached the disk whole) is not taken for the
// image: storing the same bytes again writes it whole.
TEST(StoreTest, AnImageFileCutShortIsWrittenAgain) {
  TempFolder folder;
  Store store(folder.path());
  const auto png = bytesOf("not really a PNG, but bytes all the same");
  const std::string id = store.putImage(png);
  EXPECT_TRUE(store.hasImage(id, png.size()));
  store.flushImages();

  const auto path = folder.path() / "images" / id.substr(0, 2) / (id + ".png");
  std::filesystem::resize_file(path, 0);
  EXPECT_FALSE(store.hasImage(id, png.size()));
  EXPECT_EQ(store.putImage(png, id), id);
  EXPECT_EQ(store.readImage(id), png);
  EXPECT_EQ(filesIn(folder.path()), 1u);
}

// An upload's file is written ahead beside its decoding, or by keep() itself when nothing
// prepared it; a file written ahead and not kept leaves nothing behind, and a failure to write
// ahead is reported when the file is kept.
TEST(StoreTest, UploadFilesAreKeptOrDropped) {
  TempFolder folder;
  Store store(folder.path());
  const auto png = bytesOf("kept in the end");
  {
    UploadFile dropped(png, std::nullopt, true);
    dropped.prepare(store);
    EXPECT_EQ(filesIn(folder.path()), 1u);
  }
  EXPECT_EQ(filesIn(folder.path()), 0u);

  for (const bool prepared : {true, false}) {
    UploadFile file(png, std::nullopt, true);
    if (prepared) file.prepare(store);
    const std::string id = file.keep(store);
    EXPECT_EQ(id, Store::imageIdOf(png));
    EXPECT_EQ(store.readImage(id), png);
  }
  store.flushImages();
  EXPECT_EQ(filesIn(folder.path()), 1u);

  // A file where the image's folder should be: it cannot be written.
  const auto other = bytesOf("never written");
  std::ofstream(folder.path() / "images" / Store::imageIdOf(other).substr(0, 2)) << "in the way";
  UploadFile unwritable(other, std::nullopt, true);
  unwritable.prepare(store);
  EXPECT_THROW(unwritable.keep(store), StoreError);
}

}  // namespace
}  // namespace saffra::server
