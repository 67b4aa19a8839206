// Moves regions up by the height of the status bar when the status bar is cut off the image
// before it is sent, so that they still cover the same content.
#pragma once

#include <memory>

#include "saffra/base/region.h"
#include "saffra/checks/accessibility_region_by_rectangle.h"
#include "saffra/checks/floating_match_settings.h"

namespace saffra {

/// Status-bar shifting of the three kinds of regions. With a height other than 0 (NaN counts as
/// other) and the flag set, each returns a new object whose top is truncate(top - height), its
/// other values truncated or copied; otherwise the very object given. Tops may become negative.
/// An absent region reads as zeros.
class RegionFilter {
 public:
  static std::shared_ptr<Region> filterRegion(const std::shared_ptr<Region>& region,
                                              double statusBarHeight, bool shouldCropStatusBar);
  static std::shared_ptr<FloatingMatchSettings> filterFloatingRegion(
      const std::shared_ptr<FloatingMatchSettings>& region, double statusBarHeight,
      bool shouldCropStatusBar);
  static std::shared_ptr<AccessibilityRegionByRectangle> filterAccessibilityRegion(
      const std::shared_ptr<AccessibilityRegionByRectangle>& region, double statusBarHeight,
      bool shouldCropStatusBar);
};

}  // namespace saffra
