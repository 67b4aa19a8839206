#include "saffra/session/match_window_task.h"

#include <chrono>
#include <thread>

#include "saffra/base/argument_guard.h"
#include "saffra/base/logger.h"
#include "saffra/base/region.h"
#include "saffra/platform/expectation.h"
#include "saffra/results/exceptions.h"
#include "saffra/service/match_window_data.h"
#include "saffra/service/server_connector.h"

namespace saffra {

namespace {

constexpr const char* kTimeOutReason = "--- Time-out exception";

// The values an attempt of the retry loop hands back, written on the transport's thread.
struct StepHolders {
  std::mutex mutex;
  std::shared_ptr<SaffraScreenshot> screenshot;
  std::shared_ptr<MatchResult> result;
  std::optional<Error> error;

  bool resultAsExpected() {
    std::lock_guard lock(mutex);
    return result && result->asExpected();
  }
};

}  // namespace

MatchWindowTask::MatchWindowTask(std::shared_ptr<ServerConnector> serverConnector,
                                 std::shared_ptr<RunningSession> runningSession,
                                 std::int64_t retryTimeout,
                                 std::shared_ptr<AppOutputProviderProtocol> appOutputProvider) {
  ArgumentGuard::notNil(serverConnector, "serverConnector");
  ArgumentGuard::notNil(runningSession, "runningSession");
  ArgumentGuard::notNil(appOutputProvider, "appOutputProvider");
  serverConnector_ = std::move(serverConnector);
  runningSession_ = std::move(runningSession);
  appOutputProvider_ = std::move(appOutputProvider);
  defaultRetryTimeout_ = retryTimeout;
}

void MatchWindowTask::matchWindow(const std::shared_ptr<Region>& region,
                                  const std::shared_ptr<SaffraScreenshot>& /*lastScreenshot*/,
                                  const OptString& tag, bool shouldMatchWindowRunOnceOnTimeout,
                                  bool ignoreMismatch,
                                  const std::shared_ptr<ImageMatchSettings>& imageMatchSettings,
                                  std::int64_t retryTimeout, const OptString& source,
                                  CompletionHandler completionHandler) {
  if (retryTimeout < 0) retryTimeout = defaultRetryTimeout_;
  Logger::logWithFormat("retryTimeout = %li", retryTimeout);
  std::weak_ptr<MatchWindowTask> weakTask = weak_from_this();
  takeScreenshotRegion(region, tag, shouldMatchWindowRunOnceOnTimeout, ignoreMismatch,
                       imageMatchSettings, retryTimeout, source,
                       [weakTask, ignoreMismatch, completionHandler = std::move(completionHandler)](
                           std::shared_ptr<SaffraScreenshot> screenshot,
                           std::shared_ptr<MatchResult> result, std::optional<Error> error) {
                         if (!ignoreMismatch) {
                           if (auto task = weakTask.lock()) task->updateLastScreenshot(screenshot);
                         }
                         if (completionHandler)
                           completionHandler(std::move(result), std::move(error));
                       });
}

void MatchWindowTask::takeScreenshotRegion(
    const std::shared_ptr<Region>& region, const OptString& tag,
    bool shouldMatchWindowRunOnceOnTimeout, bool ignoreMismatch,
    const std::shared_ptr<ImageMatchSettings>& imageMatchSetings, std::int64_t retryTimeout,
    const OptString& source, StepCompletionHandler completionHandler) {
  if (retryTimeout > 0 && !shouldMatchWindowRunOnceOnTimeout) {
    retryTakingScreenshotOfRegion(region, tag, ignoreMismatch, imageMatchSetings, retryTimeout,
                                  source, std::move(completionHandler));
    return;
  }
  if (shouldMatchWindowRunOnceOnTimeout && retryTimeout > 0) {
    // A new baseline, or a session that already saw a mismatch: give the application the
    // whole time-out to settle, then try once.
    std::this_thread::sleep_for(std::chrono::seconds(retryTimeout));
  }
  tryTakeScreenshotOfRegion(region, tag, ignoreMismatch, imageMatchSetings, source,
                            std::move(completionHandler));
}

void MatchWindowTask::tryTakeScreenshotOfRegion(
    const std::shared_ptr<Region>& region, const OptString& tag, bool ignoreMismatch,
    const std::shared_ptr<ImageMatchSettings>& imageMatchSetings, const OptString& source,
    StepCompletionHandler completionHandler) {
  auto appOutput = appOutputProvider_
                       ? appOutputProvider_->appOutputForRegion(region, lastScreenshot())
                       : nullptr;
  auto screenshot = appOutput ? appOutput->screenshot() : nullptr;
  performMatchWithAppOutput(appOutput, tag, ignoreMismatch, imageMatchSetings, source,
                            [screenshot, completionHandler = std::move(completionHandler)](
                                std::shared_ptr<MatchResult> result, std::optional<Error> error) {
                              if (completionHandler)
                                completionHandler(screenshot, std::move(result), std::move(error));
                            });
}

void MatchWindowTask::retryTakingScreenshotOfRegion(
    const std::shared_ptr<Region>& region, const OptString& tag, bool ignoreMismatch,
    const std::shared_ptr<ImageMatchSettings>& imageMatchSetings, std::int64_t retryTimeout,
    const OptString& source, StepCompletionHandler completionHandler) {
  const auto start = std::chrono::steady_clock::now();
  auto elapsedSeconds = [start] {
    return static_cast<std::int64_t>(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  };
  auto held = std::make_shared<StepHolders>();
  auto attempt = [&](const char* description, bool ignore) {
    auto expectation = std::make_shared<Expectation>(description);
    tryTakeScreenshotOfRegion(
        region, tag, ignore, imageMatchSetings, source,
        [held, expectation](std::shared_ptr<SaffraScreenshot> screenshot,
                            std::shared_ptr<MatchResult> result, std::optional<Error> error) {
          {
            std::lock_guard lock(held->mutex);
            held->screenshot = std::move(screenshot);
            held->result = std::move(result);
            held->error = std::move(error);
          }
          expectation->fulfill();
        });
    return Waiter::waitForExpectations({expectation}, waitTimeout_);
  };

  if (elapsedSeconds() < retryTimeout) {
    while (true) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      WaiterResult waited = attempt("Take screenshot expectation", true);
      if (held->resultAsExpected()) break;
      if (waited == WaiterResult::TimedOut) throw TestFailedException(kTimeOutReason);
      const std::int64_t elapsed = elapsedSeconds();
      // The number is the time spent so far, whatever the wording says.
      Logger::systemLogWithFormat("Retry timeout seconds left = %li", elapsed);
      if (elapsed >= retryTimeout) break;
    }
  }
  if (!held->resultAsExpected()) {
    if (attempt("Last attempt expectation", ignoreMismatch) == WaiterResult::TimedOut) {
      throw TestFailedException(kTimeOutReason);
    }
  }
  if (completionHandler) {
    std::unique_lock lock(held->mutex);
    auto screenshot = held->screenshot;
    auto result = held->result;
    auto error = held->error;
    lock.unlock();
    completionHandler(std::move(screenshot), std::move(result), std::move(error));
  }
}

void MatchWindowTask::performMatchWithAppOutput(
    const std::shared_ptr<AppOutputWithScreenshot>& appOutput, const OptString& tag,
    bool ignoreMismatch, const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
    const OptString& source, CompletionHandler completionHandler) {
  auto options = std::make_shared<Options>(tag, ignoreMismatch, false, false, false,
                                           imageMatchSetings, source);
  auto data =
      std::make_shared<MatchWindowData>(appOutput ? appOutput->appOutput() : nullptr, tag, options);
  serverConnector_->matchWindowForSession(runningSession_, data, std::move(completionHandler));
}

void MatchWindowTask::updateLastScreenshot(const std::shared_ptr<SaffraScreenshot>& screenshot) {
  if (!screenshot) return;
  std::lock_guard lock(mutex_);
  lastScreenshot_ = screenshot;
}

std::shared_ptr<SaffraScreenshot> MatchWindowTask::lastScreenshot() const {
  std::lock_guard lock(mutex_);
  return lastScreenshot_;
}

}  // namespace saffra
