#include "saffra/platform/format.h"

#include <gtest/gtest.h>

#include "saffra/platform/geometry.h"

namespace saffra {
namespace {

struct Described {
  std::string description() const { return "<described>"; }
};

TEST(FormatTest, RendersEachPlaceholderKind) {
  OptString absent;
  std::shared_ptr<Described> none;
  EXPECT_EQ(format("Close batch with ID: %@", std::string("B1")), "Close batch with ID: B1");
  EXPECT_EQ(format("%@|%@|%@", absent, none, nullptr), "(null)|(null)|(null)");
  EXPECT_EQ(format("%@ %@", std::make_shared<Described>(), Described{}), "<described> <described>");
  EXPECT_EQ(format("%li %ld %lu %d", -5L, 7, 9u, true), "-5 7 9 1");
  EXPECT_EQ(format("%f %.2f %fx%f", 1.5, 2.0 / 3, 375.0, 667.0),
            "1.500000 0.67 375.000000x667.000000");
  EXPECT_EQ(format("100%% %@", 7.5), "100% 7.5");
}

TEST(FormatTest, ToleratesMissingArgumentsAndUnknownPlaceholders) {
  EXPECT_EQ(format("a %@ b %li"), "a (null) b 0");
  EXPECT_EQ(format("%q %x trailing %", 1), "%q %x trailing %");
  EXPECT_EQ(format("%li", 3.9), "3");
  EXPECT_EQ(format("%li", -3.9), "-3");
}

TEST(GeometryTest, RectangleTextUsesShortestNumbers) {
  EXPECT_EQ(toString(Rect(10, 20, 30, 40)), "{{10, 20}, {30, 40}}");
  EXPECT_EQ(toString(Rect(5, 5, 7.5, 7.5)), "{{5, 5}, {7.5, 7.5}}");
  EXPECT_EQ(toString(Size{375, 667}), "{375, 667}");
  EXPECT_EQ(toString(Rect(-0.0, 0.1, 1e20, -2)), "{{0, 0.1}, {1e+20, -2}}");
}

TEST(GeometryTest, IntersectionAndContainmentFollowStandardisedRectangles) {
  Rect a(0, 0, 100, 200);
  EXPECT_EQ(rectIntersection(a, Rect(90, 190, 50, 50)), Rect(90, 190, 10, 10));
  EXPECT_TRUE(rectIntersection(a, Rect(150, 10, 10, 10)).isNull());
  EXPECT_FALSE(rectIntersectsRect(a, Rect(100, 0, 10, 10)));  // touching edges only
  EXPECT_TRUE(rectIntersectsRect(a, Rect(110, 10, -20, 10)));  // negative width standardised
  EXPECT_TRUE(rectContainsRect(a, Rect(0, 0, 100, 200)));
  EXPECT_FALSE(rectContainsRect(a, Rect(1, 1, 100, 1)));
  EXPECT_FALSE(rectContainsRect(Rect(), Rect()));
}

}  // namespace
}  // namespace saffra
