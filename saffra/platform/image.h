// saffra::Image: the library's image. Straight (not premultiplied) 8-bit RGBA pixels in rows
// without padding, a pixel width and height, and a scale (points to pixels, default 1), so that
// size() is in points. Make one from PNG bytes or a file, or from raw RGBA or BGRA memory with
// any row stride. Images handed to the library are treated as immutable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "saffra/platform/geometry.h"

namespace saffra {

/// An RGBA bitmap with a scale.
class Image {
 public:
  /// Largest accepted width or height, and largest pixel count (about 1 GiB of RGBA).
  static constexpr std::size_t kMaxDimension = 1u << 16;
  static constexpr std::size_t kMaxPixels = std::size_t{1} << 28;

  /// A transparent black image of the given pixel size. Throws Exception "InvalidImageException"
  /// for a size beyond the limits above.
  Image(std::size_t width, std::size_t height, double scale = 1.0);
  /// Takes ownership of `rgba`, which must hold width * height * 4 bytes.
  Image(std::size_t width, std::size_t height, std::vector<std::uint8_t> rgba, double scale = 1.0);

  /// Copies RGBA pixels whose rows are `stride` bytes apart.
  static std::shared_ptr<Image> fromRGBA(const std::uint8_t* pixels, std::size_t width,
                                         std::size_t height, std::size_t stride,
                                         double scale = 1.0);
  /// Copies BGRA pixels (the usual byte order of screen captures) whose rows are `stride` apart.
  static std::shared_ptr<Image> fromBGRA(const std::uint8_t* pixels, std::size_t width,
                                         std::size_t height, std::size_t stride,
                                         double scale = 1.0);
  /// Decodes PNG bytes. Throws Exception "InvalidImageException" for data that is not a
  /// complete PNG or whose declared size is beyond the limits.
  static std::shared_ptr<Image> fromPNGData(const std::uint8_t* data, std::size_t size,
                                            double scale = 1.0);
  static std::shared_ptr<Image> fromPNGData(const std::vector<std::uint8_t>& data,
                                            double scale = 1.0);
  /// Reads and decodes a PNG file; a missing or unreadable file throws "InvalidImageException".
  static std::shared_ptr<Image> fromPNGFile(const std::string& path, double scale = 1.0);

  std::size_t width() const { return width_; }
  std::size_t height() const { return height_; }
  double scale() const { return scale_; }
  /// The size in points: pixels divided by the scale.
  Size size() const;
  /// Bytes from one row to the next (always width * 4).
  std::size_t stride() const { return width_ * 4; }

  const std::uint8_t* data() const { return pixels_.data(); }
  std::uint8_t* mutableData() { return pixels_.data(); }
  const std::vector<std::uint8_t>& pixels() const { return pixels_; }
  /// Moves the pixel buffer out, leaving a 0x0 image: for code that keeps buffers to decode
  /// into again, so that large images cost no fresh memory.
  std::vector<std::uint8_t> releasePixels();
  /// The four bytes R, G, B, A of pixel (x, y); no bounds check.
  const std::uint8_t* pixel(std::size_t x, std::size_t y) const {
    return &pixels_[(y * width_ + x) * 4];
  }

  /// Encodes the whole image as a lossless 8-bit RGBA PNG.
  std::vector<std::uint8_t> pngData() const;

 private:
  std::size_t width_ = 0;
  std::size_t height_ = 0;
  double scale_ = 1.0;
  std::vector<std::uint8_t> pixels_;
};

}  // namespace saffra
