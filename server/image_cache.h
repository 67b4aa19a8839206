// Decoded images kept in memory by image id, so that a baseline compared again and again is
// decoded once. Image ids are content hashes, so an entry never goes stale.
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "saffra/platform/image.h"

namespace saffra::server {

/// A thread-safe cache of decoded images bounded by their pixel bytes; the least recently used
/// go first. An image larger than the whole bound is not kept.
class ImageCache {
 public:
  explicit ImageCache(std::size_t capacityBytes) : capacity_(capacityBytes) {}
  ImageCache(const ImageCache&) = delete;
  ImageCache& operator=(const ImageCache&) = delete;

  /// The image kept for `id`, or nullptr.
  std::shared_ptr<const Image> find(const std::string& id);
  /// Keeps `image` for `id` (replacing what was kept), dropping old entries as needed.
  void insert(const std::string& id, std::shared_ptr<const Image> image);
  /// The pixel bytes kept now.
  std::size_t bytes() const;

 private:
  struct Entry {
    std::string id;
    std::shared_ptr<const Image> image;
  };
  void eraseLocked(std::list<Entry>::iterator entry);

  const std::size_t capacity_;
  mutable std::mutex mutex_;
  std::size_t bytes_ = 0;
  std::list<Entry> entries_;  // most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};

}  // namespace saffra::server
