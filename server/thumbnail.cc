#include "server/thumbnail.h"

#include <algorithm>

namespace saffra::server {

std::vector<std::uint8_t> makeThumbnail(const Image& image, std::size_t maxWidth,
                                        std::size_t maxHeight) {
  const std::size_t w = image.width(), h = image.height();
  if (w == 0 || h == 0) return image.pngData();
  // The one scale that fits both ways, rounded so neither side becomes 0.
  double scale = std::min({1.0, static_cast<double>(maxWidth) / static_cast<double>(w),
                           static_cast<double>(maxHeight) / static_cast<double>(h)});
  const std::size_t tw = std::max<std::size_t>(1, static_cast<std::size_t>(w * scale + 0.5));
  const std::size_t th = std::max<std::size_t>(1, static_cast<std::size_t>(h * scale + 0.5));
  if (tw == w && th == h) return image.pngData();
  std::vector<std::uint8_t> out(tw * th * 4);
  for (std::size_t ty = 0; ty < th; ++ty) {
    const std::size_t y0 = ty * h / th, y1 = std::max(y0 + 1, (ty + 1) * h / th);
    for (std::size_t tx = 0; tx < tw; ++tx) {
      const std::size_t x0 = tx * w / tw, x1 = std::max(x0 + 1, (tx + 1) * w / tw);
      std::uint64_t sum[4] = {0, 0, 0, 0};
      for (std::size_t y = y0; y < y1; ++y) {
        const std::uint8_t* p = image.pixel(x0, y);
        for (std::size_t x = x0; x < x1; ++x, p += 4) {
          for (int c = 0; c < 4; ++c) sum[c] += p[c];
        }
      }
      const std::uint64_t n = (y1 - y0) * (x1 - x0);
      std::uint8_t* q = &out[(ty * tw + tx) * 4];
      for (int c = 0; c < 4; ++c) q[c] = static_cast<std::uint8_t>((sum[c] + n / 2) / n);
    }
  }
  return Image(tw, th, std::move(out)).pngData();
}

std::shared_ptr<const std::vector<std::uint8_t>> ThumbnailCache::find(const std::string& id) {
  std::lock_guard lock(mutex_);
  auto found = entries_.find(id);
  return found == entries_.end() ? nullptr : found->second;
}

void ThumbnailCache::insert(const std::string& id,
                            std::shared_ptr<const std::vector<std::uint8_t>> png) {
  if (!png || png->size() > capacity_) return;
  std::lock_guard lock(mutex_);
  if (!entries_.emplace(id, png).second) return;
  bytes_ += png->size();
  order_.push_back(id);
  while (bytes_ > capacity_ && !order_.empty()) {
    auto oldest = entries_.find(order_.front());
    bytes_ -= oldest->second->size();
    entries_.erase(oldest);
    order_.pop_front();
  }
}

}  // namespace saffra::server
