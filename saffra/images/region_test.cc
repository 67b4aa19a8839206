// Regions, their filters, deep copies and the log.
#include "saffra/images/region.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "saffra/images/general_utils.h"
#include "saffra/images/logger.h"
#include "saffra/images/region_filter.h"

namespace saffra {
namespace {

TEST(RegionTest, IntegerViewsTruncateAndTextForms) {
  Region region(1, 2, 3, 4);
  EXPECT_EQ(region.description(), "{{1, 2}, {3, 4}}");
  EXPECT_EQ(json::write(region.dictionary()), R"({"left":1,"top":2,"width":3,"height":4})");

  auto scaled = Region::scaledRegionFromRegion(std::make_shared<Region>(10, 10, 15, 15), 0.5);
  EXPECT_EQ(scaled->rect(), Rect(5, 5, 7.5, 7.5));
  EXPECT_EQ(scaled->description(), "{{5, 5}, {7.5, 7.5}}");
  EXPECT_EQ(scaled->width(), 7);
  EXPECT_FALSE(scaled->isEqual(std::make_shared<Region>(5, 5, 7, 7)));
  EXPECT_TRUE(Region::scaledRegionFromRegion(nullptr, 3)->isEmpty());

  struct Case {
    double value;
    std::int64_t expected;
  };
  for (auto c : {Case{1.9, 1}, Case{-1.9, -1}, Case{-0.5, 0}, Case{NAN, 0},
                 Case{1e300, std::numeric_limits<std::int64_t>::max()},
                 Case{-1e300, std::numeric_limits<std::int64_t>::min()}}) {
    EXPECT_EQ(Region::truncate(c.value), c.expected) << c.value;
    EXPECT_EQ(Region(Rect(c.value, 0, 0, 0)).left(), c.expected) << c.value;
  }
}

TEST(RegionTest, EmptinessEqualityAndContainment) {
  EXPECT_TRUE(Region().isEmpty());
  EXPECT_TRUE(Region::emptyRegion()->isEmpty());
  EXPECT_FALSE(Region(5, 5, 0, 0).isEmpty());
  Region made(1, 1, 1, 1);
  made.makeEmpty();
  EXPECT_TRUE(made.isEmpty());
  EXPECT_FALSE(made.isEqual(nullptr));

  Region outer(0, 0, 100, 100);
  EXPECT_TRUE(outer.containsRect(Rect(10, 10, 90, 90)));
  EXPECT_FALSE(outer.containsRect(Rect(10, 10, 91, 90)));
  EXPECT_TRUE(Region(10, 10, 5, 5).insideRect(outer.rect()));

  EXPECT_TRUE(RectangleSize(Size{3, 4}).isEqual(std::make_shared<RectangleSize>(Size{3, 4})));
  EXPECT_FALSE(RectangleSize(Size{3, 4}).isEqual(nullptr));
  EXPECT_TRUE(RectangleSize::emptySize()->isEmpty());
  EXPECT_EQ(RectangleSize(Size{375, 667}).description(), "{375, 667}");
}

TEST(RegionTest, IntersectionLogsAndIsNeverTheNullRectangle) {
  LogCapture log;
  auto a = std::make_shared<Region>(0, 0, 10, 10);
  auto common = Region::intersectionBetweenRegion(a, std::make_shared<Region>(5, 5, 10, 10));
  EXPECT_EQ(common->rect(), Rect(5, 5, 5, 5));
  EXPECT_TRUE(
      log.contains("intersecting this region ({{0, 0}, {10, 10}}) with {{5, 5}, {10, 10}} ..."));

  auto none = Region::intersectionBetweenRegion(a, std::make_shared<Region>(20, 20, 5, 5));
  EXPECT_EQ(none->rect(), Rect());
  EXPECT_TRUE(Region::intersectionBetweenRegion(a, nullptr)->isEmpty());
  EXPECT_TRUE(log.contains("intersecting this region ({{0, 0}, {10, 10}}) with (null) ..."));
}

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

TEST(GeneralUtilsTest, DeepCopiesShareNothingWithTheirSource) {
  using Inner = std::vector<std::string>;
  std::vector<std::shared_ptr<Inner>> source{std::make_shared<Inner>(Inner{"a", "b"}),
                                             std::make_shared<Inner>(Inner{"c"}), nullptr};
  auto copy = Utility::trueMutableDeepCopyOf(source);
  ASSERT_EQ(copy.size(), 3u);
  copy[0]->push_back("changed");
  (*copy[1])[0] = "changed";
  copy.push_back(nullptr);
  EXPECT_EQ(*source[0], (Inner{"a", "b"}));
  EXPECT_EQ(*source[1], (Inner{"c"}));
  EXPECT_EQ(copy[2], nullptr);
  EXPECT_EQ(source.size(), 3u);

  // Objects with copy() are copied through it; nesting of any depth is followed.
  std::vector<std::vector<std::shared_ptr<Region>>> regions{{std::make_shared<Region>(1, 2, 3, 4)}};
  auto regionsCopy = Utility::trueDeepCopyOf(regions);
  regionsCopy[0][0]->setLeft(100);
  EXPECT_EQ(regions[0][0]->left(), 1);
  EXPECT_EQ(regionsCopy[0][0]->description(), "{{100, 2}, {3, 4}}");
}

TEST(LoggerTest, FormattedLineCarriesThePrefix) {
  LogCapture log;
  Logger::logWithFormat("Close batch with ID: %@", "B1");
  Logger::log(std::nullopt);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"[QuorvantSaffra] Close batch with ID: B1",
                                                   "[QuorvantSaffra] (null)"}));
  EXPECT_TRUE(log.systemLines().empty());
}

}  // namespace
}  // namespace saffra
