// How far the decoding of an image has got, shared by the decoding threads and the readers that
// work on its rows as they come.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

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
  /// The output buffer (RGBA, rows width * 4 bytes apart) is in place. `sameRows`, when not
  /// empty, holds one byte per row: 1 where the row is known to hold the very pixels of the
  /// same row of the image the decoding was given as its reference. `inBands`: the rows come
  /// band by band from the threads that call BandedDecoder::work.
  void begin(const std::uint8_t* rgba, std::size_t width, std::size_t height,
             std::vector<std::uint8_t> sameRows = {}, bool inBands = false);
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
  /// How many rows are final now (none once the decoding has failed); does not wait.
  std::size_t rows();
  /// As given to begin: whether the decoding threads themselves take the rows band by band.
  bool inBands() const { return inBands_; }
  const std::uint8_t* rgba() const { return rgba_; }
  /// One byte per row as given to begin, or nullptr when nothing is known.
  const std::uint8_t* sameRows() const { return sameRows_.empty() ? nullptr : sameRows_.data(); }
  std::size_t width() const { return width_; }
  std::size_t height() const { return height_; }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool started_ = false, failed_ = false, inBands_ = false;
  std::size_t rows_ = 0;
  // The fewest rows a waiting reader needs: publishing wakes readers only when they can go on.
  std::size_t wanted_ = SIZE_MAX;
  const std::uint8_t* rgba_ = nullptr;
  std::size_t width_ = 0, height_ = 0;
  std::vector<std::uint8_t> sameRows_;
  std::vector<std::uint8_t> kept_;
};

}  // namespace saffra::png
