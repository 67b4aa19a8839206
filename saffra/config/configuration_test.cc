#include "saffra/config/configuration.h"

#include <gtest/gtest.h>

#include "saffra/config/environment_helper.h"
#include "testing/scoped_environment.h"

namespace saffra {
namespace {

TEST(ConfigurationTest, DefaultsWithoutEnvironment) {
  ScopedEnvironment env;
  Configuration config;
  EXPECT_EQ(config.branchName(), std::nullopt);
  EXPECT_EQ(config.parentBranchName(), std::nullopt);
  EXPECT_EQ(config.baselineBranchName(), std::nullopt);
  EXPECT_EQ(config.agentId(), std::nullopt);
  EXPECT_EQ(config.matchLevel(), MatchLevelStrict);
  EXPECT_TRUE(config.ignoreCaret());
  ASSERT_TRUE(config.defaultMatchSettings());
  EXPECT_TRUE(config.defaultMatchSettings()->ignoreCaret());
  EXPECT_TRUE(config.saveNewTests());
  EXPECT_FALSE(config.saveFailedTests());
  EXPECT_EQ(config.matchTimeout(), 0);
  EXPECT_EQ(config.sessionType(), 0u);

  Configuration named("app", "test", Size{375, 667});
  EXPECT_EQ(named.appName(), "app");
  EXPECT_EQ(named.testName(), "test");
  EXPECT_EQ(named.viewportSize(), (Size{375, 667}));
  EXPECT_EQ(Configuration(OptString("only test")).testName(), "only test");
}

TEST(ConfigurationTest, EnvironmentPairRule) {
  struct Case {
    OptString primary, twin, expected;
  };
  const Case cases[] = {
      {"a", "b", "a"},
      {"", "b", "b"},
      {"", "", ""},  // empty, not absent
      {"", std::nullopt, std::nullopt},
      {std::nullopt, std::nullopt, std::nullopt},
      {" ", "b", " "},  // a blank counts as set
  };
  for (const auto& c : cases) {
    ScopedEnvironment env({{"QUORVANT_BRANCH", c.primary}, {"bamboo_QUORVANT_BRANCH", c.twin}});
    EXPECT_EQ(EnvironmentHelper::environmentPair("QUORVANT_BRANCH", "bamboo_QUORVANT_BRANCH"),
              c.expected);
    EXPECT_EQ(Configuration().branchName(), c.expected);
  }

  ScopedEnvironment env({{"bamboo_QUORVANT_PARENT_BRANCH", "parent"},
                         {"QUORVANT_BASELINE_BRANCH", "baseline"},
                         {"bamboo_QUORVANT_BRANCH", "branch"}});
  Configuration config;
  EXPECT_EQ(config.branchName(), "branch");
  EXPECT_EQ(config.parentBranchName(), "parent");
  EXPECT_EQ(config.baselineBranchName(), "baseline");
}

TEST(ConfigurationTest, DontCloseBatchesSwitch) {
  struct Case {
    OptString value;
    bool expected;
  };
  for (auto c :
       {Case{"true", true}, Case{"TRUE", true}, Case{"tRuE", true}, Case{"1", false},
        Case{"yes", false}, Case{" true", false}, Case{"", false}, Case{std::nullopt, false}}) {
    ScopedEnvironment env({{"QUORVANT_DONT_CLOSE_BATCHES", c.value}});
    EXPECT_EQ(EnvironmentHelper::dontCloseBatches(), c.expected) << c.value.value_or("(unset)");
  }
}

TEST(ConfigurationTest, CopyIsShallowAndSharesObjects) {
  ScopedEnvironment env;
  auto source = std::make_shared<Configuration>("app", "test", Size{1, 2});
  source->setBatch(std::make_shared<BatchInfo>("batch"));
  source->setProxy(std::make_shared<AbstractProxySettings>("proxy", 3128));
  source->setApiKey("key");
  source->setMatchTimeout(5);
  source->setAccessibilityValidation(2);

  auto copy = std::make_shared<Configuration>(*source);
  EXPECT_EQ(copy->batch(), source->batch());
  EXPECT_EQ(copy->proxy(), source->proxy());
  EXPECT_EQ(copy->defaultMatchSettings(), source->defaultMatchSettings());
  EXPECT_EQ(copy->apiKey(), "key");
  EXPECT_EQ(copy->matchTimeout(), 5);
  EXPECT_EQ(copy->accessibilityValidation(), 2u);
  EXPECT_EQ(copy->description(), source->description());

  copy->setMatchLevel(MatchLevelLayout);
  copy->setIgnoreCaret(false);
  EXPECT_EQ(source->matchLevel(), MatchLevelLayout);
  EXPECT_FALSE(source->ignoreCaret());

  copy->setAppName("other");
  copy->setSaveNewTests(false);
  EXPECT_EQ(source->appName(), "app");
  EXPECT_TRUE(source->saveNewTests());

  // Replacing the settings object on one holder unshares it.
  copy->setDefaultMatchSettings(std::make_shared<ImageMatchSettings>(MatchLevelExact));
  EXPECT_EQ(source->matchLevel(), MatchLevelLayout);
}

TEST(ConfigurationTest, ForwardingAndItsAbsence) {
  ScopedEnvironment env;
  Configuration config;
  config.setIgnoreDisplacements(true);
  EXPECT_FALSE(config.defaultMatchSettings()->ignoreDispacements());

  config.setDefaultMatchSettings(nullptr);
  config.setMatchLevel(MatchLevelExact);
  config.setIgnoreCaret(true);
  EXPECT_EQ(config.matchLevel(), 0);
  EXPECT_FALSE(config.ignoreCaret());
  Configuration copy(config);
  EXPECT_EQ(copy.defaultMatchSettings(), nullptr);
}

TEST(ConfigurationTest, Description) {
  ScopedEnvironment env({{"QUORVANT_BRANCH", "main"}});
  Configuration config("app", "login screen", Size{375.5, 667});
  EXPECT_EQ(config.description(),
            "\n\tbatch = (null)\n\tbranchName = main\n\tparentBranchName = (null)"
            "\n\tagentId = (null)\n\tbaselineEnvName = (null)\n\tsaveDiffs = false"
            "\n\tappName = app\n\ttestName = login screen\n\tviewportSize = {375.5, 667}"
            "\n\tsessionType = SEQUENTIAL");

  config.setBatch(std::make_shared<BatchInfo>("nightly"));
  config.setSaveDiffs(true);
  config.setSessionType(2);
  std::string text = config.description();
  EXPECT_EQ(text.rfind("\n\tbatch = nightly\n", 0), 0u) << text;
  EXPECT_NE(text.find("\n\tsaveDiffs = true\n"), std::string::npos);
  EXPECT_TRUE(text.ends_with("\n\tsessionType = PROGRESSION"));
}

}  // namespace
}  // namespace saffra
