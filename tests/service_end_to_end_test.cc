// The library and the `saffra check` command against the real local service, a separate
// `saffra serve` process on a free loopback port: baselines are saved, compared and kept across
// restarts, every outcome reaches the caller, and the command's exit codes and JUnit reports tell
// CI what happened.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <httplib.h>

#include "saffra/platform/uuid.h"
#include "saffra/saffra.h"
#include "testing/child_process.h"
#include "testing/png_files.h"
#include "testing/test_server.h"
#include "testing/xml_document.h"

namespace saffra {
namespace {

namespace fs = std::filesystem;

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";
const std::string kJunitSchema = std::string(SAFFRA_SOURCE_DIR) + "/tests/data/junit.xsd";
constexpr int kWidth = 96;
constexpr int kHeight = 64;

struct Colour {
  std::uint8_t r, g, b;
};
constexpr Colour kWhite{255, 255, 255};
constexpr Colour kInk{20, 20, 20};
constexpr Colour kBlue{30, 60, 200};
constexpr Colour kRed{200, 30, 30};

// A white page with filled boxes, for pairs whose differences are known exactly.
class Page {
 public:
  Page() : image_(std::make_shared<Image>(kWidth, kHeight)) { fill(0, 0, kWidth, kHeight, kWhite); }
  Page& fill(int x, int y, int w, int h, Colour c) {
    for (int j = y; j < y + h; ++j) {
      for (int i = x; i < x + w; ++i) {
        std::uint8_t* p = image_->mutableData() + (j * kWidth + i) * 4;
        p[0] = c.r, p[1] = c.g, p[2] = c.b, p[3] = 255;
      }
    }
    return *this;
  }
  std::shared_ptr<Image> image() const { return image_; }

 private:
  std::shared_ptr<Image> image_;
};

// A card (outlined box with two lines of "text") and a blue button.
Page basePage() {
  Page page;
  page.fill(8, 8, 50, 1, kInk).fill(8, 40, 50, 1, kInk).fill(8, 8, 1, 33, kInk);
  page.fill(57, 8, 1, 33, kInk).fill(14, 16, 36, 4, kInk).fill(14, 28, 24, 4, kInk);
  page.fill(66, 20, 22, 12, kBlue);
  return page;
}
std::shared_ptr<Image> redButtonPage() {
  return basePage().fill(66, 20, 22, 12, kRed).image();
}

// The JUnit report at `path`, parsed; the test fails unless it is well-formed and valid.
testing::XmlDocument validReport(const fs::path& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  testing::XmlDocument doc(text.str());
  EXPECT_TRUE(doc.ok()) << path << ": " << doc.parseError() << "\n" << text.str();
  auto problems = doc.validate(kJunitSchema);
  EXPECT_TRUE(problems.empty()) << ::testing::PrintToString(problems) << "\n" << text.str();
  return doc;
}

class ServiceEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(folder_ / "changed");
    startService();
  }
  void TearDown() override {
    stopService();
    fs::remove_all(folder_);
  }

  // `saffra serve` on a free port over the test's data folder; its first line names its address.
  // Its log lines (one per request) stay in the pipe, whose buffer holds hundreds of them.
  void startService() {
    testing::ServeProcess serve = testing::startServe(kCommand, folder_ / "data");
    service_ = std::move(serve.process);
    url_ = serve.url;
    port_ = serve.port;
  }
  void stopService() {
    if (service_) {
      EXPECT_EQ(service_->stop(SIGTERM), 0);
    }
    service_.reset();
  }

  struct Run {
    std::vector<bool> checks;
    std::shared_ptr<TestResults> results;
    bool newSession = false;
  };

  // One run of the test through the library, tags "step-1", "step-2", ...; `configure` adjusts
  // the session first. An aborted run returns right after the abort is sent.
  Run runTest(const std::vector<std::shared_ptr<CheckSettingsProtocol>>& checks,
              const std::function<void(Saffra&)>& configure = {}, bool abort = false) {
    Saffra saffra;
    saffra.setServerURL(url_);
    saffra.setApiKey("key");
    saffra.setWaitTimeoutForTesting(20);
    saffra.setMatchTimeout(0);
    if (configure) configure(saffra);
    saffra.openWithApplicationName("Shop", testName_);
    Run run;
    for (std::size_t i = 0; i < checks.size(); ++i) {
      run.checks.push_back(saffra.checkWithTag("step-" + std::to_string(i + 1), checks[i]));
    }
    if (auto session = saffra.runningSession()) run.newSession = session->isNewSession();
    if (abort) {
      saffra.abortIfNotClosed();
    } else {
      run.results = saffra.closeWithThrow(false, nullptr);
    }
    return run;
  }
  Run runImages(const std::vector<std::shared_ptr<Image>>& images,
                const std::function<void(Saffra&)>& configure = {}, bool abort = false) {
    std::vector<std::shared_ptr<CheckSettingsProtocol>> checks;
    for (auto& image : images) checks.push_back(Target::image(image));
    return runTest(checks, configure, abort);
  }

  // Writes the image as a PNG file in the test's folder and returns its path.
  std::string write(const std::string& name, const std::shared_ptr<Image>& image) {
    return testing::writePNGFile(folder_ / name, *image);
  }
  struct Outcome {
    int exitCode;
    std::string output;
  };
  // `saffra check` of test "Cart" of app "Shop", by default against the running service with a
  // 20 s timeout.
  Outcome check(std::vector<std::string> args, std::vector<std::string> environment = {}) {
    if (environment.empty()) environment = {"QUORVANT_API_KEY=key", "QUORVANT_SERVER_URL=" + url_};
    if (std::find(args.begin(), args.end(), "--timeout") == args.end()) {
      args.insert(args.begin(), {"--timeout", "20"});
    }
    args.insert(args.begin(), {"check", "--app", "Shop", "--test", "Cart"});
    testing::ChildProcess child(kCommand, args, environment);
    std::string output = child.readAll();
    return {child.wait(), output};
  }

  fs::path folder_ = fs::temp_directory_path() / ("saffra-e2e-" + newUUIDString());
  std::unique_ptr<testing::ChildProcess> service_;
  std::string url_;
  int port_ = 0;
  std::string testName_ = "Checkout";
  LogCapture quiet_;  // keeps the library's lines out of the test output
};

// New test, passing rerun, a changed step (ignored or not), steps left out, and a change that a
// person accepts on the results page, which passes after a restart of the service.
TEST_F(ServiceEndToEndTest, LibraryRunsFromNewTestToAcceptedChange) {
  auto base = basePage().image();
  Run first = runImages({base, base, base});
  EXPECT_TRUE(first.newSession);
  ASSERT_TRUE(first.results);
  EXPECT_TRUE(first.results->isNew());
  EXPECT_EQ(first.results->status(), TestResultsStatusPassed);  // saved as the baseline
  EXPECT_EQ(first.results->steps(), 3);

  Run second = runImages({base, base, base});
  EXPECT_FALSE(second.newSession);
  EXPECT_EQ(second.checks, (std::vector<bool>{true, true, true}));
  ASSERT_TRUE(second.results);
  EXPECT_FALSE(second.results->isNew());
  EXPECT_EQ(second.results->status(), TestResultsStatusPassed);
  EXPECT_EQ(second.results->matches(), 3);
  EXPECT_EQ(second.results->mismatches(), 0);
  ASSERT_TRUE(second.results->url());
  EXPECT_EQ(second.results->url()->rfind(url_, 0), 0u) << *second.results->url();

  auto changed = redButtonPage();
  Run run = runImages({base, changed, base});
  EXPECT_EQ(run.checks, (std::vector<bool>{true, false, true}));
  ASSERT_TRUE(run.results && run.results->url());
  EXPECT_EQ(run.results->status(), TestResultsStatusUnresolved);
  EXPECT_EQ(run.results->mismatches(), 1);

  // The same change under an ignore region matches; one that misses it does not.
  auto withIgnored = [&](int x, int y, int w, int h) {
    return runTest({Target::image(base),
                    Target::image(changed)->ignore({std::make_shared<Region>(x, y, w, h)}),
                    Target::image(base)});
  };
  Run ignored = withIgnored(64, 18, 26, 16);
  EXPECT_EQ(ignored.checks, (std::vector<bool>{true, true, true}));
  EXPECT_EQ(ignored.results->status(), TestResultsStatusPassed);
  EXPECT_EQ(withIgnored(0, 0, 20, 20).checks, (std::vector<bool>{true, false, true}));

  Run shorter = runImages({base});
  ASSERT_TRUE(shorter.results);
  EXPECT_EQ(shorter.results->missing(), 2);
  EXPECT_EQ(shorter.results->status(), TestResultsStatusUnresolved);

  // A person opens the reported results address in a browser: it leads to the test's page,
  // which asks for a login first; then the person accepts the changed step there.
  std::string reported = run.results->url()->substr(url_.size());
  const std::string page = "/app" + reported.substr(reported.find("/sessions/"));
  httplib::Client browser("127.0.0.1", port_);
  httplib::Headers html = {{"Accept", "text/html"}};
  auto redirected = browser.Get(reported.c_str(), html);
  ASSERT_TRUE(redirected);
  EXPECT_EQ(redirected->status, 303);
  EXPECT_EQ(redirected->get_header_value("Location"), page);
  EXPECT_EQ(browser.Get(page.c_str(), html)->status, 303);  // to the login form
  auto login = browser.Post("/app/login", html, "apiKey=key&next=" + page,
                            "application/x-www-form-urlencoded");
  ASSERT_TRUE(login);
  EXPECT_EQ(login->get_header_value("Location"), page);
  std::string cookie = login->get_header_value("Set-Cookie");
  html.emplace("Cookie", cookie.substr(0, cookie.find(';')));
  std::string body = browser.Get(page.c_str(), html)->body;
  const std::string marker = "name=\"csrf\" value=\"";
  std::size_t at = body.find(marker) + marker.size();
  std::string csrf = body.substr(at, body.find('"', at) - at);
  // API clients still get the results document at the reported address.
  auto document = browser.Get((reported + "?apiKey=key").c_str());
  ASSERT_TRUE(document);
  EXPECT_EQ(json::parse(document->body).value_or(Json())["status"], "Unresolved");
  auto accepted = browser.Post((page + "/steps/2/accept").c_str(), html, "csrf=" + csrf,
                               "application/x-www-form-urlencoded");
  ASSERT_TRUE(accepted);
  EXPECT_EQ(accepted->status, 303) << accepted->body;

  // The baselines and the accepted change are kept across a restart (same data, new port).
  stopService();
  startService();
  Run next = runImages({base, changed, base});
  EXPECT_FALSE(next.newSession);
  EXPECT_EQ(next.checks, (std::vector<bool>{true, true, true}));
  EXPECT_EQ(next.results->status(), TestResultsStatusPassed);
}

// Neither an aborted session nor one with a wrong key saves a baseline.
TEST_F(ServiceEndToEndTest, AbortedAndUnauthorisedRunsSaveNothing) {
  // The session object goes away with the abort possibly still in flight.
  EXPECT_EQ(runImages({basePage().image()}, {}, true).checks, std::vector<bool>{true});
  Run next = runImages({basePage().image()});
  EXPECT_TRUE(next.newSession);
  EXPECT_TRUE(next.results->isNew());

  testName_ = "Wrong key";
  Run run = runImages({basePage().image()}, [](Saffra& s) { s.setApiKey("wrong"); });
  EXPECT_EQ(run.checks, std::vector<bool>{false});
  EXPECT_TRUE(runImages({basePage().image()}).newSession);
}

// Each pair passes at its level and fails one level stricter.
TEST_F(ServiceEndToEndTest, EachMatchLevelForgivesWhatItShould) {
  struct Case {
    const char* name;
    std::function<void(Page&)> change;
    std::int64_t passesAt;
    std::int64_t failsAt;
  };
  const std::vector<Case> cases = {
      {"one pixel a shade off",
       [](Page& p) {
         p.fill(70, 24, 1, 1, {32, 62, 200});
       },
       MatchLevelStrict, MatchLevelExact},
      {"button recoloured", [](Page& p) { p.fill(66, 20, 22, 12, kRed); }, MatchLevelContent,
       MatchLevelStrict},
      {"text changed in the card",
       [](Page& p) {
         // The second line of "text" becomes narrow letters: other shapes, same extent.
         p.fill(14, 28, 24, 4, kWhite);
         for (int x = 14; x < 38; x += 3) p.fill(x, 27, 2, 6, kInk);
       },
       MatchLevelLayout, MatchLevelContent},
      {"button moved", [](Page& p) { p.fill(66, 20, 22, 12, kWhite).fill(66, 44, 22, 12, kBlue); },
       MatchLevelNone, MatchLevelLayout},
  };
  for (const auto& c : cases) {
    testName_ = c.name;
    runImages({basePage().image()});
    Page changed = basePage();
    c.change(changed);
    for (auto [level, expected] : {std::pair{c.passesAt, true}, std::pair{c.failsAt, false}}) {
      Run run =
          runImages({changed.image()}, [level = level](Saffra& s) { s.setMatchLevel(level); });
      EXPECT_EQ(run.checks, std::vector<bool>{expected}) << c.name << " at level " << level;
    }
  }
}

// `saffra check` as CI scripts run it: new test, passing rerun, a changed image with its JUnit
// report, the change ignored, and options that override the environment.
TEST_F(ServiceEndToEndTest, CheckCommandOutcomesAndReport) {
  const std::string page = write("page.png", Page().image());
  const std::string button = write("button.png", basePage().image());
  const std::string changed = write("changed/button.png", redButtonPage());
  Outcome first = check({page, button});
  EXPECT_EQ(first.exitCode, 0) << first.output;
  EXPECT_NE(first.output.find("[1/2] page.png ... new"), std::string::npos) << first.output;
  EXPECT_NE(first.output.find("Status: Passed (new test, baseline saved)"), std::string::npos);

  Outcome second = check({page, button});
  EXPECT_EQ(second.exitCode, 0) << second.output;
  EXPECT_NE(second.output.find("[2/2] button.png ... matched"), std::string::npos) << second.output;
  EXPECT_NE(second.output.find("Steps: 2, matches: 2, new: 0, mismatches: 0, missing: 0"),
            std::string::npos);

  const fs::path report = folder_ / "reports" / "ci" / "junit.xml";  // folders do not exist yet
  Outcome failed = check({"--junit", report.string(), page, changed});
  EXPECT_EQ(failed.exitCode, 1) << failed.output;
  EXPECT_NE(failed.output.find("[2/2] button.png ... differences"), std::string::npos);
  EXPECT_NE(failed.output.find("Status: Unresolved"), std::string::npos);
  std::smatch url;
  ASSERT_TRUE(std::regex_search(failed.output, url, std::regex("Results: (http://\\S+)")))
      << failed.output;
  EXPECT_EQ(url[1].str().rfind(url_, 0), 0u);
  testing::XmlDocument doc = validReport(report);
  EXPECT_EQ(doc.value("//testsuite/@name"), "Shop");
  EXPECT_EQ(doc.value("//testcase/@name"), "Cart");
  EXPECT_EQ(doc.value("//testsuite/@failures"), "1");
  auto failures = doc.values("//testcase/failure/@message");
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_NE(failures[0].find("Step 2 \"button.png\""), std::string::npos) << failures[0];
  EXPECT_NE(failures[0].find(url[1].str()), std::string::npos) << failures[0];
  EXPECT_NE(doc.value("//testcase/system-out").find("Results: " + url[1].str()), std::string::npos);

  // Ignoring the changed area makes the same image pass.
  Outcome ignored = check({"--ignore", "64,18,26,16", page, changed});
  EXPECT_EQ(ignored.exitCode, 0) << ignored.output;

  // The key from the command line wins over a wrong one in the environment.
  Outcome options = check({"--server", url_, "--api-key", "key", "--match-level", "layout",
                           "--branch", "feature", "--batch", "Nightly", page, button},
                          {"QUORVANT_API_KEY=wrong"});
  EXPECT_EQ(options.exitCode, 0) << options.output;
}

// Usage errors exit with 2 (the plain messages of each are held in cli/check_command_test.cc), an
// unusable service with 3 (also in the report), an unwritable report with 4.
TEST_F(ServiceEndToEndTest, CheckCommandFailureExitCodes) {
  const std::string page = write("page.png", Page().image());
  Outcome wrongKey = check({"--api-key", "wrong", page});
  EXPECT_EQ(wrongKey.exitCode, 3) << wrongKey.output;
  EXPECT_NE(wrongKey.output.find("it refused to start one (a wrong API key"), std::string::npos)
      << wrongKey.output;

  stopService();  // its port now refuses connections
  const fs::path report = folder_ / "junit.xml";
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    std::string says;
  };
  const std::vector<Case> cases = {
      {{"--timeout", "-1", page}, 2, "--timeout wants seconds above 0"},
      {{"--junit", report.string(), page}, 3, "could not start a session at " + url_},
      {{"--junit", (folder_ / "page.png" / "junit.xml").string(), page},
       4,
       "--junit: cannot write"},
  };
  for (const auto& c : cases) {
    Outcome run = check(c.args);
    EXPECT_EQ(run.exitCode, c.exitCode) << ::testing::PrintToString(c.args) << "\n" << run.output;
    EXPECT_NE(run.output.find(c.says), std::string::npos) << run.output;
  }
  Outcome noKey = check({page}, {"QUORVANT_SERVER_URL=" + url_});
  EXPECT_EQ(noKey.exitCode, 2) << noKey.output;
  EXPECT_NE(noKey.output.find("no API key"), std::string::npos) << noKey.output;

  // The report of an unreachable service is one test case with an error.
  testing::XmlDocument doc = validReport(report);
  EXPECT_EQ(doc.value("//testsuite/@errors"), "1");
  EXPECT_NE(doc.value("//testcase/error/@message").find("could not start a session"),
            std::string::npos);
  EXPECT_TRUE(doc.values("//failure").empty());

  // A service that takes the request and never answers: exit 3 after the timeout.
  auto& silent = testing::TestServer::shared();
  silent.route("POST", "/api/sessions/running", testing::Reply::hang());
  Outcome hung =
      check({"--server", silent.baseURL(), "--timeout", "1", page}, {"QUORVANT_API_KEY=key"});
  EXPECT_EQ(hung.exitCode, 3) << hung.output;
}

}  // namespace
}  // namespace saffra
