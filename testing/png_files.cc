#include "testing/png_files.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>

namespace saffra::testing {

Bytes readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::string writePNGFile(const std::filesystem::path& path, const Image& image) {
  const Bytes bytes = image.pngData();
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  return path.string();
}

void put32(Bytes& out, std::size_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
}

std::uint32_t load32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

std::vector<Chunk> chunksOf(const Bytes& png) {
  std::vector<Chunk> chunks;
  for (std::size_t at = 8; at + 12 <= png.size();) {
    const std::size_t length = load32(&png[at]);
    if (length > png.size() - at - 12) break;
    chunks.push_back({std::string(png.begin() + at + 4, png.begin() + at + 8),
                      {png.begin() + at + 8, png.begin() + at + 8 + length}});
    at += 12 + length;
  }
  return chunks;
}

Bytes pngOf(const std::vector<Chunk>& chunks) {
  Bytes png = {137, 80, 78, 71, 13, 10, 26, 10};
  for (const Chunk& c : chunks) {
    put32(png, c.body.size());
    const std::size_t start = png.size();
    png.insert(png.end(), c.type.begin(), c.type.end());
    png.insert(png.end(), c.body.begin(), c.body.end());
    put32(png, crc32(0, png.data() + start, static_cast<uInt>(png.size() - start)));
  }
  return png;
}

Chunk* findChunk(std::vector<Chunk>& chunks, const std::string& type) {
  for (Chunk& c : chunks) {
    if (c.type == type) return &c;
  }
  return nullptr;
}

Bytes zlibCompress(const Bytes& raw) {
  uLongf size = compressBound(raw.size());
  Bytes out(size);
  compress2(out.data(), &size, raw.data(), raw.size(), 6);
  out.resize(size);
  return out;
}

Bytes pngWith(std::size_t width, std::size_t height, std::size_t bpp, Bytes idat,
              std::vector<Chunk> extra) {
  Bytes header;
  put32(header, width);
  put32(header, height);
  header.insert(header.end(), {8, static_cast<std::uint8_t>(bpp == 4 ? 6 : 2), 0, 0, 0});
  extra.insert(extra.begin(), {"IHDR", header});
  extra.push_back({"IDAT", std::move(idat)});
  extra.push_back({"IEND", {}});
  return pngOf(extra);
}

std::shared_ptr<Image> randomImage(std::size_t width, std::size_t height, bool opaque,
                                   unsigned seed, int palette) {
  std::mt19937 rng(seed);
  auto image = std::make_shared<Image>(width, height);
  std::uint8_t* p = image->mutableData();
  for (std::size_t i = 0; i < width * height * 4; ++i) {
    p[i] = static_cast<std::uint8_t>(rng() % palette * (255 / std::max(palette - 1, 1)));
    if (opaque && i % 4 == 3) p[i] = 255;
  }
  return image;
}

std::optional<Bytes> decodeBase64(std::string_view text) {
  std::string compact;
  for (char c : text) {
    if (c != '\r' && c != '\n' && c != ' ' && c != '\t') compact += c;
  }
  if (compact.size() % 4 != 0) return std::nullopt;
  Bytes out(compact.size() / 4 * 3 + 1);
  const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(compact.data()),
                                static_cast<int>(compact.size()));
  if (n < 0) return std::nullopt;
  // EVP_DecodeBlock counts the padding as zero bytes.
  std::size_t size = static_cast<std::size_t>(n);
  for (std::size_t i = compact.size(); i > 0 && compact[i - 1] == '='; --i) --size;
  out.resize(size);
  return out;
}

}  // namespace saffra::testing
