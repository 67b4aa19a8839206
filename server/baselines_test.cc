// Baselines over the protocol and in the store: pairing by tag for any tag and thousands of
// steps, a save that would undo an accepted change, the upgrade of a data folder from before
// baseline versions, and retention, which never leaves a baseline pointing at a missing image.
#include <sqlite3.h>

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

// A data folder from before baseline versions: its baselines become version 1, its old
// sessions keep their pages, and new runs pair with its steps by tag.
TEST(BaselineMigration, AFirstReleaseDataFolderIsUpgraded) {
  TempFolder folder;
  {
    // The first schema, with one baseline of two steps whose images are stored.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((folder.path() / "saffra.db").c_str(), &db), SQLITE_OK);
    const std::string plain = Store::imageIdOf(kPlain), marked = Store::imageIdOf(kMarked);
    SessionRecord s;
    s.appName = "Calendar";
    s.testName = "month view";
    s.hostOS = "Linux 6.1";
    s.hostApp = "Unit tests";
    s.displayWidth = 375;
    s.displayHeight = 667;
    const std::string key =
        json::write(Json::array({s.appName, s.testName, s.hostOS, s.hostApp, s.displayWidth,
                                 s.displayHeight, "", "default"}));
    const std::string sql =
        "CREATE TABLE batches(id TEXT PRIMARY KEY, name TEXT, started_at TEXT, sequence_name "
        "TEXT, is_closed INTEGER NOT NULL DEFAULT 0, closed_at INTEGER);"
        "CREATE TABLE baselines(id INTEGER PRIMARY KEY, key TEXT NOT NULL UNIQUE, updated_at "
        "INTEGER NOT NULL);"
        "CREATE TABLE baseline_steps(baseline_id INTEGER NOT NULL REFERENCES baselines(id), "
        "position INTEGER NOT NULL, tag TEXT NOT NULL, image TEXT NOT NULL, "
        "PRIMARY KEY(baseline_id, position));"
        "CREATE TABLE sessions(id TEXT PRIMARY KEY, token TEXT NOT NULL, info TEXT NOT NULL, "
        "baseline_key TEXT NOT NULL, baseline_id INTEGER, is_new INTEGER NOT NULL, started_at "
        "INTEGER NOT NULL, batch_id TEXT NOT NULL, outcome TEXT);"
        "CREATE TABLE steps(session_id TEXT NOT NULL REFERENCES sessions(id), position INTEGER "
        "NOT NULL, tag TEXT NOT NULL, current_image TEXT NOT NULL, baseline_image TEXT, "
        "diff_image TEXT, as_expected INTEGER NOT NULL, match_level TEXT NOT NULL, "
        "accessibility TEXT, settings TEXT, PRIMARY KEY(session_id, position));"
        "CREATE TABLE reviews(session_id TEXT NOT NULL REFERENCES sessions(id), position "
        "INTEGER NOT NULL, accepted INTEGER NOT NULL, PRIMARY KEY(session_id, position));"
        "INSERT INTO baselines VALUES(1, '" +
        key +
        "', 1700000000);"
        "INSERT INTO baseline_steps VALUES(1, 0, 'home', '" +
        plain + "'), (1, 1, 'menu', '" + marked +
        "');"
        "INSERT INTO sessions VALUES('OLD-1', 'tok', '{}', 'k', 1, 0, 1700000000, 'B', "
        "'{\"status\":\"Unresolved\",\"missing\":[{\"position\":1,\"tag\":\"menu\",\"image\":\"" +
        marked + "\"}]}');";
    ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    std::unique_ptr<Store> opened = openStore(folder.path().string());
    Store& store = *opened;
    store.putImage(kPlain);
    store.putImage(kMarked);
    EXPECT_EQ(store.schemaVersion(), 5);
  }
  Harness harness(folder.path());
  // The menu first, then home: both pair by tag with the migrated steps.
  std::string id = harness.start(SessionSpec{}).body["id"];
  EXPECT_EQ(harness.match(id, matchBody(kMarked, "menu")).body["asExpected"], true);
  EXPECT_EQ(harness.match(id, matchBody(kPlain, "home")).body["asExpected"], true);
  Json d = harness.stop(id, false, false).body;
  EXPECT_EQ(differences(d, R"({"/status": "Passed", "/baselineVersion": 1,
      "/baselineBranchName": "default", "/matches": 2})"),
            "");
  // The old session's missing step is still shown and can be accepted (the step is dropped).
  EXPECT_EQ(
      harness.send("GET", "/api/sessions/OLD-1/steps/2/baseline.png?apiKey=" + std::string(kApiKey))
          .bytes(),
      kMarked);
  Reply accepted =
      harness.send("POST", "/api/sessions/OLD-1/steps/2/accept?apiKey=" + std::string(kApiKey));
  EXPECT_EQ(accepted.status, 200) << accepted.raw;
}

// Retention removes old sessions, versions beyond the limit and the images nothing refers to;
// the current version, versions a kept session used, and their images stay, and a rollback to
// a removed version is refused as gone.
class Retention : public ::testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(Engines, Retention, ::testing::Values("sqlite", "postgres"),
                         [](const auto& info) { return info.param; });

TEST_P(Retention, RemovesWhatNothingNeedsAndKeepsEveryBaselineWhole) {
  TempFolder folder;
  std::unique_ptr<Store> opened;
  try {
    opened = openStore(storeAddress(GetParam(), folder));
  } catch (const std::exception& e) {
    GTEST_FAIL() << e.what();
  }
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
