#include "server/pixel_pool.h"

#include <algorithm>
#include <system_error>

#include "server/codec/png_decoder.h"
#include "server/compare/task_pool.h"

namespace saffra::server {

std::vector<std::uint8_t> PixelPool::take(std::size_t bytes) {
  std::lock_guard lock(mutex_);
  if (spare_.empty()) return {};
  auto fits = spare_.end();
  auto largest = spare_.begin();
  for (auto it = spare_.begin(); it != spare_.end(); ++it) {
    if (it->capacity() >= bytes && (fits == spare_.end() || it->capacity() < fits->capacity())) {
      fits = it;
    }
    if (it->capacity() > largest->capacity()) largest = it;
  }
  auto chosen = fits != spare_.end() ? fits : largest;
  std::vector<std::uint8_t> buffer = std::move(*chosen);
  spare_.erase(chosen);
  bytes_ -= buffer.capacity();
  return buffer;
}

void PixelPool::give(std::vector<std::uint8_t> buffer) {
  const std::size_t size = buffer.capacity();
  if (size == 0 || size > maxBytes_ || maxBuffers_ == 0) return;
  std::lock_guard lock(mutex_);
  // Smaller spare buffers make room for a larger one: the next upload is most likely as large
  // as the last.
  std::sort(spare_.begin(), spare_.end(),
            [](const auto& a, const auto& b) { return a.capacity() < b.capacity(); });
  while (!spare_.empty() && (spare_.size() >= maxBuffers_ || bytes_ + size > maxBytes_) &&
         spare_.front().capacity() <= size) {
    bytes_ -= spare_.front().capacity();
    spare_.erase(spare_.begin());
  }
  if (spare_.size() >= maxBuffers_ || bytes_ + size > maxBytes_) return;
  bytes_ += size;
  spare_.push_back(std::move(buffer));
}

std::size_t PixelPool::count() const {
  std::lock_guard lock(mutex_);
  return spare_.size();
}

std::size_t PixelPool::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

DecodedImage PixelPool::decode(std::span<const std::uint8_t> png, png::RowProgress* progress,
                               const DecodedImage* reference,
                               const std::function<void()>& afterBand,
                               const std::function<void()>& beside) {
  bool besideDone = false;
  const auto doBeside = [&] {
    if (beside && !besideDone) {
      besideDone = true;
      beside();
    }
  };
  // The IHDR's size, when there is one, picks a buffer that needs no growing.
  std::size_t expected = 0;
  if (png.size() >= 24) {
    auto word = [&](std::size_t at) {
      return std::size_t{png[at]} << 24 | std::size_t{png[at + 1]} << 16 |
             std::size_t{png[at + 2]} << 8 | std::size_t{png[at + 3]};
    };
    expected = std::min(word(16) * word(20), Image::kMaxPixels) * 4;
  }
  std::vector<std::uint8_t> buffer = take(expected);
  // Readers of rows published before a decoder gave up may still be reading them.
  const auto letGo = [&] {
    if (progress) {
      progress->keep(std::move(buffer));
    } else {
      give(std::move(buffer));
    }
  };

  png::BandedDecoder banded;
  const bool referenced = reference && reference->image && reference->bands;
  if (banded.open(png, buffer, progress, referenced ? reference->bands : nullptr,
                  referenced ? reference->image->data() : nullptr)) {
    std::shared_ptr<compare::TaskPool::Task> helper;
    try {
      helper = compare::TaskPool::shared().post([&] { banded.work(afterBand); });
    } catch (const std::system_error&) {
      // No thread to spare: this thread decodes every band.
    }
    doBeside();
    banded.work(afterBand);
    if (helper) helper->finish();  // withdrawn if it has not started
    if (banded.finish()) {
      return {pooledImage(banded.width(), banded.height(), std::move(buffer)), banded.index()};
    }
    // Bands that are not what the file's list says: the file is decoded again as a whole,
    // without the progress, which has given up.
    letGo();
    buffer = take(expected);
    progress = nullptr;
  }

  std::size_t width = 0, height = 0;
  if (!png::decodeCommonInto(png.data(), png.size(), buffer, width, height, progress)) {
    letGo();
    std::shared_ptr<const Image> image = Image::fromPNGData(png.data(), png.size());
    doBeside();
    return {std::move(image), nullptr};
  }
  doBeside();
  return {pooledImage(width, height, std::move(buffer)), nullptr};
}

std::shared_ptr<const Image> PixelPool::pooledImage(std::size_t width, std::size_t height,
                                                    std::vector<std::uint8_t> buffer) {
  std::weak_ptr<PixelPool> pool = weak_from_this();
  return std::shared_ptr<Image>(new Image(width, height, std::move(buffer)), [pool](Image* done) {
    std::unique_ptr<Image> owned(done);
    if (std::shared_ptr<PixelPool> alive = pool.lock()) alive->give(owned->releasePixels());
  });
}

}  // namespace saffra::server
