#include "saffra/base/region.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "saffra/base/logger.h"

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

}  // namespace
}  // namespace saffra
