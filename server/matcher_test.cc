// How a step's settings reach the comparison engine. The verdicts themselves are the
// engine's; the protocol tests check that they travel from the request to the reply.
#include "server/matcher.h"

#include <gtest/gtest.h>

#include "server/service_test_support.h"

namespace saffra::server {
namespace {

using testing::kBlack;
using testing::kWhite;
using testing::Rgba;

std::shared_ptr<Image> image(std::size_t w, std::size_t h, Rgba fill,
                             std::optional<PixelRect> patch = std::nullopt, Rgba colour = kBlack) {
  return Image::fromPNGData(testing::solidPng(w, h, fill, patch, colour));
}

TEST(MatcherTest, AccessibilityIsCheckedOnlyWithRegions) {
  auto text = image(60, 40, kWhite, PixelRect{10, 10, 20, 5});                         // 21:1
  auto faint = image(60, 40, kWhite, PixelRect{10, 10, 20, 5}, {130, 130, 130, 255});  // 3.8:1
  MatchSettings s;
  EXPECT_FALSE(checkAccessibility(*text, s));

  s.accessibility = {{{0, 0, 60, 40}, "RegularText"}};
  struct Case {
    const char* label;
    const Image& image;
    std::string type, level;
    bool passed;
    const char* checkedLevel;
  };
  for (const Case& c : std::vector<Case>{
           {"black text", *text, "RegularText", "AA", true, "AA"},
           {"faint text", *faint, "RegularText", "AA", false, "AA"},
           {"faint large text", *faint, "LargeText", "AA", true, "AA"},
           {"faint large text, AAA", *faint, "LargeText", "AAA", false, "AAA"},
           {"faint text, contrast ignored", *faint, "IgnoreContrast", "AAA", true, "AAA"},
           {"level None checks as AA", *faint, "RegularText", "None", false, "AA"},
       }) {
    s.accessibility[0].type = c.type;
    s.accessibilityLevel = c.level;
    auto verdict = checkAccessibility(c.image, s);
    ASSERT_TRUE(verdict) << c.label;
    EXPECT_EQ(verdict->passed, c.passed) << c.label;
    EXPECT_EQ(verdict->level, c.checkedLevel) << c.label;
  }
}

TEST(MatchSettingsTest, ReadsTheWireFormLeniently) {
  Json wire = testing::wireSettings("Layout", Json::array({testing::region(1, 2, 3, 4), "junk"}));
  wire["Floating"] = Json::array({{{"left", 5},
                                   {"top", 6},
                                   {"width", 7},
                                   {"height", 8},
                                   {"maxUpOffset", 9},
                                   {"maxRightOffset", "10"}}});
  wire["accessibility"] = Json::array({{{"left", 1}, {"type", "LargeText"}}});
  wire["accessibilityLevel"] = "AAA";
  wire["IgnoreDisplacements"] = true;
  wire["Layout"] = "not a list";
  MatchSettings s = MatchSettings::fromJson(wire);
  EXPECT_EQ(s.matchLevel, MatchLevel::Layout);
  EXPECT_EQ(s.ignore, std::vector<PixelRect>({{1, 2, 3, 4}}));
  EXPECT_TRUE(s.layout.empty());
  ASSERT_EQ(s.floating.size(), 1u);
  EXPECT_EQ(s.floating[0].rect, (PixelRect{5, 6, 7, 8}));
  EXPECT_EQ(s.floating[0].maxUpOffset, 9);
  EXPECT_EQ(s.floating[0].maxRightOffset, 10);
  ASSERT_EQ(s.accessibility.size(), 1u);
  EXPECT_EQ(s.accessibility[0].type, "LargeText");
  EXPECT_EQ(s.accessibilityLevel, "AAA");
  EXPECT_TRUE(s.ignoreDisplacements);

  EXPECT_EQ(MatchSettings::fromJson(Json{{"matchLevel", "strict"}}).matchLevel, MatchLevel::Strict);
  EXPECT_EQ(MatchSettings::fromJson(Json{{"matchLevel", "Exact"}}).matchLevel, MatchLevel::Exact);
  EXPECT_EQ(MatchSettings::fromJson(Json("text")).matchLevel, MatchLevel::Strict);
}

}  // namespace
}  // namespace saffra::server
