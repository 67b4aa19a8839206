#include "saffra/images/region_filter.h"

#include <gtest/gtest.h>

#include "saffra/base/region.h"

namespace saffra {
namespace {

TEST(RegionFilterTest, ShiftsUpByTheStatusBarOnlyWhenCropping) {
  struct Case {
    double top, height;
    bool crop;
    std::int64_t expectedTop;
    bool same;
  };
  const Case cases[] = {
      {100, 20, true, 80, false},     {10, 20, true, -10, false}, {100, 20.7, true, 79, false},
      {100.9, 0.5, true, 100, false}, {100, 0, true, 100, true},  {100, 20, false, 100, true},
      {100, NAN, true, 0, false},
  };
  for (const auto& c : cases) {
    auto region = std::make_shared<Region>(Rect(3.7, c.top, 50.5, 60));
    auto filtered = RegionFilter::filterRegion(region, c.height, c.crop);
    EXPECT_EQ(filtered == region, c.same) << c.top << " " << c.height;
    if (!c.same) {
      EXPECT_EQ(filtered->rect(), Rect(3, static_cast<double>(c.expectedTop), 50, 60));
    }

    auto floating = std::make_shared<FloatingMatchSettings>(1, static_cast<std::int64_t>(c.top), 2,
                                                            3, 4, 5, 6, 7);
    auto filteredFloating = RegionFilter::filterFloatingRegion(floating, c.height, c.crop);
    EXPECT_EQ(filteredFloating == floating, c.same);
    if (!c.same) {
      EXPECT_EQ(
          filteredFloating->dictionary(),
          FloatingMatchSettings(1, Region::truncate(std::trunc(c.top) - c.height), 2, 3, 4, 5, 6, 7)
              .dictionary());
    }

    auto accessibility = std::make_shared<AccessibilityRegionByRectangle>(
        1, static_cast<std::int64_t>(c.top), 2, 3, AccessibilityRegionTypeBoldText);
    auto filteredAccessibility =
        RegionFilter::filterAccessibilityRegion(accessibility, c.height, c.crop);
    EXPECT_EQ(filteredAccessibility == accessibility, c.same);
    if (!c.same) {
      EXPECT_EQ(filteredAccessibility->top(), Region::truncate(std::trunc(c.top) - c.height));
      EXPECT_EQ(filteredAccessibility->type(), AccessibilityRegionTypeBoldText);
      EXPECT_EQ(filteredAccessibility->width(), 2);
    }
  }

  EXPECT_EQ(RegionFilter::filterRegion(nullptr, 20, false), nullptr);
  EXPECT_EQ(RegionFilter::filterRegion(nullptr, 20, true)->rect(), Rect(0, -20, 0, 0));
  EXPECT_EQ(RegionFilter::filterFloatingRegion(nullptr, 20, true)->top(), -20);
  EXPECT_EQ(RegionFilter::filterAccessibilityRegion(nullptr, 20, true)->top(), -20);
}

}  // namespace
}  // namespace saffra
