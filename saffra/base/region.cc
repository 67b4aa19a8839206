#include "saffra/base/region.h"

#include <cmath>
#include <limits>

#include "saffra/base/logger.h"

namespace saffra {

namespace {

Rect rectOf(const std::shared_ptr<Region>& region) {
  return region ? region->rect() : Rect();
}

}  // namespace

std::int64_t Region::truncate(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
  if (v <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(v);
}

Region::Region(std::int64_t left, std::int64_t top, std::int64_t width, std::int64_t height)
    : rect_(static_cast<double>(left), static_cast<double>(top), static_cast<double>(width),
            static_cast<double>(height)) {}

std::shared_ptr<Region> Region::emptyRegion() {
  return std::make_shared<Region>();
}

std::int64_t Region::left() const {
  return truncate(rect_.origin.x);
}
std::int64_t Region::top() const {
  return truncate(rect_.origin.y);
}
std::int64_t Region::width() const {
  return truncate(rect_.size.width);
}
std::int64_t Region::height() const {
  return truncate(rect_.size.height);
}

std::string Region::description() const {
  return format("%@", toString(rect_));
}

Json Region::dictionary() const {
  Json d = Json::object();
  d["left"] = rect_.origin.x;
  d["top"] = rect_.origin.y;
  d["width"] = rect_.size.width;
  d["height"] = rect_.size.height;
  return d;
}

std::shared_ptr<Region> Region::scaledRegionFromRegion(const std::shared_ptr<Region>& region,
                                                       double r) {
  Rect s = rectOf(region);
  return std::make_shared<Region>(
      Rect(s.origin.x * r, s.origin.y * r, s.size.width * r, s.size.height * r));
}

bool Region::regionIsIntersectedWithRegion(const std::shared_ptr<Region>& a,
                                           const std::shared_ptr<Region>& b) {
  return rectIntersectsRect(rectOf(a), rectOf(b));
}

std::shared_ptr<Region> Region::intersectionBetweenRegion(const std::shared_ptr<Region>& a,
                                                          const std::shared_ptr<Region>& b) {
  Logger::logWithFormat("intersecting this region (%@) with %@ ...", a, b);
  if (regionIsIntersectedWithRegion(a, b)) {
    return std::make_shared<Region>(rectIntersection(rectOf(a), rectOf(b)));
  }
  auto empty = std::make_shared<Region>();
  empty->makeEmpty();
  return empty;
}

}  // namespace saffra
