// Check settings, the region providers they hold, and the match settings sent for a step.
#include "saffra/checks/check_settings.h"

#include <gtest/gtest.h>

#include <limits>

#include "saffra/checks/accessibility_region_by_rectangle.h"
#include "saffra/checks/image_match_settings.h"
#include "saffra/checks/region_providers.h"
#include "saffra/platform/exception.h"

namespace saffra {
namespace {

std::shared_ptr<Region> region(std::int64_t l, std::int64_t t, std::int64_t w, std::int64_t h) {
  return std::make_shared<Region>(l, t, w, h);
}

Json floatingJson(std::int64_t l, std::int64_t t, std::int64_t w, std::int64_t h, std::int64_t up,
                  std::int64_t down, std::int64_t left, std::int64_t right) {
  return FloatingMatchSettings(l, t, w, h, up, down, left, right).dictionary();
}

// Every field but the level: target region empty, time-out, the five flags, the six region lists.
std::string othersOf(const CheckSettings& s) {
  return ::testing::PrintToString(std::make_tuple(
      s.getTargetRegion() && s.getTargetRegion()->isEmpty(), s.getTimeoutInSeconds(),
      s.getStitchContent(), s.getIgnoreCaret(), s.getWithStatusBar(), s.getIgnoreDisplacements(),
      s.getEnablePatterns(), s.getIgnoredRegions().size(), s.getLayoutRegions().size(),
      s.getStrictRegions().size(), s.getContentRegions().size(), s.getFloatingRegions().size(),
      s.getAccessibilityRegions().size()));
}
const char* kDefaults = "(true, 0, false, false, false, false, false, 0, 0, 0, 0, 0, 0)";

TEST(CheckSettingsTest, LevelShortcutsSetOnlyTheLevel) {
  auto image = std::make_shared<Image>(2, 2);
  struct Case {
    CheckSettings::Result (CheckSettings::*op)();
    std::int64_t level;
  };
  for (auto [op, level] : {Case{&CheckSettings::layout, 2}, Case{&CheckSettings::content, 3},
                           Case{&CheckSettings::strict, 4}, Case{&CheckSettings::exact, 5}}) {
    auto settings = Target::image(image);
    EXPECT_EQ(settings->getMatchLevel(), MatchLevelNone);  // 1 = not chosen
    auto result = ((*settings).*op)();
    EXPECT_EQ(result->getMatchLevel(), level);
    EXPECT_EQ(othersOf(*result), kDefaults);
  }
}

TEST(CheckSettingsTest, PlainSettingsAreCopiedImageSettingsChangeInPlace) {
  auto plain = std::make_shared<CheckSettings>();
  auto changed = plain->ignoreCaret()->ignore({region(1, 2, 3, 4)})->timeoutInSeconds(7);
  EXPECT_NE(changed, plain);
  EXPECT_EQ(othersOf(*plain), kDefaults);
  EXPECT_EQ(othersOf(*changed), "(true, 7, false, true, false, false, false, 1, 0, 0, 0, 0, 0)");

  auto image = std::make_shared<Image>(2, 2);
  auto settings = Target::image(image);
  auto intermediate = settings->ignoreCaret();
  EXPECT_EQ(intermediate, settings);
  EXPECT_TRUE(settings->getIgnoreCaret());
  intermediate->layout()->fully();  // later changes show in every handle
  EXPECT_EQ(settings->getMatchLevel(), MatchLevelLayout);
  EXPECT_TRUE(settings->getStitchContent());
  EXPECT_EQ(settings->targetImage(), image);

  // The copy of a plain object keeps its class, values and (shared) providers.
  auto copy = std::dynamic_pointer_cast<ImagesCheckSettings>(
      ImagesCheckSettings(image).withStatusBar()->enablePatterns()->copy());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->targetImage(), image);
  EXPECT_EQ(othersOf(*copy), "(true, 0, false, false, true, false, true, 0, 0, 0, 0, 0, 0)");

  // Image settings off the heap cannot hand back themselves: they return a copy.
  ImagesCheckSettings onStack(nullptr);
  EXPECT_EQ(onStack.layout()->getMatchLevel(), MatchLevelLayout);
  EXPECT_EQ(onStack.getMatchLevel(), MatchLevelNone);
}

TEST(CheckSettingsTest, CopiesShareProvidersButNotListsOrTargetRegion) {
  auto target = region(5, 5, 10, 10);
  auto original = std::make_shared<CheckSettings>(target);
  original->ignoreRegion(region(1, 1, 1, 1));
  auto copy = original->copy();
  EXPECT_EQ(copy->getIgnoredRegions().at(0), original->getIgnoredRegions().at(0));
  EXPECT_NE(copy->getTargetRegion(), target);
  EXPECT_EQ(*copy->getTargetRegion(), *target);
  copy->ignoreRegion(region(2, 2, 2, 2));
  EXPECT_EQ(original->getIgnoredRegions().size(), 1u);
}

TEST(CheckSettingsTest, RegionListsCopyEachRegionInOrder) {
  auto a = region(1, 2, 3, 4);
  auto b = region(5, 6, 7, 8);
  auto settings = std::make_shared<CheckSettings>()
                      ->ignore({a, b, a})
                      ->layout({b})
                      ->strict({a})
                      ->content({b})
                      ->ignore({});
  auto ignored = settings->getIgnoredRegions();
  ASSERT_EQ(ignored.size(), 3u);
  EXPECT_EQ(*ignored[0]->getRegion(), *a);
  EXPECT_NE(ignored[0]->getRegion(), a);  // copied when given
  EXPECT_EQ(*ignored[1]->getRegion(), *b);
  EXPECT_EQ(*ignored[2]->getRegion(), *a);
  for (const auto& list : {settings->getLayoutRegions(), settings->getStrictRegions(),
                           settings->getContentRegions()}) {
    ASSERT_EQ(list.size(), 1u);
    EXPECT_TRUE(std::dynamic_pointer_cast<IgnoreRegionByRectangle>(list[0]));
  }
  // An absent region still gives a provider, which yields nothing.
  auto withAbsent = std::make_shared<CheckSettings>()->ignore({nullptr});
  ASSERT_EQ(withAbsent->getIgnoredRegions().size(), 1u);
  EXPECT_EQ(withAbsent->getIgnoredRegions()[0]->getRegion(), nullptr);
}

TEST(CheckSettingsTest, FloatingOffsetsGoToTheirDirections) {
  auto settings = std::make_shared<CheckSettings>()
                      ->floating({region(0, 0, 10, 10), region(20, 20, 5, 5)}, 5)
                      ->floating(region(1, 1, 2, 2), 1, 2, 3, 4);  // up, down, right, left
  std::vector<Json> floating;
  for (const auto& p : settings->getFloatingRegions())
    floating.push_back(p->getRegion()->dictionary());
  EXPECT_EQ(floating, (std::vector<Json>{floatingJson(0, 0, 10, 10, 5, 5, 5, 5),
                                         floatingJson(20, 20, 5, 5, 5, 5, 5, 5),
                                         floatingJson(1, 1, 2, 2, 1, 2, 4, 3)}));
}

TEST(CheckSettingsTest, AccessibilityAndFlagSetters) {
  auto settings = std::make_shared<CheckSettings>()
                      ->accessibility(region(1, 2, 3, 4), AccessibilityRegionTypeLargeText)
                      ->ignoreDisplacements()
                      ->ignoreDisplacements(false)
                      ->enablePatterns(true)
                      ->matchLevel(1);
  auto accessibility = settings->getAccessibilityRegions();
  ASSERT_EQ(accessibility.size(), 1u);
  auto record = accessibility[0]->getRegion();
  EXPECT_EQ(record->type(), AccessibilityRegionTypeLargeText);
  EXPECT_EQ(record->left(), 1);
  EXPECT_EQ(othersOf(*settings), "(true, 0, false, false, false, false, true, 0, 0, 0, 0, 0, 1)");
  EXPECT_EQ(settings->getMatchLevel(), MatchLevelNone);
}

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
  EXPECT_EQ(ignore.getRegion(), region);
  region->setLeft(99);  // a later change is what the check sees
  EXPECT_EQ(ignore.getRegion()->left(), 99);
  EXPECT_EQ(IgnoreRegionByRectangle(nullptr).getRegion(), nullptr);

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

TEST(ImageMatchSettingsTest, WireFormKeepsOrderAndKeyCase) {
  auto settings = ImageMatchSettings::defaultImageMatchSettings();
  EXPECT_NE(settings, ImageMatchSettings::defaultImageMatchSettings());
  EXPECT_EQ(json::write(settings->dictionary()),
            R"({"matchLevel":"Strict","accessibilityLevel":"None","ignoreCaret":false,)"
            R"("IgnoreDisplacements":false,"enablePatterns":false,"Ignore":[],"Layout":[],)"
            R"("Strict":[],"Content":[],"Floating":[],"accessibility":[]})");
  EXPECT_EQ(settings->description(), "Match level: Strict");

  // Every field set: order and key case are kept.
  settings->setMatchLevel(MatchLevelLayout);
  settings->setIgnoreCaret(true);
  settings->setIgnoreDispacements(true);
  settings->setAccessibilityLevel(AccessibilityLevelAAA);
  settings->setIgnoredRegions(
      {std::make_shared<Region>(1, 2, 3, 4), std::make_shared<Region>(5, 6, 7, 8)});
  settings->setContentRegions({std::make_shared<Region>(0, 0, 10, 10)});
  settings->setFloatingRegions({std::make_shared<FloatingMatchSettings>(1, 2, 3, 4, 5, 6, 7, 8)});
  settings->setAccessibility({std::make_shared<AccessibilityRegionByRectangle>(
      9, 8, 7, 6, AccessibilityRegionTypeBoldText)});
  EXPECT_EQ(
      json::write(settings->dictionary()),
      R"({"matchLevel":"Layout","accessibilityLevel":"AAA","ignoreCaret":true,)"
      R"("IgnoreDisplacements":true,"enablePatterns":false,)"
      R"("Ignore":[{"left":1,"top":2,"width":3,"height":4},{"left":5,"top":6,"width":7,"height":8}],)"
      R"("Layout":[],"Strict":[],"Content":[{"left":0,"top":0,"width":10,"height":10}],)"
      R"("Floating":[{"left":1,"top":2,"width":3,"height":4,"maxUpOffset":5,"maxDownOffset":6,)"
      R"("maxLeftOffset":7,"maxRightOffset":8}],)"
      R"("accessibility":[{"left":9,"top":8,"width":7,"height":6,"type":"BoldText"}]})");
  EXPECT_EQ(settings->description(), "Match level: Layout");
}

TEST(ImageMatchSettingsTest, OutOfRangeValuesTravelUnderFallbackNames) {
  struct Case {
    std::int64_t level;
    const char* name;
  };
  for (auto c : {Case{0, "Strict"}, Case{1, "None"}, Case{2, "Layout"}, Case{3, "Content"},
                 Case{4, "Strict"}, Case{5, "Exact"}, Case{6, "Strict"}, Case{-1, "Strict"}}) {
    ImageMatchSettings settings(c.level);
    EXPECT_EQ(settings.matchLevel(), c.level);  // stored as given
    EXPECT_EQ(settings.dictionary()["matchLevel"], c.name) << c.level;
  }
  EXPECT_EQ(ImageMatchSettings().matchLevel(), 4);

  const std::uint64_t huge = std::numeric_limits<std::uint64_t>::max();
  const std::pair<std::uint64_t, const char*> levels[] = {
      {0, "None"}, {1, "AA"}, {2, "AAA"}, {3, "None"}, {huge, "None"}};
  for (auto [level, name] : levels) EXPECT_EQ(AccessibilityLevelConverter::toString(level), name);
  const char* types[] = {"IgnoreContrast", "RegularText", "LargeText", "BoldText",
                         "GraphicalObject"};
  for (std::uint64_t t = 0; t < 5; ++t)
    EXPECT_EQ(AccessibilityRegionByRectangle::typeToString(t), types[t]);
  EXPECT_EQ(AccessibilityRegionByRectangle::typeToString(7), "GraphicalObject");
  EXPECT_EQ(AccessibilityRegionByRectangle::typeToString(huge), "GraphicalObject");

  // Reading a level back is exact.
  EXPECT_EQ(AccessibilityLevelConverter::fromString("AA"), AccessibilityLevelAA);
  EXPECT_EQ(AccessibilityLevelConverter::fromString("AAA"), AccessibilityLevelAAA);
  for (const OptString& s : {OptString("aa"), OptString("None"), OptString(""), OptString(" AA"),
                             OptString("AAAA"), OptString()}) {
    EXPECT_EQ(AccessibilityLevelConverter::fromString(s), AccessibilityLevelNone)
        << s.value_or("(null)");
  }
}

TEST(ImageMatchSettingsTest, RegionsAreShared) {
  ImageMatchSettings settings;
  auto region = std::make_shared<Region>(1, 1, 1, 1);
  settings.setStrictRegions({region});
  region->setLeft(50);
  EXPECT_EQ(settings.dictionary()["Strict"][0]["left"], 50);
}

TEST(ImageMatchSettingsTest, AbsentListElementIsRejectedNamingTheKey) {
  ImageMatchSettings settings;
  settings.setLayoutRegions({std::make_shared<Region>(), nullptr});
  try {
    settings.dictionary();
    FAIL() << "expected an exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "NSInvalidArgumentException");
    EXPECT_NE(e.reason().find("Layout"), std::string::npos) << e.reason();
  }
}

TEST(FloatingMatchSettingsTest, ReadsAnyFloatingRegionAndKeepsAllKeys) {
  FloatingMatchSettings source(-1, 2, 3, 4, 0, 0, 0, 0);
  EXPECT_EQ(json::write(FloatingMatchSettings(source).dictionary()),
            R"({"left":-1,"top":2,"width":3,"height":4,"maxUpOffset":0,"maxDownOffset":0,)"
            R"("maxLeftOffset":0,"maxRightOffset":0})");
  auto fromAbsent = FloatingMatchSettings(std::shared_ptr<FloatingMatchSettings>());
  EXPECT_EQ(fromAbsent.dictionary(), FloatingMatchSettings(0, 0, 0, 0, 0, 0, 0, 0).dictionary());
}

TEST(AccessibilityRegionByRectangleTest, TruncatesKeepsRegionAndCopiesDeeply) {
  auto region = std::make_shared<Region>(Rect(10.9, -20.7, 30.5, 40.0));
  auto record = std::make_shared<AccessibilityRegionByRectangle>(region, 7);
  EXPECT_EQ(json::write(record->dictionary()),
            R"({"left":10,"top":-20,"width":30,"height":40,"type":"GraphicalObject"})");
  EXPECT_EQ(record->region(), region);
  EXPECT_EQ(record->getRegion(), record);

  auto copy = record->copy();
  EXPECT_NE(copy, record);
  EXPECT_NE(copy->region(), region);
  EXPECT_TRUE(copy->region()->isEqual(region));
  EXPECT_EQ(copy->dictionary(), record->dictionary());

  AccessibilityRegionByRectangle absent(nullptr, 1);
  EXPECT_EQ(json::write(absent.dictionary()),
            R"({"left":0,"top":0,"width":0,"height":0,"type":"RegularText"})");
  EXPECT_EQ(absent.getRegion()->dictionary(), absent.dictionary());  // unowned: a copy
}

}  // namespace
}  // namespace saffra
