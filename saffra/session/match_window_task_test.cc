#include "saffra/session/match_window_task.h"

#include <gtest/gtest.h>

#include "saffra/images/logger.h"
#include "saffra/images/saffra_screenshot.h"
#include "saffra/platform/expectation.h"
#include "saffra/results/exceptions.h"
#include "saffra/service/match_window_data.h"
#include "saffra/service/running_session.h"
#include "saffra/service/server_connector.h"
#include "testing/test_server.h"

namespace saffra {
namespace {

using testing::Reply;
using testing::TestServer;

constexpr const char* kMatchPath = "/api/sessions/running/s1";

// Hands out the same small output on every request, counting them.
class FixedOutputProvider : public AppOutputProviderProtocol {
 public:
  std::shared_ptr<AppOutputWithScreenshot> appOutputForRegion(
      const std::shared_ptr<Region>&, const std::shared_ptr<SaffraScreenshot>&) override {
    ++requests;
    return std::make_shared<AppOutputWithScreenshot>(std::make_shared<AppOutput>("title", "AAAA"),
                                                     screenshot);
  }
  std::shared_ptr<SaffraScreenshot> screenshot =
      std::make_shared<SaffraImagesScreenshot>(std::make_shared<Image>(1, 1));
  int requests = 0;
};

class MatchWindowTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    connector->setServerURL(server.baseURL());
    connector->setApiKey("key");
    connector->setRequestTimeoutForTesting(5);
    task->setWaitTimeoutForTesting(5);
  }

  // Runs one step and waits for its handler (which comes on either thread).
  std::shared_ptr<MatchResult> step(std::int64_t retryTimeout, bool runOnce, bool ignoreMismatch) {
    auto done = std::make_shared<Expectation>("step");
    std::shared_ptr<MatchResult> result;
    task->matchWindow(nullptr, nullptr, "tag", runOnce, ignoreMismatch, settings, retryTimeout,
                      "src", [&, done](std::shared_ptr<MatchResult> r, std::optional<Error>) {
                        result = std::move(r);
                        done->fulfill();
                      });
    EXPECT_EQ(Waiter::waitForExpectations({done}, 10), WaiterResult::Completed);
    return result;
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

TEST_F(MatchWindowTaskTest, ZeroTimeoutMakesOneAttemptWithTheCallersFlag) {
  server.route("POST", kMatchPath, Reply::json(200, R"({"asExpected":false})"));
  auto result = step(0, false, false);
  ASSERT_TRUE(result);
  EXPECT_FALSE(result->asExpected());
  EXPECT_EQ(ignoreFlags(), std::vector<bool>{false});
  EXPECT_TRUE(log.systemLines().empty());
  EXPECT_TRUE(log.contains("retryTimeout = 0"));
  EXPECT_EQ(task->lastScreenshot(), provider->screenshot);

  // A step whose mismatches are ignored leaves the last screenshot alone.
  auto other = std::make_shared<SaffraImagesScreenshot>(nullptr);
  task->updateLastScreenshot(other);
  step(0, false, true);
  EXPECT_EQ(task->lastScreenshot(), other);
  task->updateLastScreenshot(nullptr);
  EXPECT_EQ(task->lastScreenshot(), other);
}

TEST_F(MatchWindowTaskTest, NeverMatchingRetriesWithMismatchesIgnoredThenTriesOnceMore) {
  server.route("POST", kMatchPath, Reply::json(200, R"({"asExpected":false})"));
  auto result = step(3, false, false);
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

TEST_F(MatchWindowTaskTest, AMatchOnTheFirstRetryEndsTheStep) {
  server.route("POST", kMatchPath, Reply::json(200, R"({"asExpected":true})"));
  auto result = step(3, false, false);
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->asExpected());
  EXPECT_EQ(ignoreFlags(), std::vector<bool>{true});
  EXPECT_TRUE(log.systemLines().empty());
}

TEST_F(MatchWindowTaskTest, RunOnceWaitsThenTriesOnce) {
  server.route("POST", kMatchPath, Reply::json(200, R"({"asExpected":false})"));
  step(1, true, false);
  EXPECT_EQ(ignoreFlags(), std::vector<bool>{false});
  EXPECT_TRUE(log.systemLines().empty());
}

TEST_F(MatchWindowTaskTest, NegativeTimeoutUsesTheDefault) {
  auto quick = std::make_shared<MatchWindowTask>(
      connector, std::make_shared<RunningSession>(Json{{"id", "s1"}}), 0, provider);
  server.route("POST", kMatchPath, Reply::json(200, R"({"asExpected":true})"));
  task = quick;
  step(-1, false, false);
  EXPECT_TRUE(log.contains("retryTimeout = 0"));
  EXPECT_EQ(ignoreFlags().size(), 1u);
}

TEST_F(MatchWindowTaskTest, SilentServerEndsTheRetryLoopWithATimeOut) {
  server.route("POST", kMatchPath, Reply::hang());
  task->setWaitTimeoutForTesting(1);
  try {
    task->matchWindow(nullptr, nullptr, "tag", false, false, settings, 2, "", nullptr);
    FAIL() << "no exception";
  } catch (const TestFailedException& e) {
    EXPECT_EQ(e.reason(), "--- Time-out exception");
  }
  server.releaseHangs();
}

TEST_F(MatchWindowTaskTest, TransportErrorsCountAsMismatches) {
  server.route("POST", kMatchPath, Reply::drop());
  auto done = std::make_shared<Expectation>("step");
  std::optional<Error> error;
  task->matchWindow(nullptr, nullptr, "tag", false, false, settings, 2, "",
                    [&, done](std::shared_ptr<MatchResult> r, std::optional<Error> e) {
                      EXPECT_FALSE(r);
                      error = e;
                      done->fulfill();
                    });
  EXPECT_EQ(Waiter::waitForExpectations({done}, 10), WaiterResult::Completed);
  EXPECT_TRUE(error.has_value());
  EXPECT_GE(ignoreFlags().size(), 2u);  // retried, then the last attempt
}

}  // namespace
}  // namespace saffra
