#include "saffra/platform/image.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <utility>

#include "saffra/platform/exception.h"
#include "saffra/platform/png.h"

namespace saffra {

namespace {

void checkSize(std::size_t width, std::size_t height) {
  if (width > Image::kMaxDimension || height > Image::kMaxDimension ||
      width * height > Image::kMaxPixels) {
    throw Exception("InvalidImageException", "Image size " + std::to_string(width) + "x" +
                                                 std::to_string(height) + " is too large");
  }
}

double checkScale(double scale) {
  return scale > 0 ? scale : 1.0;
}

}  // namespace

Image::Image(std::size_t width, std::size_t height, double scale)
    : width_(width), height_(height), scale_(checkScale(scale)) {
  checkSize(width, height);
  pixels_.assign(width * height * 4, 0);
}

Image::Image(std::size_t width, std::size_t height, std::vector<std::uint8_t> rgba, double scale)
    : width_(width), height_(height), scale_(checkScale(scale)), pixels_(std::move(rgba)) {
  checkSize(width, height);
  if (pixels_.size() != width * height * 4) {
    throw Exception("InvalidImageException",
                    "Pixel buffer holds " + std::to_string(pixels_.size()) + " bytes, expected " +
                        std::to_string(width * height * 4));
  }
}

Size Image::size() const {
  return Size{static_cast<double>(width_) / scale_, static_cast<double>(height_) / scale_};
}

std::vector<std::uint8_t> Image::releasePixels() {
  width_ = 0;
  height_ = 0;
  return std::exchange(pixels_, {});
}

std::shared_ptr<Image> Image::fromRGBA(const std::uint8_t* pixels, std::size_t width,
                                       std::size_t height, std::size_t stride, double scale) {
  auto image = std::make_shared<Image>(width, height, scale);
  if (stride < width * 4)
    throw Exception("InvalidImageException", "Row stride is shorter than a row");
  if (width && height && !pixels) throw Exception("InvalidImageException", "No pixel data");
  for (std::size_t y = 0; y < height; ++y) {
    std::memcpy(image->mutableData() + y * width * 4, pixels + y * stride, width * 4);
  }
  return image;
}

std::shared_ptr<Image> Image::fromBGRA(const std::uint8_t* pixels, std::size_t width,
                                       std::size_t height, std::size_t stride, double scale) {
  auto image = fromRGBA(pixels, width, height, stride, scale);
  std::uint8_t* p = image->mutableData();
  for (std::size_t i = 0, n = width * height; i < n; ++i, p += 4) std::swap(p[0], p[2]);
  return image;
}

std::shared_ptr<Image> Image::fromPNGData(const std::uint8_t* data, std::size_t size,
                                          double scale) {
  return png::decode(data, size, scale);
}

std::shared_ptr<Image> Image::fromPNGData(const std::vector<std::uint8_t>& data, double scale) {
  return png::decode(data.data(), data.size(), scale);
}

std::shared_ptr<Image> Image::fromPNGFile(const std::string& path, double scale) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) {
    throw Exception("InvalidImageException", "Cannot read image file " + path);
  }
  // Read in one piece of the file's size: growing a buffer byte by byte holds up to three
  // times the file at once.
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  std::ifstream in(path, std::ios::binary);
  if (error || !in || size > std::numeric_limits<std::streamsize>::max()) {
    throw Exception("InvalidImageException", "Cannot read image file " + path);
  }
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
  in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  // A file that shrank meanwhile is decoded as far as it got, and fails as a corrupt image.
  bytes.resize(static_cast<std::size_t>(in.gcount()));
  return png::decode(bytes.data(), bytes.size(), scale);
}

std::vector<std::uint8_t> Image::pngData() const {
  return png::encode(pixels_.data(), width_, height_, stride());
}

}  // namespace saffra
