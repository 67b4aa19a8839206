// The session object's own rules: settings forwarding, the quirks of its construction, agent id,
// environment, validations, and the parts of the check pipeline that need no service; then one
// match step against the scripted test server, with its retries.
#include "saffra/session/saffra_base.h"

#include <gtest/gtest.h>

#include "saffra/base/logger.h"
#include "saffra/images/saffra_screenshot.h"
#include "saffra/platform/expectation.h"
#include "saffra/platform/system_info.h"
#include "saffra/results/exceptions.h"
#include "saffra/service/match_window_data.h"
#include "saffra/service/running_session.h"
#include "saffra/service/server_connector.h"
#include "saffra/session/match_window_task.h"
#include "saffra/session/saffra.h"
#include "saffra/version.h"
#include "testing/png_files.h"
#include "testing/scoped_environment.h"
#include "testing/test_server.h"

namespace saffra {
namespace {

std::string exceptionName(const std::function<void()>& f) {
  try {
    f();
  } catch (const Exception& e) {
    return e.name() + ": " + e.reason();
  }
  return "";
}

TEST(SaffraBaseTest, WritesWithoutAConfigurationHaveNoEffect) {
  ScopedEnvironment env;
  SaffraBase base;
  EXPECT_EQ(base.configuration(), nullptr);
  EXPECT_EQ(base.matchTimeout(), 0u);  // the constructor's 2 went nowhere
  EXPECT_EQ(base.defaultMatchSettings(), nullptr);
  EXPECT_FALSE(base.saveNewTests());
  base.setBranchName("b");
  EXPECT_EQ(base.branchName(), std::nullopt);
  EXPECT_EQ(base.serverURL(), "https://api.saffra.dev");
  EXPECT_EQ(base.baseAgentId(), "/(null)");

  // Saffra attaches its configuration after the base, so the configuration's defaults govern:
  // neither the base's time-out of 2 nor its match settings (which do not ignore the caret).
  Saffra saffra;
  EXPECT_EQ(saffra.matchTimeout(), 0u);
  EXPECT_TRUE(saffra.ignoreCaret());
}

TEST(SaffraBaseTest, SettingRules) {
  ScopedEnvironment env;
  Saffra saffra;
  EXPECT_EQ(exceptionName([&] { saffra.setMatchTimeout(1); }),
            "IllegalArgumentException: Match timeout must be set in seconds, and must be > 1");
  for (std::uint64_t accepted : {0u, 2u, 30u}) {
    saffra.setMatchTimeout(accepted);
    EXPECT_EQ(saffra.matchTimeout(), accepted);
  }

  saffra.setBaselineEnvName(" my  env ");
  EXPECT_EQ(saffra.baselineEnvName(), "myenv");
  saffra.setBaselineEnvName("");
  EXPECT_EQ(saffra.baselineEnvName(), std::nullopt);

  saffra.setServerURL("http://example.test");
  EXPECT_EQ(saffra.serverURL(), "http://example.test");
  env.set("QUORVANT_SERVER_URL", "http://from-env.test");
  saffra.setServerURL("");
  EXPECT_EQ(saffra.serverURL(), "http://from-env.test");
  env.set("QUORVANT_SERVER_URL", "");
  env.set("bamboo_QUORVANT_SERVER_URL", "http://bamboo.test");
  EXPECT_EQ(SaffraBase::defaultServerURL(), "http://bamboo.test");

  saffra.setDebugScreenshotsPath("/tmp/shots");
  EXPECT_EQ(saffra.debugScreenshotsPath(), "/tmp/shots/");

  saffra.setServerConnector(nullptr);
  EXPECT_EQ(exceptionName([&] { saffra.apiKey(); }), "SaffraException: server connector not set");
  EXPECT_EQ(exceptionName([&] { saffra.setProxy(nullptr); }),
            "SaffraException: server connector not set");
}

TEST(SaffraBaseTest, AgentIdAndEnvironment) {
  ScopedEnvironment env;
  Saffra saffra;
  const std::string base = std::string("saffra-xctest-images/") + libraryVersion();
  EXPECT_EQ(saffra.fullAgentId(), base);
  saffra.configuration()->setAgentId("");
  EXPECT_EQ(saffra.fullAgentId(), " [" + base + "]");
  saffra.configuration()->setAgentId("runner/2");
  EXPECT_EQ(saffra.fullAgentId(), "runner/2 [" + base + "]");

  // The environment is inferred from the system; set values replace the inferred ones.
  const auto version = system_info::osVersion();
  const std::string os = system_info::osName() + " " + std::to_string(version.major);
  saffra.setViewportSize(Size(375, 667));
  EXPECT_EQ(saffra.appEnvironment()->description(),
            "[hostOS = " + os + " hostApp = Test app osInfo = " + os + "." +
                std::to_string(version.minor) + " hostingAppInfo = Test app deviceInfo = " +
                system_info::hostName() + " displaySize = 375.000000x667.000000]");
  saffra.setHostApp("Shop");
  saffra.setOsInfo("Custom OS 1");
  saffra.setDeviceInfo("Phone");
  saffra.setHostingAppInfo("Host");
  EXPECT_EQ(saffra.appEnvironment()->description(),
            "[hostOS = " + os +
                " hostApp = Shop osInfo = Custom OS 1 hostingAppInfo = Host "
                "deviceInfo = Phone displaySize = 375.000000x667.000000]");
}

TEST(SaffraBaseTest, ConfigurationIsAPrivateCopy) {
  ScopedEnvironment env;
  auto config = std::make_shared<Configuration>();
  config->setApiKey("k1");
  config->setServerUrl("http://one.test");
  config->setBranchName("feature");
  Saffra saffra;
  saffra.setConfiguration(config);
  config->setBranchName("changed");
  config->setMatchLevel(MatchLevelLayout);  // the match settings object stays shared
  EXPECT_EQ(saffra.branchName(), "feature");
  EXPECT_EQ(saffra.matchLevel(), MatchLevelLayout);
  EXPECT_EQ(saffra.apiKey(), "k1");

  auto second = std::make_shared<Configuration>();  // empty key and address keep the old ones
  saffra.setConfiguration(second);
  EXPECT_EQ(saffra.apiKey(), "k1");
  EXPECT_EQ(saffra.serverURL(), "http://one.test");
}

TEST(SaffraBaseTest, OpenValidations) {
  ScopedEnvironment env;
  LogCapture log;
  Saffra saffra;
  EXPECT_EQ(exceptionName([&] { saffra.openWithApplicationName("a", "t"); }),
            "SaffraException: API key is missing! Please set it using setApiKey()");
  EXPECT_FALSE(saffra.isOpen());

  env.set("QUORVANT_API_KEY", "from-env");
  saffra.openWithApplicationName("", std::nullopt, Size(10, 20));
  EXPECT_TRUE(saffra.isOpen());
  EXPECT_EQ(saffra.configuration()->appName(), "Application name");
  EXPECT_EQ(saffra.configuration()->testName(), "Test name");
  EXPECT_EQ(saffra.viewportSize(), Size(10, 20));
  EXPECT_TRUE(log.contains("Default match settings = Match level: Strict"));

  // Without a running session the abort only logs, so the object stays open.
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(exceptionName([&] { saffra.openWithApplicationName("a", "t"); }),
              "SaffraException: A test is already running");
    EXPECT_TRUE(saffra.isOpen());
  }
  EXPECT_TRUE(log.contains("Closed"));

  auto results = saffra.closeWithThrow(true, nullptr);
  ASSERT_TRUE(results);
  EXPECT_FALSE(saffra.isOpen());
  EXPECT_TRUE(log.contains("Server session was not started"));
  EXPECT_TRUE(log.contains("--- Empty test ended."));
  EXPECT_EQ(saffra.runner()->allResults()->size(), 1u);
}

// A session whose screenshot (4 x 30 pixels) has a status bar of 20 points that is cut off.
class StatusBarSaffra : public Saffra {
 public:
  StatusBarSaffra() {
    image->mutableData()[20 * 4 * 4] = 200;  // first pixel of row 20
    shot = std::make_shared<SaffraImagesScreenshot>(image);
  }
  double statusBarHeight() const override { return 20; }
  double scaleRatio() const override { return 1; }
  std::shared_ptr<SaffraScreenshot> screenshot() const override { return shot; }

  std::shared_ptr<Image> image = std::make_shared<Image>(4, 30);
  std::shared_ptr<SaffraScreenshot> shot;
};

std::shared_ptr<Image> uploaded(const std::shared_ptr<AppOutputWithScreenshot>& output) {
  return Image::fromPNGData(*testing::decodeBase64(*output->appOutput()->screenshot64()));
}

TEST(SaffraBaseTest, StatusBarIsCutOffAndRegionsMoveUp) {
  StatusBarSaffra saffra;
  saffra.setShouldCropStatusBar(true);
  auto settings = std::make_shared<CheckSettings>()
                      ->ignore({std::make_shared<Region>(5, 30, 10, 10)})
                      ->floating({std::make_shared<Region>(0, 25, 4, 4)}, 3)
                      ->accessibility(std::make_shared<Region>(1, 40, 2, 2), 1);
  auto internal = std::dynamic_pointer_cast<CheckSettingsInternalProtocol>(settings);
  ImageMatchSettings collected;
  saffra.collectIgnoredRegionsFrom(*internal, collected);
  saffra.collectFloatingRegionsFrom(*internal, collected);
  saffra.collectAccessibilityRegionsFrom(*internal, collected);
  EXPECT_EQ(collected.ignoredRegions().at(0)->top(), 10);
  EXPECT_EQ(collected.floatingRegions().at(0)->top(), 5);
  EXPECT_EQ(collected.floatingRegions().at(0)->maxLeftOffset(), 3);
  EXPECT_EQ(collected.accessibility().at(0)->top(), 20);

  // The upload loses the top 20 rows; an empty region counts as none, a real one wins.
  for (auto region : {std::shared_ptr<Region>(), Region::emptyRegion()}) {
    auto output = saffra.appOutputForRegion(region, nullptr);
    EXPECT_EQ(output->appOutput()->title(), "Base title");
    auto image = uploaded(output);
    EXPECT_EQ(image->height(), 10u);
    EXPECT_EQ(image->pixel(0, 0)[0], 200);
  }
  auto cropped =
      uploaded(saffra.appOutputForRegion(std::make_shared<Region>(0, 18, 2, 4), nullptr));
  EXPECT_EQ(cropped->width(), 2u);
  EXPECT_EQ(cropped->height(), 4u);
  EXPECT_EQ(cropped->pixel(0, 2)[0], 200);

  saffra.setShouldCropStatusBar(false);
  EXPECT_EQ(uploaded(saffra.appOutputForRegion(nullptr, nullptr))->height(), 30u);
}

using testing::Reply;
using testing::TestServer;

constexpr const char* kMatchPath = "/api/sessions/running/s1";

// Hands out the same small output on every request.
class FixedOutputProvider : public AppOutputProviderProtocol {
 public:
  std::shared_ptr<AppOutputWithScreenshot> appOutputForRegion(
      const std::shared_ptr<Region>&, const std::shared_ptr<SaffraScreenshot>&) override {
    return std::make_shared<AppOutputWithScreenshot>(std::make_shared<AppOutput>("title", "AAAA"),
                                                     screenshot);
  }
  std::shared_ptr<SaffraScreenshot> screenshot =
      std::make_shared<SaffraImagesScreenshot>(std::make_shared<Image>(1, 1));
};
using StepOutcome = std::pair<std::shared_ptr<MatchResult>, std::optional<Error>>;

class MatchWindowTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    connector->setServerURL(server.baseURL());
    connector->setApiKey("key");
    connector->setRequestTimeoutForTesting(5);
    task->setWaitTimeoutForTesting(5);
  }

  // Scripts the service's reply, runs one step and waits for its handler (on either thread).
  StepOutcome step(const Reply& reply, std::int64_t retryTimeout, bool runOnce,
                   bool ignoreMismatch) {
    server.route("POST", kMatchPath, reply);
    auto done = std::make_shared<Expectation>("step");
    StepOutcome outcome;
    task->matchWindow(nullptr, nullptr, "tag", runOnce, ignoreMismatch, settings, retryTimeout,
                      "src", [&, done](std::shared_ptr<MatchResult> r, std::optional<Error> e) {
                        outcome = {std::move(r), std::move(e)};
                        done->fulfill();
                      });
    EXPECT_EQ(Waiter::waitForExpectations({done}, 10), WaiterResult::Completed);
    return outcome;
  }

  // The ignoreMismatch flag of every match request, in order.
  std::vector<bool> ignoreFlags() const {
    std::vector<bool> flags;
    for (const auto& request : server.requests()) {
      if (request.path != kMatchPath) continue;
      auto body = json::parse(request.body);
      flags.push_back(body && (*body)["options"]["ignoreMismatch"].get<bool>());
    }
    return flags;
  }

  TestServer& server = TestServer::shared();
  LogCapture log;
  std::shared_ptr<ImageMatchSettings> settings = std::make_shared<ImageMatchSettings>();
  std::shared_ptr<ServerConnector> connector = std::make_shared<ServerConnector>();
  std::shared_ptr<FixedOutputProvider> provider = std::make_shared<FixedOutputProvider>();
  std::shared_ptr<MatchWindowTask> task = std::make_shared<MatchWindowTask>(
      connector, std::make_shared<RunningSession>(Json{{"id", "s1"}}), 7, provider);
};

const Reply kMatch = Reply::json(200, R"({"asExpected":true})");
const Reply kMismatch = Reply::json(200, R"({"asExpected":false})");

TEST_F(MatchWindowTaskTest, AttemptsWithoutRetryLines) {
  struct Case {
    const char* what;
    bool matches;  // the service's answer
    std::int64_t retryTimeout;
    bool runOnce;
    std::vector<bool> flags;
    const char* logged;
  };
  const Case cases[] = {
      {"zero: one attempt with the caller's flag", false, 0, false, {false}, "retryTimeout = 0"},
      {"a match on the first retry ends the step", true, 3, false, {true}, "retryTimeout = 3"},
      {"run once waits, then tries once", false, 1, true, {false}, "retryTimeout = 1"},
      {"negative: the task's default", true, -1, false, {true}, "retryTimeout = 7"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    server.clearRequests();
    LogCapture caseLog;
    auto [result, error] = step(c.matches ? kMatch : kMismatch, c.retryTimeout, c.runOnce, false);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->asExpected(), c.matches);
    EXPECT_EQ(ignoreFlags(), c.flags);
    EXPECT_TRUE(caseLog.systemLines().empty());
    EXPECT_TRUE(caseLog.contains(c.logged));
  }
}

TEST_F(MatchWindowTaskTest, OnlyStepsWhoseMismatchesCountKeepTheirScreenshot) {
  step(kMismatch, 0, false, false);
  EXPECT_EQ(task->lastScreenshot(), provider->screenshot);
  auto other = std::make_shared<SaffraImagesScreenshot>(nullptr);
  task->updateLastScreenshot(other);
  step(kMismatch, 0, false, true);
  EXPECT_EQ(task->lastScreenshot(), other);
  task->updateLastScreenshot(nullptr);
  EXPECT_EQ(task->lastScreenshot(), other);
}

TEST_F(MatchWindowTaskTest, NeverMatchingRetriesWithMismatchesIgnoredThenTriesOnceMore) {
  auto result = step(kMismatch, 3, false, false).first;
  ASSERT_TRUE(result);
  EXPECT_FALSE(result->asExpected());
  auto flags = ignoreFlags();
  auto retries = log.systemLines();
  ASSERT_GE(flags.size(), 2u);
  EXPECT_LE(flags.size(), 4u);
  EXPECT_EQ(retries.size(), flags.size() - 1);  // one line per retry, none for the last attempt
  for (std::size_t i = 0; i + 1 < flags.size(); ++i) EXPECT_TRUE(flags[i]) << i;
  EXPECT_FALSE(flags.back());
  EXPECT_EQ(retries.back().rfind("Retry timeout seconds left = ", 0), 0u);
  EXPECT_TRUE(log.contains("retryTimeout = 3"));
}

TEST_F(MatchWindowTaskTest, TransportErrorsCountAsMismatches) {
  auto [result, error] = step(Reply::drop(), 2, false, false);
  EXPECT_FALSE(result);
  EXPECT_TRUE(error.has_value());
  EXPECT_GE(ignoreFlags().size(), 2u);  // retried, then the last attempt
}

TEST_F(MatchWindowTaskTest, SilentServerEndsTheRetryLoopWithATimeOut) {
  server.route("POST", kMatchPath, Reply::hang());
  task->setWaitTimeoutForTesting(1);
  EXPECT_EQ(exceptionName([&] {
              task->matchWindow(nullptr, nullptr, "tag", false, false, settings, 2, "", nullptr);
            }),
            "TestFailedException: --- Time-out exception");
  server.releaseHangs();
}

}  // namespace
}  // namespace saffra
