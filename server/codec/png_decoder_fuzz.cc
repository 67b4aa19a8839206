// Feeds arbitrary bytes to the PNG decoder's own parts, each held to an independent reading:
//   byte 0 = 0: a zlib stream (after a 2-byte little-endian output size); when the inflater
//               accepts it, zlib must too, with the same bytes.
//   byte 0 = 1: a PNG file; when the fast decoder accepts it, libspng must give the same pixels.
//   byte 0 = 2: two PNG files (after the first's 2-byte little-endian length) decoded together;
//               each must come out as it does alone, and rows reported equal must be equal.
//   Files that list bands are also decoded band by band (the second against the first): what
//   that accepts must come out as decoding the file whole does.
// Nothing may crash, read or write out of bounds, or hang.
#include <spng.h>
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <thread>
#include <vector>

#include "server/codec/inflater.h"
#include "server/codec/png_decoder.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void check(bool condition) {
  if (!condition) std::abort();
}

void fuzzInflate(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return;
  const std::size_t outSize = data[0] | std::size_t{data[1]} << 8;
  Bytes stream(data + 2, data + size);
  const std::size_t streamSize = stream.size();
  stream.resize(streamSize + saffra::inflate::kInputPadding, 0);
  Bytes out(outSize + saffra::inflate::kOutputSlack);
  if (!saffra::inflate::zlib(stream.data(), streamSize, out.data(), outSize)) return;
  Bytes expected(outSize + 1);
  uLongf expectedSize = static_cast<uLongf>(expected.size());
  uLong used = static_cast<uLong>(streamSize);
  check(uncompress2(expected.data(), &expectedSize, stream.data(), &used) == Z_OK);
  check(expectedSize == outSize && std::memcmp(expected.data(), out.data(), outSize) == 0);
}

// libspng's RGBA pixels of a PNG, or nothing when it refuses it.
bool decodeWithSpng(std::span<const std::uint8_t> png, Bytes& out) {
  spng_ctx* ctx = spng_ctx_new(0);
  spng_set_crc_action(ctx, SPNG_CRC_ERROR, SPNG_CRC_ERROR);
  spng_set_png_buffer(ctx, png.data(), png.size());
  std::size_t size = 0;
  bool ok = spng_decoded_image_size(ctx, SPNG_FMT_RGBA8, &size) == 0 && size <= (64u << 20);
  if (ok) {
    out.resize(size);
    ok = spng_decode_image(ctx, out.data(), size, SPNG_FMT_RGBA8, SPNG_DECODE_TRNS) == 0;
  }
  spng_ctx_free(ctx);
  return ok;
}

bool decodeAlone(std::span<const std::uint8_t> png, Bytes& rgba) {
  std::size_t width = 0, height = 0;
  return saffra::png::decodeCommonInto(png.data(), png.size(), rgba, width, height);
}

// Decodes a file band by band (on two threads), against a reference when given.
bool decodeBanded(std::span<const std::uint8_t> png, Bytes& rgba,
                  std::shared_ptr<const saffra::png::BandIndex>* index = nullptr,
                  const std::shared_ptr<const saffra::png::BandIndex>& reference = nullptr,
                  const std::uint8_t* referenceRgba = nullptr) {
  saffra::png::BandedDecoder decoder;
  if (!decoder.open(png, rgba, nullptr, reference, referenceRgba)) return false;
  std::thread helper([&] { decoder.work(); });
  decoder.work();
  helper.join();
  if (!decoder.finish()) return false;
  if (index) *index = decoder.index();
  return true;
}

void fuzzPng(std::span<const std::uint8_t> png) {
  Bytes ours, theirs, banded;
  const bool whole = decodeAlone(png, ours);
  if (decodeBanded(png, banded)) check(whole && banded == ours);
  if (!whole) return;
  check(decodeWithSpng(png, theirs) && ours == theirs);
}

void fuzzPair(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return;
  const std::size_t firstSize =
      std::min<std::size_t>(data[0] | std::size_t{data[1]} << 8, size - 2);
  const std::span<const std::uint8_t> first(data + 2, firstSize);
  const std::span<const std::uint8_t> second(data + 2 + firstSize, size - 2 - firstSize);
  std::shared_ptr<const saffra::png::BandIndex> index;
  Bytes referencePixels, bandedB;
  if (decodeBanded(first, referencePixels, &index) &&
      decodeBanded(second, bandedB, nullptr, index, referencePixels.data())) {
    Bytes wholeB;
    check(decodeAlone(second, wholeB) && wholeB == bandedB);
  }
  Bytes pixelsA, pixelsB, same;
  saffra::png::DecodedPixels a{pixelsA}, b{pixelsB};
  if (!saffra::png::decodeCommonPairInto(first, second, a, b, same)) return;
  Bytes aloneA, aloneB;
  check(decodeAlone(first, aloneA) && decodeAlone(second, aloneB));
  check(pixelsA == aloneA && pixelsB == aloneB);
  const std::size_t row = b.width * 4;
  for (std::size_t y = 0; y < same.size(); ++y) {
    if (same[y])
      check(a.width == b.width && y < a.height &&
            std::memcmp(&pixelsA[y * row], &pixelsB[y * row], row) == 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  switch (data[0]) {
    case 0:
      fuzzInflate(data + 1, size - 1);
      break;
    case 1:
      fuzzPng({data + 1, size - 1});
      break;
    case 2:
      fuzzPair(data + 1, size - 1);
      break;
    default:
      break;
  }
  return 0;
}
