#include "saffra/images/region_filter.h"

namespace saffra {

namespace {

bool shifts(double statusBarHeight, bool shouldCropStatusBar) {
  return statusBarHeight != 0 && shouldCropStatusBar;  // NaN != 0 holds
}

std::int64_t shiftedTop(double top, double statusBarHeight) {
  return Region::truncate(top - statusBarHeight);
}

}  // namespace

std::shared_ptr<Region> RegionFilter::filterRegion(const std::shared_ptr<Region>& region,
                                                   double statusBarHeight,
                                                   bool shouldCropStatusBar) {
  if (!shifts(statusBarHeight, shouldCropStatusBar)) return region;
  Rect r = region ? region->rect() : Rect();
  return std::make_shared<Region>(Region::truncate(r.origin.x),
                                  shiftedTop(r.origin.y, statusBarHeight),
                                  Region::truncate(r.size.width), Region::truncate(r.size.height));
}

std::shared_ptr<FloatingMatchSettings> RegionFilter::filterFloatingRegion(
    const std::shared_ptr<FloatingMatchSettings>& region, double statusBarHeight,
    bool shouldCropStatusBar) {
  if (!shifts(statusBarHeight, shouldCropStatusBar)) return region;
  FloatingMatchSettings r(region);
  return std::make_shared<FloatingMatchSettings>(
      r.left(), shiftedTop(static_cast<double>(r.top()), statusBarHeight), r.width(), r.height(),
      r.maxUpOffset(), r.maxDownOffset(), r.maxLeftOffset(), r.maxRightOffset());
}

std::shared_ptr<AccessibilityRegionByRectangle> RegionFilter::filterAccessibilityRegion(
    const std::shared_ptr<AccessibilityRegionByRectangle>& region, double statusBarHeight,
    bool shouldCropStatusBar) {
  if (!shifts(statusBarHeight, shouldCropStatusBar)) return region;
  if (!region) {
    return std::make_shared<AccessibilityRegionByRectangle>(0, shiftedTop(0, statusBarHeight), 0, 0,
                                                            AccessibilityRegionTypeIgnoreContrast);
  }
  return std::make_shared<AccessibilityRegionByRectangle>(
      region->left(), shiftedTop(static_cast<double>(region->top()), statusBarHeight),
      region->width(), region->height(), region->type());
}

}  // namespace saffra
