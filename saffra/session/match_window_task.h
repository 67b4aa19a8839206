// One match step against a running server session: ask the session object for the current
// screenshot as application output, post it with the step's options, and, with a retry timeout,
// repeat the step about once a second (mismatches ignored) until the service reports a match or
// the time is spent, followed by one last attempt with the caller's choice.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "saffra/platform/error.h"
#include "saffra/platform/nullable.h"

namespace saffra {

class AppOutputWithScreenshot;
class ImageMatchSettings;
class MatchResult;
class Region;
class RunningSession;
class SaffraScreenshot;
class ServerConnector;

/// Gives the application output of a step: the session object.
class AppOutputProviderProtocol {
 public:
  virtual ~AppOutputProviderProtocol() = default;
  /// The output for the region (absent or empty: the whole image), or absent when there is no
  /// screenshot. (The parameter name's spelling is part of the interface.)
  virtual std::shared_ptr<AppOutputWithScreenshot> appOutputForRegion(
      const std::shared_ptr<Region>& region,
      const std::shared_ptr<SaffraScreenshot>& lastSreenshot) = 0;
};

/// Performs the match steps of one server session; used through std::shared_ptr.
class MatchWindowTask : public std::enable_shared_from_this<MatchWindowTask> {
 public:
  /// Receives the result of a step and the transport error, if any.
  using CompletionHandler =
      std::function<void(std::shared_ptr<MatchResult> result, std::optional<Error> error)>;
  /// Receives the screenshot a step used as well.
  using StepCompletionHandler =
      std::function<void(std::shared_ptr<SaffraScreenshot> screenshot,
                         std::shared_ptr<MatchResult> result, std::optional<Error> error)>;

  /// The provider is held for the task's whole life; `retryTimeout` (seconds) is used by steps
  /// that give a negative one.
  MatchWindowTask(std::shared_ptr<ServerConnector> serverConnector,
                  std::shared_ptr<RunningSession> runningSession, std::int64_t retryTimeout,
                  std::shared_ptr<AppOutputProviderProtocol> appOutputProvider);

  /// Runs one step: a single attempt (T = 0), the retry loop (T > 0), or, when
  /// `shouldMatchWindowRunOnceOnTimeout`, a blocking wait of T seconds followed by a single
  /// attempt. Logs "retryTimeout = %li". After a step whose mismatches are not ignored, its
  /// screenshot becomes lastScreenshot(). The handler runs on the transport's thread after a
  /// single attempt and on the caller's thread after the retry loop. Throws TestFailedException
  /// "--- Time-out exception" when the service does not answer an attempt of the loop in time.
  void matchWindow(const std::shared_ptr<Region>& region,
                   const std::shared_ptr<SaffraScreenshot>& lastScreenshot, const OptString& tag,
                   bool shouldMatchWindowRunOnceOnTimeout, bool ignoreMismatch,
                   const std::shared_ptr<ImageMatchSettings>& imageMatchSettings,
                   std::int64_t retryTimeout, const OptString& source,
                   CompletionHandler completionHandler);

  /// Chooses single attempt or retry loop (the keyword spelling is part of the interface).
  void takeScreenshotRegion(const std::shared_ptr<Region>& region, const OptString& tag,
                            bool shouldMatchWindowRunOnceOnTimeout, bool ignoreMismatch,
                            const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
                            std::int64_t retryTimeout, const OptString& source,
                            StepCompletionHandler completionHandler);
  /// One attempt: the provider's output for the region, posted at once; does not wait.
  void tryTakeScreenshotOfRegion(const std::shared_ptr<Region>& region, const OptString& tag,
                                 bool ignoreMismatch,
                                 const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
                                 const OptString& source, StepCompletionHandler completionHandler);
  /// Retries with mismatches ignored, one second apart, until a match or `retryTimeout` seconds
  /// have passed; then, without a match, one last attempt with `ignoreMismatch`.
  void retryTakingScreenshotOfRegion(const std::shared_ptr<Region>& region, const OptString& tag,
                                     bool ignoreMismatch,
                                     const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
                                     std::int64_t retryTimeout, const OptString& source,
                                     StepCompletionHandler completionHandler);
  /// Builds the step's options and match data and posts them; does not wait.
  void performMatchWithAppOutput(const std::shared_ptr<AppOutputWithScreenshot>& appOutput,
                                 const OptString& tag, bool ignoreMismatch,
                                 const std::shared_ptr<ImageMatchSettings>& imageMatchSetings,
                                 const OptString& source, CompletionHandler completionHandler);

  /// Keeps the screenshot when present; absent leaves the old one.
  void updateLastScreenshot(const std::shared_ptr<SaffraScreenshot>& screenshot);
  std::shared_ptr<SaffraScreenshot> lastScreenshot() const;

  const std::shared_ptr<ServerConnector>& serverConnector() const { return serverConnector_; }
  const std::shared_ptr<RunningSession>& runningSession() const { return runningSession_; }
  std::int64_t defaultRetryTimeout() const { return defaultRetryTimeout_; }

  /// How long each wait for the service lasts; 300 seconds unless a test shortens it.
  double waitTimeout() const { return waitTimeout_; }
  void setWaitTimeoutForTesting(double seconds) { waitTimeout_ = seconds; }

 private:
  std::shared_ptr<ServerConnector> serverConnector_;
  std::shared_ptr<RunningSession> runningSession_;
  std::shared_ptr<AppOutputProviderProtocol> appOutputProvider_;
  std::shared_ptr<AppOutputWithScreenshot> appOutputWithScreenshot_;  // declared, not used
  mutable std::mutex mutex_;  // lastScreenshot_ is written from the transport's thread
  std::shared_ptr<SaffraScreenshot> lastScreenshot_;
  std::int64_t defaultRetryTimeout_ = 0;
  double waitTimeout_ = 300.0;
};

}  // namespace saffra
