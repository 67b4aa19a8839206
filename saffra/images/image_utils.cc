#include "saffra/images/image_utils.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "saffra/platform/format.h"
#include "saffra/platform/system_info.h"
#include "saffra/platform/uuid.h"
#include "saffra/results/exceptions.h"

namespace saffra {

namespace {

// The path without its last component, as paths are split on the platform: "/a/b.png" gives
// "/a", "/b.png" gives "/", "b.png" gives "".
std::string deletingLastPathComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  path.resize(slash);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// Writes the bytes to a new file beside `path` and renames it over `path`.
bool writeAtomically(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  const std::string temporary = path + ".tmp-" + newUUIDString();
  std::FILE* file = std::fopen(temporary.c_str(), "wb");
  if (!file) return false;
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  ok = std::fflush(file) == 0 && ok;
  ok = std::fclose(file) == 0 && ok;
  if (ok && std::rename(temporary.c_str(), path.c_str()) == 0) return true;
  std::remove(temporary.c_str());
  return false;
}

}  // namespace

void ImageUtils::saveImage(const std::shared_ptr<Image>& image, const std::string& filename) {
  namespace fs = std::filesystem;
  const std::string folder = deletingLastPathComponent(filename);
  std::error_code ec;
  if (!folder.empty() && !fs::exists(fs::symlink_status(folder, ec))) {
    fs::create_directories(folder, ec);
    if (ec) {
      throw SaffraException(format("Could not create the folder %@: %@", folder, ec.message()));
    }
  }
  if (!image || !writeAtomically(filename, image->pngData())) {
    throw SaffraException(std::string("Failed to save image"));
  }
}

std::string ImageUtils::documentsFolderPath() {
  return system_info::documentsFolderPath();
}

std::shared_ptr<Image> ImageUtils::cropRect(const Rect& rect, const std::shared_ptr<Image>& image) {
  if (!image || rect.isNull()) return nullptr;
  const Rect r = rect.standardized();
  const double left = std::max(std::floor(r.minX()), 0.0);
  const double top = std::max(std::floor(r.minY()), 0.0);
  const double right = std::min(std::ceil(r.maxX()), static_cast<double>(image->width()));
  const double bottom = std::min(std::ceil(r.maxY()), static_cast<double>(image->height()));
  // Also false for NaN edges.
  if (!(left < right) || !(top < bottom)) return nullptr;
  const auto x = static_cast<std::size_t>(left);
  const auto y = static_cast<std::size_t>(top);
  const auto width = static_cast<std::size_t>(right) - x;
  const auto height = static_cast<std::size_t>(bottom) - y;
  return Image::fromRGBA(image->data() + y * image->stride() + x * 4, width, height,
                         image->stride(), 1.0);
}

}  // namespace saffra
