// A fast decoder for the PNG files screenshots usually are (8-bit RGB or RGBA, not interlaced,
// no transparency key), for the codec's own use. Everything else is left to the general decoder.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
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

/// The chunk in which the codec's encoder lists the bands its rows were compressed in ("sfRB":
/// ancillary, private, and not safe to copy, as it describes the image data). Its body holds,
/// band after band from the top, the band's rows and the bytes of its deflate blocks, each a
/// 32-bit big-endian number; the first band's blocks follow the zlib header, the last band's
/// are followed by the Adler-32. Each band's blocks refer to no byte before the band, the first
/// row of each band is filtered with None or Sub, and every band but the last ends on a byte
/// boundary right after a stored block. Decoders that do not know the chunk skip it.
inline constexpr char kBandChunkType[] = "sfRB";

/// What decoding a banded file learnt of it (its bands, their bytes and checksums), kept beside
/// its pixels so that a later file can be decoded against it (see BandedDecoder).
struct BandIndex;

/// Decodes a file of the common kind whose rows were compressed in bands (kBandChunkType) on
/// as many threads as its caller lends it: each call of work() decodes bands nobody has taken
/// until none is left, and rows are published to the progress as the bands above them are done.
/// Given a reference (an earlier file's index and pixels), a band whose compressed bytes are
/// the reference's is copied from its pixels instead of decoded; the result is the same either
/// way, and only the reference must have been decoded to prove its bands stand alone.
class BandedDecoder {
 public:
  BandedDecoder();
  ~BandedDecoder();
  BandedDecoder(const BandedDecoder&) = delete;
  BandedDecoder& operator=(const BandedDecoder&) = delete;

  /// Reads the file's chunks and sizes `rgba` for its pixels; `png`, `rgba` and the reference
  /// must stay until finish(). False when the file is not of the common kind or lists no bands
  /// (or lists them wrongly): the caller then decodes it as a whole, and `progress` is untouched.
  bool open(std::span<const std::uint8_t> png, std::vector<std::uint8_t>& rgba,
            RowProgress* progress = nullptr, std::shared_ptr<const BandIndex> reference = {},
            const std::uint8_t* referenceRgba = nullptr);
  std::size_t width() const;
  std::size_t height() const;
  /// Decodes bands until none is left; any number of threads may call it at once. False once
  /// any band has failed. `afterBand`, when given, runs on the calling thread after each band
  /// it decoded and published (work on the rows done so far, in the cores' caches).
  bool work(const std::function<void()>& afterBand = {});
  /// Once every work() has returned: true when every band was decoded and the stream's checksum
  /// matches, false (failing the progress) otherwise. A file refused here may still be valid
  /// (bands that are not what its index says): the caller then decodes it as a whole.
  bool finish();
  /// The file's bands, for decoding later files against (after a finish() that returned true).
  std::shared_ptr<const BandIndex> index() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace saffra::png
