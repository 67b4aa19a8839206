#include "server/image_cache.h"

namespace saffra::server {

namespace {

std::size_t sizeOf(const Image& image) {
  return image.pixels().size();
}

}  // namespace

DecodedImage ImageCache::findDecoded(const std::string& id) {
  std::lock_guard lock(mutex_);
  auto found = index_.find(id);
  if (found == index_.end()) return {};
  entries_.splice(entries_.begin(), entries_, found->second);
  return found->second->decoded;
}

void ImageCache::insert(const std::string& id, DecodedImage image) {
  if (!image.image) return;
  const std::size_t size = sizeOf(*image.image);
  std::lock_guard lock(mutex_);
  if (auto found = index_.find(id); found != index_.end()) eraseLocked(found->second);
  if (size > capacity_) return;
  while (bytes_ + size > capacity_) eraseLocked(std::prev(entries_.end()));
  entries_.push_front({id, std::move(image)});
  index_.emplace(id, entries_.begin());
  bytes_ += size;
}

std::size_t ImageCache::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

void ImageCache::eraseLocked(std::list<Entry>::iterator entry) {
  bytes_ -= sizeOf(*entry->decoded.image);
  index_.erase(entry->id);
  entries_.erase(entry);
}

}  // namespace saffra::server
