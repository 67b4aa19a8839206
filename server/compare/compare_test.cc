#include "server/compare/compare.h"

#include <gtest/gtest.h>

#include <array>

#include "server/compare/accessibility.h"

namespace saffra::compare {
namespace {

using Rgb = std::array<std::uint8_t, 3>;
constexpr Rgb kWhite{255, 255, 255}, kInk{20, 40, 120}, kRed{190, 30, 40}, kGrey{128, 128, 128};

void fill(Image& image, int x, int y, int w, int h, Rgb c) {
  for (int yy = y; yy < y + h; ++yy) {
    for (int xx = x; xx < x + w; ++xx) {
      std::uint8_t* p = image.mutableData() + (yy * image.width() + xx) * 4;
      p[0] = c[0], p[1] = c[1], p[2] = c[2], p[3] = 255;
    }
  }
}

// A page: a bordered card holding three lines of "glyphs" (small bars whose widths, places and
// heights depend on `text`, each line spanning the same extent), and a solid button at
// (buttonX, 130).
Image page(int text = 0, Rgb ink = kInk, int buttonX = 40) {
  Image image(240, 180);
  fill(image, 0, 0, 240, 180, kWhite);
  fill(image, 20, 20, 200, 90, kGrey);
  fill(image, 22, 22, 196, 86, kWhite);
  for (int line = 0; line < 3; ++line) {
    for (int g = 0; g < 24; ++g) {
      const bool narrow = text && g % 2 == 1;
      const int x = 30 + g * 7 + (narrow ? 2 : 0), y = 32 + line * 22;
      const int height = g % 8 == 0 ? 11 : 6 + ((g * 5 + line * 3 + text * (g % 3 + 1)) % 5);
      fill(image, x, y + 12 - height, narrow ? 2 : 4, height, ink);
    }
  }
  fill(image, buttonX, 130, 60, 24, kRed);
  return image;
}

CompareOptions at(MatchLevel level) {
  CompareOptions options;
  options.level = level;
  return options;
}

// Each level sees its kind of change; the same colours with other opacity are compared as
// they show over a white page.
TEST(CompareTest, EachLevelJudgesItsKindOfChange) {
  // Sets the alpha of every pixel, or of the ink only, or of the white only.
  const auto withAlpha = [](Image image, std::uint8_t alpha, bool ink, bool white) {
    for (std::size_t i = 0; i < image.width() * image.height(); ++i) {
      std::uint8_t* p = image.mutableData() + i * 4;
      const bool isWhite = p[0] == 255 && p[1] == 255 && p[2] == 255;
      if (isWhite ? white : ink) p[3] = alpha;
    }
    return image;
  };
  struct Case {
    const char* change;
    Image other;
    bool exact, strict, content, layout;  // expected matches
  };
  const Image base = page();
  Image without = page();
  fill(without, 40, 130, 60, 24, kWhite);
  const Case cases[] = {
      {"identical", page(), true, true, true, true},
      {"text recoloured", page(0, kRed), false, false, true, true},
      {"other text in the same boxes", page(1), false, false, false, true},
      {"button moved by 6 px", page(0, kInk, 46), false, false, false, false},
      {"button removed", without, false, false, false, false},
      {"all fully transparent", withAlpha(page(), 0, true, true), false, false, false, false},
      {"the ink half transparent", withAlpha(page(), 128, true, false), false, false, true, true},
      {"white made transparent", withAlpha(page(), 0, false, true), false, true, true, true},
      {"alpha 254", withAlpha(page(), 254, true, true), false, true, true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.change);
    EXPECT_EQ(compareImages(base, c.other, at(MatchLevel::Exact)).matches, c.exact);
    EXPECT_EQ(compareImages(base, c.other, at(MatchLevel::Strict)).matches, c.strict);
    EXPECT_EQ(compareImages(base, c.other, at(MatchLevel::Content)).matches, c.content);
    EXPECT_EQ(compareImages(base, c.other, at(MatchLevel::Layout)).matches, c.layout);
    EXPECT_TRUE(compareImages(base, c.other, at(MatchLevel::None)).matches);
  }
  // What Layout finds missing is the button.
  const CompareResult removed = compareImages(base, without, at(MatchLevel::Layout));
  ASSERT_FALSE(removed.differences.empty());
  EXPECT_GE(removed.differences.front().top, 120);
}

TEST(CompareTest, RegionsChangeHowTheirAreaIsCompared) {
  const Image base = page(), moved = page(0, kInk, 46), recoloured = page(0, kRed);
  const PixelRect button{30, 120, 90, 45}, card{20, 20, 200, 90};

  CompareOptions ignore;
  ignore.ignoreRegions = {button};
  EXPECT_TRUE(compareImages(base, moved, ignore).matches);

  CompareOptions content;
  content.contentRegions = {card};
  EXPECT_TRUE(compareImages(base, recoloured, content).matches);

  CompareOptions strictInside = at(MatchLevel::Layout);
  strictInside.strictRegions = {card};
  EXPECT_FALSE(compareImages(base, recoloured, strictInside).matches);

  // Empty, negative and far-away regions have no effect.
  CompareOptions odd;
  odd.ignoreRegions = {{40, 130, 0, 24},
                       {40, 130, 60, -5},
                       {5000, 5000, 10, 10},
                       {INT64_MAX - 5, 0, 100, 10},
                       {INT64_MIN, INT64_MIN, INT64_MAX, INT64_MAX}};
  EXPECT_FALSE(compareImages(base, moved, odd).matches);

  // Floating regions match within their offsets; beyond them the region is the difference.
  const PixelRect near{36, 126, 68, 32};
  CompareOptions within;
  within.floatingRegions = {{near, 0, 0, 0, 8}};
  EXPECT_TRUE(compareImages(base, moved, within).matches);
  CompareOptions outside;
  outside.floatingRegions = {{near, 10, 10, 10, 3}};
  const CompareResult r = compareImages(base, moved, outside);
  EXPECT_FALSE(r.matches);
  EXPECT_EQ(r.differences, std::vector<PixelRect>{near});
  EXPECT_GT(r.differingPixels, 0u);
  // Offsets beyond the image are cut to it; absurd ones neither crash nor stall.
  CompareOptions huge;
  huge.floatingRegions = {{near, INT64_MAX, INT64_MIN, 1'000'000'000, 1'000'000'000}};
  EXPECT_TRUE(compareImages(base, moved, huge).matches);
}

TEST(CompareTest, SizesAndTinyImages) {
  const CompareResult sizes = compareImages(Image(10, 10), Image(10, 11), at(MatchLevel::None));
  EXPECT_FALSE(sizes.matches);
  EXPECT_TRUE(sizes.sizesDiffer);
  EXPECT_EQ(sizes.differences, (std::vector<PixelRect>{{0, 0, 10, 11}}));
  const Image diff = makeDiffImage(Image(10, 10), sizes);
  EXPECT_EQ(diff.height(), 11u);
  EXPECT_EQ(diff.pixel(3, 10)[0], 255);
  EXPECT_EQ(diff.pixel(3, 10)[1], 0);

  Image one(1, 1), other(1, 1);
  fill(one, 0, 0, 1, 1, kWhite);
  fill(other, 0, 0, 1, 1, kInk);
  EXPECT_TRUE(compareImages(one, one, at(MatchLevel::Exact)).matches);
  EXPECT_FALSE(compareImages(one, other, at(MatchLevel::Exact)).matches);
  // A lone pixel is below what Strict calls a visible change.
  EXPECT_TRUE(compareImages(one, other).matches);

  // Fully transparent pixels are equal whatever colour they carry.
  Image clearA(2, 2), clearB(2, 2);
  clearB.mutableData()[0] = 200;
  EXPECT_TRUE(compareImages(clearA, clearB, at(MatchLevel::Exact)).matches);
}

// The moved button differs in two strips, where it was and where it now is; the diff image
// marks them over a faded baseline.
TEST(CompareTest, DifferenceBoxesAndDiffImageShowTheChange) {
  const Image base = page();
  const CompareResult r = compareImages(base, page(0, kInk, 46));
  EXPECT_EQ(r.differences, (std::vector<PixelRect>{{40, 130, 6, 24}, {100, 130, 6, 24}}));
  // All 2 * 6 * 24 pixels but a few corners that a one-pixel move would explain.
  EXPECT_LE(r.differingPixels, 2u * 6 * 24);
  EXPECT_GE(r.differingPixels, 2u * 6 * 24 - 4);

  ASSERT_EQ(r.mask.size(), base.width() * base.height());
  const Image diff = makeDiffImage(base, r);
  ASSERT_EQ(diff.width(), base.width());
  const std::uint8_t* changed = diff.pixel(42, 140);  // left strip the button left
  EXPECT_EQ((Rgb{changed[0], changed[1], changed[2]}), (Rgb{255, 0, 0}));
  const std::uint8_t* ink = diff.pixel(31, 40);  // unchanged dark glyph: grey and faded
  EXPECT_EQ(ink[0], ink[1]);
  EXPECT_GT(ink[0], 150);
  const std::uint8_t* outline = diff.pixel(39, 129);  // the box outline, one pixel outside
  EXPECT_EQ(outline[0], 255);
  EXPECT_EQ(outline[1], 0);
  // Without a mask only the faded baseline and the outlines are drawn.
  CompareOptions noMask;
  noMask.keepMask = false;
  const CompareResult bare = compareImages(base, page(0, kInk, 46), noMask);
  EXPECT_TRUE(bare.mask.empty());
  EXPECT_NE(makeDiffImage(base, bare).pixel(42, 140)[1], 0);
}

TEST(AccessibilityTest, ContrastOfDominantColoursAgainstTheLevel) {
  using T = AccessibilityRegionType;
  using L = AccessibilityLevel;
  struct Case {
    Rgb text;
    T type;
    L level;
    bool checked, passed;
  };
  const Rgb black{0, 0, 0}, light{153, 153, 153}, mid{118, 118, 118};
  const Case cases[] = {
      {black, T::RegularText, L::AAA, true, true},
      {light, T::RegularText, L::AA, true, false},
      {light, T::LargeText, L::AA, true, false},
      {mid, T::RegularText, L::AA, true, true},
      {mid, T::RegularText, L::AAA, true, false},
      {mid, T::BoldText, L::AAA, true, true},
      {light, T::IgnoreContrast, L::AAA, false, true},
      {light, T::RegularText, L::None, false, true},
  };
  for (const Case& c : cases) {
    Image image(60, 30);
    fill(image, 0, 0, 60, 30, kWhite);
    fill(image, 10, 8, 30, 10, c.text);
    CompareOptions options;
    options.accessibilityLevel = c.level;
    options.accessibilityRegions = {{{0, 0, 60, 30}, c.type}};
    const CompareResult r = compareImages(image, image, options);
    ASSERT_EQ(r.accessibility.size(), 1u);
    EXPECT_EQ(r.accessibility[0].checked, c.checked);
    EXPECT_EQ(r.accessibility[0].passed, c.passed) << r.accessibility[0].contrastRatio;
    EXPECT_TRUE(r.matches);
  }
  EXPECT_NEAR(contrastRatio(relativeLuminance(0, 0, 0), relativeLuminance(255, 255, 255)), 21,
              1e-9);
  EXPECT_NEAR(contrastRatio(relativeLuminance(118, 118, 118), 1.0), 4.54, 0.01);

  // A region of one colour, or one outside the image, measures 1:1 and fails a check.
  const AccessibilityResult flat =
      checkContrast(page(), {{5000, 0, 10, 10}, T::GraphicalObject}, L::AA);
  EXPECT_EQ(flat.contrastRatio, 1);
  EXPECT_FALSE(flat.passed);
}

TEST(CompareOptionsTest, ReadsTheWireSettings) {
  const Json settings = Json::parse(R"({
    "matchLevel": "Layout", "accessibilityLevel": "AAA", "ignoreCaret": false,
    "Ignore": [{"left": 1, "top": 2, "width": 3, "height": 4}], "Layout": [], "Strict": "junk",
    "Content": [{"left": "5", "top": 6.9, "width": 7, "height": 8}, 12],
    "Floating": [{"left": 1, "top": 1, "width": 5, "height": 5, "maxUpOffset": 2,
                  "maxDownOffset": 3, "maxLeftOffset": 4, "maxRightOffset": 0}],
    "accessibility": [{"left": 0, "top": 0, "width": 9, "height": 9, "type": "LargeText"},
                      {"left": 0, "top": 0, "width": 9, "height": 9, "type": "Whatever"}]})");
  const CompareOptions o = CompareOptions::fromJson(settings);
  EXPECT_EQ(o.level, MatchLevel::Layout);
  EXPECT_EQ(o.accessibilityLevel, AccessibilityLevel::AAA);
  EXPECT_EQ(o.ignoreRegions, (std::vector<PixelRect>{{1, 2, 3, 4}}));
  EXPECT_TRUE(o.strictRegions.empty());
  EXPECT_EQ(o.contentRegions, (std::vector<PixelRect>{{5, 6, 7, 8}}));
  ASSERT_EQ(o.floatingRegions.size(), 1u);
  EXPECT_EQ(o.floatingRegions[0].maxLeftOffset, 4);
  ASSERT_EQ(o.accessibilityRegions.size(), 2u);
  EXPECT_EQ(o.accessibilityRegions[0].type, AccessibilityRegionType::LargeText);
  EXPECT_EQ(o.accessibilityRegions[1].type, AccessibilityRegionType::GraphicalObject);
  EXPECT_EQ(CompareOptions::fromJson(Json::parse(R"({"matchLevel": "Bogus"})")).level,
            MatchLevel::Strict);
  EXPECT_EQ(CompareOptions::fromJson(Json::array()).level, MatchLevel::Strict);
  EXPECT_EQ(matchLevelName(static_cast<MatchLevel>(0)), "Strict");
  EXPECT_EQ(accessibilityRegionTypeName(static_cast<AccessibilityRegionType>(9)),
            "GraphicalObject");
}

}  // namespace
}  // namespace saffra::compare
