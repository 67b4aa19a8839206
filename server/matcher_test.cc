// How a step's settings reach the comparison engine (the verdicts themselves are the engine's;
// the protocol tests check that they travel from the request to the reply), and how uploads are
// compared while they decode.
#include "server/matcher.h"

#include <gtest/gtest.h>

#include <zlib.h>

#include <algorithm>

#include "saffra/platform/exception.h"
#include "saffra/platform/png.h"
#include "server/pixel_pool.h"
#include "server/service_test_support.h"
#include "testing/png_files.h"

namespace saffra::server {
namespace {

using saffra::testing::readFile;
using testing::kWhite;

TEST(MatcherTest, AccessibilityIsCheckedOnlyWithRegions) {
  using testing::solidPng;
  auto text = Image::fromPNGData(solidPng(60, 40, kWhite, PixelRect{10, 10, 20, 5}));  // 21:1
  auto faint = Image::fromPNGData(
      solidPng(60, 40, kWhite, PixelRect{10, 10, 20, 5}, {130, 130, 130, 255}));  // 3.8:1
  MatchSettings s;
  EXPECT_FALSE(checkAccessibility(*text, s));

  s.accessibility = {{{0, 0, 60, 40}, AccessibilityRegionType::RegularText}};
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
    s.accessibility[0].type = compare::accessibilityRegionTypeFromName(c.type);
    s.accessibilityLevel = compare::accessibilityLevelFromName(c.level);
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
  EXPECT_EQ(s.accessibility[0].type, AccessibilityRegionType::LargeText);
  EXPECT_EQ(s.accessibilityLevel, AccessibilityLevel::AAA);
  EXPECT_TRUE(s.ignoreDisplacements);

  EXPECT_EQ(MatchSettings::fromJson(Json{{"matchLevel", "strict"}}).matchLevel, MatchLevel::Strict);
  EXPECT_EQ(MatchSettings::fromJson(Json{{"matchLevel", "Exact"}}).matchLevel, MatchLevel::Exact);
  EXPECT_EQ(MatchSettings::fromJson(Json("text")).matchLevel, MatchLevel::Strict);

  // Unlike the engine's own reader: numeric levels are not names, and a region without a
  // readable type is checked as a graphical object.
  EXPECT_EQ(MatchSettings::fromJson(Json{{"matchLevel", 5}}).matchLevel, MatchLevel::Strict);
  Json untyped{
      {"accessibility",
       Json::array({{{"left", 1}}, "junk", {{"type", Json::array()}}, {{"type", "BoldText"}}})}};
  std::vector<AccessibilityRegionType> types;
  for (const auto& r : MatchSettings::fromJson(untyped).accessibility) types.push_back(r.type);
  EXPECT_EQ(types, std::vector<AccessibilityRegionType>({AccessibilityRegionType::GraphicalObject,
                                                         AccessibilityRegionType::GraphicalObject,
                                                         AccessibilityRegionType::BoldText}));
}

// An upload compared while it is decoded gets the verdict and findings of decoding first: with
// a baseline whose file's bands it shares (copied, not compared) or not, also when the fast
// decoder gives up on it (other kinds of PNG) or it turns out damaged late.
TEST(MatcherTest, ComparingWhileDecodingGivesTheVerdictOfDecodingFirst) {
  const std::string pairs = std::string(SAFFRA_CORPUS_DIR) + "/pairs/";
  const auto baseline = Image::fromPNGFile(pairs + "phone-help-steps-1170x2532.png");
  auto pool = std::make_shared<PixelPool>(2, 64u << 20);
  const DecodedImage plain{baseline, nullptr};
  const DecodedImage banded = pool->decode(baseline->pngData());
  ASSERT_TRUE(banded.bands);
  EXPECT_EQ(banded.image->pixels(), baseline->pixels());
  for (const DecodedImage* reference : {&plain, &banded}) {
    for (const char* kind : {"word", "aa", "shift"}) {
      SCOPED_TRACE(kind);
      const auto changed =
          Image::fromPNGFile(pairs + "phone-help-steps-1170x2532--" + kind + ".png");
      MatchSettings settings;
      const MatchOutcome expected = matchImages(*baseline, *changed, settings);
      const DecodedMatch got = decodeAndMatch(*pool, changed->pngData(), *reference, settings);
      EXPECT_EQ(got.current->pixels(), changed->pixels());
      EXPECT_EQ(got.outcome.matches, expected.matches);
      ASSERT_EQ(!got.outcome.comparison, !expected.comparison);
      if (expected.comparison) {
        EXPECT_EQ(got.outcome.comparison->differences, expected.comparison->differences);
        EXPECT_EQ(got.outcome.comparison->differingPixels, expected.comparison->differingPixels);
        EXPECT_EQ(got.outcome.comparison->mask, expected.comparison->mask);
      }
    }
  }

  // A palette file: the general decoder's image is compared after decoding.
  const std::vector<std::uint8_t> palette = readFile(SAFFRA_CORPUS_DIR "/icon-tile-64x64.png");
  const auto icon = Image::fromPNGData(palette);
  // The caller's work beside the decoding runs once, whatever way the file is decoded.
  int calls = 0;
  const DecodedMatch same =
      decodeAndMatch(*pool, palette, DecodedImage{icon, nullptr}, {}, [&] { ++calls; });
  EXPECT_TRUE(same.outcome.matches);
  EXPECT_EQ(calls, 1);
  calls = 0;
  EXPECT_TRUE(
      decodeAndMatch(*pool, baseline->pngData(), banded, {}, [&] { ++calls; }).outcome.matches);
  EXPECT_EQ(calls, 1);

  // Damage near the end of the pixel data (the chunk's checksum kept right): most rows are
  // decoded, and compared, before the decoding fails.
  std::vector<std::uint8_t> damaged = baseline->pngData();
  ASSERT_EQ(std::string(damaged.end() - 8, damaged.end() - 4), "IEND");
  const char* idat = "IDAT";
  const std::size_t type =
      std::search(damaged.begin(), damaged.end(), idat, idat + 4) - damaged.begin();
  const std::size_t crcAt = damaged.size() - 16;  // the pixel data's checksum, before IEND
  for (std::size_t k = 12; k < 40; ++k) damaged[crcAt - k] ^= 0x5A;
  const uLong crc = crc32(0, &damaged[type], static_cast<uInt>(crcAt - type));
  for (int b = 0; b < 4; ++b) damaged[crcAt + b] = static_cast<std::uint8_t>(crc >> (24 - 8 * b));
  for (const DecodedImage* reference : {&plain, &banded}) {
    calls = 0;
    EXPECT_THROW(decodeAndMatch(*pool, damaged, *reference, {}, [&] { ++calls; }), Exception);
    EXPECT_EQ(calls, 1);  // the bands were tried first, beside it
  }
}

}  // namespace
}  // namespace saffra::server
