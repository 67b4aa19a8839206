// The interfaces of region providers: small objects that hand out a check's special regions only
// when the check runs, so that a region taken from a UI element reflects where the element is at
// that moment.
#pragma once

#include <memory>

namespace saffra {

class Region;
class FloatingMatchSettings;
class AccessibilityRegionByRectangle;

/// Yields a Region (ignore, layout, strict and content lists).
class GetRegionProtocol {
 public:
  virtual ~GetRegionProtocol() = default;
  virtual std::shared_ptr<Region> getRegion() = 0;
};

/// Yields a floating region (floating list).
class GetFloatingRegionProtocol {
 public:
  virtual ~GetFloatingRegionProtocol() = default;
  virtual std::shared_ptr<FloatingMatchSettings> getRegion() = 0;
};

/// Yields an accessibility region record (accessibility list).
class GetAccessibilityRegionProtocol {
 public:
  virtual ~GetAccessibilityRegionProtocol() = default;
  virtual std::shared_ptr<AccessibilityRegionByRectangle> getRegion() = 0;
};

/// Yields the part of the image that a region check covers.
class RegionProviderProtocol {
 public:
  virtual ~RegionProviderProtocol() = default;
  virtual std::shared_ptr<Region> getRegion() = 0;
};

}  // namespace saffra
