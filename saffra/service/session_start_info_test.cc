// The records sent to the service: session start info with its environment, and match data.
#include "saffra/service/session_start_info.h"

#include <gtest/gtest.h>

#include "saffra/platform/exception.h"
#include "saffra/service/match_window_data.h"
#include "testing/scoped_environment.h"

namespace saffra {
namespace {

// 2024-03-05 13:07:09 UTC
const Date kMarch5 = Date(std::chrono::seconds(1709644029));

std::shared_ptr<BatchInfo> batch() {
  auto b = std::make_shared<BatchInfo>("nightly", kMarch5);
  b->setBatchId("B-1");
  return b;
}

std::shared_ptr<AppEnvironment> phone() {
  return std::make_shared<AppEnvironment>("iOS 17.2", "Shop", "iOS 17.2 (21C62)", "Shop 4.1",
                                          "iPhone 15", Size{393, 852.5});
}

// A start record set up the way a session does it.
std::shared_ptr<SessionStartInfo> startInfo(const OptString& branch, const OptString& parent,
                                            const OptString& baseline,
                                            const OptString& baselineEnv = std::nullopt) {
  auto info = std::make_shared<SessionStartInfo>();
  info->setupWithAgentId("saffra.images/1.0.0", SessionTypeSequential, "Shop", "login", baselineEnv,
                         phone(), batch(), branch, parent, baseline, true,
                         ImageMatchSettings::defaultImageMatchSettings());
  return info;
}

std::shared_ptr<Options> options(const OptString& name, const OptString& source) {
  auto settings = std::make_shared<ImageMatchSettings>(MatchLevelContent);
  settings->setIgnoredRegions({std::make_shared<Region>(1, 2, 3, 4)});
  return std::make_shared<Options>(name, true, false, false, false, settings, source);
}

const char* kDefaultSettings =
    R"({"matchLevel":"Strict","accessibilityLevel":"None","ignoreCaret":false,)"
    R"("IgnoreDisplacements":false,"enablePatterns":false,"Ignore":[],"Layout":[],)"
    R"("Strict":[],"Content":[],"Floating":[],"accessibility":[]})";
const std::string kHead =
    R"({"appIdOrName":"Shop","scenarioIdOrName":"login",)"
    R"("batchInfo":{"name":"nightly","startedAt":"2024-03-05T13:07:09Z","id":"B-1"},)";

const char* kContentSettings =
    R"({"matchLevel":"Content","accessibilityLevel":"None","ignoreCaret":false,)"
    R"("IgnoreDisplacements":false,"enablePatterns":false,)"
    R"("Ignore":[{"left":1,"top":2,"width":3,"height":4}],"Layout":[],)"
    R"("Strict":[],"Content":[],"Floating":[],"accessibility":[]})";

TEST(SessionStartInfoTest, WireForm) {
  ScopedEnvironment env({{"TZ", "UTC0"}});
  auto info = startInfo("b1", "p1", "base1", "env-1");
  info->addProperty(std::make_shared<StartSessionProperty>("locale", "de_CH"));
  info->addProperty(std::make_shared<StartSessionProperty>("locale", "de_CH"));
  EXPECT_EQ(
      json::write(info->dictionary()),
      kHead +
          R"("environment":{"displaySize":{"width":393,"height":852.5},)"
          R"j("os":"iOS 17.2","hostingApp":"Shop","OSInfo":"iOS 17.2 (21C62)",)j"
          R"("HostingAppInfo":"Shop 4.1","DeviceInfo":"iPhone 15"},)"
          R"("defaultMatchSettings":)" +
          kDefaultSettings +
          R"(,"agentId":"saffra.images\/1.0.0","saveDiffs":true,)"
          R"("properties":[{"name":"locale","value":"de_CH"},{"name":"locale","value":"de_CH"}],)"
          R"("sessionType":"SEQUENTIAL","branchName":"b1","parentBranchName":"b1",)"
          R"("baselineBranchName":"b1","baselineEnvName":"env-1"})");

  // Without branches (absent or empty) only the nine base keys are written.
  for (const OptString& none : {OptString(), OptString("")}) {
    info = startInfo(none, none, none, none);
    info->setAppEnv(std::make_shared<AppEnvironment>("", "", "", "", "", Size{}));
    EXPECT_EQ(json::write(info->dictionary()),
              kHead +
                  R"("environment":{"displaySize":{"width":0,"height":0}},)"
                  R"("defaultMatchSettings":)" +
                  kDefaultSettings +
                  R"(,"agentId":"saffra.images\/1.0.0","saveDiffs":true,"properties":[],)"
                  R"("sessionType":"SEQUENTIAL"})");
  }

  // Presence is decided by each entry's own field; the value is always the branch name.
  Json d = startInfo("", "p1", std::nullopt)->dictionary();
  EXPECT_FALSE(d.contains("branchName"));
  EXPECT_EQ(d["parentBranchName"], "");
  EXPECT_FALSE(d.contains("baselineBranchName"));
  d = startInfo("b1", std::nullopt, "base1")->dictionary();
  EXPECT_EQ(d["branchName"], "b1");
  EXPECT_FALSE(d.contains("parentBranchName"));
  EXPECT_EQ(d["baselineBranchName"], "b1");
}

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
    MatchWindowData data(output, c.tag, options("t1", c.source));
    EXPECT_EQ(json::write(data.dictionary()),
              R"({"appOutput":)" + c.appOutput + R"(,"tag":")" + c.tagText +
                  R"(","options":{"name":"t1","ignoreMismatch":true,"ignoreMatch":false,)"
                  R"("forceMismatch":false,"forceMatch":false,"imageMatchSettings":)" +
                  kContentSettings + R"(,"source":")" + c.sourceText + R"("}})")
        << c.tagText;
  }
  EXPECT_EQ(json::write(AppOutput("", std::nullopt).dictionary()), "{}");
}

TEST(RequestRecordsTest, AbsentValuesFailNamingTheKey) {
  auto output = std::make_shared<AppOutput>("t", "x");
  auto spoiled = [](std::function<void(SessionStartInfo&)> spoil) {
    return [spoil] {
      auto info = startInfo("b1", "p1", std::nullopt);
      spoil(*info);
      info->dictionary();
    };
  };
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"appIdOrName", spoiled([](SessionStartInfo& i) { i.setAppName(std::nullopt); })},
      {"scenarioIdOrName", spoiled([](SessionStartInfo& i) { i.setTestName(std::nullopt); })},
      {"batchInfo", spoiled([](SessionStartInfo& i) { i.setBatchInfo(nullptr); })},
      {"environment", spoiled([](SessionStartInfo& i) { i.setAppEnv(nullptr); })},
      {"agentId", spoiled([](SessionStartInfo& i) { i.setAgentId(std::nullopt); })},
      {"parentBranchName", spoiled([](SessionStartInfo& i) { i.setBranchName(std::nullopt); })},
      {"value", spoiled([](SessionStartInfo& i) {
         i.addProperty(std::make_shared<StartSessionProperty>("n", std::nullopt));
       })},
      {"name", [&] { MatchWindowData(output, "t1", options(std::nullopt, "")).dictionary(); }},
      {"imageMatchSettings",
       [] { Options("t1", false, false, false, false, nullptr, "").dictionary(); }},
      {"appOutput", [] { MatchWindowData(nullptr, "t1", options("t1", "")).dictionary(); }},
      {"options", [&] { MatchWindowData(output, "t1", nullptr).dictionary(); }},
      {"screenshot", [] { MatchResult().dictionary(); }},
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
  SessionStartInfo fresh;
  EXPECT_THROW(fresh.dictionary(), Exception);
  EXPECT_THROW(fresh.addProperty(nullptr), Exception);
}

TEST(SessionStartInfoTest, SetupAgainSharesObjectsAndKeepsProperties) {
  auto info = startInfo("b1", std::nullopt, std::nullopt);
  info->addProperty(std::make_shared<StartSessionProperty>("k", "v"));
  auto env = phone();
  auto b = batch();
  auto settings = std::make_shared<ImageMatchSettings>(MatchLevelLayout);
  info->setupWithAgentId("a", SessionTypeProgression, "App2", "t2", std::nullopt, env, b,
                         std::nullopt, std::nullopt, std::nullopt, false, settings);
  EXPECT_TRUE(info->appEnv() == env && info->batchInfo() == b);
  // A settings object changed after setup is sent as it is then.
  settings->setMatchLevel(MatchLevelExact);
  Json d = info->dictionary();
  EXPECT_EQ(d["defaultMatchSettings"]["matchLevel"], "Exact");
  EXPECT_EQ(d["sessionType"], "PROGRESSION");
  EXPECT_EQ(json::write(d["properties"]), R"([{"name":"k","value":"v"}])");
  EXPECT_FALSE(d.contains("branchName"));
}

TEST(AppEnvironmentTest, Description) {
  EXPECT_EQ(phone()->description(),
            "[hostOS = iOS 17.2 hostApp = Shop osInfo = iOS 17.2 (21C62) hostingAppInfo = Shop 4.1 "
            "deviceInfo = iPhone 15 displaySize = 393.000000x852.500000]");
  AppEnvironment inferred("iOS");
  EXPECT_EQ(inferred.description(),
            "[hostOS = ? hostApp = ? osInfo = ? hostingAppInfo = ? deviceInfo = ? "
            "displaySize = 0.000000x0.000000]");
  EXPECT_EQ(json::write(inferred.dictionary()), R"({"displaySize":{"width":0,"height":0}})");
}

}  // namespace
}  // namespace saffra
