// A zlib-stream inflater for the service's PNG decoder.
//
// It exists for one reason: screenshots are full of runs of one colour, which an encoder that
// does not filter them stores as long matches at a distance of 3 or 4 bytes (one pixel), and
// general-purpose inflaters copy those a few bytes per step, each step waiting for the last.
// Here a match at any distance under 16 bytes is written as its repeating 16-byte pattern, one
// independent store after another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace saffra::inflate {

/// Bytes of zeros the caller must leave readable after the compressed data (they are read,
/// never trusted: a stream that needs them is refused).
constexpr std::size_t kInputPadding = 16;
/// Bytes the caller must leave writable after the `outSize` bytes of output (scratch only).
constexpr std::size_t kOutputSlack = 32;
/// Room a reused output buffer needs beyond what its caller keeps and asks for: the 32 KiB a
/// match may reach back, a whole stored block and a step of a coded one.
constexpr std::size_t kMinCapacity = 32768 + 65536 + 512;

/// What a Stream's input is.
enum class Framing {
  /// A whole zlib stream: header, deflate blocks, Adler-32.
  Zlib,
  /// The deflate blocks of one band of a longer stream, cut where a band ends: no header, no
  /// reference to any byte before the band, and the band ends on a byte boundary right after a
  /// stored block that is not the stream's last block.
  Band,
  /// The same for the stream's last band, which ends with the last block (on the next byte
  /// boundary). The Adler-32 that follows is the caller's to check.
  LastBand,
};

/// True when `in` starts with a zlib header this inflater accepts: deflate, a window of at most
/// 32 KiB, no preset dictionary, a valid check value.
bool zlibHeaderAccepted(const std::uint8_t* in, std::size_t inSize);

/// Inflates the zlib stream `in[0, inSize)` into exactly `outSize` bytes at `out`. True when
/// the stream is well formed, holds exactly that many bytes and its Adler-32 checksum matches;
/// false for anything else (damage of any kind, a preset dictionary, more or less output), in
/// which case `out` holds unspecified bytes. Never reads or writes outside the bounds above.
bool zlib(const std::uint8_t* in, std::size_t inSize, std::uint8_t* out, std::size_t outSize);

/// The same piece by piece, so the caller can use each piece of the output while it is still
/// in the processor's caches: advance() inflates until at least `target` bytes (counted from
/// the start) are final, or to the end of the stream, where it checks the end as zlib() does.
/// Bytes before produced() are final; bytes after it may be scratch.
class Stream {
 public:
  Stream(const std::uint8_t* in, std::size_t inSize, std::uint8_t* out, std::size_t outSize);
  /// The same through a buffer of `capacity` bytes (plus kOutputSlack) that is used again from
  /// its start as the stream goes on, so a long stream is inflated while its output stays in
  /// the caches: stream byte i is at buffer[i - offset()] while it is there. The buffer keeps
  /// the bytes the caller has not released and the last 32 KiB; an advance always makes
  /// progress when `capacity` is at least kMinCapacity more than the caller keeps and asks for.
  Stream(const std::uint8_t* in, std::size_t inSize, std::uint8_t* buffer, std::size_t capacity,
         std::size_t outSize, Framing framing = Framing::Zlib);
  ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  /// False once the stream shows damage of any kind (and from then on).
  bool advance(std::size_t target);
  std::size_t produced() const;
  /// The stream position of the buffer's first byte (0 unless the buffer is used again).
  std::size_t offset() const;
  /// The caller needs no byte before stream position `position` any more.
  void release(std::size_t position);
  /// True once the whole stream is inflated, exactly filled the output and its checksum matched
  /// (a band: ended where its input ends, as its framing requires).
  bool finished() const;
  /// The Adler-32 checksum of the output produced so far.
  std::uint32_t adler() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace saffra::inflate
