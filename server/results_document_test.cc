#include "server/results_document.h"

#include <gtest/gtest.h>

#include "server/service_test_support.h"

namespace saffra::server {
namespace {

StepRecord step(std::int64_t position, bool asExpected, std::string level = "Strict",
                bool hasBaseline = true) {
  StepRecord s;
  s.position = position;
  s.tag = "step " + std::to_string(position + 1);
  s.currentImage = "current" + std::to_string(position);
  if (hasBaseline) {
    s.baselineImage = "baseline" + std::to_string(position);
    s.baselinePosition = position;
  }
  if (!asExpected) s.diffImage = "diff" + std::to_string(position);
  s.asExpected = asExpected;
  s.matchLevel = std::move(level);
  return s;
}

std::vector<BaselineStep> baseline(int count) {
  std::vector<BaselineStep> steps;
  for (int i = 0; i < count; ++i)
    steps.push_back({i, "b" + std::to_string(i), "baseline" + std::to_string(i), {}});
  return steps;
}

TEST(DecideOutcomeTest, StatusFollowsNewnessDifferencesAbortAndSaving) {
  enum Flags { kNew = 1, kAborted = 2, kSave = 4 };
  const StepRecord fresh = step(0, true, "Strict", false);
  struct Case {
    const char* label;
    std::vector<StepRecord> steps;
    int baselineSteps, flags;
    const char* status;
    bool isDifferent;
    std::size_t missing;
    bool saved;
  };
  std::vector<Case> cases = {
      {"new, saved", {fresh}, 0, kNew | kSave, "Passed", false, 0, true},
      {"new, not saved", {fresh}, 0, kNew, "Unresolved", false, 0, false},
      {"same", {step(0, true), step(1, true)}, 2, 0, "Passed", false, 0, false},
      {"mismatch", {step(0, true), step(1, false)}, 2, 0, "Unresolved", true, 0, false},
      {"mismatch, saved", {step(0, false)}, 1, kSave, "Unresolved", true, 0, true},
      {"missing steps", {step(0, true)}, 3, 0, "Unresolved", true, 2, false},
      {"no steps at all", {}, 1, 0, "Unresolved", true, 1, false},
      {"aborted", {step(0, true)}, 1, kAborted | kSave, "Failed", false, 0, false},
      {"aborted new", {}, 0, kNew | kAborted, "Failed", false, 0, false},
  };
  for (const Case& c : cases) {
    const bool aborted = c.flags & kAborted;
    Outcome o = decideOutcome(c.steps, baseline(c.baselineSteps), c.flags & kNew, aborted,
                              c.flags & kSave, 99);
    EXPECT_EQ(o.status, c.status) << c.label;
    EXPECT_EQ(o.isDifferent, c.isDifferent) << c.label;
    EXPECT_EQ(o.missing.size(), c.missing) << c.label;
    EXPECT_EQ(o.savedAsBaseline, c.saved) << c.label;
    EXPECT_EQ(o.isAborted, aborted) << c.label;
  }
}

// Steps are paired with baseline steps by tag, not by place: baseline steps no step was paired
// with are missing, listed after the session's steps with their place in the baseline.
TEST(DecideOutcomeTest, MissingStepsAreThoseNoStepWasPairedWith) {
  std::vector<StepRecord> steps = {step(0, true), step(1, true)};
  steps[0].baselinePosition = 2;  // the files came in another order, one of them removed
  steps[1].baselinePosition = 0;
  Outcome o = decideOutcome(steps, baseline(3), false, false, false, 99);
  ASSERT_EQ(o.missing.size(), 1u);
  EXPECT_EQ(o.missing[0].tag, "b1");
  EXPECT_EQ(o.missing[0].position, 2);
  EXPECT_EQ(o.baselinePositions, std::vector<std::int64_t>{1});
}

TEST(BaselineAfterSaveTest, KeepsMatchedBaselineStepsAndTakesTheRest) {
  std::vector<BaselineStep> base = baseline(2);
  base[0].alternatives = {"other0"};
  std::vector<StepRecord> steps = {step(0, true), step(1, false), step(2, true, "Strict", false)};
  std::vector<BaselineStep> saved = baselineAfterSave(steps, base);
  ASSERT_EQ(saved.size(), 3u);
  EXPECT_EQ(saved[0].image, "baseline0");
  EXPECT_EQ(saved[0].alternatives, std::vector<std::string>{"other0"});
  EXPECT_EQ(saved[1].image, "current1");
  EXPECT_TRUE(saved[1].alternatives.empty());
  EXPECT_EQ(saved[2].image, "current2");
  EXPECT_EQ(saved[1].tag, "step 2");
}

TEST(ResultsDocumentTest, CountsMatchesPerLevelListsMissingStepsAndLeavesOutWhatIsAbsent) {
  SessionRecord session;
  session.id = "S1";
  session.token = "t0k";
  session.appName = "App";
  session.testName = "Test";
  session.startedAt = 1709647629;  // 2024-03-05T14:07:09Z
  session.branchName = "feature";
  session.baselineId = 4;
  session.baselineVersion = 3;
  session.baselineBranch = "default";
  session.defaultMatchSettings = {{"matchLevel", "Layout"}, {"Ignore", {{{"left", 1}}}}};
  std::vector<StepRecord> steps = {step(0, true, "Exact"),   step(1, true, "Strict"),
                                   step(2, true, "Content"), step(3, true, "Layout"),
                                   step(4, true, "None"),    step(5, false, "Layout")};
  steps[1].accessibilityPassed = true;
  steps[1].accessibilityLevel = "AAA";
  steps[2].accessibilityPassed = false;
  steps[2].accessibilityLevel = "AA";
  session.outcome = decideOutcome(steps, baseline(8), false, false, false, session.startedAt + 42);

  Json d = resultsDocument(session, "nightly", steps, Links("http://h:1"));
  EXPECT_EQ(testing::differences(d, R"({"/status": "Unresolved", "/steps": 6, "/matches": 5,
      "/mismatches": 1, "/missing": 2, "/exactMatches": 1, "/strictMatches": 1,
      "/contentMatches": 1, "/layoutMatches": 1, "/noneMatches": 1,
      "/startedAt": "2024-03-05T14:07:09Z", "/duration": 42, "/batchName": "nightly",
      "/secretToken": "t0k", "/baselineVersion": 3, "/baselineBranchName": "default", "/apiUrls/session": "http://h:1/api/sessions/S1",
      "/appUrls/session": "http://h:1/app/sessions/S1", "/accessibilityStatus/status": "Failed",
      "/accessibilityStatus/level": "AAA", "/defaultMatchSettings/matchLevel": "Layout",
      "/defaultMatchSettings/ignore/0": {"left": 1, "top": 0, "width": 0, "height": 0},
      "/stepsInfo/5/apiUrls/diffImage": "http://h:1/api/sessions/S1/steps/6/diff.png",
      "/stepsInfo/5/appUrls/step": "http://h:1/app/sessions/S1#step-6", "/stepsInfo/7/name": "b7",
      "/stepsInfo/7/hasCurrentImage": false})"),
            "");
  ASSERT_EQ(d["stepsInfo"].size(), 8u);
  EXPECT_FALSE(d["stepsInfo"][7]["apiUrls"].contains("currentImage"));

  // A running session, without accessibility regions or a batch name.
  SessionRecord running;
  running.id = "S2";
  Json r = resultsDocument(running, std::nullopt, {step(0, true)}, Links("http://h"));
  EXPECT_EQ(r["status"], "Running");
  EXPECT_FALSE(r.contains("accessibilityStatus"));
  EXPECT_FALSE(r.contains("batchName"));
  EXPECT_FALSE(r.contains("baselineVersion"));
}

}  // namespace
}  // namespace saffra::server
