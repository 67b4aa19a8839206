// The results pages in headless Chromium, driven by tests/browser/drive.mjs, against the local
// service running in-process with runs made by the library: login, approval (accept, accept
// all, reject), refusal of forged cross-site posts, and screenshots compared with expectations.
// Needs /usr/bin/chromium, node and tests/browser/node_modules (scripts/setup installs them).
// SAFFRA_SKIP_BROWSER_TESTS=1 skips these tests; SAFFRA_UPDATE_EXPECTATIONS=1 rewrites the
// expected screenshots in tests/browser/expected/.
#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "saffra/platform/uuid.h"
#include "saffra/saffra.h"
#include "server/compare/compare.h"
#include "server/service.h"
#include "testing/child_process.h"
#include "testing/test_server.h"

namespace saffra {
namespace {

namespace fs = std::filesystem;

constexpr const char* kKey = "browser-key";
const fs::path kBrowserDir = fs::path(SAFFRA_SOURCE_DIR) / "tests" / "browser";
const fs::path kExamples = fs::path(SAFFRA_SOURCE_DIR) / "examples" / "images";

bool isSet(const char* name) {
  const char* value = std::getenv(name);
  return value && std::string(value) == "1";
}

// The full path of a program on PATH (posix_spawn does not search), or empty.
std::string findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(std::string(path ? path : "") + ":/usr/local/bin:/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (dir.empty()) continue;
    fs::path candidate = fs::path(dir) / name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate.string();
  }
  return {};
}

// What keeps the browser tests from running, or empty when everything is there.
std::string missingPrerequisite() {
  if (access("/usr/bin/chromium", X_OK) != 0) return "/usr/bin/chromium is missing";
  if (findProgram("node").empty()) return "node is not on PATH";
  if (!fs::exists(kBrowserDir / "node_modules" / "playwright-core" / "package.json")) {
    return "tests/browser/node_modules has no playwright-core";
  }
  return {};
}

std::shared_ptr<Image> example(const std::string& name) {
  return Image::fromPNGFile((kExamples / name).string());
}

// "status baseline/current/diff", the images of each step shown on a page.
std::vector<std::string> images(const Json& steps) {
  std::vector<std::string> shown;
  for (const Json& s : steps) {
    shown.push_back(s["status"].get<std::string>() + " " + s["baseline"].dump() + "/" +
                    s["current"].dump() + "/" + s["diff"].dump());
  }
  return shown;
}
std::vector<std::string> statuses(const Json& steps) {
  std::vector<std::string> shown;
  for (const Json& s : steps) shown.push_back(s["status"]);
  return shown;
}

class BrowserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (isSet("SAFFRA_SKIP_BROWSER_TESTS")) GTEST_SKIP() << "SAFFRA_SKIP_BROWSER_TESTS=1";
    std::string missing = missingPrerequisite();
    if (!missing.empty()) {
      GTEST_FAIL() << missing << ": run scripts/setup to install the browser tests' tools (or "
                   << "set SAFFRA_SKIP_BROWSER_TESTS=1 to skip them)";
    }
    fs::create_directories(work_);
    server::ServiceOptions options;
    options.dataFolder = work_ / "data";
    options.apiKeys = {kKey};
    service_ = std::make_unique<server::Service>(options);
    service_->start();
    // A fixed batch, so that the batch list renders the same on every run.
    batch_ = std::make_shared<BatchInfo>("Browser tests",
                                         Date{std::chrono::seconds(1767225600)});  // 2026-01-01
    batch_->setBatchId("browser-batch");
  }
  void TearDown() override {
    service_.reset();
    std::error_code ignored;
    fs::remove_all(work_, ignored);
  }

  struct Run {
    std::shared_ptr<TestResults> results;
    std::vector<bool> checks;
    std::string sessionId;
  };

  // One run of the test through the library, a check per entry tagged "step-1", "step-2", ...
  Run run(const std::string& testName,
          const std::vector<std::shared_ptr<CheckSettingsProtocol>>& checks,
          const std::function<void(Saffra&)>& configure = {}) {
    Saffra saffra;
    saffra.setServerURL(service_->url());
    saffra.setApiKey(kKey);
    saffra.setWaitTimeoutForTesting(20);
    saffra.setMatchTimeout(0);
    saffra.setBatch(batch_);
    saffra.setHostOS("Linux");
    saffra.setHostApp("Browser tests");
    if (configure) configure(saffra);
    saffra.openWithApplicationName("Shop", testName);
    Run result;
    for (std::size_t i = 0; i < checks.size(); ++i) {
      result.checks.push_back(saffra.checkWithTag("step-" + std::to_string(i + 1), checks[i]));
    }
    result.results = saffra.closeWithThrow(false, nullptr);
    std::smatch id;
    std::string url = result.results ? result.results->url().value_or("") : "";
    if (std::regex_search(url, id, std::regex("/sessions/([^/?#]+)"))) result.sessionId = id[1];
    return result;
  }

  // A saved baseline of the icon and the header, then a run where the icon changed.
  Run changedRun(const std::string& testName) {
    auto header = example("docs-header.png");
    auto icon = example("icon-tile.png");
    Run first = run(testName, {Target::image(icon), Target::image(header)});
    EXPECT_TRUE(first.results && first.results->status() == TestResultsStatusPassed);
    Run changed =
        run(testName, {Target::image(example("changed/icon-tile.png")), Target::image(header)});
    EXPECT_EQ(changed.checks, (std::vector<bool>{false, true}));
    EXPECT_FALSE(changed.sessionId.empty());
    return changed;
  }

  // The session's results as the library reads them from the JSON API.
  std::optional<TestResultsStatus> apiStatus(const std::string& sessionId) {
    httplib::Client client("127.0.0.1", service_->port());
    client.set_read_timeout(10, 0);
    auto reply = client.Get("/api/sessions/" + sessionId + "?apiKey=" + kKey,
                            {{"Accept", "application/json"}});
    if (!reply || reply->status != 200) return std::nullopt;
    std::optional<Json> document = json::parse(reply->body);
    if (!document) return std::nullopt;
    return TestResults(*document).status();
  }

  std::string page(const std::string& sessionId) { return "/app/sessions/" + sessionId; }
  static std::string step(int n) { return "section.step[data-step=\"" + std::to_string(n) + "\"]"; }

  // Runs the driver with `actions` and returns the results of the actions named with "as". A
  // failed run records a test failure with the driver's message and returns what it got.
  Json drive(const Json& actions) {
    Json plan = {{"base", service_->url()},
                 {"timeoutMs", 10000},
                 {"totalTimeoutMs", 50000},
                 {"viewport", {{"width", 1280}, {"height", 800}}},
                 {"actions", actions}};
    fs::path planFile = work_ / ("plan-" + newUUIDString() + ".json");
    std::ofstream(planFile) << json::write(plan);
    // A clean environment: sanitizer settings and preloads of this process must not reach
    // node or the browser.
    std::vector<std::string> environment = {"PATH=/usr/local/bin:/usr/bin:/bin",
                                            "HOME=" + work_.string(), "TMPDIR=/tmp", "LANG=C.UTF-8",
                                            "TZ=UTC"};
    testing::ChildProcess node(findProgram("node"),
                               {(kBrowserDir / "drive.mjs").string(), planFile.string()},
                               environment);
    std::string output = node.readAll(70);
    int exitCode = node.wait();
    std::string last;
    std::stringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("{", 0) == 0) last = line;
    }
    std::optional<Json> outcome = json::parse(last);
    if (!outcome || !outcome->is_object()) {
      ADD_FAILURE() << "the browser driver printed no result (exit " << exitCode << "):\n"
                    << output;
      return Json::object();
    }
    Json results = outcome->value("results", Json::array());
    Json named = outcome->value("named", Json::object());
    if (exitCode != 0 || !outcome->value("ok", false)) {
      ADD_FAILURE() << "browser driver: " << outcome->value("error", std::string("failed"))
                    << "\nresults so far: " << results.dump() << "\noutput:\n"
                    << output;
    }
    return named;
  }

  // Compares a screenshot with tests/browser/expected/<name>.png at Strict level;
  // SAFFRA_UPDATE_EXPECTATIONS=1 stores the screenshot instead.
  void expectScreenshot(const std::string& name, const fs::path& actualFile) {
    fs::path expectedFile = kBrowserDir / "expected" / (name + ".png");
    if (isSet("SAFFRA_UPDATE_EXPECTATIONS")) {
      fs::copy_file(actualFile, expectedFile, fs::copy_options::overwrite_existing);
      return;
    }
    fs::path failures = fs::path(SAFFRA_BINARY_DIR) / "browser-failures";
    fs::create_directories(failures);
    fs::path keptActual = failures / (name + "-actual.png");
    ASSERT_TRUE(fs::exists(expectedFile))
        << "no expectation " << expectedFile
        << "; run the test with SAFFRA_UPDATE_EXPECTATIONS=1 to store it";
    auto actual = Image::fromPNGFile(actualFile.string());
    auto expected = Image::fromPNGFile(expectedFile.string());
    compare::CompareOptions options;
    options.level = compare::MatchLevel::Strict;
    compare::CompareResult result = compare::compareImages(*expected, *actual, options);
    if (result.matches) return;
    fs::copy_file(actualFile, keptActual, fs::copy_options::overwrite_existing);
    fs::path diffFile = failures / (name + "-diff.png");
    std::vector<std::uint8_t> diff = compare::makeDiffImage(*expected, result).pngData();
    std::ofstream(diffFile, std::ios::binary)
        .write(reinterpret_cast<const char*>(diff.data()),
               static_cast<std::streamsize>(diff.size()));
    ADD_FAILURE() << "screenshot " << name << " differs from " << expectedFile << " ("
                  << (result.sizesDiffer ? "size" : std::to_string(result.differingPixels)) << " "
                  << actual->width() << "x" << actual->height() << " vs " << expected->width()
                  << "x" << expected->height() << "); actual: " << keptActual
                  << ", diff: " << diffFile << " (SAFFRA_UPDATE_EXPECTATIONS=1 accepts it)";
  }

  fs::path work_ = fs::temp_directory_path() / ("saffra-browser-" + newUUIDString());
  std::unique_ptr<server::Service> service_;
  std::shared_ptr<BatchInfo> batch_;
  LogCapture quiet_;  // keeps the library's and the service's lines out of the test output
};

// Without a key the browser lands on the login page; a wrong key stays there, the right one
// leads back. Posts built on pages of other origins are refused even when the browser sends the
// login cookie along and the form carries a valid token. Then the person accepts the changed
// step of one test, rejects that of another and accepts all steps of a new test that was not
// saved: the next runs pass, the rejected test fails.
TEST_F(BrowserTest, LoginForgedPostsAndReview) {
  Run changed = changedRun("Accept a step");
  Run rejected = changedRun("Reject a step");
  std::vector<std::shared_ptr<CheckSettingsProtocol>> newChecks = {
      Target::image(example("icon-tile.png")), Target::image(example("help-topics.png"))};
  Run unsaved = run("Accept all", newChecks, [](Saffra& s) { s.setSaveNewTests(false); });
  ASSERT_TRUE(unsaved.results);
  ASSERT_EQ(unsaved.results->status(), TestResultsStatusUnresolved);
  testing::TestServer elsewhere;
  elsewhere.route("GET", "/",
                  testing::Reply::text(200, "<!doctype html><title>Elsewhere</title><p>Hi</p>"));
  std::string accept = page(changed.sessionId) + "/steps/1/accept";
  std::string acceptAll = page(changed.sessionId) + "/accept";
  std::string sameSite = "http://127.0.0.1:" + std::to_string(elsewhere.port()) + "/";
  std::string crossSite = "http://localhost:" + std::to_string(elsewhere.port()) + "/";
  Json withToken = {{"csrf", "${csrf}"}};
  auto forge = [](const std::string& url, const std::string& action, Json fields, const char* as) {
    return Json{{"do", "forge"}, {"url", url}, {"action", action}, {"fields", fields}, {"as", as}};
  };
  auto status = [](const char* as) {
    return Json{{"do", "text"}, {"selector", "#test-status"}, {"as", as}};
  };
  Json r = drive({
      {{"do", "goto"}, {"path", page(changed.sessionId)}, {"as", "noKey"}},
      {{"do", "count"}, {"selector", "form#login input[name=apiKey]"}, {"as", "loginForms"}},
      {{"do", "login"}, {"key", "not-the-key"}, {"as", "wrongKey"}},
      {{"do", "login"}, {"key", kKey}, {"as", "rightKey"}},
      {{"do", "attr"}, {"selector", "input[name=csrf]"}, {"name", "value"}, {"as", "csrf"}},
      forge(sameSite, accept, withToken, "sameSiteWithToken"),
      forge(sameSite, acceptAll, Json::object(), "sameSiteWithoutToken"),
      forge(crossSite, acceptAll, withToken, "crossSite"),
      {{"do", "goto"}, {"path", page(changed.sessionId)}, {"as", "back"}},
      status("statusBefore"),
      {{"do", "steps"}, {"as", "before"}},
      {{"do", "click"}, {"selector", step(1) + " button.accept"}, {"as", "accepted"}},
      status("statusAfter"),
      {{"do", "steps"}, {"as", "after"}},
      {{"do", "goto"}, {"path", page(rejected.sessionId)}},
      {{"do", "click"}, {"selector", step(1) + " button.reject"}},
      status("rejectedStatus"),
      {{"do", "steps"}, {"as", "rejectedSteps"}},
      {{"do", "goto"}, {"path", page(unsaved.sessionId)}},
      {{"do", "steps"}, {"as", "newBefore"}},
      {{"do", "click"}, {"selector", "#accept-all"}},
      status("newStatus"),
      {{"do", "steps"}, {"as", "newAfter"}},
  });
  ASSERT_TRUE(r.contains("newAfter"));
  auto startsWith = [](const Json& path, const std::string& prefix) {
    return path.get<std::string>().rfind(prefix, 0) == 0;
  };
  EXPECT_TRUE(startsWith(r["noKey"]["path"], "/app/login")) << r["noKey"];
  EXPECT_EQ(r["loginForms"], 1);
  EXPECT_TRUE(startsWith(r["wrongKey"]["path"], "/app/login")) << r["wrongKey"];
  EXPECT_EQ(r["rightKey"]["status"], 200);
  EXPECT_EQ(r["rightKey"]["path"], page(changed.sessionId));
  EXPECT_FALSE(r["csrf"].get<std::string>().empty());
  // Same site, other origin: the cookie goes along, and still the post is refused.
  EXPECT_EQ(r["sameSiteWithToken"]["status"], 403) << r["sameSiteWithToken"];
  EXPECT_EQ(r["sameSiteWithoutToken"]["status"], 403) << r["sameSiteWithoutToken"];
  // Cross-site: the browser leaves the cookie out, and the post is refused.
  EXPECT_EQ(r["crossSite"]["status"], 403) << r["crossSite"];
  EXPECT_EQ(r["back"]["path"], page(changed.sessionId)) << "the login did not last";

  // The forged posts changed nothing. The changed step shows baseline, current and diff; the
  // matching one no diff.
  EXPECT_EQ(r["statusBefore"], "Unresolved");
  EXPECT_EQ(images(r["before"]), (std::vector<std::string>{"mismatched 1/1/1", "matched 1/1/0"}));
  for (const Json& s : r["before"]) EXPECT_TRUE(s["loaded"].get<bool>()) << "an image did not load";
  EXPECT_EQ(r["accepted"]["status"], 200);
  EXPECT_EQ(r["accepted"]["path"], page(changed.sessionId));
  EXPECT_EQ(r["statusAfter"], "Passed");
  EXPECT_EQ(statuses(r["after"]), (std::vector<std::string>{"accepted", "matched"}));
  EXPECT_EQ(apiStatus(changed.sessionId), TestResultsStatusPassed);

  EXPECT_EQ(r["rejectedStatus"], "Failed");
  EXPECT_EQ(statuses(r["rejectedSteps"]), (std::vector<std::string>{"rejected", "matched"}));
  EXPECT_EQ(apiStatus(rejected.sessionId), TestResultsStatusFailed);

  // A new test has only current images.
  EXPECT_EQ(images(r["newBefore"]), (std::vector<std::string>{"new 0/1/0", "new 0/1/0"}));
  EXPECT_EQ(r["newStatus"], "Passed");
  EXPECT_EQ(statuses(r["newAfter"]), (std::vector<std::string>{"accepted", "accepted"}));
  EXPECT_EQ(apiStatus(unsaved.sessionId), TestResultsStatusPassed);

  Run again = run("Accept a step", {Target::image(example("changed/icon-tile.png")),
                                    Target::image(example("docs-header.png"))});
  EXPECT_EQ(again.checks, (std::vector<bool>{true, true}));
  ASSERT_TRUE(again.results);
  EXPECT_EQ(again.results->status(), TestResultsStatusPassed);
  Run newAgain = run("Accept all", newChecks);
  EXPECT_EQ(newAgain.checks, (std::vector<bool>{true, true}));
  ASSERT_TRUE(newAgain.results);
  EXPECT_FALSE(newAgain.results->isNew());
  EXPECT_EQ(newAgain.results->status(), TestResultsStatusPassed);
}

// Screenshots of the test page in both views and of the batch list, against expectations.
TEST_F(BrowserTest, PagesLookAsExpected) {
  auto header = example("docs-header.png");
  auto title = std::make_shared<Region>(8, 8, 120, 30);
  run("Screenshots", {Target::image(example("icon-tile.png")), Target::image(header)});
  Run changed = run("Screenshots", {Target::image(example("changed/icon-tile.png")),
                                    Target::image(header)->ignore({title})->layout(
                                        {std::make_shared<Region>(200, 60, 160, 60)})});
  ASSERT_FALSE(changed.sessionId.empty());
  // The start time and the machine's OS change from run to run: painted over.
  Json changing = {"table.facts tr:has(th:text-is(\"Started\")) td",
                   "table.facts tr:has(th:text-is(\"OS\")) td"};
  auto shot = [&](const std::string& name) {
    return Json{{"do", "screenshot"},
                {"path", (work_ / (name + ".png")).string()},
                {"mask", changing},
                {"fullPage", name == "batches"},
                {"as", name}};
  };
  Json r = drive({
      {{"do", "goto"}, {"path", page(changed.sessionId)}},
      {{"do", "login"}, {"key", kKey}},
      {{"do", "steps"}, {"as", "steps"}},
      shot("test-page"),
      {{"do", "toggle"}, {"as", "overlay"}},
      shot("test-page-overlay"),
      {{"do", "goto"}, {"path", "/app/batches"}},
      {{"do", "count"}, {"selector", "table#batches tr.batch a.batch-link"}, {"as", "batchCount"}},
      shot("batches"),
  });
  ASSERT_TRUE(r.contains("batches"));
  ASSERT_EQ(r["steps"].size(), 2u);
  std::vector<std::string> kinds = r["steps"][1]["regions"];
  EXPECT_NE(std::find(kinds.begin(), kinds.end(), "ignore"), kinds.end()) << r["steps"];
  EXPECT_NE(std::find(kinds.begin(), kinds.end(), "layout"), kinds.end()) << r["steps"];
  EXPECT_TRUE(r["overlay"].get<bool>()) << "the view toggle did not switch to overlay";
  EXPECT_EQ(r["batchCount"], 1);
  for (const char* name : {"test-page", "test-page-overlay", "batches"}) {
    expectScreenshot(name, work_ / (std::string(name) + ".png"));
  }
}

}  // namespace
}  // namespace saffra
