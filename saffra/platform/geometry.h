// Plain geometry values (points, sizes and rectangles of 64-bit floats) with the rectangle
// arithmetic the library relies on and the brace notation used in every log line and reason.
#pragma once

#include <string>

namespace saffra {

/// A point in floats.
struct Point {
  double x = 0;
  double y = 0;

  constexpr Point() = default;
  constexpr Point(double x_, double y_) : x(x_), y(y_) {}
  bool operator==(const Point&) const = default;
};

/// A width and height in floats.
struct Size {
  double width = 0;
  double height = 0;

  constexpr Size() = default;
  constexpr Size(double width_, double height_) : width(width_), height(height_) {}
  bool operator==(const Size&) const = default;
};

/// A rectangle: an origin and a size. Width and height may be negative until standardised.
struct Rect {
  Point origin;
  Size size;

  Rect() = default;
  Rect(double x, double y, double width, double height) : origin{x, y}, size{width, height} {}
  bool operator==(const Rect&) const = default;

  double minX() const;
  double minY() const;
  double maxX() const;
  double maxY() const;
  /// The same rectangle with non-negative width and height.
  Rect standardized() const;
  /// True for the "null" rectangle that an empty intersection yields.
  bool isNull() const;
  /// True when the rectangle has no area (or is null).
  bool isEmpty() const;
};

/// True when `outer` wholly contains `inner` (an empty or null inner rectangle is never contained).
bool rectContainsRect(const Rect& outer, const Rect& inner);
/// True when the two rectangles share some area.
bool rectIntersectsRect(const Rect& a, const Rect& b);
/// The common part of two rectangles; the null rectangle (infinite origin) when they do not meet.
Rect rectIntersection(const Rect& a, const Rect& b);

/// A number in its shortest round-trip form: 10, 7.5, 0.1, -3, 1e+20.
std::string formatNumber(double value);
/// "{x, y}"
std::string toString(const Point& p);
/// "{width, height}", for example "{375, 667}".
std::string toString(const Size& s);
/// "{{x, y}, {width, height}}", for example "{{5, 5}, {7.5, 7.5}}".
std::string toString(const Rect& r);

}  // namespace saffra
