// The store on both engines (SQLite in a data folder, PostgreSQL in a database of a server the
// test binary starts): images, sessions and their steps, baselines and their versions, decisions
// and their undo, and two stores racing on one place (retention is in baselines_test.cc). Then what
// only one engine has: image files never trusted when not whole, and the PostgreSQL schema's
// refusals and start-up errors.
#include "server/store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

#include "server/service_test_support.h"
#include "server/upload_file.h"
#include "testing/postgres_server.h"

namespace saffra::server {
namespace {

using testing::TempFolder;

std::vector<std::uint8_t> bytesOf(const std::string& text) {
  return std::vector<std::uint8_t>(text.begin(), text.end());
}

// The files under the image folder, temporary ones included.
std::size_t filesIn(const std::filesystem::path& folder) {
  std::size_t n = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder / "images")) {
    n += entry.is_regular_file();
  }
  return n;
}

// A file that a power loss cut short (it never reached the disk whole) is not taken for the
// image: storing the same bytes again writes it whole.
TEST(StoreTest, AnImageFileCutShortIsWrittenAgain) {
  TempFolder folder;
  std::unique_ptr<Store> opened = openStore(folder.path().string());
  Store& store = *opened;
  const auto png = bytesOf("not really a PNG, but bytes all the same");
  const std::string id = store.putImage(png);
  EXPECT_TRUE(store.hasImage(id, png.size()));
  store.flushImages();

  const auto path = folder.path() / "images" / id.substr(0, 2) / (id + ".png");
  std::filesystem::resize_file(path, 0);
  EXPECT_FALSE(store.hasImage(id, png.size()));
  EXPECT_EQ(store.putImage(png, id), id);
  EXPECT_EQ(store.readImage(id), png);
  EXPECT_EQ(filesIn(folder.path()), 1u);
}

// An upload's file is written ahead beside its decoding, or by keep() itself when nothing
// prepared it; a file written ahead and not kept leaves nothing behind, and a failure to write
// ahead is reported when the file is kept.
TEST(StoreTest, UploadFilesAreKeptOrDropped) {
  TempFolder folder;
  std::unique_ptr<Store> opened = openStore(folder.path().string());
  Store& store = *opened;
  const auto png = bytesOf("kept in the end");
  {
    UploadFile dropped(png, std::nullopt, true);
    dropped.prepare(store);
    EXPECT_EQ(filesIn(folder.path()), 1u);
  }
  EXPECT_EQ(filesIn(folder.path()), 0u);

  for (const bool prepared : {true, false}) {
    UploadFile file(png, std::nullopt, true);
    if (prepared) file.prepare(store);
    const std::string id = file.keep(store);
    EXPECT_EQ(id, Store::imageIdOf(png));
    EXPECT_EQ(store.readImage(id), png);
  }
  store.flushImages();
  EXPECT_EQ(filesIn(folder.path()), 1u);

  // A file where the image's folder should be: it cannot be written.
  const auto other = bytesOf("never written");
  std::ofstream(folder.path() / "images" / Store::imageIdOf(other).substr(0, 2)) << "in the way";
  UploadFile unwritable(other, std::nullopt, true);
  unwritable.prepare(store);
  EXPECT_THROW(unwritable.keep(store), StoreError);
}

using saffra::testing::PostgresServer;

// Where a store of the engine under test lives: a data folder, or a fresh database. (A
// PostgreSQL server that cannot start fails the test with its reason.)
class StoreEngine : public ::testing::TestWithParam<std::string> {
 protected:
  std::unique_ptr<Store> openAgain() { return openStore(address_); }

  TempFolder folder_;
  std::string address_ = storeAddress(GetParam(), folder_);
  std::unique_ptr<Store> store_ = openAgain();
};

INSTANTIATE_TEST_SUITE_P(Engines, StoreEngine, ::testing::Values("sqlite", "postgres"),
                         [](const auto& info) { return info.param; });

// Texts of every kind a client may send: any bytes survive the round trip.
const std::vector<std::string> kOddTexts = {"plain",
                                            "ünïcødé 🙂 名前",
                                            std::string("nul\0byte", 8),
                                            "\x01\x01"
                                            "01",
                                            "bad \xff\xfe utf-8",
                                            "quote ' \" \\ %_",
                                            ""};

SessionRecord newSession(const std::string& id, const std::string& key,
                         std::optional<BaselineRef> against = std::nullopt) {
  SessionRecord s;
  s.id = id;
  s.token = "token-" + id;
  s.appName = "Shop App";
  s.testName = "test " + id;
  s.branchName = "default";
  s.batchId = "batch-1";
  s.baselineKey = key;
  s.startedAt = s.lastActiveAt = 1000;
  if (against) {
    s.baselineId = against->id;
    s.baselineVersion = against->version;
    s.baselineBranch = "default";
  }
  s.isNew = !against;
  return s;
}

Outcome outcomeOf(const std::string& status) {
  Outcome o;
  o.status = o.stoppedStatus = status;
  o.stoppedAt = 2000;
  return o;
}

std::vector<std::uint8_t> allBytes() {
  std::vector<std::uint8_t> bytes;
  for (int i = 0; i < 512; ++i) bytes.push_back(static_cast<std::uint8_t>(i * 7));
  return bytes;
}

// Images are stored once under their hash and read back whole or by their head; a pending
// image is stored only when kept; malformed ids are refused or found absent.
TEST_P(StoreEngine, ImagesAreStoredOnceAndReadBackWhole) {
  Store& store = *store_;
  const std::vector<std::uint8_t> bytes = allBytes();
  const std::string id = store.putImage(bytes);
  EXPECT_EQ(store.putImage(bytes, id), id);
  EXPECT_EQ(store.readImage(id), bytes);
  EXPECT_EQ(store.imageHead(id, 5), std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + 5));
  EXPECT_EQ(store.imageHead(id, 4096), bytes);
  EXPECT_EQ(store.imageSize(id), bytes.size());
  EXPECT_TRUE(store.hasImage(id, bytes.size()));
  EXPECT_FALSE(store.hasImage(id, bytes.size() + 1));

  const std::vector<std::uint8_t> later = {1, 2, 3};
  const std::string laterId = Store::imageIdOf(later);
  store.writeImage(later, laterId);  // dropped at once
  EXPECT_EQ(store.readImage(laterId), std::nullopt);
  EXPECT_EQ(store.writeImage(later, laterId)->keep(), laterId);
  EXPECT_EQ(store.readImage(laterId), later);

  for (const std::string& bad : {std::string(), std::string("../../etc/passwd"),
                                 std::string(64, 'A'), id.substr(1), id + "0"}) {
    EXPECT_EQ(store.readImage(bad), std::nullopt) << bad;
    EXPECT_EQ(store.imageSize(bad), std::nullopt) << bad;
    EXPECT_EQ(store.imageHead(bad, 4), std::nullopt) << bad;
    EXPECT_THROW(store.putImage(bytes, bad), StoreError) << bad;
  }
  EXPECT_EQ(store.readImage(std::string(64, '0')), std::nullopt);
}

// Sessions, steps, batches and what the pages read of them keep every text as it was sent,
// and the batch list counts and finds them (in any case).
TEST_P(StoreEngine, SessionsAndStepsKeepEveryText) {
  Store& store = *store_;
  for (std::size_t i = 0; i < kOddTexts.size(); ++i) {
    SessionRecord s = newSession("s" + std::to_string(i), "key " + kOddTexts[i]);
    // A session's settings are JSON, which holds only well-formed UTF-8.
    const bool utf8 = kOddTexts[i].find('\xff') == std::string::npos;
    if (utf8) s.testName = kOddTexts[i];
    store.insertSession(s, {"batch-1", kOddTexts[i], OptString("2026"), OptString("seq"), false});
    StepRecord step;
    step.position = 0;
    step.tag = kOddTexts[i];
    step.currentImage = store.putImage(allBytes());
    step.matchLevel = "Strict";
    step.accessibilityPassed = true;
    step.accessibilityLevel = "AA";
    step.settings = Json{{"ignoreCaret", true}};
    store.insertStep(s.id, step);
    store.putStepChanges(s.id, 0, Json{{"area", 12}});
    std::optional<SessionRecord> read = store.session(s.id);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->testName, s.testName);
    EXPECT_EQ(read->baselineKey, s.baselineKey);
    EXPECT_EQ(store.batch("batch-1")->name, OptString(kOddTexts[i]));
    std::vector<StepRecord> steps = store.steps(s.id);
    ASSERT_EQ(steps.size(), 1u);
    EXPECT_EQ(steps[0].tag, kOddTexts[i]);
    EXPECT_EQ(steps[0].accessibilityPassed, std::optional<bool>(true));
    EXPECT_EQ(steps[0].settings, step.settings);
    EXPECT_EQ(store.stepCountWithTag(s.id, kOddTexts[i]), 1);
    EXPECT_EQ(store.stepChanges(s.id).at(0), (Json{{"area", 12}}));
  }
  EXPECT_EQ(store.stepCount("s0"), 1);
  EXPECT_EQ(store.stepCount("nobody"), 0);
  EXPECT_EQ(store.sessionsInBatch("batch-1").size(), kOddTexts.size());

  store.touchSession("s0", 5000);
  store.finishSession("s1", outcomeOf("Passed"), nullptr);
  store.finishSession("s2", outcomeOf("Failed"), nullptr);
  std::vector<std::string> idle = store.idleSessions(3000);
  EXPECT_EQ(idle.size(), kOddTexts.size() - 3);
  EXPECT_EQ(std::count(idle.begin(), idle.end(), "s0"), 0);

  SessionRecord other = newSession("other", "k2");
  other.batchId = "batch-2";
  store.insertSession(other, {"batch-2", OptString("second"), {}, {}, false});
  EXPECT_TRUE(store.closeBatch("batch-2"));
  EXPECT_FALSE(store.closeBatch("no-such-batch"));
  BatchPage all = store.batchSummaries("", 0, 10);
  ASSERT_EQ(all.total, 2);
  const BatchSummary& first = all.rows[0].batch.id == "batch-1" ? all.rows[0] : all.rows[1];
  EXPECT_EQ(first.tests, static_cast<std::int64_t>(kOddTexts.size()));
  EXPECT_EQ(first.passed, 1);
  EXPECT_EQ(first.failed, 1);
  EXPECT_EQ(first.running, static_cast<std::int64_t>(kOddTexts.size()) - 2);
  EXPECT_EQ(first.apps, std::vector<std::string>{"Shop App"});
  for (const auto& [search, found] : std::vector<std::pair<std::string, std::int64_t>>{
           {"SHOP", 2}, {"second", 1}, {"BATCH-2", 1}, {"%", 0}, {"nothing", 0}}) {
    EXPECT_EQ(store.batchSummaries(search, 0, 10).total, found) << search;
  }
  EXPECT_EQ(store.batchSummaries("", 1, 10).rows.size(), 1u);
  EXPECT_EQ(store.batches().size(), 2u);
}

// A saved baseline makes version 1; an accepted step makes version 2 from it; a session
// compared with version 1 may then neither save nor accept (unless confirmed), and nothing of
// it is written; a rollback makes a new version with an old one's steps.
TEST_P(StoreEngine, BaselineVersionsRefuseStaleChanges) {
  Store& store = *store_;
  const std::string a = store.putImage(std::vector<std::uint8_t>{1});
  const std::string b = store.putImage(std::vector<std::uint8_t>{2});
  const std::string c = store.putImage(std::vector<std::uint8_t>{3});
  store.insertSession(newSession("first", "key"), {"batch-1", {}, {}, {}, false});
  const std::vector<BaselineStep> saved = {
      {0, "home", a, {b}}, {1, "menu", b, {}}, {2, "home", c, {}}};
  store.finishSession("first", outcomeOf("Passed"), &saved);
  std::optional<BaselineRef> v1 = store.findBaseline("key");
  ASSERT_TRUE(v1);
  EXPECT_EQ(v1->version, 1);
  std::vector<BaselineStep> steps = store.baselineSteps(v1->id, 1);
  ASSERT_EQ(steps.size(), 3u);
  EXPECT_EQ(steps[0].alternatives, std::vector<std::string>{b});
  EXPECT_EQ(store.baselineStepByTag(v1->id, 1, "home", 1)->image, c);
  EXPECT_EQ(store.baselineStepByTag(v1->id, 1, "home", 2), std::nullopt);

  store.insertSession(newSession("accepting", "key", v1), {"batch-1", {}, {}, {}, false});
  store.insertSession(newSession("stale", "key", v1), {"batch-1", {}, {}, {}, false});
  store.finishSession("accepting", outcomeOf("Unresolved"), nullptr);
  store.finishSession("stale", outcomeOf("Unresolved"), nullptr);
  StepReview accept{0, true, false, BaselineChange{BaselineChange::Kind::Replace, "menu", 0, c}};
  store.reviewSteps("accepting", {accept}, outcomeOf("Passed"), false);
  EXPECT_EQ(store.findBaseline("key")->version, 2);
  EXPECT_EQ(store.baselineStepByTag(v1->id, 2, "menu", 0)->image, c);
  EXPECT_EQ(store.reviews("accepting").at(0).accepted, true);

  try {
    store.reviewSteps("stale", {accept}, outcomeOf("Passed"), false);
    ADD_FAILURE() << "a stale accept was recorded";
  } catch (const StaleBaselineError& e) {
    EXPECT_EQ(e.comparedVersion(), 1);
    EXPECT_EQ(e.currentVersion(), 2);
  }
  EXPECT_THROW(store.finishSession("stale", outcomeOf("Passed"), &saved), StaleBaselineError);
  EXPECT_EQ(store.session("stale")->outcome->status, "Unresolved");
  EXPECT_TRUE(store.reviews("stale").empty());
  // A second end (another service stopping it, or aborting it as idle) records nothing.
  EXPECT_FALSE(store.finishSession("accepting", outcomeOf("Aborted"), nullptr));
  EXPECT_EQ(store.session("accepting")->outcome->status, "Passed");
  store.reviewSteps("stale", {accept}, outcomeOf("Passed"), true);
  EXPECT_EQ(store.findBaseline("key")->version, 3);

  EXPECT_EQ(store.rollBack(v1->id, 1), 4);
  EXPECT_EQ(store.baselineSteps(v1->id, 4).size(), 3u);
  EXPECT_THROW(store.rollBack(v1->id, 99), UnknownVersionError);
  std::optional<BaselineHistory> history = store.baselineHistory(v1->id);
  ASSERT_TRUE(history);
  std::vector<std::string> kinds;
  for (const BaselineVersion& v : history->versions) kinds.push_back(v.kind);
  EXPECT_EQ(kinds, (std::vector<std::string>{"rollback", "accepted", "accepted", "saved"}));
  EXPECT_EQ(store.baselineHistory(v1->id + 100), std::nullopt);
}

// A decision over two tests is recorded as one and undone as one: outcomes, verdicts and the
// baseline come back; an undo naming another decision, or sent twice, changes nothing.
TEST_P(StoreEngine, DecisionsAreUndoneWhole) {
  Store& store = *store_;
  const std::string a = store.putImage(std::vector<std::uint8_t>{1});
  const std::string b = store.putImage(std::vector<std::uint8_t>{2});
  store.insertSession(newSession("base", "key"), {"batch-1", {}, {}, {}, false});
  const std::vector<BaselineStep> saved = {{0, "home", a, {}}};
  store.finishSession("base", outcomeOf("Passed"), &saved);
  const BaselineRef v1 = *store.findBaseline("key");
  std::vector<SessionDecision> decision;
  for (const std::string id : {"t1", "t2"}) {
    // The second test saves to a key of its own, starting from the baseline it was compared with.
    store.insertSession(newSession(id, id == std::string("t1") ? "key" : "key2", v1),
                        {"batch-1", {}, {}, {}, false});
    store.finishSession(id, outcomeOf("Unresolved"), nullptr);
    decision.push_back({id,
                        {{0, true, id == std::string("t2"),
                          BaselineChange{BaselineChange::Kind::AddAlternative, "home", 0, b}}},
                        outcomeOf("Passed")});
  }
  const std::int64_t made = store.decide("rev", "batch", decision, false);
  EXPECT_EQ(store.lastDecision("rev"), made);
  EXPECT_EQ(store.lastDecision("someone else"), std::nullopt);
  EXPECT_EQ(store.decisionToUndo("rev")->sessions.size(), 2u);
  EXPECT_EQ(store.session("t1")->outcome->status, "Passed");
  EXPECT_EQ(
      store.baselineStepByTag(v1.id, store.findBaseline("key")->version, "home", 0)->alternatives,
      std::vector<std::string>{b});

  EXPECT_THROW(store.undoLastDecision("rev", made + 1), UndoRefused);
  std::optional<UndoneDecision> undone = store.undoLastDecision("rev", made);
  ASSERT_TRUE(undone);
  EXPECT_EQ(undone->scope, "batch");
  EXPECT_THROW(store.undoLastDecision("rev", made), UndoRefused);  // sent twice
  EXPECT_EQ(store.undoLastDecision("rev", std::nullopt), std::nullopt);
  for (const std::string id : {"t1", "t2"}) {
    EXPECT_EQ(store.session(id)->outcome->status, "Unresolved");
    EXPECT_TRUE(store.reviews(id).empty());
  }
  EXPECT_EQ(store.findBaseline("key2"), std::nullopt);  // made by the decision: removed again
  const BaselineRef now = *store.findBaseline("key");
  EXPECT_EQ(store.baselineHistory(now.id)->versions.front().kind, "undo");
  EXPECT_TRUE(store.baselineStepByTag(now.id, now.version, "home", 0)->alternatives.empty());
}

// Two stores on one place (two instances of the service) finishing sessions of one baseline at
// once: exactly one saves, every other is refused as stale, and no version is written half.
TEST_P(StoreEngine, RacingStoresSaveOneBaselineOnce) {
  std::unique_ptr<Store> other = openAgain();
  Store* stores[] = {store_.get(), other.get()};
  const std::string image = store_->putImage(std::vector<std::uint8_t>{9});
  store_->insertSession(newSession("base", "key"), {"batch-1", {}, {}, {}, false});
  const std::vector<BaselineStep> saved = {{0, "home", image, {}}};
  store_->finishSession("base", outcomeOf("Passed"), &saved);
  const BaselineRef v1 = *store_->findBaseline("key");
  constexpr int kRacers = 8;
  for (int i = 0; i < kRacers; ++i) {
    store_->insertSession(newSession("r" + std::to_string(i), "key", v1),
                          {"batch-1", {}, {}, {}, false});
  }
  std::atomic<int> saves{0}, stale{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kRacers; ++i) {
    threads.emplace_back([&, i] {
      try {
        stores[i % 2]->finishSession("r" + std::to_string(i), outcomeOf("Passed"), &saved);
        ++saves;
      } catch (const StaleBaselineError&) {
        ++stale;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(saves, 1);
  EXPECT_EQ(stale, kRacers - 1);
  EXPECT_EQ(other->findBaseline("key")->version, 2);
  EXPECT_EQ(other->baselineSteps(v1.id, 2).size(), 1u);
}

// A database of another program, or of a newer schema, is refused and left as it was; bad
// addresses, closed ports and wrong passwords are told apart at the start.
TEST(PostgresStore, RefusesForeignAndNewerDatabasesAndBadAddresses) {
  PostgresServer* server = &PostgresServer::shared();
  const std::string foreign = server->createDatabase();
  PostgresServer::run(foreign, "CREATE TABLE invoices(id INT); INSERT INTO invoices VALUES(7)");
  try {
    openStore(foreign);
    ADD_FAILURE() << "a foreign database was opened";
  } catch (const StoreError& e) {
    EXPECT_NE(std::string(e.what()).find("another program"), std::string::npos) << e.what();
  }
  // Untouched: no table of ours was made.
  EXPECT_THROW(PostgresServer::run(foreign, "SELECT * FROM saffra_schema"), std::runtime_error);

  const std::string newer = server->createDatabase();
  openStore(newer);
  PostgresServer::run(newer, "UPDATE saffra_schema SET version = 99");
  try {
    openStore(newer);
    ADD_FAILURE() << "a newer database was opened";
  } catch (const StoreError& e) {
    EXPECT_NE(std::string(e.what()).find("newer"), std::string::npos) << e.what();
  }

  // Instances starting at once on an empty database: one creates the schema, all open it.
  const std::string fresh = server->createDatabase();
  std::atomic<int> opened{0};
  std::vector<std::thread> starting;
  for (int i = 0; i < 4; ++i) {
    starting.emplace_back([&] {
      if (openStore(fresh)->schemaVersion() == 5) ++opened;
    });
  }
  for (std::thread& t : starting) t.join();
  EXPECT_EQ(opened, 4);

  EXPECT_THROW(openStore("postgresql://saffra@127.0.0.1:notaport/x"), StoreAddressError);
  EXPECT_THROW(openStore("postgresql://127.0.0.1/x?nosuchoption=1"), StoreAddressError);
  const std::string database =
      fresh.substr(fresh.find(":///") + 4, fresh.find('?') - fresh.find(":///") - 4);
  try {
    openStore(server->tcpAddress(database, "wrong"));
    ADD_FAILURE() << "a wrong password was taken";
  } catch (const StoreUnavailable& e) {
    EXPECT_NE(std::string(e.what()).find("refused the login"), std::string::npos) << e.what();
    EXPECT_EQ(std::string(e.what()).find("wrong"), std::string::npos) << "shows the password";
  }
  EXPECT_EQ(openStore(server->tcpAddress(database, PostgresServer::password()))->schemaVersion(),
            5);
}

}  // namespace
}  // namespace saffra::server
