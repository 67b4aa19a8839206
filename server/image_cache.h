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
#include "server/codec/png_decoder.h"

namespace saffra::server {

/// A decoded image and, for a file compressed in bands, what decoding it learnt of them (with
/// which a later file can be decoded against it).
struct DecodedImage {
  std::shared_ptr<const Image> image;
  std::shared_ptr<const png::BandIndex> bands;
};

/// A thread-safe cache of decoded images bounded by their pixel bytes; the least recently used
/// go first. An image larger than the whole bound is not kept.
class ImageCache {
 public:
  explicit ImageCache(std::size_t capacityBytes) : capacity_(capacityBytes) {}
  ImageCache(const ImageCache&) = delete;
  ImageCache& operator=(const ImageCache&) = delete;

  /// The image kept for `id`, or nullptr.
  std::shared_ptr<const Image> find(const std::string& id) { return findDecoded(id).image; }
  /// The same with its bands (image nullptr when nothing is kept).
  DecodedImage findDecoded(const std::string& id);
  /// Keeps `image` for `id` (replacing what was kept), dropping old entries as needed. Only
  /// pixel bytes count towards the bound (a band index is a few percent of them).
  void insert(const std::string& id, DecodedImage image);
  void insert(const std::string& id, std::shared_ptr<const Image> image) {
    insert(id, DecodedImage{std::move(image), nullptr});
  }
  /// The pixel bytes kept now.
  std::size_t bytes() const;

 private:
  struct Entry {
    std::string id;
    DecodedImage decoded;
  };
  void eraseLocked(std::list<Entry>::iterator entry);

  const std::size_t capacity_;
  mutable std::mutex mutex_;
  std::size_t bytes_ = 0;
  std::list<Entry> entries_;  // most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};

}  // namespace saffra::server
