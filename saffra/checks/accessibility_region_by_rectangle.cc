#include "saffra/checks/accessibility_region_by_rectangle.h"

namespace saffra {

AccessibilityRegionByRectangle::AccessibilityRegionByRectangle(std::shared_ptr<Region> region,
                                                               std::uint64_t regionType)
    : type_(regionType), region_(std::move(region)) {
  if (region_) {
    left_ = Region::truncate(region_->location().x);
    top_ = Region::truncate(region_->location().y);
    width_ = Region::truncate(region_->size().width);
    height_ = Region::truncate(region_->size().height);
  }
}

AccessibilityRegionByRectangle::AccessibilityRegionByRectangle(std::int64_t left, std::int64_t top,
                                                               std::int64_t width,
                                                               std::int64_t height,
                                                               std::uint64_t regionType)
    : AccessibilityRegionByRectangle(std::make_shared<Region>(left, top, width, height),
                                     regionType) {}

std::shared_ptr<AccessibilityRegionByRectangle> AccessibilityRegionByRectangle::getRegion() {
  if (auto self = weak_from_this().lock()) return self;
  return std::make_shared<AccessibilityRegionByRectangle>(*this);
}

std::string AccessibilityRegionByRectangle::typeToString(std::uint64_t type) {
  switch (type) {
    case AccessibilityRegionTypeIgnoreContrast:
      return "IgnoreContrast";
    case AccessibilityRegionTypeRegularText:
      return "RegularText";
    case AccessibilityRegionTypeLargeText:
      return "LargeText";
    case AccessibilityRegionTypeBoldText:
      return "BoldText";
    default:
      return "GraphicalObject";
  }
}

Json AccessibilityRegionByRectangle::dictionary() const {
  Json d = Json::object();
  d["left"] = left_;
  d["top"] = top_;
  d["width"] = width_;
  d["height"] = height_;
  d["type"] = typeToString(type_);
  return d;
}

std::shared_ptr<AccessibilityRegionByRectangle> AccessibilityRegionByRectangle::copy() const {
  auto result = std::make_shared<AccessibilityRegionByRectangle>(*this);
  result->region_ = region_ ? region_->copy() : nullptr;
  return result;
}

}  // namespace saffra
