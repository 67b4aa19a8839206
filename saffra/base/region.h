// Region: the rectangle type of the library (areas to check, ignore, compare at other levels,
// and image bounds), and RectangleSize, a width/height pair. A Region stores four 64-bit floats
// and keeps fractions (after scaling, say) until an integer view truncates them toward zero.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "saffra/platform/geometry.h"
#include "saffra/platform/json.h"

namespace saffra {

/// A rectangle with truncating integer views; used through std::shared_ptr.
class Region {
 public:
  /// The empty rectangle (0, 0, 0, 0).
  Region() = default;
  /// The rectangle as given: not standardised, not rounded.
  explicit Region(const Rect& rect) { updateWithRect(rect); }
  Region(std::int64_t left, std::int64_t top, std::int64_t width, std::int64_t height);
  virtual ~Region() = default;

  /// A new region (0, 0, 0, 0).
  static std::shared_ptr<Region> emptyRegion();
  void makeEmpty() { rect_ = Rect(); }
  /// True when all four floats are 0; a 0 x 0 region at (5, 5) is not empty.
  bool isEmpty() const { return rect_ == Rect(); }

  /// Replaces the rectangle (for the library's own use).
  void updateWithRect(const Rect& rect) { rect_ = rect; }
  const Rect& rect() const { return rect_; }

  /// The integer view of a float: truncation toward zero (1.9 -> 1, -1.9 -> -1); NaN reads 0
  /// and values beyond the 64-bit range clamp to its ends.
  static std::int64_t truncate(double value);

  /// Integer views: reading truncates toward zero, writing stores the integer as a float.
  std::int64_t left() const;
  std::int64_t top() const;
  std::int64_t width() const;
  std::int64_t height() const;
  void setLeft(std::int64_t v) { rect_.origin.x = static_cast<double>(v); }
  void setTop(std::int64_t v) { rect_.origin.y = static_cast<double>(v); }
  void setWidth(std::int64_t v) { rect_.size.width = static_cast<double>(v); }
  void setHeight(std::int64_t v) { rect_.size.height = static_cast<double>(v); }

  Point location() const { return rect_.origin; }
  void setLocation(const Point& p) { rect_.origin = p; }
  Size size() const { return rect_.size; }
  void setSize(const Size& s) { rect_.size = s; }

  /// True when this rectangle wholly contains `rect`.
  bool containsRect(const Rect& rect) const { return rectContainsRect(rect_, rect); }
  /// True when `rect` wholly contains this rectangle.
  bool insideRect(const Rect& rect) const { return rectContainsRect(rect, rect_); }

  std::shared_ptr<Region> copy() const { return std::make_shared<Region>(rect_); }
  /// False for an absent region; otherwise exact equality of the four floats.
  bool isEqual(const std::shared_ptr<Region>& other) const {
    return other && other->rect_ == rect_;
  }
  bool operator==(const Region& other) const { return rect_ == other.rect_; }

  /// "{{x, y}, {width, height}}"
  std::string description() const;
  /// The wire form {"left", "top", "width", "height"} with the stored floats.
  Json dictionary() const;

  /// Each float multiplied by `scaleRatio`, unrounded; an absent region counts as empty.
  static std::shared_ptr<Region> scaledRegionFromRegion(const std::shared_ptr<Region>& region,
                                                        double scaleRatio);
  /// True when the rectangles share some area; absent regions count as empty.
  static bool regionIsIntersectedWithRegion(const std::shared_ptr<Region>& a,
                                            const std::shared_ptr<Region>& b);
  /// Logs "intersecting this region (%@) with %@ ..." and returns the common part, or an empty
  /// region when there is none.
  static std::shared_ptr<Region> intersectionBetweenRegion(const std::shared_ptr<Region>& a,
                                                           const std::shared_ptr<Region>& b);

 private:
  Rect rect_;
};

/// A width and height in floats (the viewport size of a test).
class RectangleSize {
 public:
  RectangleSize() = default;
  explicit RectangleSize(const Size& size) : size_(size) {}

  static std::shared_ptr<RectangleSize> emptySize() { return std::make_shared<RectangleSize>(); }
  bool isEmpty() const { return size_ == Size(); }
  /// False for an absent size; otherwise exact comparison of width and height.
  bool isEqual(const std::shared_ptr<RectangleSize>& other) const {
    return other && other->size_ == size_;
  }
  bool operator==(const RectangleSize& other) const { return size_ == other.size_; }

  double width() const { return size_.width; }
  double height() const { return size_.height; }
  const Size& size() const { return size_; }
  /// "{width, height}"
  std::string description() const { return toString(size_); }

 private:
  Size size_;
};

}  // namespace saffra
