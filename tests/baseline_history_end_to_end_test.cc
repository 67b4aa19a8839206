// Baselines a team can rely on, against a real `saffra serve` process: checkpoints are paired
// with baseline steps by name whatever files are added, removed or reordered; every accepted
// change is a version that can be rolled back to; an old run is accepted over a newer baseline
// only when confirmed; steps can keep alternative images; and sessions whose client went away
// are aborted, also when an earlier run of the service left them running.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "saffra/platform/json.h"
#include "saffra/platform/uuid.h"
#include "saffra/saffra.h"
#include "testing/child_process.h"
#include "testing/png_files.h"

namespace saffra {
namespace {

namespace fs = std::filesystem;

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";

// A 48x32 white image with a dark box whose place depends on `n`, so every n looks different.
std::shared_ptr<Image> screen(int n) {
  auto image = std::make_shared<Image>(48, 32);
  std::uint8_t* p = image->mutableData();
  for (int y = 0; y < 32; ++y) {
    for (int x = 0; x < 48; ++x, p += 4) {
      const bool box =
          x >= (n * 3) % 40 && x < (n * 3) % 40 + 6 && y >= (n * 5) % 24 && y < (n * 5) % 24 + 6;
      p[0] = p[1] = p[2] = box ? 20 : 255;
      p[3] = 255;
    }
  }
  return image;
}

class BaselineHistoryTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(folder_); }
  void TearDown() override {
    stopService();
    fs::remove_all(folder_);
  }

  // `saffra serve` over the test's data folder. Its log lines are read all along (and kept in
  // log_ once it stops), so the pipe never fills whatever the number of requests.
  void startService(std::vector<std::string> extra = {}) {
    testing::ServeProcess serve = testing::startServe(kCommand, folder_ / "data", extra);
    service_ = std::move(serve.process);
    url_ = serve.url;
    port_ = serve.port;
    drain_ = std::thread([this] {
      for (std::string chunk; !(chunk = service_->readAll(120)).empty();) {
        std::lock_guard lock(logMutex_);
        log_ += chunk;
      }
    });
  }
  void stopService() {
    if (!service_) return;
    EXPECT_EQ(service_->stop(SIGTERM), 0);
    drain_.join();
    service_.reset();
  }

  // Writes one PNG file per name (screen(n) for the n-th number given) into a fresh folder.
  std::vector<std::string> files(const std::vector<std::pair<std::string, int>>& shots) {
    const fs::path dir = folder_ / ("run-" + std::to_string(++runs_));
    fs::create_directories(dir);
    std::vector<std::string> paths;
    for (const auto& [name, n] : shots) {
      paths.push_back(testing::writePNGFile(dir / name, *screen(n)));
    }
    return paths;
  }

  struct Check {
    int exitCode = -1;
    std::string output;
    Json results;  // the results document the printed address leads API clients to
  };
  // `saffra check` of test "Gallery" of app "Shop", keyed on the viewport the library runs use.
  Check check(const std::vector<std::string>& paths) {
    std::vector<std::string> args{"check",     "--app", "Shop",       "--test", "Gallery",
                                  "--timeout", "20",    "--viewport", "48x32"};
    args.insert(args.end(), paths.begin(), paths.end());
    testing::ChildProcess child(kCommand, args,
                                {"QUORVANT_API_KEY=key", "QUORVANT_SERVER_URL=" + url_});
    Check c;
    c.output = child.readAll();
    c.exitCode = child.wait();
    std::smatch url;
    if (std::regex_search(c.output, url, std::regex("(/api/sessions/[A-Za-z0-9-]+)"))) {
      c.results = get(url[1].str());
    }
    return c;
  }

  // One run through the library with the given tags and images; closed unless `leaveRunning`.
  std::shared_ptr<TestResults> run(const std::vector<std::pair<std::string, int>>& shots) {
    Saffra saffra;
    saffra.setServerURL(url_);
    saffra.setApiKey("key");
    saffra.setWaitTimeoutForTesting(20);
    saffra.setMatchTimeout(0);
    saffra.openWithApplicationName("Shop", "Gallery", Size(48, 32));
    for (const auto& [tag, n] : shots) saffra.checkImage(screen(n), tag);
    return saffra.closeWithThrow(false, nullptr);
  }

  httplib::Client client() const {
    httplib::Client c("127.0.0.1", port_);
    c.set_read_timeout(20, 0);
    return c;
  }
  static std::string withKey(const std::string& target) {
    return target + (target.find('?') == std::string::npos ? "?" : "&") + "apiKey=key";
  }
  Json get(const std::string& target) const {
    auto reply = client().Get(withKey(target).c_str());
    return reply ? json::parse(reply->body).value_or(Json()) : Json();
  }
  // POST to the API; the status and the JSON reply.
  std::pair<int, Json> post(const std::string& target) const {
    auto reply = client().Post(withKey(target).c_str(), "", "application/json");
    if (!reply) return {0, Json()};
    return {reply->status, json::parse(reply->body).value_or(Json())};
  }
  std::string sessionOf(const Json& results) const { return results.value("id", ""); }

  fs::path folder_ = fs::temp_directory_path() / ("saffra-history-" + newUUIDString());
  std::unique_ptr<testing::ChildProcess> service_;
  std::thread drain_;
  std::mutex logMutex_;
  std::string log_;
  std::string url_;
  int port_ = 0;
  int runs_ = 0;
  LogCapture quiet_;
};

// Thirteen files; one removed, one added that sorts first: only those two are reported (new and
// missing), never the files after them. Accepting all writes each image to its own name, and
// files sent in another order still meet their own baselines.
TEST_F(BaselineHistoryTest, FilesArePairedWithTheirBaselinesByName) {
  startService();
  std::vector<std::pair<std::string, int>> thirteen;
  for (int i = 0; i < 13; ++i) thirteen.emplace_back("shot-" + std::to_string(10 + i) + ".png", i);
  Check first = check(files(thirteen));
  ASSERT_EQ(first.exitCode, 0) << first.output;

  std::vector<std::pair<std::string, int>> changed = thirteen;
  changed.erase(changed.begin() + 5);                      // shot-15.png removed
  changed.insert(changed.begin(), {"aaa-first.png", 40});  // a new file sorting first
  Check second = check(files(changed));
  EXPECT_EQ(second.exitCode, 1) << second.output;
  const Json& d = second.results;
  EXPECT_EQ(d["steps"], 13);
  EXPECT_EQ(d["matches"], 12) << d.dump();
  EXPECT_EQ(d["mismatches"], 1);  // the new step, which needs approval
  EXPECT_EQ(d["missing"], 1);
  EXPECT_EQ(d["stepsInfo"][0]["name"], "aaa-first.png");
  EXPECT_EQ(d["stepsInfo"][0]["hasBaselineImage"], false);
  EXPECT_EQ(d["stepsInfo"][13]["name"], "shot-15.png");
  EXPECT_EQ(d["stepsInfo"][13]["hasCurrentImage"], false);
  EXPECT_EQ(d["baselineVersion"], 1);
  EXPECT_EQ(d["baselineBranchName"], "default");

  auto [status, accepted] = post("/api/sessions/" + sessionOf(d) + "/accept");
  EXPECT_EQ(status, 200) << accepted.dump();
  EXPECT_EQ(accepted["status"], "Passed");
  Check third = check(files(changed));
  EXPECT_EQ(third.exitCode, 0) << third.output;
  EXPECT_EQ(third.results["baselineVersion"], 2);
  EXPECT_EQ(third.results["matches"], 13);

  // The library sends the same screens in reverse order under their names: all match.
  std::vector<std::pair<std::string, int>> reversed(changed.rbegin(), changed.rend());
  auto results = run(reversed);
  ASSERT_TRUE(results);
  EXPECT_EQ(results->status(), TestResultsStatusPassed);
  EXPECT_EQ(results->matches(), 13);
}

// Run A and run B both differ from version 1; B is accepted (version 2). Accepting A then would
// silently undo B, so it is refused until confirmed. Every version stays until retention, and
// rolling back makes a new version with an older one's steps.
TEST_F(BaselineHistoryTest, OldRunsNeedConfirmingAndVersionsCanBeRolledBack) {
  startService();
  run({{"home", 1}, {"cart", 2}});
  auto a = run({{"home", 3}, {"cart", 2}});
  auto b = run({{"home", 1}, {"cart", 4}});
  ASSERT_TRUE(a && b && a->resultsId() && b->resultsId());
  EXPECT_EQ(a->status(), TestResultsStatusUnresolved);
  EXPECT_EQ(post("/api/sessions/" + *b->resultsId() + "/accept").first, 200);

  auto [refused, why] = post("/api/sessions/" + *a->resultsId() + "/steps/1/accept");
  EXPECT_EQ(refused, 409) << why.dump();
  EXPECT_EQ(why["comparedVersion"], 1);
  EXPECT_EQ(why["currentVersion"], 2);
  EXPECT_EQ(run({{"home", 1}, {"cart", 4}})->status(), TestResultsStatusPassed);  // unchanged
  EXPECT_EQ(post("/api/sessions/" + *a->resultsId() + "/steps/1/accept?confirm=true").first, 200);
  EXPECT_EQ(run({{"home", 3}, {"cart", 4}})->status(), TestResultsStatusPassed);

  Json document = get("/api/sessions/" + *b->resultsId());
  const std::string baseline = "/api/baselines/" + std::to_string(document.value("baselineId", 0));
  Json history = get(baseline);
  EXPECT_EQ(history["currentVersion"], 3);
  ASSERT_EQ(history["versions"].size(), 3u);
  EXPECT_EQ(history["versions"][0]["kind"], "accepted");
  EXPECT_EQ(history["versions"][0]["sessionId"], *a->resultsId());
  EXPECT_EQ(history["versions"][2]["kind"], "saved");

  auto [rolled, after] = post(baseline + "/rollback?version=1");
  EXPECT_EQ(rolled, 200) << after.dump();
  EXPECT_EQ(after["currentVersion"], 4);
  EXPECT_EQ(after["versions"][0]["fromVersion"], 1);
  EXPECT_EQ(run({{"home", 1}, {"cart", 2}})->status(), TestResultsStatusPassed);
  EXPECT_EQ(post(baseline + "/rollback?version=9").first, 404);
  EXPECT_EQ(post(baseline + "/rollback?version=x").first, 400);

  // The page of the baseline lists the versions with rollback buttons; the test page links it.
  auto page = client().Get(
      withKey("/app/baselines/" + std::to_string(document.value("baselineId", 0))).c_str(),
      {{"Accept", "text/html"}});
  ASSERT_TRUE(page);
  EXPECT_NE(page->body.find("data-version=\"4\" data-current=\"true\""), std::string::npos);
  EXPECT_NE(page->body.find("/versions/2/rollback"), std::string::npos);
  auto test =
      client().Get(withKey("/app/sessions/" + *b->resultsId()).c_str(), {{"Accept", "text/html"}});
  EXPECT_NE(test->body.find("version 1 of branch <bdi>default</bdi>"), std::string::npos);
}

// Two clients accept the same session at once, and an accept lands while another run is going:
// each gets a defined answer, and the run that started before the accept keeps comparing with
// the version it started with and cannot overwrite the accepted change later.
TEST_F(BaselineHistoryTest, ConcurrentAcceptsAndAcceptsDuringARun) {
  startService();
  run({{"home", 1}, {"cart", 2}});
  auto changed = run({{"home", 5}, {"cart", 6}});
  const std::string session = *changed->resultsId();
  std::vector<int> statuses(2);
  std::vector<std::thread> reviewers;
  for (int i = 0; i < 2; ++i) {
    reviewers.emplace_back(
        [&, i] { statuses[i] = post("/api/sessions/" + session + "/accept").first; });
  }
  for (auto& t : reviewers) t.join();
  // The second finds it done: refused as a repeat (not as stale), and nothing changes twice.
  std::sort(statuses.begin(), statuses.end());
  EXPECT_EQ(statuses, (std::vector<int>{200, 409}));
  EXPECT_EQ(run({{"home", 5}, {"cart", 6}})->status(), TestResultsStatusPassed);

  // A run starts (against the current version), then another session's change is accepted.
  Saffra during;
  during.setServerURL(url_);
  during.setApiKey("key");
  during.setWaitTimeoutForTesting(20);
  during.setMatchTimeout(0);
  during.openWithApplicationName("Shop", "Gallery", Size(48, 32));
  EXPECT_TRUE(during.checkImage(screen(5), "home"));
  auto other = run({{"home", 7}, {"cart", 6}});
  EXPECT_EQ(post("/api/sessions/" + *other->resultsId() + "/accept").first, 200);
  EXPECT_FALSE(during.checkImage(screen(8), "cart"));  // still compared with its own version
  auto results = during.closeWithThrow(false, nullptr);
  EXPECT_EQ(post("/api/sessions/" + *results->resultsId() + "/accept").first, 409);
  EXPECT_EQ(run({{"home", 7}, {"cart", 6}})->status(), TestResultsStatusPassed);
}

// A step rendered two legitimate ways keeps both: the second is accepted as an alternative,
// after which either passes, and the results say which one a step matched.
TEST_F(BaselineHistoryTest, AlternativesMatchBesideTheBaselineImage) {
  startService();
  run({{"title", 1}});
  auto other = run({{"title", 2}});
  EXPECT_EQ(other->status(), TestResultsStatusUnresolved);
  EXPECT_EQ(post("/api/sessions/" + *other->resultsId() + "/steps/1/alternative").first, 200);
  for (int n : {1, 2}) {
    auto results = run({{"title", n}});
    EXPECT_EQ(results->status(), TestResultsStatusPassed) << n;
    Json d = get("/api/sessions/" + *results->resultsId());
    EXPECT_EQ(d["stepsInfo"][0].value("matchedAlternative", false), n == 2) << d.dump();
  }
  EXPECT_EQ(run({{"title", 3}})->status(), TestResultsStatusUnresolved);
}

// A session whose client went away is aborted after the idle time; one that an earlier run of
// the service left running is aborted after the idle time counted from the restart.
TEST_F(BaselineHistoryTest, IdleSessionsAreAbortedAlsoAfterARestart) {
  const std::string start = R"({"startInfo": {"appIdOrName": "Shop", "scenarioIdOrName": "Idle"}})";
  auto startSession = [&] {
    auto reply = client().Post(withKey("/api/sessions/running").c_str(), start, "application/json");
    return reply ? json::parse(reply->body).value_or(Json()).value("id", "") : "";
  };
  auto waitForAbort = [&](const std::string& id) {
    Json d = Json::object();
    for (int i = 0; i < 100 && !(d.is_object() && d.value("isAborted", false)); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      d = get("/api/sessions/" + id);
    }
    return d;
  };
  startService();  // the default idle time: nothing is aborted during this test
  const std::string leftRunning = startSession();
  ASSERT_FALSE(leftRunning.empty());
  stopService();

  startService({"--idle-timeout", "0.05"});  // 3 s
  EXPECT_EQ(get("/api/sessions/" + leftRunning)["status"], "Running");
  const std::string abandoned = startSession();
  for (const std::string& id : {leftRunning, abandoned}) {
    Json d = waitForAbort(id);
    EXPECT_EQ(d["isAborted"], true) << id;
    EXPECT_EQ(d["status"], "Failed") << id;
  }
  stopService();
  std::lock_guard lock(logMutex_);
  EXPECT_NE(log_.find("session " + abandoned + " aborted: no request for 3 s"), std::string::npos)
      << log_;
}

}  // namespace
}  // namespace saffra
