#include "saffra/checks/region_providers.h"

#include <gtest/gtest.h>
namespace saffra {
namespace {

// An element whose frame the test moves; copyable on request.
class MovingElement : public UIElement {
 public:
  MovingElement(Rect frame, bool copyable) : frame_(frame), copyable_(copyable) {}
  Rect frame() const override { return frame_; }
  std::shared_ptr<UIElement> copy() const override {
    return copyable_ ? std::make_shared<MovingElement>(frame_, copyable_) : nullptr;
  }
  void moveTo(Rect frame) { frame_ = frame; }

 private:
  Rect frame_;
  bool copyable_;
};

Json floatingJson(std::int64_t l, std::int64_t t, std::int64_t w, std::int64_t h, std::int64_t up,
                  std::int64_t down, std::int64_t left, std::int64_t right) {
  return FloatingMatchSettings(l, t, w, h, up, down, left, right).dictionary();
}

TEST(RegionProvidersTest, ElementFrameIsReadWhenTheRegionIsAsked) {
  auto element = std::make_shared<MovingElement>(Rect(1, 2, 3, 4), false);
  IgnoreRegionByElement ignore(element);
  FloatingRegionByElement floating(element, 1, 2, 3, 4);
  element->moveTo(Rect(10.5, 20.9, 30.2, 40.7));  // moved after the providers were built

  auto region = ignore.getRegion();
  EXPECT_EQ(region->rect(), Rect(10.5, 20.9, 30.2, 40.7));  // fractions kept until read
  EXPECT_EQ(floating.getRegion()->dictionary(), floatingJson(10, 20, 30, 40, 1, 2, 3, 4));
  EXPECT_NE(ignore.getRegion(), region);  // a new region each time

  IgnoreRegionByElement noElement(nullptr);
  EXPECT_TRUE(noElement.getRegion()->isEmpty());
  FloatingRegionByElement noFloatingElement(nullptr, 5, 5, 5, 5);
  EXPECT_EQ(noFloatingElement.getRegion()->dictionary(), floatingJson(0, 0, 0, 0, 5, 5, 5, 5));
}

TEST(RegionProvidersTest, RectangleProvidersHandOutTheHeldRegion) {
  auto region = std::make_shared<Region>(10, 20, 30, 40);
  IgnoreRegionByRectangle ignore(region);
  RegionProvider provider(region);
  EXPECT_EQ(ignore.getRegion(), region);
  EXPECT_EQ(provider.getRegion(), region);
  region->setLeft(99);  // a later change is what the check sees
  EXPECT_EQ(ignore.getRegion()->left(), 99);
  EXPECT_EQ(IgnoreRegionByRectangle(nullptr).getRegion(), nullptr);
  EXPECT_EQ(RegionProvider(nullptr).getRegion(), nullptr);

  FloatingRegionByRectangle floating(std::make_shared<Region>(10, 20, 30, 40), 1, 2, 3, 4);
  EXPECT_EQ(floating.getRegion()->dictionary(), floatingJson(10, 20, 30, 40, 1, 2, 3, 4));
  floating.setRegion(std::make_shared<Region>(Rect(-1.5, 2.5, 3.99, -4.99)));
  EXPECT_EQ(floating.getRegion()->dictionary(), floatingJson(-1, 2, 3, -4, 1, 2, 3, 4));
  floating.setRegion(nullptr);
  EXPECT_EQ(floating.getRegion()->dictionary(), floatingJson(0, 0, 0, 0, 1, 2, 3, 4));
}

TEST(RegionProvidersTest, CopiesCopyRegionsAndCopyableElements) {
  auto region = std::make_shared<Region>(1, 2, 3, 4);
  auto ignoreCopy = IgnoreRegionByRectangle(region).copy();
  EXPECT_NE(ignoreCopy->region(), region);
  EXPECT_TRUE(ignoreCopy->region()->isEqual(region));

  auto floatingCopy = FloatingRegionByRectangle(region, 1, 2, 3, 4).copy();
  EXPECT_NE(floatingCopy->region(), region);
  EXPECT_EQ(floatingCopy->getRegion()->dictionary(), floatingJson(1, 2, 3, 4, 1, 2, 3, 4));

  auto fixed = std::make_shared<MovingElement>(Rect(1, 1, 1, 1), false);
  auto copyable = std::make_shared<MovingElement>(Rect(1, 1, 1, 1), true);
  EXPECT_EQ(IgnoreRegionByElement(fixed).copy()->element(), fixed);
  EXPECT_NE(IgnoreRegionByElement(copyable).copy()->element(), copyable);
  auto elementCopy = FloatingRegionByElement(fixed, 1, 2, 3, 4).copy();
  EXPECT_EQ(elementCopy->element(), fixed);
  EXPECT_EQ(elementCopy->maxLeftOffset(), 3);
  EXPECT_EQ(FloatingRegionByElement(copyable, 0, 0, 0, 0).copy()->element()->frame(),
            copyable->frame());
  EXPECT_EQ(IgnoreRegionByElement(nullptr).copy()->element(), nullptr);
}

}  // namespace
}  // namespace saffra
