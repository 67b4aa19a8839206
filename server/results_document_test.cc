#include "server/results_document.h"

#include <gtest/gtest.h>

namespace saffra::server {
namespace {

StepRecord step(std::int64_t position, bool asExpected, std::string level = "Strict",
                bool hasBaseline = true) {
  StepRecord s;
  s.position = position;
  s.tag = "step " + std::to_string(position + 1);
  s.currentImage = "current" + std::to_string(position);
  if (hasBaseline) s.baselineImage = "baseline" + std::to_string(position);
  if (!asExpected) s.diffImage = "diff" + std::to_string(position);
  s.asExpected = asExpected;
  s.matchLevel = std::move(level);
  return s;
}

std::vector<BaselineStep> baseline(int count) {
  std::vector<BaselineStep> steps;
  for (int i = 0; i < count; ++i)
    steps.push_back({i, "b" + std::to_string(i), "baseline" + std::to_string(i)});
  return steps;
}

TEST(DecideOutcomeTest, StatusFollowsNewnessDifferencesAbortAndSaving) {
  struct Case {
    const char* label;
    std::vector<StepRecord> steps;
    int baselineSteps;
    bool isNew, aborted, save;
    const char* status;
    bool isDifferent;
    std::size_t missing;
    bool saved;
  };
  std::vector<Case> cases = {
      {"new, saved",
       {step(0, true, "Strict", false)},
       0,
       true,
       false,
       true,
       "Passed",
       false,
       0,
       true},
      {"new, not saved",
       {step(0, true, "Strict", false)},
       0,
       true,
       false,
       false,
       "Unresolved",
       false,
       0,
       false},
      {"same", {step(0, true), step(1, true)}, 2, false, false, false, "Passed", false, 0, false},
      {"mismatch",
       {step(0, true), step(1, false)},
       2,
       false,
       false,
       false,
       "Unresolved",
       true,
       0,
       false},
      {"mismatch, saved", {step(0, false)}, 1, false, false, true, "Unresolved", true, 0, true},
      {"missing steps", {step(0, true)}, 3, false, false, false, "Unresolved", true, 2, false},
      {"no steps at all", {}, 1, false, false, false, "Unresolved", true, 1, false},
      {"aborted", {step(0, true)}, 1, false, true, true, "Failed", false, 0, false},
      {"aborted new", {}, 0, true, true, false, "Failed", false, 0, false},
  };
  for (const Case& c : cases) {
    Outcome o = decideOutcome(c.steps, baseline(c.baselineSteps), c.isNew, c.aborted, c.save, 99);
    EXPECT_EQ(o.status, c.status) << c.label;
    EXPECT_EQ(o.isDifferent, c.isDifferent) << c.label;
    EXPECT_EQ(o.missing.size(), c.missing) << c.label;
    EXPECT_EQ(o.savedAsBaseline, c.saved) << c.label;
    EXPECT_EQ(o.isAborted, c.aborted) << c.label;
  }
}

TEST(BaselineAfterSaveTest, KeepsMatchedBaselineImagesAndTakesTheRest) {
  std::vector<BaselineStep> saved =
      baselineAfterSave({step(0, true), step(1, false), step(2, true, "Strict", false)});
  ASSERT_EQ(saved.size(), 3u);
  EXPECT_EQ(saved[0].image, "baseline0");
  EXPECT_EQ(saved[1].image, "current1");
  EXPECT_EQ(saved[2].image, "current2");
  EXPECT_EQ(saved[1].tag, "step 2");
}

TEST(ResultsDocumentTest, CountsMatchesPerLevelAndListsMissingSteps) {
  SessionRecord session;
  session.id = "S1";
  session.token = "t0k";
  session.appName = "App";
  session.testName = "Test";
  session.startedAt = 1709647629;  // 2024-03-05T14:07:09Z
  session.branchName = "default";
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
  EXPECT_EQ(d["status"], "Unresolved");
  EXPECT_EQ(d["steps"], 6);
  EXPECT_EQ(d["matches"], 5);
  EXPECT_EQ(d["mismatches"], 1);
  EXPECT_EQ(d["missing"], 2);
  for (const char* key :
       {"exactMatches", "strictMatches", "contentMatches", "layoutMatches", "noneMatches"}) {
    EXPECT_EQ(d[key], 1) << key;
  }
  EXPECT_EQ(d["startedAt"], "2024-03-05T14:07:09Z");
  EXPECT_EQ(d["duration"], 42);
  EXPECT_EQ(d["batchName"], "nightly");
  EXPECT_EQ(d["secretToken"], "t0k");
  EXPECT_EQ(d["apiUrls"]["session"], "http://h:1/api/sessions/S1");
  EXPECT_EQ(d["appUrls"]["session"], "http://h:1/app/sessions/S1");
  EXPECT_EQ(d["accessibilityStatus"]["status"], "Failed");
  EXPECT_EQ(d["accessibilityStatus"]["level"], "AAA");
  EXPECT_EQ(d["defaultMatchSettings"]["matchLevel"], "Layout");
  EXPECT_EQ(d["defaultMatchSettings"]["ignore"][0],
            Json({{"left", 1}, {"top", 0}, {"width", 0}, {"height", 0}}));

  ASSERT_EQ(d["stepsInfo"].size(), 8u);
  const Json& mismatch = d["stepsInfo"][5];
  EXPECT_EQ(mismatch["apiUrls"]["diffImage"], "http://h:1/api/sessions/S1/steps/6/diff.png");
  EXPECT_EQ(mismatch["appUrls"]["step"], "http://h:1/app/sessions/S1#step-6");
  const Json& missing = d["stepsInfo"][7];
  EXPECT_EQ(missing["name"], "b7");
  EXPECT_EQ(missing["hasCurrentImage"], false);
  EXPECT_FALSE(missing["apiUrls"].contains("currentImage"));
}

TEST(ResultsDocumentTest, RunningSessionHasStatusRunningAndNoAccessibilityWithoutRegions) {
  SessionRecord session;
  session.id = "S2";
  Json d = resultsDocument(session, std::nullopt, {step(0, true)}, Links("http://h"));
  EXPECT_EQ(d["status"], "Running");
  EXPECT_FALSE(d.contains("accessibilityStatus"));
  EXPECT_FALSE(d.contains("batchName"));
}

}  // namespace
}  // namespace saffra::server
