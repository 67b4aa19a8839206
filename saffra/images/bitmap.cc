#include "saffra/images/bitmap.h"

#include <array>
#include <cmath>
#include <new>

#include "saffra/base/logger.h"
#include "saffra/platform/exception.h"

namespace saffra {

namespace {

// Entry A * 256 + C: the channel value read for straight colour C under alpha A.
const std::vector<std::uint8_t>& toListTable() {
  static const std::vector<std::uint8_t> table = [] {
    std::vector<std::uint8_t> t(256 * 256);
    for (int a = 0; a < 256; ++a) {
      const double alpha = a / 255.0;
      for (int c = 0; c < 256; ++c) {
        if (a == 0) {
          t[a * 256 + c] = 0;
          continue;
        }
        const int premultiplied = (c * a + 127) / 255;
        t[a * 256 + c] = static_cast<std::uint8_t>(std::trunc(premultiplied / alpha));
      }
    }
    return t;
  }();
  return table;
}

// Entry A * 256 + P: the straight colour stored for premultiplied value P under alpha A.
const std::vector<std::uint8_t>& fromPremultipliedTable() {
  static const std::vector<std::uint8_t> table = [] {
    std::vector<std::uint8_t> t(256 * 256);
    for (int a = 0; a < 256; ++a) {
      for (int p = 0; p < 256; ++p) {
        int c = a == 0 ? 0 : std::min(255, (p * 255 + a / 2) / a);
        t[a * 256 + p] = static_cast<std::uint8_t>(c);
      }
    }
    return t;
  }();
  return table;
}

}  // namespace

namespace detail {

void channelBytesARGB8(const Image& image, std::size_t first, std::size_t count,
                       std::uint8_t* out) {
  const std::uint8_t* table = toListTable().data();
  const std::uint8_t* px = image.data() + first * 4;
  for (std::size_t i = 0; i < count; ++i, px += 4, out += 4) {
    const std::uint8_t a = px[3];
    if (a == 255) {
      out[0] = 255;
      out[1] = px[2];
      out[2] = px[1];
      out[3] = px[0];
    } else {
      const std::uint8_t* row = table + a * 256;
      out[0] = a;
      out[1] = row[px[2]];
      out[2] = row[px[1]];
      out[3] = row[px[0]];
    }
  }
}

std::vector<std::uint8_t> channelBytesARGB8(const Image& image) {
  const std::size_t n = image.width() * image.height();
  std::vector<std::uint8_t> out(n * 4);
  channelBytesARGB8(image, 0, n, out.data());
  return out;
}

}  // namespace detail

namespace Bitmap {

ChannelList convertImageToBitmapARGB8(const std::shared_ptr<Image>& image) {
  if (!image) return {};
  std::vector<std::uint8_t> bytes = detail::channelBytesARGB8(*image);
  return ChannelList(bytes.begin(), bytes.end());
}

std::shared_ptr<Image> convertBitmapRGBA8ToUIImage(std::vector<std::uint8_t> bitmap,
                                                   const Size& size) {
  if (!(size.width >= 1) || !(size.height >= 1)) return nullptr;
  if (size.width > static_cast<double>(Image::kMaxDimension) ||
      size.height > static_cast<double>(Image::kMaxDimension)) {
    throw Exception("InvalidImageException", "Bitmap size " + toString(size) + " is too large");
  }
  const auto width = static_cast<std::size_t>(size.width);
  const auto height = static_cast<std::size_t>(size.height);
  const std::size_t bytes = width * height * 4;
  if (bitmap.size() < bytes) {
    throw Exception("InvalidImageException", "Bitmap of " + std::to_string(bitmap.size()) +
                                                 " bytes is too short for " + toString(size) +
                                                 " pixels");
  }
  bitmap.resize(bytes);
  const std::uint8_t* table = fromPremultipliedTable().data();
  for (std::size_t i = 0; i < bytes; i += 4) {
    const std::uint8_t a = bitmap[i + 3];
    if (a == 255) continue;
    const std::uint8_t* row = table + a * 256;
    bitmap[i] = row[bitmap[i]];
    bitmap[i + 1] = row[bitmap[i + 1]];
    bitmap[i + 2] = row[bitmap[i + 2]];
  }
  try {
    return std::make_shared<Image>(width, height, std::move(bitmap), 1.0);
  } catch (const std::bad_alloc&) {
    Logger::systemLog("Error allocating color space");
    return nullptr;
  }
}

}  // namespace Bitmap

namespace Utility {

std::vector<std::uint8_t> convertToArrayOfBytes(const ChannelList& list) {
  std::vector<std::uint8_t> bytes(list.size());
  for (std::size_t i = 0; i < list.size(); ++i) bytes[i] = static_cast<std::uint8_t>(list[i]);
  return bytes;
}

}  // namespace Utility

}  // namespace saffra
