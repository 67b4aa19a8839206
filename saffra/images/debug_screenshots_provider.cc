#include "saffra/images/debug_screenshots_provider.h"

#include <chrono>

#include "saffra/images/image_utils.h"
#include "saffra/platform/format.h"

namespace saffra {

DebugScreenshotsProvider::DebugScreenshotsProvider()
    : prefix_("screenshot_"), path_(defaultPath()) {}

std::string DebugScreenshotsProvider::defaultPath() {
  std::string folder = ImageUtils::documentsFolderPath();
  while (!folder.empty() && folder.back() == '/') folder.pop_back();
  return folder + "/Quorvant/Screenshots";
}

void DebugScreenshotsProvider::setPath(const OptString& path) {
  if (!path) {
    path_ = defaultPath();
  } else if (!path->empty() && path->back() == '/') {
    path_ = *path;
  } else {
    path_ = format("%@/", path);
  }
}

void DebugScreenshotsProvider::save(const std::shared_ptr<Image>& /*image*/,
                                    const OptString& /*suffix*/) {}

FileDebugScreenshotsProvider::FileDebugScreenshotsProvider()
    : dateFromatter_(std::make_shared<DateFormatter>("yyyy_MM_dd_HH_mm_ss_SSS")) {}

OptString FileDebugScreenshotsProvider::formattedTimeStamp() const {
  if (!dateFromatter_) return std::nullopt;
  return dateFromatter_->stringFromDate(std::chrono::system_clock::now());
}

void FileDebugScreenshotsProvider::save(const std::shared_ptr<Image>& image,
                                        const OptString& suffix) {
  const std::string filename =
      format("%@%@%@_%@.png", path(), prefix(), formattedTimeStamp(), suffix);
  ImageUtils::saveImage(image, filename);
}

}  // namespace saffra
