#include "saffra/platform/geometry.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace saffra {

double Rect::minX() const { return std::min(origin.x, origin.x + size.width); }
double Rect::minY() const { return std::min(origin.y, origin.y + size.height); }
double Rect::maxX() const { return std::max(origin.x, origin.x + size.width); }
double Rect::maxY() const { return std::max(origin.y, origin.y + size.height); }

Rect Rect::standardized() const {
  return Rect(minX(), minY(), std::fabs(size.width), std::fabs(size.height));
}

bool Rect::isNull() const { return std::isinf(origin.x) || std::isinf(origin.y); }

bool Rect::isEmpty() const { return isNull() || size.width == 0 || size.height == 0; }

bool rectContainsRect(const Rect& outer, const Rect& inner) {
  if (outer.isEmpty() || inner.isNull()) return false;
  Rect a = outer.standardized();
  Rect b = inner.standardized();
  return b.minX() >= a.minX() && b.minY() >= a.minY() && b.maxX() <= a.maxX() &&
         b.maxY() <= a.maxY();
}

Rect rectIntersection(const Rect& a, const Rect& b) {
  const double inf = std::numeric_limits<double>::infinity();
  const Rect null(inf, inf, 0, 0);
  if (a.isNull() || b.isNull()) return null;
  Rect x = a.standardized();
  Rect y = b.standardized();
  double left = std::max(x.minX(), y.minX());
  double top = std::max(x.minY(), y.minY());
  double right = std::min(x.maxX(), y.maxX());
  double bottom = std::min(x.maxY(), y.maxY());
  // Rectangles that only touch along an edge do not intersect.
  if (left >= right || top >= bottom) return null;
  return Rect(left, top, right - left, bottom - top);
}

bool rectIntersectsRect(const Rect& a, const Rect& b) { return !rectIntersection(a, b).isNull(); }

std::string formatNumber(double value) {
  if (value == 0) return "0";  // also turns -0 into 0
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string toString(const Point& p) {
  return "{" + formatNumber(p.x) + ", " + formatNumber(p.y) + "}";
}

std::string toString(const Size& s) {
  return "{" + formatNumber(s.width) + ", " + formatNumber(s.height) + "}";
}

std::string toString(const Rect& r) { return "{" + toString(r.origin) + ", " + toString(r.size) + "}"; }

}  // namespace saffra
