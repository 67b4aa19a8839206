// The small utilities: text formatting, rectangles, JSON, dates, waits, identifiers and system
// facts.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <thread>

#include "saffra/platform/date.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/expectation.h"
#include "saffra/platform/format.h"
#include "saffra/platform/geometry.h"
#include "saffra/platform/json.h"
#include "saffra/platform/system_info.h"
#include "saffra/platform/uuid.h"
#include "saffra/version.h"
#include "testing/scoped_environment.h"

namespace saffra {
namespace {

struct Described {
  std::string description() const { return "<described>"; }
};

TEST(FormatTest, RendersEachPlaceholderKindAndToleratesBadFormats) {
  OptString absent;
  std::shared_ptr<Described> none;
  EXPECT_EQ(format("Close batch with ID: %@", std::string("B1")), "Close batch with ID: B1");
  EXPECT_EQ(format("%@|%@|%@", absent, none, nullptr), "(null)|(null)|(null)");
  EXPECT_EQ(format("%@ %@", std::make_shared<Described>(), Described{}), "<described> <described>");
  EXPECT_EQ(format("%li %ld %lu %d", -5L, 7, 9u, true), "-5 7 9 1");
  EXPECT_EQ(format("%f %.2f %fx%f", 1.5, 2.0 / 3, 375.0, 667.0),
            "1.500000 0.67 375.000000x667.000000");
  EXPECT_EQ(format("100%% %@", 7.5), "100% 7.5");
  // Missing arguments and unknown placeholders.
  EXPECT_EQ(format("a %@ b %li"), "a (null) b 0");
  EXPECT_EQ(format("%q %x trailing %", 1), "%q %x trailing %");
  EXPECT_EQ(format("%li", 3.9), "3");
  EXPECT_EQ(format("%li", -3.9), "-3");
}

TEST(GeometryTest, TextUsesShortestNumbersAndTestsStandardise) {
  EXPECT_EQ(toString(Rect(10, 20, 30, 40)), "{{10, 20}, {30, 40}}");
  EXPECT_EQ(toString(Rect(5, 5, 7.5, 7.5)), "{{5, 5}, {7.5, 7.5}}");
  EXPECT_EQ(toString(Size{375, 667}), "{375, 667}");
  EXPECT_EQ(toString(Rect(-0.0, 0.1, 1e20, -2)), "{{0, 0.1}, {1e+20, -2}}");

  // Intersection and containment follow standardised rectangles.
  Rect a(0, 0, 100, 200);
  EXPECT_EQ(rectIntersection(a, Rect(90, 190, 50, 50)), Rect(90, 190, 10, 10));
  EXPECT_TRUE(rectIntersection(a, Rect(150, 10, 10, 10)).isNull());
  EXPECT_FALSE(rectIntersectsRect(a, Rect(100, 0, 10, 10)));   // touching edges only
  EXPECT_TRUE(rectIntersectsRect(a, Rect(110, 10, -20, 10)));  // negative width standardised
  EXPECT_TRUE(rectContainsRect(a, Rect(0, 0, 100, 200)));
  EXPECT_FALSE(rectContainsRect(a, Rect(1, 1, 100, 1)));
  EXPECT_FALSE(rectContainsRect(Rect(), Rect()));
}

TEST(JsonTest, ParseRejectsWhatThePlatformRejects) {
  EXPECT_TRUE(json::parse(R"({"a":1})"));
  EXPECT_TRUE(json::parse("[]"));
  EXPECT_FALSE(json::parse(""));
  EXPECT_FALSE(json::parse("<html>500</html>"));
  EXPECT_FALSE(json::parse("42"));  // fragments are not accepted
  EXPECT_FALSE(json::parse(R"({"a":)"));
  EXPECT_FALSE(json::parse(std::string(100000, '[') + std::string(100000, ']')));
  EXPECT_TRUE(json::parse(std::string(500, '[') + std::string(500, ']')));
}

TEST(JsonTest, WriteIsCompactOrderedAndEscapesLikeThePlatform) {
  Json d = Json::object();
  d["z"] = 10.0;
  d["a"] = "a/b \"q\"\n\x01";
  d["f"] = static_cast<double>(1125.3f);
  d["n"] = nullptr;
  d["l"] = Json::array({true, false, -0.0, 2.5});
  d["u"] = "é";
  EXPECT_EQ(
      json::write(d),
      R"({"z":10,"a":"a\/b \"q\"\n\u0001","f":1125.300048828125,"n":null,"l":[true,false,0,2.5],"u":"é"})");
  EXPECT_THROW(json::write(Json(NAN)), Exception);
}

TEST(JsonTest, LenientReadersFollowFoundation) {
  // JSON text of the value, its integer and its truth.
  const std::tuple<const char*, std::int64_t, bool> cases[] = {
      {"12.9", 12, true},         {"-12.9", -12, true},
      {R"("12abc")", 12, true},   {R"("abc")", 0, false},
      {R"("  -7x")", -7, true},   {R"("Yes")", 0, true},
      {R"("t")", 0, true},        {R"(" +0009")", 9, true},
      {R"("0")", 0, false},       {R"("no")", 0, false},
      {"true", 1, true},          {"false", 0, false},
      {"null", 0, false},         {"[1]", 0, false},
      {"1e300", INT64_MAX, true}, {R"("99999999999999999999")", INT64_MAX, true},
  };
  for (const auto& [text, integer, boolean] : cases) {
    EXPECT_EQ(json::integerValue(Json::parse(text)), integer) << text;
    EXPECT_EQ(json::boolValue(Json::parse(text)), boolean) << text;
  }
  EXPECT_DOUBLE_EQ(json::floatValue(Json(1125.3)), 1125.300048828125);
  EXPECT_DOUBLE_EQ(json::floatValue(Json("2.5px")), 2.5);
  EXPECT_DOUBLE_EQ(json::doubleValue(Json("nan")), 0);
  EXPECT_EQ(json::stringValue(Json(5)), "5");
  EXPECT_EQ(json::stringValue(Json::object()), std::nullopt);
}

TEST(JsonTest, DescriptionIsPropertyListStyle) {
  Json d = Json::object();
  d["status"] = "Passed";
  d["url"] = "http://x/y";
  d["steps"] = Json::array({1, "two words"});
  EXPECT_EQ(json::description(d),
            "{\n    status = Passed;\n    steps = (\n        1,\n        \"two words\"\n    );\n"
            "    url = \"http://x/y\";\n}");
}

TEST(DateFormatterTest, PatternsRenderInLocalTime) {
  ScopedEnvironment tz({{"TZ", "CET-1"}});
  const Date march5(std::chrono::milliseconds(1709644029123));  // 2024-03-05 13:07:09.123 UTC
  const std::pair<const char*, const char*> cases[] = {
      {"yyyy_MM_dd_HH_mm_ss_SSS", "2024_03_05_14_07_09_123"},
      {"HH:mm:ss", "14:07:09"},
      {"yyyy-MM-dd HH:mm:ssZ", "2024-03-05 14:07:09+0100"},
      {"'at' h a", "at 2 PM"},
      {"yyyy-MM-ddTHH:mm:ssZ", "2024-03-05"},  // an unknown letter (the unquoted T) ends the text
  };
  for (const auto& [pattern, text] : cases) {
    EXPECT_EQ(DateFormatter(pattern).stringFromDate(march5), text) << pattern;
  }
}

TEST(WaiterTest, CompletesOrTimesOut) {
  auto done = std::make_shared<Expectation>("done");
  std::thread worker([done] { done->fulfill(); });
  EXPECT_EQ(Waiter::waitForExpectations({done}, 5), WaiterResult::Completed);
  worker.join();
  auto never = std::make_shared<Expectation>("never");
  EXPECT_EQ(Waiter::waitForExpectations({never}, 0.05), WaiterResult::TimedOut);
}

TEST(PlatformTest, UuidsAndSystemFacts) {
  std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::string a = newUUIDString();
  EXPECT_TRUE(std::regex_match(a, form)) << a;
  EXPECT_NE(a, newUUIDString());

  auto v = system_info::parseOSVersion("6.1.0-18-amd64");
  EXPECT_EQ(v.major, 6);
  EXPECT_EQ(v.minor, 1);
  EXPECT_EQ(system_info::parseOSVersion("garbage").major, 0);
  EXPECT_FALSE(system_info::hostName().empty());
  EXPECT_EQ(SaffraImagesVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(SaffraImagesVersionString),
               "@(#)PROGRAM:SaffraImages  PROJECT:Quorvant-1\n");
}

}  // namespace
}  // namespace saffra
