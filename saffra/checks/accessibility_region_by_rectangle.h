// An accessibility region: a rectangle in whole pixels with the kind of content it holds. It is
// its own provider (getRegion returns the object itself) and its own wire record.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "saffra/base/region.h"
#include "saffra/checks/match_level.h"
#include "saffra/checks/region_provider_protocols.h"
#include "saffra/platform/json.h"

namespace saffra {

/// A typed accessibility region; used through std::shared_ptr.
class AccessibilityRegionByRectangle
    : public GetAccessibilityRegionProtocol,
      public std::enable_shared_from_this<AccessibilityRegionByRectangle> {
 public:
  /// Keeps the region object itself and its location and size truncated to integers; an absent
  /// region gives zeros.
  AccessibilityRegionByRectangle(std::shared_ptr<Region> region, std::uint64_t regionType);
  /// Builds a new Region from the four integers and keeps it.
  AccessibilityRegionByRectangle(std::int64_t left, std::int64_t top, std::int64_t width,
                                 std::int64_t height, std::uint64_t regionType);

  /// This very object (a copy when it is not owned by a std::shared_ptr).
  std::shared_ptr<AccessibilityRegionByRectangle> getRegion() override;

  std::int64_t left() const { return left_; }
  std::int64_t top() const { return top_; }
  std::int64_t width() const { return width_; }
  std::int64_t height() const { return height_; }
  std::uint64_t type() const { return type_; }
  const std::shared_ptr<Region>& region() const { return region_; }

  /// The wire name of a region type; 4 and above give "GraphicalObject".
  static std::string typeToString(std::uint64_t type);
  /// {"left", "top", "width", "height"} as integers and "type" as its wire name.
  Json dictionary() const;
  /// A new record with a copy of the region and the same integers and type.
  std::shared_ptr<AccessibilityRegionByRectangle> copy() const;

 private:
  std::int64_t left_ = 0;
  std::int64_t top_ = 0;
  std::int64_t width_ = 0;
  std::int64_t height_ = 0;
  std::uint64_t type_ = 0;
  std::shared_ptr<Region> region_;
};

}  // namespace saffra
