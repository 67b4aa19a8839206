// The wire form of a floating region: a rectangle in pixels and how far its content may move in
// each direction and still match.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>

#include "saffra/platform/json.h"

namespace saffra {

/// Anything that answers the eight values of a floating region.
template <class T>
concept FloatingRegionLike = requires(const T& r) {
  { r.left() } -> std::convertible_to<std::int64_t>;
  { r.top() } -> std::convertible_to<std::int64_t>;
  { r.width() } -> std::convertible_to<std::int64_t>;
  { r.height() } -> std::convertible_to<std::int64_t>;
  { r.maxUpOffset() } -> std::convertible_to<std::int64_t>;
  { r.maxDownOffset() } -> std::convertible_to<std::int64_t>;
  { r.maxLeftOffset() } -> std::convertible_to<std::int64_t>;
  { r.maxRightOffset() } -> std::convertible_to<std::int64_t>;
};

/// A floating region with its allowed offsets; immutable, used through std::shared_ptr.
class FloatingMatchSettings {
 public:
  /// Stores the eight values unchanged, with no range test.
  FloatingMatchSettings(std::int64_t left, std::int64_t top, std::int64_t width,
                        std::int64_t height, std::int64_t maxUpOffset, std::int64_t maxDownOffset,
                        std::int64_t maxLeftOffset, std::int64_t maxRightOffset)
      : left_(left),
        top_(top),
        width_(width),
        height_(height),
        maxUpOffset_(maxUpOffset),
        maxDownOffset_(maxDownOffset),
        maxLeftOffset_(maxLeftOffset),
        maxRightOffset_(maxRightOffset) {}

  /// Reads the eight values of any floating region.
  template <FloatingRegionLike T>
  explicit FloatingMatchSettings(const T& region)
      : FloatingMatchSettings(region.left(), region.top(), region.width(), region.height(),
                              region.maxUpOffset(), region.maxDownOffset(), region.maxLeftOffset(),
                              region.maxRightOffset()) {}

  /// As above; an absent region reads as eight zeros.
  template <FloatingRegionLike T>
  explicit FloatingMatchSettings(const std::shared_ptr<T>& region)
      : FloatingMatchSettings(0, 0, 0, 0, 0, 0, 0, 0) {
    if (region) *this = FloatingMatchSettings(*region);
  }

  std::int64_t left() const { return left_; }
  std::int64_t top() const { return top_; }
  std::int64_t width() const { return width_; }
  std::int64_t height() const { return height_; }
  std::int64_t maxUpOffset() const { return maxUpOffset_; }
  std::int64_t maxDownOffset() const { return maxDownOffset_; }
  std::int64_t maxLeftOffset() const { return maxLeftOffset_; }
  std::int64_t maxRightOffset() const { return maxRightOffset_; }

  /// The wire form: all eight keys as integers, always present (for the library's own use).
  Json dictionary() const;

 private:
  std::int64_t left_;
  std::int64_t top_;
  std::int64_t width_;
  std::int64_t height_;
  std::int64_t maxUpOffset_;
  std::int64_t maxDownOffset_;
  std::int64_t maxLeftOffset_;
  std::int64_t maxRightOffset_;
};

}  // namespace saffra
