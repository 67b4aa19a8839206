// Configuration: its fields and environment, the batch, and the text helpers.
#include "saffra/config/configuration.h"

#include <gtest/gtest.h>

#include <regex>

#include "saffra/base/argument_guard.h"
#include "saffra/base/configurable.h"
#include "saffra/base/logger.h"
#include "saffra/config/batch_info.h"
#include "saffra/platform/exception.h"
#include "testing/scoped_environment.h"

namespace saffra {
namespace {

TEST(ConfigurationTest, BranchesComeFromEnvironmentPairs) {
  // The pair rule is pinned by the batch and API key tables; here a blank counts as set.
  ScopedEnvironment env({{"QUORVANT_BRANCH", " "},
                         {"bamboo_QUORVANT_BRANCH", "branch"},
                         {"bamboo_QUORVANT_PARENT_BRANCH", "parent"},
                         {"QUORVANT_BASELINE_BRANCH", "baseline"}});
  Configuration config;
  EXPECT_EQ(config.branchName(), " ");
  EXPECT_EQ(config.parentBranchName(), "parent");
  EXPECT_EQ(config.baselineBranchName(), "baseline");
  env.set("QUORVANT_BRANCH", std::nullopt);
  EXPECT_EQ(Configuration().branchName(), "branch");
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

// 2024-03-05 13:07:09.123 UTC
const Date kMarch5 = Date(std::chrono::milliseconds(1709644029123));

// Upper-case 8-4-4-4-12 hexadecimal, version 4.
bool isUpperCaseUUID(const std::string& s) {
  static const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[0-9A-F]{4}-[0-9A-F]{12}");
  return std::regex_match(s, uuid);
}

std::vector<std::string> keys(const Json& object) {
  std::vector<std::string> result;
  for (const auto& item : object.items()) result.push_back(item.key());
  return result;
}

TEST(BatchInfoTest, StartTimeIsLocalDateThenTimeWithLiteralZ) {
  ScopedEnvironment env({{"TZ", "CET-1"}});
  EXPECT_EQ(BatchInfo::stringFromStartedAt(kMarch5), "2024-03-05T14:07:09Z");
  BatchInfo a("a", kMarch5), b("b", kMarch5 + std::chrono::milliseconds(500));
  EXPECT_EQ(a.startedAtString(), b.startedAtString());
  env.set("TZ", "UTC0");
  EXPECT_EQ(BatchInfo::stringFromStartedAt(kMarch5), "2024-03-05T13:07:09Z");
}

TEST(BatchInfoTest, EnvironmentFeedsIdNameAndSequence) {
  struct Case {
    const char* what;
    OptString id, bambooId, name, bambooName, sequence, bambooSequence;
    OptString givenName;
    OptString expectedId;  // absent: a fresh UUID
    OptString expectedName, expectedSequence;
  };
  const Case cases[] = {
      {"primaries win", "P", "T", "N", "BN", "S", "BS", std::nullopt, "P", "N", "S"},
      {"empty primaries fall to twins", "", "T", "", "BN", "", "BS", std::nullopt, "T", "BN", "BS"},
      {"empty twin id is kept", std::nullopt, "", std::nullopt, std::nullopt, "", std::nullopt,
       std::nullopt, "", std::nullopt, std::nullopt},
      {"both ids empty", "", "", "", "", "", "", std::nullopt, "", "", std::nullopt},
      {"given name wins", std::nullopt, std::nullopt, "N", std::nullopt, std::nullopt, std::nullopt,
       "mine", std::nullopt, "mine", std::nullopt},
      {"empty given name", std::nullopt, std::nullopt, "N", std::nullopt, std::nullopt,
       std::nullopt, "", std::nullopt, "N", std::nullopt},
  };
  for (const auto& c : cases) {
    ScopedEnvironment env({{"QUORVANT_BATCH_ID", c.id},
                           {"bamboo_QUORVANT_BATCH_ID", c.bambooId},
                           {"QUORVANT_BATCH_NAME", c.name},
                           {"bamboo_QUORVANT_BATCH_NAME", c.bambooName},
                           {"QUORVANT_BATCH_SEQUENCE", c.sequence},
                           {"bamboo_QUORVANT_BATCH_SEQUENCE", c.bambooSequence}});
    BatchInfo batch(c.givenName);
    if (c.expectedId) {
      EXPECT_EQ(batch.batchId(), c.expectedId) << c.what;
    } else {
      EXPECT_TRUE(isUpperCaseUUID(batch.batchId().value_or(""))) << c.what;
    }
    EXPECT_EQ(batch.name(), c.expectedName) << c.what;
    EXPECT_EQ(batch.sequenceName(), c.expectedSequence) << c.what;
  }
}

TEST(BatchInfoTest, WireFormOrderAndAbsentFields) {
  ScopedEnvironment env({{"TZ", "UTC0"}});
  // Without environment: the start and a fresh id for each batch.
  BatchInfo fresh(std::nullopt);
  EXPECT_EQ(keys(fresh.dictionary()), (std::vector<std::string>{"startedAt", "id"}));
  EXPECT_NE(BatchInfo(std::nullopt).batchId(), fresh.batchId());

  env.set("QUORVANT_BATCH_SEQUENCE", "seq");
  BatchInfo batch("Nightly run", kMarch5);
  batch.setBatchId("");
  EXPECT_EQ(
      json::write(batch.dictionary()),
      R"({"name":"Nightly run","startedAt":"2024-03-05T13:07:09Z","id":"","batchSequenceName":"seq"})");
  batch.setBatchId(std::nullopt);
  batch.setSequenceName(std::nullopt);
  EXPECT_EQ(keys(batch.dictionary()), (std::vector<std::string>{"name", "startedAt"}));
}

TEST(ConfigurableTest, Predicates) {
  using namespace Configurable;
  EXPECT_FALSE(isNotEmpty(OptString()));
  EXPECT_FALSE(isNotEmpty(OptString("")));
  EXPECT_TRUE(isNotEmpty(OptString(" ")));
  EXPECT_TRUE(isNotEmpty(OptString("0")));
  EXPECT_FALSE(isNotEmpty(Json()));  // the null marker
  EXPECT_FALSE(isNotEmpty(Json("")));
  EXPECT_TRUE(isNotEmpty(Json("0")));
  EXPECT_FALSE(isNotEmpty(static_cast<const char*>(nullptr)));
  EXPECT_EQ(notEmptyString(std::nullopt), "");
  EXPECT_EQ(notEmptyString("x"), "x");

  EXPECT_TRUE(isInteger(""));
  EXPECT_TRUE(isInteger("0123"));
  EXPECT_FALSE(isInteger("-1"));
  EXPECT_FALSE(isInteger("1.5"));

  for (const char* s : {".", "!", "?", "\n"}) EXPECT_TRUE(isEndOfSentence(s)) << s;
  for (const char* s : {"", "..", ",", " "}) EXPECT_FALSE(isEndOfSentence(s)) << s;

  EXPECT_TRUE(containsString("Hello world", "o w"));
  EXPECT_FALSE(containsString("Hello world", "World"));
  EXPECT_TRUE(containsOneOfStrings("abc", {"x", "c", std::nullopt}));
  EXPECT_FALSE(containsOneOfStrings("abc", {"x", std::nullopt, "a"}));  // the list ends at absent
  EXPECT_FALSE(containsOneOfStrings("abc", {std::nullopt, "a"}));

  EXPECT_EQ(priceStringCorrection("1.234,50"), "1234.50");
  EXPECT_EQ(stringByTrimmingSpaces(" \t\n a b \r\n"), "a b");
  EXPECT_EQ(stringByTrimmingSpaces("\xC2\xA0x\xE2\x80\xA8"),
            "x");  // no-break space, line separator
  EXPECT_EQ(stringByTrimmingSpaces("é "), "é");
  EXPECT_EQ(stringByTrimmingSpaces("   "), "");
}

TEST(ConfigurableTest, CuttingOperations) {
  using namespace Configurable;
  struct Case {
    std::string (*cut)(std::string&);
    std::string input, result, rest;
  };
  const Case cases[] = {
      {cutFirstSentenceFromString, "", "", ""},
      {cutFirstSentenceFromString, "x", "x", ""},
      {cutFirstSentenceFromString, "One. Two.", "One.", " Two."},
      {cutFirstSentenceFromString, "No end", "No end", ""},
      {cutFirstSentenceFromString, "Why?\nBecause", "Why?", "\nBecause"},
      {cutLastSentenceFromString, "One. Two.", " Two.", "One."},
      {cutLastSentenceFromString, "One. Two", " Two", "One."},
      {cutLastSentenceFromString, "No end.", "", "No end."},  // the last character is not scanned
      {cutLastSentenceFromString, "", "", ""},
      {cutLastSentenceFromString, ".", "", "."},
      {cutLastWordFromString, "Hello big world", " world", "Hello big"},
      {cutLastWordFromString, "trailing ", " ", "trailing"},
      {cutLastWordFromString, " x", " x", ""},
  };
  for (const auto& c : cases) {
    std::string s = c.input;
    EXPECT_EQ(c.cut(s), c.result) << '"' << c.input << '"';
    EXPECT_EQ(s, c.rest) << '"' << c.input << '"';
  }

  for (std::string s : {std::string(), std::string("word")}) {
    std::string before = s;
    try {
      cutLastWordFromString(s);
      FAIL() << "expected an exception for \"" << before << '"';
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "NSRangeException");
    }
    EXPECT_EQ(s, before);
  }
}

TEST(ArgumentGuardTest, AcceptsAbsentValuesSilently) {
  LogCapture log;
  std::shared_ptr<int> absent;
  ArgumentGuard::notNil(absent, "apiKey");
  ArgumentGuard::notNilOrEmpty(OptString(), "batchId");
  ArgumentGuard::notNilOrEmpty(std::string(), "sequenceName");
  ArgumentGuard::isValidState(false, "state");
  ArgumentGuard::greaterThanOrEqualToZero(-1, "timeout");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(log.systemLines().empty());
}

}  // namespace
}  // namespace saffra
