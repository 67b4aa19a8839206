// Baselines over the protocol and in the store: pairing by tag for any tag and thousands of
// steps, a save that would undo an accepted change, and retention, which never leaves a baseline
// pointing at a missing image (the upgrade of an old data folder is in web_test.cc).
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>

#include "server/retention.h"
#include "server/service_test_support.h"
#include "server/store.h"

namespace saffra::server::testing {
namespace {

// Tags of every kind pair with their own baseline steps, several checkpoints of one tag pair in
// order among themselves, and a session of thousands of steps pairs each with its own.
TEST(BaselinePairing, AnyTagsAndThousandsOfStepsPairByName) {
  TempFolder folder;
  Harness harness(folder.path());
  SessionSpec test;
  const std::vector<std::string> tags = {"ünïcødé 🙂 名前",
                                         "../../etc/passwd",
                                         "a/b\\c%2F?x=1#y",
                                         "",
                                         "same",
                                         "same",
                                         "<i>\"'",
                                         std::string("nul\0byte", 8)};
  const std::vector<std::vector<std::uint8_t>> images = {kPlain,  kMarked, kOther, kPlain,
                                                         kMarked, kOther,  kPlain, kOther};
  auto runWith = [&](const std::vector<std::size_t>& order, bool save) {
    std::string id = harness.start(test).body["id"];
    std::vector<bool> verdicts;
    for (std::size_t i : order) {
      verdicts.push_back(harness.match(id, matchBody(images[i], tags[i])).body["asExpected"]);
    }
    Json d = harness.stop(id, false, save).body;
    d["verdicts"] = verdicts;
    return d;
  };
  runWith({0, 1, 2, 3, 4, 5, 6, 7}, true);
  // Reversed, the two "same" steps keep their order among themselves (5 before 4 would swap
  // their images): 4 and 5 stay in place, everything else is reversed.
  Json reordered = runWith({7, 6, 4, 5, 3, 2, 1, 0}, false);
  EXPECT_EQ(reordered["status"], "Passed") << reordered.dump();
  EXPECT_EQ(reordered["verdicts"], Json::array({true, true, true, true, true, true, true, true}));
  Json swapped = runWith({0, 1, 2, 3, 5, 4, 6, 7}, false);
  EXPECT_EQ(swapped["mismatches"], 2);
  EXPECT_EQ(swapped["stepsInfo"][0]["name"], tags[0]);

  SessionSpec big = test;
  big.name = "thousands of steps";
  constexpr int kSteps = 2000;
  const std::vector<std::uint8_t> tiny = solidPng(8, 8, kWhite);
  const std::vector<std::uint8_t>& changed = kMarked;
  for (int round = 0; round < 2; ++round) {
    std::string id = harness.start(big).body["id"];
    for (int i = kSteps - 1; i >= 0; --i) {  // the second round sends them in reverse order
      const int step = round == 0 ? kSteps - 1 - i : i;
      Reply r = harness.match(id, matchBody(round == 1 && step == 1234 ? changed : tiny,
                                            "step " + std::to_string(step)));
      ASSERT_EQ(r.status, 200) << r.raw;
    }
    Json d = harness.stop(id, false, round == 0).body;
    EXPECT_EQ(d["steps"], kSteps);
    if (round == 1) {
      EXPECT_EQ(d["mismatches"], 1);
      EXPECT_EQ(d["missing"], 0);
      EXPECT_EQ(d["stepsInfo"][kSteps - 1 - 1234]["name"], "step 1234");
      EXPECT_EQ(d["stepsInfo"][kSteps - 1 - 1234]["isDifferent"], true);
    }
  }
}

// A session started before another change was accepted cannot save over it when it stops with
// updateBaseline: it is left for review instead.
TEST(BaselinePairing, AStaleSaveIsNotMade) {
  TempFolder folder;
  Harness harness(folder.path());
  SessionSpec test;
  harness.runTest(test, {kPlain}, true);
  std::string early = harness.start(test).body["id"];
  harness.match(early, matchBody(kOther, "step 1"));
  Json changed = harness.runTest(test, {kMarked}, false);
  EXPECT_EQ(harness
                .send("POST", "/api/sessions/" + changed["id"].get<std::string>() +
                                  "/accept?apiKey=" + kApiKey)
                .status,
            200);
  Json stopped = harness.stop(early, false, true).body;
  EXPECT_EQ(stopped["status"], "Unresolved");
  EXPECT_EQ(stopped["baselineVersion"], 1);
  EXPECT_EQ(harness.runTest(test, {kMarked}, false)["status"], "Passed");
}

// Retention removes old sessions, versions beyond the limit and the images nothing refers to;
// the current version, versions a kept session used, and their images stay, and a rollback to
// a removed version is refused as gone.
class Retention : public ::testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(Engines, Retention, ::testing::Values("sqlite", "postgres"),
                         [](const auto& info) { return info.param; });

TEST_P(Retention, RemovesWhatNothingNeedsAndKeepsEveryBaselineWhole) {
  TempFolder folder;
  std::unique_ptr<Store> opened = openStore(storeAddress(GetParam(), folder));
  Store& store = *opened;
  const std::int64_t start = static_cast<std::int64_t>(std::time(nullptr));
  std::vector<std::string> images;
  for (int i = 0; i < 4; ++i) {
    images.push_back(store.putImage(solidPng(4, 4, kWhite, PixelRect{i % 4, i / 4, 1, 1})));
  }
  // Versions 1..4, each saved by a session whose single step took image i.
  auto session = [&](const std::string& id, std::int64_t startedAt,
                     std::optional<std::int64_t> version, std::optional<std::size_t> saves) {
    SessionRecord s;
    s.id = id;
    s.baselineKey = "key";
    s.batchId = "batch";
    s.startedAt = startedAt;
    if (version) {
      s.baselineId = 1;
      s.baselineVersion = version;
    }
    store.insertSession(s, BatchRecord{"batch", "nightly", {}, {}, false});
    if (!saves) return;
    StepRecord step;
    step.tag = "home";
    step.currentImage = images[*saves];
    step.matchLevel = "Strict";
    store.insertStep(id, step);
    Outcome o;
    o.status = "Passed";
    std::vector<BaselineStep> saved{{0, "home", images[*saves], {}}};
    store.finishSession(id, o, &saved);
  };
  const std::int64_t old = start - 86400;
  session("s1", old, std::nullopt, 0);
  session("s2", old, 1, 1);
  session("s3", old, 2, 2);
  session("s4", start + 5 * 86400, 3, 3);    // recent: kept, and with it version 3
  session("running", old, 4, std::nullopt);  // running: kept, and with it version 4
  store.putImage(solidPng(5, 5, kBlack));    // referred to by nothing

  const std::int64_t later = start + 4 * 86400;  // the versions are three days old by then
  RetentionReport report = runRetention(store, {3, 0, std::chrono::seconds(0)}, later);
  EXPECT_EQ(report.sessions, 3);
  EXPECT_EQ(report.versions, 2);  // versions 1 and 2: old, not current, no kept session
  EXPECT_EQ(report.images, 3);    // images 0 and 1, and the one nothing referred to
  EXPECT_FALSE(store.session("s1"));
  EXPECT_TRUE(store.session("s4") && store.session("running"));
  std::optional<BaselineHistory> history = store.baselineHistory(1);
  ASSERT_TRUE(history);
  EXPECT_EQ(history->currentVersion, 4);
  ASSERT_EQ(history->versions.size(), 2u);
  for (const BaselineVersion& v : history->versions) {
    for (const BaselineStep& step : store.baselineSteps(1, v.version)) {
      EXPECT_TRUE(store.readImage(step.image)) << "version " << v.version;
    }
  }
  EXPECT_TRUE(store.readImage(images[2]));  // s3's step is gone, but version 3 still uses it
  try {
    store.rollBack(1, 1);
    ADD_FAILURE() << "rolled back to a removed version";
  } catch (const UnknownVersionError& e) {
    EXPECT_TRUE(e.removed());
  }
  EXPECT_EQ(store.rollBack(1, 3), 5);

  // Keeping one version: only the current one and those kept sessions use remain.
  runRetention(store, {0, 1, std::chrono::seconds(0)}, later);
  history = store.baselineHistory(1);
  std::vector<std::int64_t> kept;
  for (const BaselineVersion& v : history->versions) kept.push_back(v.version);
  EXPECT_EQ(kept, (std::vector<std::int64_t>{5, 4, 3}));
}

}  // namespace
}  // namespace saffra::server::testing
