#include "saffra/checks/check_settings.h"

#include <gtest/gtest.h>

#include "saffra/checks/accessibility_region_by_rectangle.h"
#include "saffra/checks/region_providers.h"

namespace saffra {
namespace {

std::shared_ptr<Region> region(std::int64_t l, std::int64_t t, std::int64_t w, std::int64_t h) {
  return std::make_shared<Region>(l, t, w, h);
}

// Every field of settings at its default except the ones a test names.
void expectDefaultsExceptLevel(const CheckSettings& s) {
  EXPECT_TRUE(s.getTargetRegion() && s.getTargetRegion()->isEmpty());
  EXPECT_EQ(s.getTimeoutInSeconds(), 0);
  EXPECT_FALSE(s.getStitchContent());
  EXPECT_FALSE(s.getIgnoreCaret());
  EXPECT_FALSE(s.getWithStatusBar());
  EXPECT_FALSE(s.getIgnoreDisplacements());
  EXPECT_FALSE(s.getEnablePatterns());
  EXPECT_TRUE(s.getIgnoredRegions().empty());
  EXPECT_TRUE(s.getLayoutRegions().empty());
  EXPECT_TRUE(s.getStrictRegions().empty());
  EXPECT_TRUE(s.getContentRegions().empty());
  EXPECT_TRUE(s.getFloatingRegions().empty());
  EXPECT_TRUE(s.getAccessibilityRegions().empty());
}

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
    expectDefaultsExceptLevel(*result);
  }
}

TEST(CheckSettingsTest, PlainSettingsAreCopiedImageSettingsChangeInPlace) {
  auto plain = std::make_shared<CheckSettings>();
  auto changed = plain->ignoreCaret()->ignore({region(1, 2, 3, 4)})->timeoutInSeconds(7);
  EXPECT_NE(changed, plain);
  EXPECT_FALSE(plain->getIgnoreCaret());
  EXPECT_TRUE(plain->getIgnoredRegions().empty());
  EXPECT_EQ(plain->getTimeoutInSeconds(), 0);
  EXPECT_TRUE(changed->getIgnoreCaret());
  EXPECT_EQ(changed->getTimeoutInSeconds(), 7);

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
  EXPECT_TRUE(copy->getWithStatusBar());
  EXPECT_TRUE(copy->getEnablePatterns());
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

  auto snapshot = original->getIgnoredRegions();
  original->ignoreRegion(region(3, 3, 3, 3));
  EXPECT_EQ(snapshot.size(), 1u);
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
  auto floating = settings->getFloatingRegions();
  ASSERT_EQ(floating.size(), 3u);
  for (int i = 0; i < 2; ++i) {
    auto r = floating[i]->getRegion();
    EXPECT_EQ(r->maxUpOffset(), 5);
    EXPECT_EQ(r->maxDownOffset(), 5);
    EXPECT_EQ(r->maxLeftOffset(), 5);
    EXPECT_EQ(r->maxRightOffset(), 5);
  }
  EXPECT_EQ(floating[1]->getRegion()->left(), 20);
  auto explicitOne = floating[2]->getRegion();
  EXPECT_EQ(explicitOne->maxUpOffset(), 1);
  EXPECT_EQ(explicitOne->maxDownOffset(), 2);
  EXPECT_EQ(explicitOne->maxRightOffset(), 3);
  EXPECT_EQ(explicitOne->maxLeftOffset(), 4);
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
  EXPECT_FALSE(settings->getIgnoreDisplacements());
  EXPECT_TRUE(settings->getEnablePatterns());
  EXPECT_EQ(settings->getMatchLevel(), MatchLevelNone);
}

TEST(CheckSettingsTest, ImageSettingsOffTheHeapReturnACopy) {
  ImagesCheckSettings onStack(nullptr);
  auto result = onStack.layout();
  EXPECT_EQ(result->getMatchLevel(), MatchLevelLayout);
  EXPECT_EQ(onStack.getMatchLevel(), MatchLevelNone);
}

}  // namespace
}  // namespace saffra
