// The store's image files: named by the SHA-256 of their bytes, written under a temporary
// name and renamed, read back whole or by their head, and flushed to disk by a thread.
#include "server/store/sqlite/image_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "saffra/platform/uuid.h"
#include "server/store/binding.h"

namespace saffra::server {

namespace storage {

// Writes `bytes` to a new file at `path`. Throws StoreError, leaving no file behind.
void writeFile(const fs::path& path, std::span<const std::uint8_t> bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) throw StoreError("cannot create " + path.string() + ": " + std::strerror(errno));
  const std::uint8_t* p = bytes.data();
  std::size_t left = bytes.size();
  bool ok = true;
  while (ok && left > 0) {
    ssize_t written = ::write(fd, p, left);
    if (written < 0 && errno == EINTR) continue;
    ok = written > 0;
    if (ok) {
      p += written;
      left -= static_cast<std::size_t>(written);
    }
  }
  const int error = errno;
  ::close(fd);
  if (!ok) {
    ::unlink(path.c_str());
    throw StoreError("cannot write " + path.string() + ": " + std::strerror(error));
  }
}

// Flushes a file or folder to disk: empty when done (or when it is gone: nothing of it is
// left to lose), else why not.
std::string flushToDisk(const fs::path& path, int flags) {
  int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? std::string() : path.string() + ": " + std::strerror(errno);
  int rc;
  do {
    rc = ::fsync(fd);
  } while (rc != 0 && errno == EINTR);
  const int error = errno;
  ::close(fd);
  return rc == 0 ? std::string() : path.string() + ": " + std::strerror(error);
}

}  // namespace storage

using storage::writeFile;

void SqliteStore::flushImages() {
  flusher_->flush();
}

fs::path SqliteStore::imagePath(const std::string& id) const {
  return imageFolder_ / id.substr(0, 2) / (id + ".png");
}

std::string SqliteStore::putImage(std::span<const std::uint8_t> png, const std::string& id) {
  {
    // A file found present is touched, so retention, which leaves recently used files alone,
    // does not remove it before the row that refers to it is written.
    std::lock_guard use(imageUseMutex_);
    if (hasImage(id, png.size()) && ::utimensat(AT_FDCWD, imagePath(id).c_str(), nullptr, 0) == 0) {
      return id;
    }
  }
  return writeImage(png, id)->keep();
}

SqliteStore::PendingFile::PendingFile(SqliteStore& store, fs::path temporary, fs::path path,
                                      std::string id)
    : store_(store), temporary_(std::move(temporary)), path_(std::move(path)), id_(std::move(id)) {}

SqliteStore::PendingFile::~PendingFile() {
  if (!kept_) ::unlink(temporary_.c_str());
}

std::string SqliteStore::PendingFile::keep() {
  if (kept_) return id_;
  kept_ = true;
  // One rename, so readers see the whole file or none; the file is new, so retention leaves
  // it alone until the row that refers to it is written.
  std::lock_guard use(store_.imageUseMutex_);
  if (::rename(temporary_.c_str(), path_.c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary_.c_str());
    throw StoreError("cannot write " + path_.string() + ": " + std::strerror(error));
  }
  store_.flusher_->add(path_);
  return id_;
}

std::unique_ptr<Store::PendingImage> SqliteStore::writeImage(std::span<const std::uint8_t> png,
                                                             const std::string& id) {
  requireWritable();
  if (!isImageId(id)) throw StoreError("not an image id: " + id);
  const fs::path path = imagePath(id);
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  if (error)
    throw StoreError("cannot create " + path.parent_path().string() + ": " + error.message());
  fs::path temporary = path.parent_path() / (".tmp-" + newUUIDString());
  writeFile(temporary, png);
  return std::unique_ptr<PendingImage>(new PendingFile(*this, std::move(temporary), path, id));
}

bool SqliteStore::hasImage(const std::string& id, std::uint64_t size) const {
  return imageSize(id) == size;
}

std::optional<std::uint64_t> SqliteStore::imageSize(const std::string& id) const {
  if (!isImageId(id)) return std::nullopt;
  std::error_code error;
  const std::uintmax_t size = fs::file_size(imagePath(id), error);
  if (error) return std::nullopt;
  return size;
}

std::optional<std::vector<std::uint8_t>> SqliteStore::readImage(const std::string& id) const {
  if (!isImageId(id)) return std::nullopt;
  std::ifstream in(imagePath(id), std::ios::binary);
  if (!in) return std::nullopt;
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::optional<std::vector<std::uint8_t>> SqliteStore::imageHead(const std::string& id,
                                                                std::size_t count) const {
  if (!isImageId(id)) return std::nullopt;
  std::ifstream in(imagePath(id), std::ios::binary);
  if (!in) return std::nullopt;
  std::vector<std::uint8_t> head(count);
  in.read(reinterpret_cast<char*>(head.data()), static_cast<std::streamsize>(count));
  head.resize(static_cast<std::size_t>(in.gcount()));
  return head;
}

std::int64_t SqliteStore::removeUnusedImages(const std::string& prefix, std::int64_t before) {
  if (prefix.size() != 2 || prefix.find_first_not_of("0123456789abcdef") != std::string::npos) {
    return 0;
  }
  const fs::path folder = imageFolder_ / prefix;
  std::error_code error;
  std::vector<fs::path> files;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    files.push_back(it->path());
  }
  auto lastUse = [](const fs::path& path) -> std::optional<std::int64_t> {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return static_cast<std::int64_t>(info.st_mtime);
  };
  std::int64_t removed = 0;
  for (const fs::path& file : files) {
    const std::string name = file.filename().string();
    if (name.rfind(".tmp-", 0) == 0) {
      // Left by a crash between writing an upload and keeping it.
      std::optional<std::int64_t> at = lastUse(file);
      if (at && *at < before) ::unlink(file.c_str());
      continue;
    }
    if (name.size() != 68 || name.substr(64) != ".png") continue;
    const std::string id = name.substr(0, 64);
    if (!isImageId(id)) continue;
    std::lock_guard use(imageUseMutex_);
    std::optional<std::int64_t> at = lastUse(file);
    if (!at || *at >= before) continue;
    bool used = false;
    {
      storage::Lease db = lease();
      storage::Statement s(
          *db,
          "SELECT (SELECT count(*) FROM (SELECT 1 FROM steps WHERE current_image = ?1 "
          "LIMIT 1) a) + (SELECT count(*) FROM (SELECT 1 FROM steps WHERE "
          "baseline_image = ?1 LIMIT 1) b) + (SELECT count(*) FROM (SELECT 1 FROM steps "
          "WHERE diff_image = ?1 LIMIT 1) c) + (SELECT count(*) FROM (SELECT 1 FROM "
          "baseline_version_steps WHERE image = ?1 LIMIT 1) d) + (SELECT count(*) FROM "
          "(SELECT 1 FROM baseline_alternatives WHERE image = ?1 LIMIT 1) e)");
      s.bind(1, id);
      s.step();
      used = s.integer(0) > 0;
    }
    if (!used && ::unlink(file.c_str()) == 0) ++removed;
  }
  return removed;
}

}  // namespace saffra::server
