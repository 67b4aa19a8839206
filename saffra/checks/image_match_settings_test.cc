#include "saffra/checks/image_match_settings.h"

#include <gtest/gtest.h>

#include <limits>

#include "saffra/platform/exception.h"

namespace saffra {
namespace {

TEST(ImageMatchSettingsTest, DefaultWireForm) {
  auto settings = ImageMatchSettings::defaultImageMatchSettings();
  EXPECT_NE(settings, ImageMatchSettings::defaultImageMatchSettings());
  EXPECT_EQ(json::write(settings->dictionary()),
            R"({"matchLevel":"Strict","accessibilityLevel":"None","ignoreCaret":false,)"
            R"("IgnoreDisplacements":false,"enablePatterns":false,"Ignore":[],"Layout":[],)"
            R"("Strict":[],"Content":[],"Floating":[],"accessibility":[]})");
  EXPECT_EQ(settings->description(), "Match level: Strict");
}

TEST(ImageMatchSettingsTest, FullWireFormKeepsOrderAndKeyCase) {
  ImageMatchSettings settings(MatchLevelLayout);
  settings.setIgnoreCaret(true);
  settings.setIgnoreDispacements(true);
  settings.setAccessibilityLevel(AccessibilityLevelAAA);
  settings.setIgnoredRegions(
      {std::make_shared<Region>(1, 2, 3, 4), std::make_shared<Region>(5, 6, 7, 8)});
  settings.setContentRegions({std::make_shared<Region>(0, 0, 10, 10)});
  settings.setFloatingRegions({std::make_shared<FloatingMatchSettings>(1, 2, 3, 4, 5, 6, 7, 8)});
  settings.setAccessibility({std::make_shared<AccessibilityRegionByRectangle>(
      9, 8, 7, 6, AccessibilityRegionTypeBoldText)});

  EXPECT_EQ(
      json::write(settings.dictionary()),
      R"({"matchLevel":"Layout","accessibilityLevel":"AAA","ignoreCaret":true,)"
      R"("IgnoreDisplacements":true,"enablePatterns":false,)"
      R"("Ignore":[{"left":1,"top":2,"width":3,"height":4},{"left":5,"top":6,"width":7,"height":8}],)"
      R"("Layout":[],"Strict":[],"Content":[{"left":0,"top":0,"width":10,"height":10}],)"
      R"("Floating":[{"left":1,"top":2,"width":3,"height":4,"maxUpOffset":5,"maxDownOffset":6,)"
      R"("maxLeftOffset":7,"maxRightOffset":8}],)"
      R"("accessibility":[{"left":9,"top":8,"width":7,"height":6,"type":"BoldText"}]})");
  EXPECT_EQ(settings.description(), "Match level: Layout");
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
  EXPECT_EQ(AccessibilityLevelConverter::toString(0), "None");
  EXPECT_EQ(AccessibilityLevelConverter::toString(1), "AA");
  EXPECT_EQ(AccessibilityLevelConverter::toString(2), "AAA");
  EXPECT_EQ(AccessibilityLevelConverter::toString(3), "None");
  EXPECT_EQ(AccessibilityLevelConverter::toString(huge), "None");

  const char* types[] = {"IgnoreContrast", "RegularText", "LargeText", "BoldText",
                         "GraphicalObject"};
  for (std::uint64_t t = 0; t < 5; ++t)
    EXPECT_EQ(AccessibilityRegionByRectangle::typeToString(t), types[t]);
  EXPECT_EQ(AccessibilityRegionByRectangle::typeToString(7), "GraphicalObject");
  EXPECT_EQ(AccessibilityRegionByRectangle::typeToString(huge), "GraphicalObject");
}

TEST(ImageMatchSettingsTest, AccessibilityLevelFromStringIsExact) {
  EXPECT_EQ(AccessibilityLevelConverter::fromString("AA"), AccessibilityLevelAA);
  EXPECT_EQ(AccessibilityLevelConverter::fromString("AAA"), AccessibilityLevelAAA);
  for (const OptString& s : {OptString("aa"), OptString("None"), OptString(""), OptString(" AA"),
                             OptString("AAAA"), OptString()}) {
    EXPECT_EQ(AccessibilityLevelConverter::fromString(s), AccessibilityLevelNone)
        << s.value_or("(null)");
  }
}

TEST(ImageMatchSettingsTest, ListsAreCopiedWhenSetButRegionsAreShared) {
  ImageMatchSettings settings;
  auto region = std::make_shared<Region>(1, 1, 1, 1);
  ImageMatchSettings::RegionList list{region};
  settings.setStrictRegions(list);
  list.push_back(std::make_shared<Region>(2, 2, 2, 2));
  EXPECT_EQ(settings.strictRegions().size(), 1u);
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

  auto byIntegers = std::make_shared<AccessibilityRegionByRectangle>(1, 2, 3, 4, 0);
  ASSERT_TRUE(byIntegers->region());
  EXPECT_EQ(byIntegers->region()->description(), "{{1, 2}, {3, 4}}");

  AccessibilityRegionByRectangle absent(nullptr, 1);
  EXPECT_EQ(json::write(absent.dictionary()),
            R"({"left":0,"top":0,"width":0,"height":0,"type":"RegularText"})");
  EXPECT_EQ(absent.getRegion()->dictionary(), absent.dictionary());  // unowned: a copy
}

}  // namespace
}  // namespace saffra
