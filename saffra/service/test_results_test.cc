// The records read from the service's replies: running session, match result, test results.
#include "saffra/service/test_results.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "saffra/base/logger.h"
#include "saffra/service/match_window_data.h"
#include "saffra/service/running_session.h"

namespace saffra {
namespace {

// A stop-session reply as the service sends it for an unresolved test with two steps (also a
// seed of the reply fuzzer).
Json stopReply() {
  std::ifstream file(SAFFRA_SOURCE_DIR "/saffra/service/fuzz_corpus/stop_reply_unresolved.json");
  std::stringstream text;
  text << file.rdbuf();
  auto reply = json::parse(text.str());
  EXPECT_TRUE(reply) << "fixture missing or unreadable";
  return reply.value_or(Json::object());
}

TEST(TestResultsTest, ReadsAServiceReplyAndWritesTheWireForm) {
  TestResults r(stopReply());
  EXPECT_EQ(r.status(), TestResultsStatusUnresolved);
  EXPECT_FALSE(r.isPassed());
  EXPECT_EQ(r.url(), "https://s/api/sessions/S1");
  EXPECT_EQ(r.hostApp(), "Shop 4.1");
  EXPECT_EQ((std::vector<std::int64_t>{r.steps(), r.matches(), r.mismatches(), r.missing(),
                                       r.strictMatches(), r.duration()}),
            (std::vector<std::int64_t>{2, 1, 1, 0, 1, 12}));
  ASSERT_TRUE(r.accessibilityStatus());
  EXPECT_EQ(r.accessibilityStatus()->status(), AccessibilityStatusFailed);
  EXPECT_EQ(r.accessibilityStatus()->level(), AccessibilityLevelAA);
  EXPECT_EQ(r.stepsInfo()->at(0)->appUrls()->description(),
            "{\n    step = \"https://s/app/steps/1\";\n}");
  EXPECT_EQ(r.description(),
            "Existing test [ steps: 2, test name: login, matches: 1, mismatches: 1, missing: 0], "
            "URL: https://s/api/sessions/S1");

  // "appName" carries the application addresses; hostApp, url and accessibility are not sent.
  // Region values are read as integers, the scale as a float.
  EXPECT_EQ(
      json::write(r.dictionary()),
      R"({"apiUrls":{"batch":"https:\/\/s\/api\/batches\/B1","session":"https:\/\/s\/api\/sessions\/S1"},)"
      R"("appName":{"batch":"https:\/\/s\/app\/batches\/B1","session":"https:\/\/s\/app\/sessions\/S1"},)"
      R"("batchId":"B1","batchName":"nightly","branchName":"default","contentMatches":0,)"
      R"("defaultMatchSettings":{"content":[],"floating":[{"left":5,"top":6,"width":7,"height":8}],)"
      R"("ignore":[{"left":1,"top":2,"width":30,"height":0}],"ignoreCaret":true,)"
      R"("matchLevel":"Strict","remainder":true,"scale":1.100000023841858,)"
      R"("splitBottomHeight":false,"splitTopHeight":true},)"
      R"("duration":12,"exactMatches":0,"hostDisplaySize":{"width":1125.300048828125,"height":2436},)"
      R"("hostOS":"iOS 17.2","id":"R-77","isAborted":false,"isDifferent":true,"isNew":false,)"
      R"("layoutMatches":0,"matches":1,"mismatches":1,"missing":0,"name":"login","noneMatches":0,)"
      R"("secretToken":"tok","startedAt":"2024-03-05T13:07:09Z","status":"Unresolved","steps":2,)"
      R"("stepsInfo":[{"apiUrls":{"baselineImage":"https:\/\/s\/b\/1","currentImage":"https:\/\/s\/c\/1"},)"
      R"("appUrls":{"step":"https:\/\/s\/app\/steps\/1"},"hasBaselineImage":true,)"
      R"("hasCurrentImage":true,"isDifferent":false,"name":"t1"},)"
      R"({"apiUrls":{"diffImage":"https:\/\/s\/d\/2"},"appUrls":{},"hasBaselineImage":true,)"
      R"("hasCurrentImage":true,"isDifferent":true,"name":"t2"}],"strictMatches":1})");
  // Read back, the written form loses only the name (now an addresses object) and the results
  // address (no "appUrls"); every other entry survives unchanged.
  LogCapture log;
  TestResults again(r.dictionary());
  Json expected = r.dictionary();
  expected.erase("appName");
  EXPECT_EQ(json::write(again.dictionary()), json::write(expected));
  EXPECT_FALSE(again.url().has_value());
  EXPECT_TRUE(log.contains("Ignoring \"appName\" of the reply: a text was expected"));
}

TEST(TestResultsTest, EmptyReplyGivesDefaults) {
  TestResults r(Json::object());
  EXPECT_TRUE(r.isPassed());
  EXPECT_FALSE(r.statusString().has_value());
  EXPECT_FALSE(r.url().has_value());
  EXPECT_EQ(r.description(),
            "Existing test [ steps: 0, test name: (null), matches: 0, mismatches: 0, missing: 0], "
            "URL: (null)");
  // The written form of absent values is pinned with the wrong-kind reply below.
  EXPECT_EQ(TestResults(*json::parse(R"({"isNew":true})")).description().substr(0, 10),
            "New test [");
}

TEST(TestResultsTest, StatusFromString) {
  EXPECT_EQ(TestResults::statusFromString("Passed"), TestResultsStatusPassed);
  EXPECT_EQ(TestResults::statusFromString("Failed"), TestResultsStatusFailed);
  for (const OptString& s : {OptString("Unresolved"), OptString("passed"), OptString("FAILED"),
                             OptString(""), OptString(" Passed"), OptString()}) {
    EXPECT_EQ(TestResults::statusFromString(s), TestResultsStatusUnresolved) << s.value_or("-");
  }
  // A status of another kind arrives as its text.
  TestResults numeric(*json::parse(R"({"status":2})"));
  EXPECT_EQ(numeric.statusString(), "2");
  EXPECT_EQ(numeric.status(), TestResultsStatusUnresolved);
}

TEST(TestResultsTest, UrlNeedsAppUrls) {
  struct Case {
    const char* reply;
    OptString url;
  };
  const Case cases[] = {
      {R"({"apiUrls":{"session":"s1"},"appUrls":{"session":"s2"}})", "s1"},
      {R"({"appUrls":{"session":"s2"},"apiUrls":{"session":"s1"}})", "s1"},
      {R"({"apiUrls":{"session":"s1"}})", std::nullopt},
      {R"({"appUrls":{"session":"s2"}})", std::nullopt},
      {R"({"apiUrls":{"batch":"b"},"appUrls":{}})", std::nullopt},
      // A malformed "appUrls" is skipped, but the reply does carry the key.
      {R"({"apiUrls":{"session":"s1"},"appUrls":"s2"})", "s1"},
  };
  for (const auto& c : cases) EXPECT_EQ(TestResults(*json::parse(c.reply)).url(), c.url) << c.reply;
}

TEST(TestResultsTest, NumbersAndFlagsReadLeniently) {
  TestResults r(*json::parse(R"({"steps":"12abc","matches":3.9,"duration":1e300,"isNew":"YES",)"
                             R"("isAborted":"0","hostDisplaySize":{"height":"640.5"},"name":7})"));
  EXPECT_EQ(r.steps(), 12);
  EXPECT_EQ(r.matches(), 3);
  EXPECT_EQ(r.duration(), INT64_MAX);
  EXPECT_TRUE(r.isNew());
  EXPECT_FALSE(r.isAborted());
  EXPECT_EQ(r.hostDisplaySize(), (Size{0, 640.5}));
  EXPECT_EQ(r.name(), "7");
}

TEST(TestResultsTest, ValuesOfTheWrongKindAreSkippedAndLogged) {
  LogCapture log;
  TestResults r(*json::parse(
      R"({"apiUrls":"https://s","appUrls":[1],"defaultMatchSettings":[],"hostDisplaySize":5,)"
      R"("accessibilityStatus":"Passed","stepsInfo":{"name":"t1"},"appName":{"n":1},)"
      R"("steps":4,"status":"Failed","batchId":null})"));
  EXPECT_EQ(r.status(), TestResultsStatusFailed);
  EXPECT_FALSE(r.accessibilityStatus() || r.appName());
  EXPECT_EQ(json::write(r.dictionary()),
            R"({"contentMatches":0,"duration":0,"exactMatches":0,)"
            R"("hostDisplaySize":{"width":0,"height":0},"isAborted":false,"isDifferent":false,)"
            R"("isNew":false,"layoutMatches":0,"matches":0,"mismatches":0,"missing":0,)"
            R"("noneMatches":0,"status":"Failed","steps":4,"strictMatches":0})");
  for (const char* key :
       {"apiUrls", "appUrls", "defaultMatchSettings", "hostDisplaySize", "accessibilityStatus"}) {
    EXPECT_TRUE(
        log.contains(std::string("Ignoring \"") + key + "\" of the reply: an object was expected"))
        << key;
  }
  EXPECT_TRUE(log.contains("Ignoring \"stepsInfo\" of the reply: a list was expected"));
  EXPECT_TRUE(log.contains("Ignoring \"appName\" of the reply: a text was expected"));
  EXPECT_EQ(log.lines().size(), 7u);  // null is "no value", not a fault

  LogCapture elements;
  TestResults mixed(*json::parse(
      R"({"stepsInfo":[{"name":"a"},3,"b",{"name":"c"}],)"
      R"("defaultMatchSettings":{"strict":[{"left":1},[2],null],"layout":{"left":1}}})"));
  ASSERT_EQ(mixed.stepsInfo()->size(), 2u);
  EXPECT_EQ(mixed.stepsInfo()->at(1)->name(), "c");
  EXPECT_EQ(mixed.defaultMatchSettings()->strict()->size(), 1u);
  EXPECT_FALSE(mixed.defaultMatchSettings()->layout().has_value());
  EXPECT_TRUE(elements.contains(
      "Ignoring an element of \"stepsInfo\" of the reply: an object was expected"));
  EXPECT_TRUE(
      elements.contains("Ignoring an element of \"strict\" of the reply: an object was expected"));
  EXPECT_TRUE(elements.contains("Ignoring \"layout\" of the reply: a list was expected"));

  LogCapture top;
  EXPECT_TRUE(TestResults(*json::parse("[1]")).isPassed());
  EXPECT_TRUE(top.contains("TestResults: the reply is not an object; nothing was read from it"));
}

TEST(TestResultsTest, AccessibilityStatusReadings) {
  struct Case {
    const char* reply;
    std::uint64_t status;
    std::uint64_t level;
  };
  const Case cases[] = {
      {R"({"status":"Passed","level":"AAA"})", AccessibilityStatusPassed, AccessibilityLevelAAA},
      {R"({"status":"passed","level":"aa"})", AccessibilityStatusFailed, AccessibilityLevelNone},
      {R"({"status":0,"level":2})", AccessibilityStatusFailed, AccessibilityLevelNone},
      {R"({"status":null})", AccessibilityStatusFailed, AccessibilityLevelNone},
      {R"({})", AccessibilityStatusPassed, AccessibilityLevelNone},
  };
  for (const auto& c : cases) {
    TestAccessibilityStatus s(*json::parse(c.reply));
    EXPECT_EQ(s.status(), c.status) << c.reply;
    EXPECT_EQ(s.level(), c.level) << c.reply;
  }
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
  MatchResult result(*json::parse(R"({"asExpected":true,"screenshot":"abc"})"));
  EXPECT_EQ(json::write(result.dictionary()), R"({"screenshot":"abc","asExpected":true})");
}

}  // namespace
}  // namespace saffra
