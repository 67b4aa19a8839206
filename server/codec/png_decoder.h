// The service's decoder for the PNG files screenshots usually are (8-bit RGB or RGBA, not
// interlaced, no transparency key): one file, two files about to be compared (rows they share
// are rebuilt once), or a file whose rows were compressed in bands (on several threads, copying
// the bands an earlier file shares). Everything else is left to the general decoder,
// Image::fromPNGData.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "saffra/platform/image.h"
#include "saffra/platform/internal/png_format.h"
#include "server/codec/row_progress.h"

namespace saffra::png {

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
