#include "saffra/platform/json.h"

#include <gtest/gtest.h>

#include <cmath>

#include "saffra/platform/exception.h"

namespace saffra {
namespace {

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
  EXPECT_EQ(json::write(d),
            R"({"z":10,"a":"a\/b \"q\"\n\u0001","f":1125.300048828125,"n":null,"l":[true,false,0,2.5],"u":"é"})");
  EXPECT_THROW(json::write(Json(NAN)), Exception);
}

TEST(JsonTest, LenientReadersFollowFoundation) {
  struct Case {
    Json value;
    std::int64_t integer;
    bool boolean;
  };
  const Case cases[] = {
      {Json(12.9), 12, true},          {Json(-12.9), -12, true},       {Json("12abc"), 12, true},
      {Json("abc"), 0, false},         {Json("  -7x"), -7, true},      {Json("Yes"), 0, true},
      {Json("t"), 0, true},            {Json(" +0009"), 9, true},      {Json("0"), 0, false},
      {Json("no"), 0, false},          {Json(true), 1, true},          {Json(false), 0, false},
      {Json(nullptr), 0, false},       {Json::array({1}), 0, false},   {Json(1e300), INT64_MAX, true},
      {Json("99999999999999999999"), INT64_MAX, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(json::integerValue(c.value), c.integer) << c.value.dump();
    EXPECT_EQ(json::boolValue(c.value), c.boolean) << c.value.dump();
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

}  // namespace
}  // namespace saffra
