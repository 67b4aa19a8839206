// The per-level pixel kernels behind compareImages, for the engine's own use: each marks the
// pixels of one area that differ at its level in a byte mask, and cluster() decides which marked
// pixels count and where the difference boxes are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "saffra/platform/image.h"
#include "server/compare/compare.h"

namespace saffra::compare::detail {

/// Mask values while a comparison runs. kUnresolved marks a pixel that differs where
/// anti-aliasing plainly explains it, so it cannot count, but whether it differs enough to show
/// as kForgiven is not measured: resolveForgiven() settles that for a mask that is kept.
enum : std::uint8_t { kSame = 0, kForgiven = 1, kCounted = 2, kCandidate = 3, kUnresolved = 4 };

/// Straight RGBA pixels in rows without padding (an Image's, or a decoding buffer's).
struct Pixels {
  const std::uint8_t* data;
  int width;
  int height;
  /// Known equal rows: where set (on a checkpoint), sameRows[y] != 0 means row y holds the
  /// very pixels of the baseline's row y, so comparing them is skipped.
  const std::uint8_t* sameRows = nullptr;
};

/// An area of `width` x `height` pixels compared between `a` at (ax, ay) and `b` at (bx, by);
/// the mask byte of its pixel (i, j) is mask[j * maskStride + i]. Neighbours are read from the
/// whole images, so an area's border pixels see across it.
struct Span {
  const Pixels* a;
  const Pixels* b;
  int ax, ay, bx, by, width, height;
  std::uint8_t* mask;
  std::size_t maskStride;
};

/// Marks kCounted where bytes differ (fully transparent pixels are equal): at Exact every
/// differing pixel counts. Returns the count.
std::size_t diffExact(const Span& s);
/// Marks kCandidate for pixels Strict counts and kForgiven for anti-aliasing. With
/// `shapesOnly`, candidates whose colour edges agree within one pixel become kForgiven
/// (Content). Returns the number of candidates.
std::size_t diffStrict(const Span& s, bool shapesOnly);
/// Marks kCandidate where the element-box maps of the two areas differ beyond one pixel.
std::size_t diffLayout(const Span& s);
/// Turns the kUnresolved marks of a whole-image mask of `a` and `b` (of one size) into what
/// diffStrict would have marked there: kForgiven where the pixels are over the Strict limit,
/// else kSame.
void resolveForgiven(const Pixels& a, const Pixels& b, std::uint8_t* mask);

/// The verdict on a marked mask area whose top-left pixel sits at (originX, originY) in image
/// coordinates.
struct Clusters {
  std::size_t counted = 0;
  std::vector<PixelRect> boxes;
};
/// Turns kCandidate pixels into kCounted where they cluster (kMinClusterPixels in a 16x16
/// window at 8-pixel steps, or next to such a window) and into kForgiven elsewhere; pixels
/// already kCounted stay. Boxes are the bounding boxes of 8-connected groups of 8x8 tiles that
/// hold counted pixels.
Clusters cluster(std::uint8_t* mask, std::size_t maskStride, int width, int height, int originX,
                 int originY);

}  // namespace saffra::compare::detail
