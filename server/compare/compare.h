// The image comparison engine of the local service: compares a checkpoint image with its
// baseline under a step's match settings, reports whether they match, where they differ, and
// how the accessibility regions fare, and draws diff images.
//
// Match levels, from strictest to loosest (the numbers and names are those of the wire):
//
//   Exact (5)   Every pixel must be identical (RGBA; two fully transparent pixels are equal
//               whatever their colour). Every differing pixel counts.
//   Strict (4)  Differences a person would see. A pixel differs when its perceptual colour
//               distance (YIQ, weighted 0.5053/0.299/0.1957, as a fraction of the largest
//               possible distance) exceeds kStrictThreshold^2. A differing pixel is forgiven as
//               anti-aliasing or sub-pixel glyph placement when, both ways, the other image
//               has within one pixel of it a pixel within kAntialiasThreshold of its colour, or
//               its colour lies channel by channel between the colours of those neighbours
//               (kBlendSlack levels of slack), as a blend of glyph and background does. The
//               remaining pixels count only where they cluster:
//               at least kMinClusterPixels of them inside one 16x16 window (at 8-pixel steps),
//               or next to such a window. Inside an 8x8 tile that already holds that many,
//               every further differing pixel counts without the anti-aliasing test.
//               So re-rendered text whose anti-aliasing changed matches, while a changed word, a
//               moved element or a recoloured link does not.
//   Content (3) Like Strict, but only the shapes count: a pixel counts when Strict counts it and
//               the colour edges around it (a neighbour whose channels differ by more than
//               kEdgeContrast) differ between the images beyond one pixel of tolerance. The same
//               shapes in other colours match.
//   Layout (2)  Only the arrangement counts. Each image is reduced to the boxes of its elements:
//               colour edges, joined across gaps up to kLayoutJoinX / kLayoutJoinY pixels, and
//               the bounding box of every joined group filled. The box maps are compared with
//               one pixel of tolerance and the Strict clustering rule, near the places where
//               Strict counts differences (so Layout never fails where Strict matches). Changed
//               text inside the same boxes matches; a moved, resized, added or missing element
//               does not.
//   None (1)    Always matches.
//
// Regions (pixel rectangles in the images' common coordinates): ignore regions are left out;
// layout, strict and content regions compare at their own level inside the region (later kinds
// win where they overlap: layout, then content, then strict, then floating, then ignore);
// a floating region matches when the baseline's content of the region is found in the
// checkpoint within the allowed offsets (nearest offsets first; a search is bounded to about
// 2^28 pixel comparisons, beyond which far offsets are not tried), and its whole search area
// is otherwise left out of the page comparison. Accessibility regions do not change the verdict:
// each is reported with the contrast ratio of its dominant text and background colours and whether
// it meets the level. Images of different sizes never match.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "saffra/platform/image.h"
#include "saffra/platform/json.h"

namespace saffra::compare {

/// Match levels with their wire values.
enum class MatchLevel : std::int64_t { None = 1, Layout = 2, Content = 3, Strict = 4, Exact = 5 };

/// Accessibility levels with their wire values.
enum class AccessibilityLevel : std::uint64_t { None = 0, AA = 1, AAA = 2 };

/// Accessibility region types with their wire values.
enum class AccessibilityRegionType : std::uint64_t {
  IgnoreContrast = 0,
  RegularText = 1,
  LargeText = 2,
  BoldText = 3,
  GraphicalObject = 4,
};

/// Wire names: "None", "Layout", "Content", "Strict", "Exact" (any other value is "Strict").
std::string_view matchLevelName(MatchLevel level);
/// The level of a wire name; unknown names give Strict.
MatchLevel matchLevelFromName(std::string_view name);
/// "None", "AA", "AAA"; unknown names give None.
std::string_view accessibilityLevelName(AccessibilityLevel level);
AccessibilityLevel accessibilityLevelFromName(std::string_view name);
/// "IgnoreContrast", "RegularText", "LargeText", "BoldText", "GraphicalObject" (values of 4 and
/// above are GraphicalObject); unknown names give GraphicalObject.
std::string_view accessibilityRegionTypeName(AccessibilityRegionType type);
AccessibilityRegionType accessibilityRegionTypeFromName(std::string_view name);

/// A rectangle of whole pixels. Parts outside the image are clipped; an empty one has no effect.
struct PixelRect {
  std::int64_t left = 0;
  std::int64_t top = 0;
  std::int64_t width = 0;
  std::int64_t height = 0;
  bool operator==(const PixelRect&) const = default;
  /// The far edges; saturated, so rectangles near the 64-bit limits never overflow.
  std::int64_t right() const;
  std::int64_t bottom() const;
  bool isEmpty() const { return width <= 0 || height <= 0; }
};

/// A region whose content may move by up to the given number of pixels in each direction.
struct FloatingRegion {
  PixelRect rect;
  std::int64_t maxUpOffset = 0;
  std::int64_t maxDownOffset = 0;
  std::int64_t maxLeftOffset = 0;
  std::int64_t maxRightOffset = 0;
};

/// A region whose contrast is checked.
struct AccessibilityRegion {
  PixelRect rect;
  AccessibilityRegionType type = AccessibilityRegionType::RegularText;
};

/// How one checkpoint is compared with its baseline.
struct CompareOptions {
  MatchLevel level = MatchLevel::Strict;
  std::vector<PixelRect> ignoreRegions;
  std::vector<PixelRect> layoutRegions;
  std::vector<PixelRect> strictRegions;
  std::vector<PixelRect> contentRegions;
  std::vector<FloatingRegion> floatingRegions;
  AccessibilityLevel accessibilityLevel = AccessibilityLevel::None;
  std::vector<AccessibilityRegion> accessibilityRegions;
  /// Keep the per-pixel difference mask of a mismatch in the result (for makeDiffImage).
  bool keepMask = true;
  /// Threads for the pass over the whole image at Exact, Strict or Content: with 2, bands of
  /// rows are shared with a second thread (same result; the rest stays on the caller's
  /// thread). 1 compares on the caller's thread alone.
  unsigned threads = 1;
  /// For a checkpoint that is still being decoded (compareDecoding): called, from either
  /// thread, before the checkpoint's rows [0, rows) are read; returns once they are final, or
  /// false to abandon the comparison.
  std::function<bool(int rows)> checkpointRows;

  /// Reads an image match settings object as the client sends it ("matchLevel", "Ignore",
  /// "Layout", "Strict", "Content", "Floating", "accessibility", "accessibilityLevel"; regions
  /// with "left", "top", "width", "height"). Missing or malformed members keep their defaults.
  static CompareOptions fromJson(const Json& imageMatchSettings);
};

/// The outcome for one accessibility region.
struct AccessibilityResult {
  AccessibilityRegion region;
  /// False for IgnoreContrast regions and when the level is None: nothing was required.
  bool checked = false;
  /// True when the measured ratio meets the required one (always true when not checked).
  bool passed = true;
  /// Contrast ratio of the dominant foreground and background colours, 1 to 21.
  double contrastRatio = 1;
  /// The ratio the level and type require (0 when not checked).
  double requiredRatio = 0;
};

/// The outcome of one comparison.
struct CompareResult {
  bool matches = true;
  /// True when the images' sizes differ (then nothing else was compared).
  bool sizesDiffer = false;
  /// Pixels counted as differences at the levels that applied.
  std::size_t differingPixels = 0;
  /// Bounding boxes of the areas that differ, top to bottom.
  std::vector<PixelRect> differences;
  std::vector<AccessibilityResult> accessibility;
  /// One byte per pixel of a mismatch (kept when CompareOptions::keepMask): 0 same,
  /// 1 differs but forgiven (anti-aliasing, isolated pixel), 2 counted difference.
  std::vector<std::uint8_t> mask;
  std::size_t maskWidth = 0;
  std::size_t maskHeight = 0;
};

/// Tuning of the levels (documented above).
inline constexpr double kStrictThreshold = 0.1;
inline constexpr double kAntialiasThreshold = 0.2;
inline constexpr int kBlendSlack = 16;
inline constexpr int kMinClusterPixels = 6;
inline constexpr int kEdgeContrast = 48;
inline constexpr int kLayoutJoinX = 8;
inline constexpr int kLayoutJoinY = 3;

/// Thrown when CompareOptions::checkpointRows abandons a comparison.
class ComparisonAbandoned : public std::exception {
 public:
  const char* what() const noexcept override { return "the checkpoint's decoding failed"; }
};

/// Compares `checkpoint` with `baseline`.
CompareResult compareImages(const Image& baseline, const Image& checkpoint,
                            const CompareOptions& options = {});

/// Compares a checkpoint that is still being decoded into `checkpointRgba` (width x height RGBA)
/// with `baseline`, reading its rows only as options.checkpointRows allows. `sameRows`, when
/// given, holds a byte per row, non-zero where the row is known to hold the baseline's very
/// pixels (it is then not compared). Throws ComparisonAbandoned when the decoding gives up.
CompareResult compareDecoding(const Image& baseline, const std::uint8_t* checkpointRgba,
                              std::size_t width, std::size_t height, const CompareOptions& options,
                              const std::uint8_t* sameRows = nullptr);

/// A comparison of a checkpoint being decoded whose pass over the whole image can be shared
/// with the threads that decode it: between their pieces of decoding they call diffReady() to
/// compare the bands of rows that are final, while those rows are still in their caches, and
/// finish() compares what is left and settles the result. compareDecoding is the same with
/// every band left to finish().
class Comparison {
 public:
  /// As compareDecoding; the pixels, `sameRows` and what `options` refers to must stay until
  /// finish() has returned.
  Comparison(const Image& baseline, const std::uint8_t* checkpointRgba, std::size_t width,
             std::size_t height, CompareOptions options, const std::uint8_t* sameRows = nullptr);
  ~Comparison();
  Comparison(const Comparison&) = delete;
  Comparison& operator=(const Comparison&) = delete;

  /// Compares the bands of rows that no thread has taken yet and that lie, with the neighbours
  /// they read, within the checkpoint's first `finalRows` rows; never waits. Any number of
  /// threads may call it at once, but none once finish() has begun.
  void diffReady(std::size_t finalRows);
  /// Compares the bands left (on up to options.threads threads, reading rows only as
  /// options.checkpointRows allows), then the regions, and returns the result; called once.
  /// Throws ComparisonAbandoned when the decoding gives up.
  CompareResult finish();

  /// The working state (compare.cc).
  struct State;
  explicit Comparison(std::unique_ptr<State> state);

 private:
  std::unique_ptr<State> state_;
};

/// Decodes two PNG files' bytes and compares them (the service's usual path). Throws
/// Exception "InvalidImageException" for data that is not PNG.
CompareResult comparePNG(const std::vector<std::uint8_t>& baselinePNG,
                         const std::vector<std::uint8_t>& checkpointPNG,
                         const CompareOptions& options = {});

/// The diff image of a comparison: the baseline greyed and faded, counted differences in red,
/// forgiven ones in pale yellow, and a red outline around each difference box. Needs the mask
/// of `result`; without one (a match, or keepMask off) it is only the faded baseline with the
/// boxes. For images of different sizes it covers both, the parts outside the baseline red.
Image makeDiffImage(const Image& baseline, const CompareResult& result);

}  // namespace saffra::compare
