// The store's image files: named by the SHA-256 of their bytes, written under a temporary
// name and renamed, read back whole or by their head, and flushed to disk by a thread.
#include "server/store/image_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include <openssl/evp.h>

#include "saffra/platform/uuid.h"

namespace saffra::server {

namespace storage {

std::string sha256Hex(std::span<const std::uint8_t> bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    throw StoreError("cannot hash image");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

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

using storage::sha256Hex;
using storage::writeFile;

bool isImageId(const std::string& id) {
  return id.size() == 64 && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

void Store::flushImages() {
  flusher_->flush();
}

fs::path Store::imagePath(const std::string& id) const {
  return imageFolder_ / id.substr(0, 2) / (id + ".png");
}

std::string Store::imageIdOf(std::span<const std::uint8_t> png) {
  return sha256Hex(png);
}

std::string Store::putImage(std::span<const std::uint8_t> png) {
  return putImage(png, sha256Hex(png));
}

std::string Store::putImage(std::span<const std::uint8_t> png, const std::string& id) {
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

Store::PendingImage::PendingImage(Store& store, fs::path temporary, fs::path path, std::string id)
    : store_(store), temporary_(std::move(temporary)), path_(std::move(path)), id_(std::move(id)) {}

Store::PendingImage::~PendingImage() {
  if (!kept_) ::unlink(temporary_.c_str());
}

std::string Store::PendingImage::keep() {
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

std::unique_ptr<Store::PendingImage> Store::writeImage(std::span<const std::uint8_t> png,
                                                       const std::string& id) {
  requireOwnFolder();
  if (!isImageId(id)) throw StoreError("not an image id: " + id);
  const fs::path path = imagePath(id);
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  if (error)
    throw StoreError("cannot create " + path.parent_path().string() + ": " + error.message());
  fs::path temporary = path.parent_path() / (".tmp-" + newUUIDString());
  writeFile(temporary, png);
  return std::unique_ptr<PendingImage>(new PendingImage(*this, std::move(temporary), path, id));
}

bool Store::hasImage(const std::string& id, std::uint64_t size) const {
  return imageSize(id) == size;
}

std::optional<std::uint64_t> Store::imageSize(const std::string& id) const {
  if (!isImageId(id)) return std::nullopt;
  std::error_code error;
  const std::uintmax_t size = fs::file_size(imagePath(id), error);
  if (error) return std::nullopt;
  return size;
}

std::optional<std::vector<std::uint8_t>> Store::readImage(const std::string& id) const {
  if (!isImageId(id)) return std::nullopt;
  std::ifstream in(imagePath(id), std::ios::binary);
  if (!in) return std::nullopt;
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::optional<std::vector<std::uint8_t>> Store::imageHead(const std::string& id,
                                                          std::size_t count) const {
  if (!isImageId(id)) return std::nullopt;
  std::ifstream in(imagePath(id), std::ios::binary);
  if (!in) return std::nullopt;
  std::vector<std::uint8_t> head(count);
  in.read(reinterpret_cast<char*>(head.data()), static_cast<std::streamsize>(count));
  head.resize(static_cast<std::size_t>(in.gcount()));
  return head;
}

}  // namespace saffra::server
