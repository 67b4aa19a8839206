// A fast decoder for the PNG files screenshots usually are (8-bit RGB or RGBA, not interlaced,
// no transparency key), for the codec's own use. Everything else is left to the general decoder.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "saffra/platform/image.h"

namespace saffra::png {

/// How far a decoding has got, for readers on other threads that work on its rows as they come
/// (a comparison that follows the decoding band by band). The decoder announces the buffer,
/// then publishes rows in order; rows it has published are final and never written again.
/// A failed decoding publishes nothing more, and readers then give up.
class RowProgress {
 public:
  RowProgress() = default;
  RowProgress(const RowProgress&) = delete;
  RowProgress& operator=(const RowProgress&) = delete;

  // The decoder's side.
  /// The output buffer (RGBA, rows width * 4 bytes apart) is in place.
  void begin(const std::uint8_t* rgba, std::size_t width, std::size_t height);
  /// Rows [0, rows) are final.
  void publish(std::size_t rows);
  /// No more rows will come (harmless after the last row).
  void fail();
  /// True when every row was published and the decoding has not failed.
  bool complete();
  /// Holds a buffer that readers may still be reading until this object goes.
  void keep(std::vector<std::uint8_t> buffer) { kept_ = std::move(buffer); }

  // The readers' side.
  /// Waits for begin; false when the decoding failed first.
  bool waitForStart();
  /// Waits until rows [0, rows) are final; false when the decoding failed first.
  bool waitForRows(std::size_t rows);
  const std::uint8_t* rgba() const { return rgba_; }
  std::size_t width() const { return width_; }
  std::size_t height() const { return height_; }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool started_ = false, failed_ = false;
  std::size_t rows_ = 0;
  // The fewest rows a waiting reader needs: publishing wakes readers only when they can go on.
  std::size_t wanted_ = SIZE_MAX;
  const std::uint8_t* rgba_ = nullptr;
  std::size_t width_ = 0, height_ = 0;
  std::vector<std::uint8_t> kept_;
};

/// Decodes `data` when it is a well-formed PNG of the common kind; nullptr for anything else
/// (other formats, damage of any sort), which the caller then hands to the general decoder.
std::shared_ptr<Image> decodeCommon(const std::uint8_t* data, std::size_t size, double scale);

/// The same into a caller's buffer, whose memory is reused when it is large enough (repeated
/// decoding then touches no fresh memory). Returns false, leaving `rgba` unspecified, for
/// anything decodeCommon would not decode. With `progress`, rows are published to it as they
/// are rebuilt, and it is failed on a false return.
bool decodeCommonInto(const std::uint8_t* data, std::size_t size, std::vector<std::uint8_t>& rgba,
                      std::size_t& width, std::size_t& height, RowProgress* progress = nullptr);

/// Pixels decoded into a caller's buffer (reused when large enough), with their size.
struct DecodedPixels {
  std::vector<std::uint8_t>& rgba;
  std::size_t width = 0, height = 0;
};

/// Decodes two files of the common kind that are about to be compared: like decodeCommonInto
/// on each, but rows the two files share are rebuilt once, which makes a pair of screenshots
/// of the same screen much cheaper than two files. `sameRows` receives one byte per row of
/// the second image: 1 where the row holds the very pixels of the first's row (0 says
/// nothing). False, leaving the buffers unspecified, when either file is not one decodeCommon
/// would decode.
bool decodeCommonPairInto(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second,
                          DecodedPixels& a, DecodedPixels& b, std::vector<std::uint8_t>& sameRows);

}  // namespace saffra::png
