#include "saffra/platform/png.h"

#include <spng.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "saffra/platform/exception.h"
#include "saffra/platform/png_fast.h"

namespace saffra::png {

namespace {

struct ContextDeleter {
  void operator()(spng_ctx* ctx) const { spng_ctx_free(ctx); }
};
using Context = std::unique_ptr<spng_ctx, ContextDeleter>;

[[noreturn]] void fail(const std::string& what, int code) {
  throw Exception("InvalidImageException", what + ": " + spng_strerror(code));
}

}  // namespace

std::shared_ptr<Image> decode(const std::uint8_t* data, std::size_t size, double scale) {
  if (!data || size == 0) throw Exception("InvalidImageException", "Not a PNG image: no data");
  // Screenshots are nearly always plain 8-bit RGB(A); those take a path several times faster.
  if (std::shared_ptr<Image> image = decodeCommon(data, size, scale)) return image;
  Context ctx(spng_ctx_new(0));
  if (!ctx) throw Exception("InvalidImageException", "Cannot create PNG decoder");
  // Limits stop decompression bombs before any pixel memory is allocated.
  spng_set_image_limits(ctx.get(), Image::kMaxDimension, Image::kMaxDimension);
  spng_set_chunk_limits(ctx.get(), 64u << 20, 64u << 20);
  if (int rc = spng_set_png_buffer(ctx.get(), data, size)) fail("Not a PNG image", rc);

  spng_ihdr ihdr{};
  if (int rc = spng_get_ihdr(ctx.get(), &ihdr)) fail("Not a PNG image", rc);
  if (std::size_t{ihdr.width} * ihdr.height > Image::kMaxPixels) {
    throw Exception("InvalidImageException", "PNG image size " + std::to_string(ihdr.width) + "x" +
                                                 std::to_string(ihdr.height) + " is too large");
  }
  std::size_t outSize = 0;
  if (int rc = spng_decoded_image_size(ctx.get(), SPNG_FMT_RGBA8, &outSize))
    fail("Bad PNG image", rc);
  std::vector<std::uint8_t> pixels(outSize);
  if (int rc =
          spng_decode_image(ctx.get(), pixels.data(), outSize, SPNG_FMT_RGBA8, SPNG_DECODE_TRNS)) {
    fail("Corrupt PNG image", rc);
  }
  return std::make_shared<Image>(ihdr.width, ihdr.height, std::move(pixels), scale);
}

std::vector<std::uint8_t> encode(const std::uint8_t* rgba, std::size_t width, std::size_t height,
                                 std::size_t stride) {
  if (width == 0 || height == 0 || width > Image::kMaxDimension || height > Image::kMaxDimension) {
    throw Exception(
        "InvalidImageException",
        "Cannot encode an image of size " + std::to_string(width) + "x" + std::to_string(height));
  }
  std::vector<std::uint8_t> packed;
  const std::uint8_t* source = rgba;
  if (stride != width * 4) {
    packed.resize(width * height * 4);
    for (std::size_t y = 0; y < height; ++y)
      std::memcpy(&packed[y * width * 4], rgba + y * stride, width * 4);
    source = packed.data();
  }
  Context ctx(spng_ctx_new(SPNG_CTX_ENCODER));
  if (!ctx) throw Exception("InvalidImageException", "Cannot create PNG encoder");
  spng_set_option(ctx.get(), SPNG_ENCODE_TO_BUFFER, 1);
  spng_ihdr ihdr{};
  ihdr.width = static_cast<std::uint32_t>(width);
  ihdr.height = static_cast<std::uint32_t>(height);
  ihdr.bit_depth = 8;
  ihdr.color_type = SPNG_COLOR_TYPE_TRUECOLOR_ALPHA;
  if (int rc = spng_set_ihdr(ctx.get(), &ihdr)) fail("Cannot encode PNG", rc);
  if (int rc = spng_encode_image(ctx.get(), source, width * height * 4, SPNG_FMT_PNG,
                                 SPNG_ENCODE_FINALIZE)) {
    fail("Cannot encode PNG", rc);
  }
  std::size_t length = 0;
  int error = 0;
  void* buffer = spng_get_png_buffer(ctx.get(), &length, &error);
  if (!buffer) fail("Cannot encode PNG", error);
  std::vector<std::uint8_t> out(static_cast<std::uint8_t*>(buffer),
                                static_cast<std::uint8_t*>(buffer) + length);
  std::free(buffer);
  return out;
}

}  // namespace saffra::png
