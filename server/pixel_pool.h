// Pixel buffers reused from one decoded upload to the next. A phone screenshot is about 12 MB of
// RGBA; a fresh buffer of that size per check costs page faults and zero-filling that take
// longer than the decoding itself, so the service decodes uploads into buffers it keeps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "saffra/platform/image.h"
#include "server/codec/png_decoder.h"
#include "server/image_cache.h"

namespace saffra::server {

/// A thread-safe, bounded set of spare byte buffers. Buffers keep their size and contents
/// between uses, so growing one to a size it had before writes nothing.
class PixelPool : public std::enable_shared_from_this<PixelPool> {
 public:
  /// Keeps at most `maxBuffers` spare buffers holding at most `maxBytes` of capacity together.
  PixelPool(std::size_t maxBuffers, std::size_t maxBytes)
      : maxBuffers_(maxBuffers), maxBytes_(maxBytes) {}
  PixelPool(const PixelPool&) = delete;
  PixelPool& operator=(const PixelPool&) = delete;

  /// A spare buffer for `bytes` bytes: the smallest one large enough, else the largest one
  /// (which then grows), else a new empty one.
  std::vector<std::uint8_t> take(std::size_t bytes);
  /// Hands a buffer back; it is kept when the bounds allow, else freed (the smallest spare
  /// buffers make room first when it is larger than they are).
  void give(std::vector<std::uint8_t> buffer);

  /// The spare buffers kept now, and their capacity in bytes.
  std::size_t count() const;
  std::size_t bytes() const;

  /// Decodes PNG bytes into a pooled buffer; the image hands its buffer back when the last
  /// reference to it goes. PNGs of the common kind (8-bit RGB or RGBA) are decoded straight
  /// into the buffer, publishing rows to `progress` when given; others (and those the fast
  /// decoder gives up on, whose buffer then stays with `progress`) by the general decoder.
  /// Throws like Image::fromPNGData. The image comes with what the decoding learnt of the
  /// file's bands. A file compressed in bands is decoded on this thread and a pool thread, each
  /// of which runs `afterBand` after every band it published; bands it shares with `reference`
  /// (an earlier decoding) are copied from it, and the progress says which rows those are. `beside`
  /// is other work for this thread, run once: while the pool thread decodes the first bands, or
  /// after a file not compressed in bands is decoded (while a comparison may still follow its
  /// rows).
  DecodedImage decode(std::span<const std::uint8_t> png, png::RowProgress* progress = nullptr,
                      const DecodedImage* reference = nullptr,
                      const std::function<void()>& afterBand = {},
                      const std::function<void()>& beside = {});

 private:
  /// The image of a decoding into `buffer`, which goes back to the pool with the image.
  std::shared_ptr<const Image> pooledImage(std::size_t width, std::size_t height,
                                           std::vector<std::uint8_t> buffer);

  const std::size_t maxBuffers_;
  const std::size_t maxBytes_;
  mutable std::mutex mutex_;
  std::size_t bytes_ = 0;
  std::vector<std::vector<std::uint8_t>> spare_;
};

}  // namespace saffra::server
