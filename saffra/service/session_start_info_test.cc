#include "saffra/service/session_start_info.h"

#include <gtest/gtest.h>

#include "saffra/platform/exception.h"
#include "saffra/service/running_session.h"
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

const char* kSettings =
    R"({"matchLevel":"Strict","accessibilityLevel":"None","ignoreCaret":false,)"
    R"("IgnoreDisplacements":false,"enablePatterns":false,"Ignore":[],"Layout":[],)"
    R"("Strict":[],"Content":[],"Floating":[],"accessibility":[]})";

TEST(SessionStartInfoTest, WireFormWithBranchesPropertiesAndBatch) {
  ScopedEnvironment env({{"TZ", "UTC0"}});
  auto info = startInfo("b1", "p1", "base1", "env-1");
  info->addProperty(std::make_shared<StartSessionProperty>("locale", "de_CH"));
  info->addProperty(std::make_shared<StartSessionProperty>("locale", "de_CH"));

  EXPECT_EQ(
      json::write(info->dictionary()),
      std::string(R"({"appIdOrName":"Shop","scenarioIdOrName":"login",)"
                  R"("batchInfo":{"name":"nightly","startedAt":"2024-03-05T13:07:09Z","id":"B-1"},)"
                  R"("environment":{"displaySize":{"width":393,"height":852.5},)"
                  R"j("os":"iOS 17.2","hostingApp":"Shop","OSInfo":"iOS 17.2 (21C62)",)j"
                  R"("HostingAppInfo":"Shop 4.1","DeviceInfo":"iPhone 15"},)"
                  R"("defaultMatchSettings":)") +
          kSettings +
          R"(,"agentId":"saffra.images\/1.0.0","saveDiffs":true,)"
          R"("properties":[{"name":"locale","value":"de_CH"},{"name":"locale","value":"de_CH"}],)"
          R"("sessionType":"SEQUENTIAL","branchName":"b1","parentBranchName":"b1",)"
          R"("baselineBranchName":"b1","baselineEnvName":"env-1"})");
}

TEST(SessionStartInfoTest, WireFormWithoutBranchesHasTheNineBaseKeys) {
  ScopedEnvironment env({{"TZ", "UTC0"}});
  for (const OptString& none : {OptString(), OptString("")}) {
    auto info = startInfo(none, none, none, none);
    info->setAppEnv(std::make_shared<AppEnvironment>("", "", "", "", "", Size{}));
    EXPECT_EQ(json::write(info->dictionary()),
              std::string(
                  R"({"appIdOrName":"Shop","scenarioIdOrName":"login",)"
                  R"("batchInfo":{"name":"nightly","startedAt":"2024-03-05T13:07:09Z","id":"B-1"},)"
                  R"("environment":{"displaySize":{"width":0,"height":0}},)"
                  R"("defaultMatchSettings":)") +
                  kSettings +
                  R"(,"agentId":"saffra.images\/1.0.0","saveDiffs":true,"properties":[],)"
                  R"("sessionType":"SEQUENTIAL"})");
  }
}

TEST(SessionStartInfoTest, BranchEntriesFollowTheirOwnFieldsButCarryTheBranchName) {
  // Presence is decided by each entry's own field; the value is always the branch name.
  auto info = startInfo("", "p1", std::nullopt);
  Json d = info->dictionary();
  EXPECT_FALSE(d.contains("branchName"));
  EXPECT_EQ(d["parentBranchName"], "");
  EXPECT_FALSE(d.contains("baselineBranchName"));

  info = startInfo("b1", std::nullopt, "base1");
  d = info->dictionary();
  EXPECT_EQ(d["branchName"], "b1");
  EXPECT_FALSE(d.contains("parentBranchName"));
  EXPECT_EQ(d["baselineBranchName"], "b1");
}

TEST(SessionStartInfoTest, AbsentValuesFailNamingTheKey) {
  struct Case {
    const char* key;
    std::function<void(SessionStartInfo&)> spoil;
  };
  const Case cases[] = {
      {"appIdOrName", [](SessionStartInfo& i) { i.setAppName(std::nullopt); }},
      {"scenarioIdOrName", [](SessionStartInfo& i) { i.setTestName(std::nullopt); }},
      {"batchInfo", [](SessionStartInfo& i) { i.setBatchInfo(nullptr); }},
      {"environment", [](SessionStartInfo& i) { i.setAppEnv(nullptr); }},
      {"agentId", [](SessionStartInfo& i) { i.setAgentId(std::nullopt); }},
      {"parentBranchName", [](SessionStartInfo& i) { i.setBranchName(std::nullopt); }},
      {"value",
       [](SessionStartInfo& i) {
         i.addProperty(std::make_shared<StartSessionProperty>("n", std::nullopt));
       }},
  };
  for (const auto& c : cases) {
    auto info = startInfo("b1", "p1", std::nullopt);
    c.spoil(*info);
    try {
      info->dictionary();
      ADD_FAILURE() << c.key << " did not fail";
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "NSInvalidArgumentException");
      EXPECT_EQ(e.reason(), std::string("object cannot be nil (key: ") + c.key + ")");
    }
  }

  SessionStartInfo fresh;
  EXPECT_TRUE(fresh.properties().empty());
  EXPECT_THROW(fresh.dictionary(), Exception);
  EXPECT_THROW(fresh.addProperty(nullptr), Exception);
}

TEST(SessionStartInfoTest, SetupSharesObjectsAndKeepsProperties) {
  auto info = startInfo("b1", std::nullopt, std::nullopt);
  auto property = std::make_shared<StartSessionProperty>("k", "v");
  info->addProperty(property);

  auto env = phone();
  auto b = batch();
  auto settings = std::make_shared<ImageMatchSettings>(MatchLevelLayout);
  info->setupWithAgentId("a", SessionTypeProgression, "App2", "t2", std::nullopt, env, b,
                         std::nullopt, std::nullopt, std::nullopt, false, settings);
  EXPECT_EQ(info->appEnv(), env);
  EXPECT_EQ(info->batchInfo(), b);
  EXPECT_EQ(info->defaultMatchSettings(), settings);
  ASSERT_EQ(info->properties().size(), 1u);
  EXPECT_EQ(info->properties()[0], property);
  EXPECT_FALSE(info->branchName().has_value());

  // A settings object changed after setup is sent as it is then.
  settings->setMatchLevel(MatchLevelExact);
  Json d = info->dictionary();
  EXPECT_EQ(d["defaultMatchSettings"]["matchLevel"], "Exact");
  EXPECT_EQ(d["sessionType"], "PROGRESSION");
}

TEST(AppEnvironmentTest, Description) {
  EXPECT_EQ(phone()->description(),
            "[hostOS = iOS 17.2 hostApp = Shop osInfo = iOS 17.2 (21C62) hostingAppInfo = Shop 4.1 "
            "deviceInfo = iPhone 15 displaySize = 393.000000x852.500000]");
  AppEnvironment inferred("iOS");
  EXPECT_EQ(inferred.inferred(), "iOS");
  EXPECT_EQ(inferred.description(),
            "[hostOS = ? hostApp = ? osInfo = ? hostingAppInfo = ? deviceInfo = ? "
            "displaySize = 0.000000x0.000000]");
  EXPECT_EQ(json::write(inferred.dictionary()), R"({"displaySize":{"width":0,"height":0}})");
}

TEST(RunningSessionTest, ReadsIdAndUrlAsTheyArrive) {
  struct Case {
    const char* reply;
    bool hasId;
    const char* idText;
    OptString url;
  };
  const Case cases[] = {
      {R"({"id":"abc","url":"u","isNew":true,"extra":{"x":1}})", true, "abc", "u"},
      {R"({"id":12345678901234,"url":"https:\/\/s\/12"})", true, "12345678901234", "https://s/12"},
      {R"({"id":-7})", true, "-7", std::nullopt},
      {R"({"url":"u"})", false, "(null)", "u"},
      {R"({"id":null})", true, "<null>", std::nullopt},
      {R"({"id":["a"],"url":{"x":1}})", true, "(\n    a\n)", std::nullopt},
      {R"([1,2])", false, "(null)", std::nullopt},
  };
  for (const auto& c : cases) {
    RunningSession session(*json::parse(c.reply));
    EXPECT_EQ(session.sessionId().has_value(), c.hasId) << c.reply;
    EXPECT_EQ(session.sessionIdText(), c.idText) << c.reply;
    EXPECT_EQ(session.url(), c.url) << c.reply;
    EXPECT_FALSE(session.isNewSession());
  }
  RunningSession numeric(*json::parse(R"({"id":42})"));
  EXPECT_EQ(*numeric.sessionId(), Json(42));  // kept as a number, not converted
}

}  // namespace
}  // namespace saffra
