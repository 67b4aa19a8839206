// Small copies of stored screenshots for the results pages' step lists, made on first request
// and kept in memory: a list of hundreds of steps then costs a few kilobytes per step instead of
// a full-size image each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "saffra/platform/image.h"

namespace saffra::server {

/// `image` shrunk to fit `maxWidth` x `maxHeight` (never enlarged), each pixel the average of
/// the pixels it covers, as PNG bytes.
std::vector<std::uint8_t> makeThumbnail(const Image& image, std::size_t maxWidth,
                                        std::size_t maxHeight);

/// PNG thumbnails by image id, the oldest forgotten beyond `capacityBytes`. Thread-safe.
class ThumbnailCache {
 public:
  explicit ThumbnailCache(std::size_t capacityBytes) : capacity_(capacityBytes) {}

  std::shared_ptr<const std::vector<std::uint8_t>> find(const std::string& id);
  void insert(const std::string& id, std::shared_ptr<const std::vector<std::uint8_t>> png);

 private:
  std::size_t capacity_;
  std::size_t bytes_ = 0;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<const std::vector<std::uint8_t>>> entries_;
  std::deque<std::string> order_;
};

}  // namespace saffra::server
