// PNG files made and taken apart byte by byte, for tests of the encoder and the decoders.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "saffra/platform/image.h"

namespace saffra::testing {

using Bytes = std::vector<std::uint8_t>;

/// The bytes of a file (empty when it cannot be read).
Bytes readFile(const std::filesystem::path& path);
/// Writes the image as a PNG file (the library's encoder) and returns the file's path.
std::string writePNGFile(const std::filesystem::path& path, const Image& image);

/// Appends `v` as a 32-bit big-endian number; reads one back.
void put32(Bytes& out, std::size_t v);
std::uint32_t load32(const std::uint8_t* p);

/// One chunk of a PNG file, to look into and to put together again.
struct Chunk {
  std::string type;
  Bytes body;
};

/// The chunks of a PNG file, in order.
std::vector<Chunk> chunksOf(const Bytes& png);
/// A PNG file of these chunks, each with a fresh checksum.
Bytes pngOf(const std::vector<Chunk>& chunks);
/// The first chunk of the type, or nullptr.
Chunk* findChunk(std::vector<Chunk>& chunks, const std::string& type);

/// `raw` compressed by zlib at level 6.
Bytes zlibCompress(const Bytes& raw);

/// An 8-bit RGBA (bpp 4) or RGB (bpp 3) file holding the zlib stream `idat`, `extra` chunks
/// first.
Bytes pngWith(std::size_t width, std::size_t height, std::size_t bpp, Bytes idat,
              std::vector<Chunk> extra = {});

/// An image of random pixels drawn from `palette` grey levels per channel (opaque: alpha 255).
std::shared_ptr<Image> randomImage(std::size_t width, std::size_t height, bool opaque,
                                   unsigned seed, int palette = 256);

/// The bytes of base64 text with line breaks anywhere (as an upload carries a screenshot),
/// decoded by OpenSSL; nothing for text that is not base64.
std::optional<Bytes> decodeBase64(std::string_view text);

}  // namespace saffra::testing
