#include "saffra/service/match_window_data.h"

#include <gtest/gtest.h>

#include "saffra/images/logger.h"
#include "saffra/platform/exception.h"

namespace saffra {
namespace {

std::shared_ptr<Options> options(const OptString& name, const OptString& source,
                                 bool ignoreMismatch = false) {
  auto settings = std::make_shared<ImageMatchSettings>(MatchLevelContent);
  settings->setIgnoredRegions({std::make_shared<Region>(1, 2, 3, 4)});
  return std::make_shared<Options>(name, ignoreMismatch, false, false, false, settings, source);
}

const char* kSettings =
    R"({"matchLevel":"Content","accessibilityLevel":"None","ignoreCaret":false,)"
    R"("IgnoreDisplacements":false,"enablePatterns":false,)"
    R"("Ignore":[{"left":1,"top":2,"width":3,"height":4}],"Layout":[],)"
    R"("Strict":[],"Content":[],"Floating":[],"accessibility":[]})";

TEST(MatchWindowDataTest, WireForm) {
  struct Case {
    OptString title;
    OptString tag;
    OptString source;
    std::string appOutput;
    std::string tagText;
    std::string sourceText;
  };
  const Case cases[] = {
      {"Cart", "t1", "app", R"({"screenshot64":"iVBORw0K\r\nAAAA","title":"Cart"})", "t1", "app"},
      {"", "", "", R"({"screenshot64":"iVBORw0K\r\nAAAA"})", "", ""},
      {std::nullopt, std::nullopt, std::nullopt, R"({"screenshot64":"iVBORw0K\r\nAAAA"})", "", ""},
  };
  for (const auto& c : cases) {
    auto output = std::make_shared<AppOutput>(c.title, "iVBORw0K\r\nAAAA");
    MatchWindowData data(output, c.tag, options("t1", c.source, true));
    EXPECT_EQ(json::write(data.dictionary()),
              R"({"appOutput":)" + c.appOutput + R"(,"tag":")" + c.tagText +
                  R"(","options":{"name":"t1","ignoreMismatch":true,"ignoreMatch":false,)"
                  R"("forceMismatch":false,"forceMatch":false,"imageMatchSettings":)" +
                  kSettings + R"(,"source":")" + c.sourceText + R"("}})")
        << c.tagText;
  }
  EXPECT_EQ(json::write(AppOutput("", std::nullopt).dictionary()), "{}");
}

TEST(MatchWindowDataTest, AbsentPartsFailNamingTheKey) {
  auto output = std::make_shared<AppOutput>("t", "x");
  const std::pair<const char*, std::function<Json()>> cases[] = {
      {"name",
       [&] { return MatchWindowData(output, "t1", options(std::nullopt, "")).dictionary(); }},
      {"imageMatchSettings",
       [&] {
         Options o("t1", false, false, false, false, nullptr, "");
         return o.dictionary();
       }},
      {"appOutput", [&] { return MatchWindowData(nullptr, "t1", options("t1", "")).dictionary(); }},
      {"options", [&] { return MatchWindowData(output, "t1", nullptr).dictionary(); }},
  };
  for (const auto& [key, build] : cases) {
    try {
      build();
      ADD_FAILURE() << key << " did not fail";
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "NSInvalidArgumentException");
      EXPECT_EQ(e.reason(), std::string("object cannot be nil (key: ") + key + ")");
    }
  }
}

TEST(MatchResultTest, ReadsReplies) {
  struct Case {
    const char* reply;
    bool asExpected;
    const char* screenshot;  // nullptr: none
  };
  const Case cases[] = {
      {R"({"asExpected":true,"screenshot":{"id":"s1"},"windowId":3})", true, R"({"id":"s1"})"},
      {R"({"asExpected":false})", false, nullptr},
      {R"({"screenshot":null})", false, "null"},
      {R"({})", false, nullptr},
      {R"({"asExpected":1})", true, nullptr},
      {R"({"asExpected":0.0})", false, nullptr},
      {R"({"asExpected":"true"})", true, nullptr},
      {R"({"asExpected":"no"})", false, nullptr},
      {R"({"asExpected":{"x":true}})", false, nullptr},
      {R"({"asExpected":"00"})", false, nullptr},
      {R"(["asExpected",true])", false, nullptr},
  };
  for (const auto& c : cases) {
    MatchResult result(*json::parse(c.reply));
    EXPECT_EQ(result.asExpected(), c.asExpected) << c.reply;
    ASSERT_EQ(result.screenshot().has_value(), c.screenshot != nullptr) << c.reply;
    if (c.screenshot) {
      EXPECT_EQ(json::write(*result.screenshot()), c.screenshot) << c.reply;
    }
  }
}

TEST(MatchResultTest, WireFormNeedsAScreenshot) {
  MatchResult result(*json::parse(R"({"asExpected":true,"screenshot":"abc"})"));
  EXPECT_EQ(json::write(result.dictionary()), R"({"screenshot":"abc","asExpected":true})");
  try {
    MatchResult().dictionary();
    ADD_FAILURE();
  } catch (const Exception& e) {
    EXPECT_EQ(e.reason(), "object cannot be nil (key: screenshot)");
  }
}

}  // namespace
}  // namespace saffra
