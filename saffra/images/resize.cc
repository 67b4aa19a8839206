#include "saffra/images/resize.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "saffra/images/bitmap.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/format.h"
#include "saffra/platform/internal/bytes.h"

namespace saffra::Resize {

namespace {

using bytes::load32;
using bytes::load64;

// The cubic on small integers. Every value is exact in a double, so this gives the same numbers
// as the 64-bit integer form.
inline std::uint8_t cubic(int p0, int p1, int p2, int p3, double t, double t2, double t3) {
  const int a0 = p3 - p2 - p0 + p1;
  const int a1 = p0 - p1 - a0;
  const int a2 = p2 - p0;
  double v = p1 + (a2 * t + (a1 * t2 + t3 * a0));
  v = v > 255.0 ? 255.0 : v;
  v = v > 0.0 ? v : 0.0;  // also turns NaN into 0
  return static_cast<std::uint8_t>(v);
}

struct Step {
  std::int64_t index;  // floor of the source coordinate
  double t, t2, t3;    // its fraction and the fraction's powers
};

// Source coordinate of each of `count` targets over `sourceLength` samples:
// (i * (sourceLength - 1)) / count in floats.
std::vector<Step> steps(std::int64_t count, std::int64_t sourceLength) {
  std::vector<Step> out(static_cast<std::size_t>(count));
  for (std::int64_t i = 0; i < count; ++i) {
    const double s = static_cast<double>(i * (sourceLength - 1)) / static_cast<double>(count);
    const double f = std::floor(s);
    const double t = s - f;
    out[static_cast<std::size_t>(i)] = Step{static_cast<std::int64_t>(f), t, t * t, t * t * t};
  }
  return out;
}

// One output row of the vertical pass from the rows around it; rows that do not exist are
// extrapolated (p0 = 2 p1 - p2, p3 = 2 p2 - p1). Where all four inputs are equal the cubic gives
// p1 exactly (every coefficient is 0), so runs of eight such values are copied: screenshots are
// mostly flat.
template <bool kHasAbove, bool kHasBelow>
void verticalRow(const std::uint8_t* r0, const std::uint8_t* r1, const std::uint8_t* r2,
                 const std::uint8_t* r3, std::size_t n, const Step& s, std::uint8_t* out) {
  auto one = [&](std::size_t k) {
    const int p1 = r1[k];
    const int p2 = r2[k];
    const int p0 = kHasAbove ? r0[k] : 2 * p1 - p2;
    const int p3 = kHasBelow ? r3[k] : 2 * p2 - p1;
    out[k] = cubic(p0, p1, p2, p3, s.t, s.t2, s.t3);
  };
  std::size_t k = 0;
  for (; k + 8 <= n; k += 8) {
    const std::uint64_t u1 = load64(r1 + k);
    const std::uint64_t u2 = load64(r2 + k);
    const std::uint64_t u0 = kHasAbove ? load64(r0 + k) : u1;
    const std::uint64_t u3 = kHasBelow ? load64(r3 + k) : u2;
    if (u0 == u1 && u1 == u2 && u2 == u3) {
      std::memcpy(out + k, &u1, 8);
    } else {
      for (std::size_t j = k; j < k + 8; ++j) one(j);
    }
  }
  for (; k < n; ++k) one(k);
}

}  // namespace

std::int64_t interpolateCubic(std::int64_t p0, std::int64_t p1, std::int64_t p2, std::int64_t p3,
                              double t) {
  const std::int64_t a0 = p3 - p2 - p0 + p1;
  const std::int64_t a1 = p0 - p1 - a0;
  const std::int64_t a2 = p2 - p0;
  const double d0 = static_cast<double>(a0);
  const double d1 = static_cast<double>(a1);
  const double d2 = static_cast<double>(a2);
  double v = static_cast<double>(p1) + (d2 * t + (d1 * (t * t) + (t * t * t) * d0));
  v = v > 255.0 ? 255.0 : v;
  v = v > 0.0 ? v : 0.0;
  return static_cast<std::int64_t>(v);
}

std::shared_ptr<Image> resizeImage(const std::shared_ptr<Image>& image, const Size& newSize) {
  return resizeImageUsingBicubicInterpolation(image, newSize);
}

std::shared_ptr<Image> resizeImageUsingBicubicInterpolation(const std::shared_ptr<Image>& image,
                                                            const Size& newSize) {
  const double limit = static_cast<double>(Image::kMaxDimension);
  if (!(newSize.width >= 1) || !(newSize.height >= 1) || newSize.width > limit ||
      newSize.height > limit) {
    throw Exception("NSInvalidArgumentException",
                    format("Cannot resize an image to %@ pixels: the target must be at least "
                           "1 x 1 and at most %li x %li",
                           toString(newSize), Image::kMaxDimension, Image::kMaxDimension));
  }
  const auto nw = static_cast<std::int64_t>(newSize.width);
  const auto nh = static_cast<std::int64_t>(newSize.height);
  std::int64_t sw = 0, sh = 0;
  if (image) {
    const Size points = image->size();
    sw = static_cast<std::int64_t>(image->scale() * std::trunc(points.width));
    sh = static_cast<std::int64_t>(image->scale() * std::trunc(points.height));
  }
  if (sw < 2 || sh < 2 || static_cast<std::size_t>(sw) > image->width() ||
      static_cast<std::size_t>(sh) > image->height()) {
    throw Exception("NSRangeException",
                    format("Cannot resize an image of %li x %li pixels: bicubic interpolation "
                           "reads past a row or column of fewer than 2 pixels",
                           sw, sh));
  }
  const std::int64_t fx = std::max<std::int64_t>(sw / nw, 1);
  const std::int64_t fy = std::max<std::int64_t>(sh / nh, 1);
  const std::int64_t iw = fx * nw;
  const std::int64_t ih = fy * nh;
  const auto rowElements = static_cast<std::size_t>(iw) * 4;

  // Horizontal pass, one row at a time as the vertical pass asks for it. The vertical pass reads
  // rows iy - 1 ... iy + 2 with iy never decreasing, so four rows in a ring suffice. The channel
  // list is read with rows sw pixels long, whatever the bitmap's own width.
  const std::vector<Step> xs = steps(iw, sw);
  std::vector<std::uint8_t> source(static_cast<std::size_t>(sw) * 4);
  std::vector<std::uint8_t> ring(4 * rowElements);
  std::int64_t ringRow[4] = {-1, -1, -1, -1};
  auto horizontalRow = [&](std::int64_t y) -> const std::uint8_t* {
    std::uint8_t* out = ring.data() + static_cast<std::size_t>(y & 3) * rowElements;
    if (ringRow[y & 3] == y) return out;
    ringRow[y & 3] = y;
    detail::channelBytesARGB8(*image, static_cast<std::size_t>(y * sw),
                              static_cast<std::size_t>(sw), source.data());
    const std::uint8_t* row = source.data();
    for (std::int64_t x = 0; x < iw; ++x) {
      const Step& s = xs[static_cast<std::size_t>(x)];
      const std::uint8_t* p = row + s.index * 4;
      const bool hasLeft = s.index > 0;
      const bool hasRight = sw - 2 > s.index;
      // Four equal pixels (missing neighbours extrapolate to the same value) stay as they are.
      const std::uint32_t w1 = load32(p);
      const std::uint32_t w2 = load32(p + 4);
      if (w1 == w2 && (!hasLeft || load32(p - 4) == w1) && (!hasRight || load32(p + 8) == w1)) {
        std::memcpy(out + x * 4, &w1, 4);
        continue;
      }
      for (int c = 0; c < 4; ++c) {
        const int p1 = p[c];
        const int p2 = p[c + 4];
        const int p0 = hasLeft ? p[c - 4] : 2 * p1 - p2;
        const int p3 = hasRight ? p[c + 8] : 2 * p2 - p1;
        out[x * 4 + c] = cubic(p0, p1, p2, p3, s.t, s.t2, s.t3);
      }
    }
    return out;
  };

  // Vertical pass, one intermediate row at a time, each averaged into the output as soon as its
  // block of fy rows is complete.
  const std::vector<Step> ys = steps(ih, sh);
  auto verticalInto = [&](std::int64_t y, std::uint8_t* out) {
    const Step& s = ys[static_cast<std::size_t>(y)];
    const bool above = s.index > 0;
    const bool below = sh - 2 > s.index;
    const std::uint8_t* r1 = horizontalRow(s.index);
    const std::uint8_t* r2 = horizontalRow(s.index + 1);
    const std::uint8_t* r0 = above ? horizontalRow(s.index - 1) : r1;
    const std::uint8_t* r3 = below ? horizontalRow(s.index + 2) : r2;
    if (above && below) verticalRow<true, true>(r0, r1, r2, r3, rowElements, s, out);
    if (above && !below) verticalRow<true, false>(r0, r1, r2, r3, rowElements, s, out);
    if (!above && below) verticalRow<false, true>(r0, r1, r2, r3, rowElements, s, out);
    if (!above && !below) verticalRow<false, false>(r0, r1, r2, r3, rowElements, s, out);
  };

  std::vector<std::uint8_t> result;
  if (fx * fy < 2) {
    // No averaging: the values stay in alpha, blue, green, red order.
    result.resize(static_cast<std::size_t>(ih) * rowElements);
    for (std::int64_t y = 0; y < ih; ++y) {
      verticalInto(y, result.data() + static_cast<std::size_t>(y) * rowElements);
    }
  } else {
    result.resize(static_cast<std::size_t>(nw * nh) * 4);
    std::vector<std::uint8_t> block(static_cast<std::size_t>(fy) * rowElements);
    const std::int64_t n = fx * fy;
    for (std::int64_t oy = 0; oy < nh; ++oy) {
      for (std::int64_t j = 0; j < fy; ++j) {
        verticalInto(oy * fy + j, block.data() + static_cast<std::size_t>(j) * rowElements);
      }
      std::uint8_t* out = result.data() + static_cast<std::size_t>(oy * nw) * 4;
      for (std::int64_t ox = 0; ox < nw; ++ox) {
        std::int64_t sum[4] = {0, 0, 0, 0};
        for (std::int64_t j = 0; j < fy; ++j) {
          const std::uint8_t* p = block.data() + static_cast<std::size_t>(j) * rowElements +
                                  static_cast<std::size_t>(ox * fx) * 4;
          for (std::int64_t i = 0; i < fx; ++i, p += 4) {
            sum[0] += p[0];
            sum[1] += p[1];
            sum[2] += p[2];
            sum[3] += p[3];
          }
        }
        // Reversed: alpha, blue, green, red become red, green, blue, alpha.
        out[ox * 4 + 0] = static_cast<std::uint8_t>(sum[3] / n);
        out[ox * 4 + 1] = static_cast<std::uint8_t>(sum[2] / n);
        out[ox * 4 + 2] = static_cast<std::uint8_t>(sum[1] / n);
        out[ox * 4 + 3] = static_cast<std::uint8_t>(sum[0] / n);
      }
    }
  }
  return Bitmap::convertBitmapRGBA8ToUIImage(std::move(result), newSize);
}

}  // namespace saffra::Resize
