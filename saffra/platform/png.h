// The PNG codec behind saffra::Image. Decoding goes through libspng. Encoding uses the library's
// own writer, tuned for screenshots (large flat areas, repeated rows, text): rows are stored
// unfiltered and compressed by a greedy matcher that tries the pixel to the left, the pixel above
// and one hashed earlier position, then written as dynamic Huffman deflate blocks. Rows are
// compressed in independent bands of about 256 KiB of scanlines: no match reaches into an
// earlier band, and each band but the last ends on a byte boundary with an empty stored block,
// so the bands join into one zlib stream that any decoder reads. A private ancillary chunk
// ("sfRB") lists the bands, so that a decoder such as the local service's can inflate them on
// several cores and skip those it has seen in another file; it costs about 1% in file size. Bands
// may be compressed on separate threads; the bytes are the same whatever the number of threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "saffra/platform/image.h"

namespace saffra::png {

/// Decodes any PNG (palette, grey, 16-bit, with or without alpha) to 8-bit RGBA. Throws
/// Exception "InvalidImageException" with a reason for corrupt, truncated or oversized input.
std::shared_ptr<Image> decode(const std::uint8_t* data, std::size_t size, double scale = 1.0);

/// How the encoder may work.
struct EncodeOptions {
  /// Most threads to use. 1, the default, measured fastest on a busy machine (see
  /// bench/upload_encoding_bench.cc); 0 picks the number of cores (at most 4) for images of a
  /// quarter megapixel or more, which pays off only when cores are idle.
  unsigned threads = 1;
};

/// Encodes 8-bit RGBA pixels (rows `stride` bytes apart) as a lossless 8-bit RGBA PNG. Throws
/// Exception "InvalidImageException" for an empty or oversized image.
std::vector<std::uint8_t> encode(const std::uint8_t* rgba, std::size_t width, std::size_t height,
                                 std::size_t stride);
std::vector<std::uint8_t> encode(const std::uint8_t* rgba, std::size_t width, std::size_t height,
                                 std::size_t stride, const EncodeOptions& options);

/// The upload text of an image: its PNG in base64 with CR LF between 64-character lines.
std::string encodeBase64Lines64(const Image& image);

}  // namespace saffra::png
