// The library against the real local service, a separate `saffra serve` process on a free
// loopback port: baselines are saved, compared and kept across restarts, and every outcome
// reaches the caller.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <httplib.h>

#include "saffra/platform/uuid.h"
#include "saffra/saffra.h"
#include "testing/child_process.h"

namespace saffra {
namespace {

constexpr int kWidth = 96;
constexpr int kHeight = 64;

struct Colour {
  std::uint8_t r, g, b;
};

// A white page with filled boxes, for pairs whose differences are known exactly.
class Page {
 public:
  Page() : image_(std::make_shared<Image>(kWidth, kHeight)) {
    fill(0, 0, kWidth, kHeight, {255, 255, 255});
  }
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

constexpr Colour kInk{20, 20, 20};
constexpr Colour kBlue{30, 60, 200};
constexpr Colour kRed{200, 30, 30};

// A card (outlined box with two lines of "text") and a blue button.
Page basePage() {
  Page page;
  page.fill(8, 8, 50, 1, kInk)
      .fill(8, 40, 50, 1, kInk)
      .fill(8, 8, 1, 33, kInk)
      .fill(57, 8, 1, 33, kInk);
  page.fill(14, 16, 36, 4, kInk).fill(14, 28, 24, 4, kInk);
  page.fill(66, 20, 22, 12, kBlue);
  return page;
}

class ServiceEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override { startService(); }
  void TearDown() override {
    stopService();
    std::filesystem::remove_all(data_);
  }

  // `saffra serve` on a free port over the test's data folder; its first line names its address.
  // Its log lines (one per request) stay in the pipe, whose buffer holds hundreds of them.
  void startService() {
    service_ = std::make_unique<testing::ChildProcess>(
        std::string(SAFFRA_BINARY_DIR) + "/saffra",
        std::vector<std::string>{"serve", "--port", "0", "--data", data_.string()},
        std::vector<std::string>{"QUORVANT_API_KEY=key"});
    const std::string line = service_->readLine();
    std::smatch address;
    ASSERT_TRUE(std::regex_match(line, address,
                                 std::regex("listening on (http://127\\.0\\.0\\.1:([0-9]+))")))
        << line;
    url_ = address[1].str();
    port_ = std::stoi(address[2].str());
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

  // One test of `images`, tags "step-1", "step-2", ...; `configure` adjusts the session first.
  Run runTest(const std::vector<std::shared_ptr<CheckSettingsProtocol>>& checks,
              const std::function<void(Saffra&)>& configure = {}) {
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
    run.results = saffra.closeWithThrow(false, nullptr);
    return run;
  }
  Run runImages(const std::vector<std::shared_ptr<Image>>& images,
                const std::function<void(Saffra&)>& configure = {}) {
    std::vector<std::shared_ptr<CheckSettingsProtocol>> checks;
    for (auto& image : images) checks.push_back(Target::image(image));
    return runTest(checks, configure);
  }

  std::filesystem::path data_ =
      std::filesystem::temp_directory_path() / ("saffra-e2e-" + newUUIDString());
  std::unique_ptr<testing::ChildProcess> service_;
  std::string url_;
  int port_ = 0;
  std::string testName_ = "Checkout";
  LogCapture quiet_;  // keeps the library's lines out of the test output
};

TEST_F(ServiceEndToEndTest, NewTestSavesItsBaselineAndARerunPasses) {
  auto base = basePage().image();
  Run first = runImages({base, base});
  EXPECT_TRUE(first.newSession);
  ASSERT_TRUE(first.results);
  EXPECT_TRUE(first.results->isNew());
  EXPECT_EQ(first.results->status(), TestResultsStatusPassed);  // saved as the baseline
  EXPECT_EQ(first.results->steps(), 2);

  Run second = runImages({base, base});
  EXPECT_FALSE(second.newSession);
  EXPECT_EQ(second.checks, (std::vector<bool>{true, true}));
  ASSERT_TRUE(second.results);
  EXPECT_FALSE(second.results->isNew());
  EXPECT_EQ(second.results->status(), TestResultsStatusPassed);
  EXPECT_EQ(second.results->matches(), 2);
  EXPECT_EQ(second.results->mismatches(), 0);
  ASSERT_TRUE(second.results->url());
  EXPECT_EQ(second.results->url()->rfind(url_, 0), 0u) << *second.results->url();
}

TEST_F(ServiceEndToEndTest, ChangedImageIsUnresolvedUnlessItsChangeIsIgnored) {
  runImages({basePage().image()});
  auto changed = basePage().fill(66, 20, 22, 12, kRed).image();

  Run run = runImages({changed});
  EXPECT_EQ(run.checks, std::vector<bool>{false});
  ASSERT_TRUE(run.results);
  EXPECT_EQ(run.results->status(), TestResultsStatusUnresolved);
  EXPECT_EQ(run.results->mismatches(), 1);

  // The same change under an ignore region matches; one that misses it does not.
  auto covering = std::make_shared<Region>(64, 18, 26, 16);
  auto elsewhere = std::make_shared<Region>(0, 0, 20, 20);
  Run ignored = runTest({Target::image(changed)->ignore({covering})});
  EXPECT_EQ(ignored.checks, std::vector<bool>{true});
  EXPECT_EQ(ignored.results->status(), TestResultsStatusPassed);
  Run missed = runTest({Target::image(changed)->ignore({elsewhere})});
  EXPECT_EQ(missed.checks, std::vector<bool>{false});
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
         p.fill(14, 28, 24, 4, {255, 255, 255});
         for (int x = 14; x < 38; x += 3) p.fill(x, 27, 2, 6, kInk);
       },
       MatchLevelLayout, MatchLevelContent},
      {"button moved",
       [](Page& p) {
         p.fill(66, 20, 22, 12, {255, 255, 255}).fill(66, 44, 22, 12, kBlue);
       },
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

TEST_F(ServiceEndToEndTest, StepsLeftOutAreMissing) {
  auto base = basePage().image();
  runImages({base, base, base});
  Run shorter = runImages({base});
  ASSERT_TRUE(shorter.results);
  EXPECT_EQ(shorter.results->missing(), 2);
  EXPECT_EQ(shorter.results->status(), TestResultsStatusUnresolved);
}

TEST_F(ServiceEndToEndTest, AbortedSessionSavesNothing) {
  {
    Saffra saffra;
    saffra.setServerURL(url_);
    saffra.setApiKey("key");
    saffra.setWaitTimeoutForTesting(20);
    saffra.openWithApplicationName("Shop", testName_);
    EXPECT_TRUE(saffra.checkImage(basePage().image(), "step-1"));
    saffra.abortIfNotClosed();
  }  // destroyed with the abort possibly still in flight
  Run next = runImages({basePage().image()});
  EXPECT_TRUE(next.newSession);  // the aborted run left no baseline
  EXPECT_TRUE(next.results->isNew());
}

TEST_F(ServiceEndToEndTest, BaselinesSurviveARestart) {
  runImages({basePage().image()});
  stopService();
  startService();  // same data folder, new port
  Run rerun = runImages({basePage().image()});
  EXPECT_FALSE(rerun.newSession);
  EXPECT_EQ(rerun.checks, std::vector<bool>{true});
  EXPECT_EQ(rerun.results->status(), TestResultsStatusPassed);
}

// A person opens the results page the library reports, logs in and accepts the change: the
// next run of the same test passes.
TEST_F(ServiceEndToEndTest, AChangeAcceptedOnTheResultsPagePassesNextTime) {
  runImages({basePage().image()});
  auto changed = basePage().fill(66, 20, 22, 12, kRed).image();
  Run run = runImages({changed});
  ASSERT_TRUE(run.results && run.results->url());
  EXPECT_EQ(run.results->status(), TestResultsStatusUnresolved);
  std::string page = run.results->url()->substr(url_.size());

  httplib::Client browser("127.0.0.1", port_);
  httplib::Headers html = {{"Accept", "text/html"}};
  auto redirected = browser.Get(page.c_str(), html);
  ASSERT_TRUE(redirected);
  EXPECT_EQ(redirected->status, 303);
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
  // The reported address is the session's API address, which shows browsers the same page
  // whose forms post under /app.
  std::string review = "/app" + page.substr(page.find("/sessions/")) + "/steps/1/accept";
  auto accepted =
      browser.Post(review.c_str(), html, "csrf=" + csrf, "application/x-www-form-urlencoded");
  ASSERT_TRUE(accepted);
  EXPECT_EQ(accepted->status, 303) << accepted->body;

  Run next = runImages({changed});
  EXPECT_EQ(next.checks, std::vector<bool>{true});
  EXPECT_EQ(next.results->status(), TestResultsStatusPassed);
}

TEST_F(ServiceEndToEndTest, WrongApiKeyGetsNoSessionAndNoPass) {
  Run run = runImages({basePage().image()}, [](Saffra& s) { s.setApiKey("wrong"); });
  EXPECT_EQ(run.checks, std::vector<bool>{false});
  // Nothing was stored: with the right key the test is still new.
  EXPECT_TRUE(runImages({basePage().image()}).newSession);
}

}  // namespace
}  // namespace saffra
