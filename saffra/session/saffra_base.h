// The test-session object. It holds the connection to the service, opens a test, starts the
// server session lazily at the first check, runs each check through the match task, closes (or
// aborts) the session and turns the returned results into log lines, errors and exceptions.
//
// Every service call is made synchronous with a one-shot expectation and a bounded wait (300
// seconds unless a test shortens it). Completion handlers run on the connector's transport
// thread; they reach the session's state through a weak reference to a shared, locked record,
// so a session may be destroyed while an abort is still in flight.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "saffra/base/region.h"
#include "saffra/checks/check_settings.h"
#include "saffra/checks/image_match_settings.h"
#include "saffra/config/abstract_proxy_settings.h"
#include "saffra/config/batch_info.h"
#include "saffra/config/configuration.h"
#include "saffra/images/debug_screenshots_provider.h"
#include "saffra/images/saffra_screenshot.h"
#include "saffra/platform/error.h"
#include "saffra/platform/geometry.h"
#include "saffra/platform/nullable.h"
#include "saffra/results/batch_closer_protocol.h"
#include "saffra/results/saffra_runner.h"
#include "saffra/service/match_window_data.h"
#include "saffra/service/running_session.h"
#include "saffra/service/session_start_info.h"
#include "saffra/service/test_results.h"
#include "saffra/session/match_window_task.h"
#include "saffra/session/simple_property_handler.h"

namespace saffra {

class ServerConnector;

/// The abstract session object; Saffra fills in the configuration, the screenshot and the SDK
/// hooks. Not copyable; may live on the stack or in a std::shared_ptr.
class SaffraBase : public AppOutputProviderProtocol, public BatchCloserProtocol {
 public:
  /// Receives the result of a check.
  using CheckCompletionHandler = std::function<void(std::shared_ptr<MatchResult> result)>;
  /// Receives a start failure, or nothing.
  using StartCompletionHandler = std::function<void(std::optional<Error> error)>;

  /// With a new runner.
  SaffraBase();
  /// With a new runner and the server address (an empty or absent one gives the default).
  explicit SaffraBase(const OptString& serverURL);
  /// With the given runner, the default server address and a null debug provider. Also writes
  /// match timeout 2, the default match settings and the two save flags through the
  /// configuration, which is not attached yet: these writes have no effect.
  explicit SaffraBase(std::shared_ptr<SaffraRunner> runner);
  ~SaffraBase() override;
  SaffraBase(const SaffraBase&) = delete;
  SaffraBase& operator=(const SaffraBase&) = delete;

  /// The service's default address: $QUORVANT_SERVER_URL, else $bamboo_QUORVANT_SERVER_URL,
  /// else "https://api.saffra.dev".
  static std::string defaultServerURL();

  // ---- Hooks that Saffra overrides -------------------------------------------------------
  /// The configuration in force; absent here.
  virtual std::shared_ptr<Configuration> configuration() const { return nullptr; }
  /// The screenshot of the current check; absent here.
  virtual std::shared_ptr<SaffraScreenshot> screenshot() const { return nullptr; }
  virtual OptString testedApplicationName() const { return std::nullopt; }
  virtual double scaleRatio() const { return 1.0; }
  virtual double statusBarHeight() const { return 0.0; }
  virtual std::string sdkName() const { return ""; }
  virtual std::string sdkBundleIdentifier() const { return ""; }
  /// The title of every application output: "Base title".
  virtual std::string title() const { return "Base title"; }
  /// The viewport size of the configuration (Saffra keeps it in the viewport holder).
  virtual Size viewportSize() const;
  virtual void setViewportSize(const Size& size);
  /// The size the viewport holder receives at open.
  virtual Size viewportSizeForOpen() const;

  // ---- Settings forwarded to the connector, the configuration and the debug provider -----
  /// The connector's key (which falls back to the environment). Throws SaffraException
  /// "server connector not set" without a connector, as do serverURL, proxy and setProxy.
  OptString apiKey() const;
  void setApiKey(const OptString& apiKey);
  OptString serverURL() const;
  /// An empty or absent address sets defaultServerURL().
  void setServerURL(const OptString& serverURL);
  /// The connector keeps no proxy record, so this is always absent.
  std::shared_ptr<AbstractProxySettings> proxy() const;
  /// Gives the proxy to the configuration and to the connector.
  void setProxy(std::shared_ptr<AbstractProxySettings> proxy);
  OptString baselineEnvName() const;
  /// Stores the name with every blank removed; an empty or absent name stores absent.
  void setBaselineEnvName(const OptString& name);
  std::shared_ptr<BatchInfo> batch() const;
  void setBatch(std::shared_ptr<BatchInfo> batch);
  OptString branchName() const;
  void setBranchName(const OptString& value);
  OptString parentBranchName() const;
  void setParentBranchName(const OptString& value);
  OptString baselineBranchName() const;
  void setBaselineBranchName(const OptString& value);
  OptString hostApp() const;
  void setHostApp(const OptString& value);
  /// The configuration's hostOS.
  OptString osInfo() const;
  void setOsInfo(const OptString& value);
  /// Seconds a check may retry a mismatch.
  std::uint64_t matchTimeout() const;
  /// Throws Exception "IllegalArgumentException" for exactly 1 second; 0 means one attempt.
  void setMatchTimeout(std::uint64_t seconds);
  bool ignoreDisplacements() const;
  void setIgnoreDisplacements(bool value);
  bool saveDiffs() const;
  void setSaveDiffs(bool value);
  bool saveNewTests() const;
  void setSaveNewTests(bool value);
  bool saveFailedTests() const;
  void setSaveFailedTests(bool value);
  /// The match level and caret flag of the default match settings.
  std::int64_t matchLevel() const;
  void setMatchLevel(std::int64_t value);
  bool ignoreCaret() const;
  void setIgnoreCaret(bool value);
  std::shared_ptr<ImageMatchSettings> defaultMatchSettings() const;
  void setDefaultMatchSettings(std::shared_ptr<ImageMatchSettings> value);
  std::string debugScreenshotsPath() const;
  void setDebugScreenshotsPath(const OptString& path);
  OptString debugScreenshotsPrefix() const;
  void setDebugScreenshotsPrefix(const OptString& prefix);
  /// True unless the debug provider is the null provider.
  bool saveDebugScreenshots() const;
  /// Installs a file (true) or null (false) provider that keeps the old prefix and path.
  void setSaveDebugScreenshots(bool value);

  // ---- Own fields -----------------------------------------------------------------------
  bool shouldCropStatusBar() const { return shouldCropStatusBar_; }
  void setShouldCropStatusBar(bool value) { shouldCropStatusBar_ = value; }
  const std::shared_ptr<DebugScreenshotsProvider>& debugScreenshotsProvider() const {
    return debugScreenshotsProvider_;
  }
  void setDebugScreenshotsProvider(std::shared_ptr<DebugScreenshotsProvider> provider) {
    debugScreenshotsProvider_ = std::move(provider);
  }
  const std::shared_ptr<SaffraRunner>& runner() const { return runner_; }
  bool isOpen() const { return isOpen_; }
  void setIsOpen(bool value) { isOpen_ = value; }
  bool shouldMatchWindowRunOnceOnTimeout() const;
  void setShouldMatchWindowRunOnceOnTimeout(bool value);
  /// Stored only; the session start reports the running system instead.
  const OptString& hostOS() const { return hostOS_; }
  void setHostOS(const OptString& value) { hostOS_ = value; }
  const OptString& hostingAppInfo() const { return hostingAppInfo_; }
  void setHostingAppInfo(const OptString& value) { hostingAppInfo_ = value; }
  const OptString& deviceInfo() const { return deviceInfo_; }
  void setDeviceInfo(const OptString& value) { deviceInfo_ = value; }
  const std::shared_ptr<ServerConnector>& serverConnector() const { return serverConnector_; }
  void setServerConnector(std::shared_ptr<ServerConnector> connector);
  std::shared_ptr<RunningSession> runningSession() const;
  const std::shared_ptr<SessionStartInfo>& sessionStartInfo() const { return sessionStartInfo_; }
  const std::shared_ptr<MatchWindowTask>& matchWindowTask() const { return matchWindowTask_; }
  std::shared_ptr<TestResults> testResult() const;
  std::shared_ptr<SaffraScreenshot> lastScreenshot() const;
  std::shared_ptr<MatchResult> matchResult() const;
  const std::shared_ptr<PropertyHandlerProtocol<RectangleSize>>& viewportSizeHandler() const {
    return viewportSizeHandler_;
  }

  // ---- Session operations ---------------------------------------------------------------
  /// Records names and viewport size, checks the key and that no test is open, logs the server
  /// address and default match settings, and marks the test open. No traffic yet.
  void openBaseWithApplicationName(const OptString& appName, const OptString& testName,
                                   const Size& viewportSize);
  /// closeWithThrow(true, error).
  std::shared_ptr<TestResults> close(ErrorSlot error);
  /// Stops the server session (saving as configured) and reports the results: the log line,
  /// an error in the slot for a new, unresolved or failed test and, with `shouldThrow`, its
  /// exception (raised here, on the caller's thread, after the slot was written). Without a
  /// running session returns new empty results. Throws TestFailedException
  /// "--- Time-out exception" when the service does not answer in time.
  virtual std::shared_ptr<TestResults> closeWithThrow(bool shouldThrow, ErrorSlot error);
  /// Stops an unfinished server session as aborted, without saving and without waiting.
  void abortIfNotClosed();
  /// Closes the batch on the service and waits for the answer.
  void closeBatchWithId(const OptString& batchId) override;
  /// Adds a name/value pair to every later session start of this object.
  void addProperty(const OptString& name, const OptString& value);

  /// Logs each outcome, fills the slot and raises as asked (see logSessionResults).
  static void logSessionResults(const std::shared_ptr<TestResults>& results, bool throwException,
                                ErrorSlot error);

  /// The environment of the test: this system's OS, the host name as device, the viewport.
  std::shared_ptr<AppEnvironment> appEnvironment() const;
  /// "<sdkName>/<version>"; the version is absent unless the bundle id is the library's.
  std::string baseAgentId() const;
  /// The configured agent id followed by " [<baseAgentId>]", or baseAgentId when none is set.
  std::string fullAgentId() const;
  /// "<OS name> <major>.<minor>", e.g. "Linux 6.1".
  std::string getFullOSInfo() const;
  /// "<OS name> <major>", e.g. "Linux 6".
  std::string getMajorOSInfo() const;
  /// The host's name.
  std::string getDeviceInfo() const;
  /// "Test app".
  std::string getHostingAppInfo() const;

  // ---- Check pipeline (group FluentInterface) -------------------------------------------
  /// Starts the server session when none runs, performs the match and waits for it; calls the
  /// handler with the result when the wait completed. Throws TestFailedException
  /// "--- Time-out exception" when the wait runs out.
  void checkWindowBase(const std::shared_ptr<RegionProviderProtocol>& regionProvider,
                       const OptString& tag, bool ignoreMismatch,
                       const std::shared_ptr<CheckSettingsProtocol>& checkSettings,
                       const OptString& source, CheckCompletionHandler completionHandler);
  /// Starts the server session and the match task unless a session runs; closes the test when
  /// the start gave no session.
  void ensureRunningSession();
  /// Builds the step's match settings and hands the step to the match task; does not wait.
  void matchWindow(const std::shared_ptr<RegionProviderProtocol>& regionProvider,
                   const OptString& tag, bool ignoreMismatch,
                   const std::shared_ptr<CheckSettingsProtocol>& settings, const OptString& source,
                   MatchWindowTask::CompletionHandler completionHandler);
  /// The region collectors: each provider's region, shifted for a cut-off status bar, in order.
  void collectIgnoredRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                 ImageMatchSettings& to) const;
  void collectLayoutRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                ImageMatchSettings& to) const;
  void collectStrictRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                ImageMatchSettings& to) const;
  void collectContentRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                 ImageMatchSettings& to) const;
  void collectFloatingRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                  ImageMatchSettings& to) const;
  void collectAccessibilityRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                       ImageMatchSettings& to) const;
  ImageMatchSettings::RegionList filteredRegions(
      const CheckSettingsInternalProtocol::ProviderList& providers) const;
  /// The current screenshot cropped to the region (or without the status bar), scaled, as PNG
  /// in base64 text; absent when there is no screenshot. Each stage goes to the debug provider.
  std::shared_ptr<AppOutputWithScreenshot> appOutputWithScreenshotForRegion(
      const std::shared_ptr<Region>& region,
      const std::shared_ptr<SaffraScreenshot>& lastScreenshot);
  std::shared_ptr<AppOutputWithScreenshot> appOutputForRegion(
      const std::shared_ptr<Region>& region,
      const std::shared_ptr<SaffraScreenshot>& lastSreenshot) override;
  /// The screenshot's image as PNG in base64 with CR LF between 64-character lines; absent
  /// without an image.
  static OptString base64ScreenshotStringFromScreenshot(
      const std::shared_ptr<SaffraScreenshot>& screenshot);

  // ---- For the library's own use (group Protected) --------------------------------------
  /// Starts the server session; the handler receives the transport error, or nothing.
  void startSessionWithCompletionHandler(StartCompletionHandler completionHandler);
  /// Throws SaffraException "API key is missing! Please set it using setApiKey()".
  void validateApiKey() const;
  /// When a test is open: aborts it, then throws SaffraException "A test is already running".
  void validateSessionOpen();
  /// A result that is not as expected makes later steps wait the whole timeout once and, unless
  /// the session is new, logs "Mismatch! (<tag>)". Never throws.
  void validateResult(const std::shared_ptr<MatchResult>& result, const OptString& tag);

  /// How long each wait for the service lasts (default 300 seconds). A test may shorten it;
  /// the match task uses the same bound and the connector's requests one second more.
  double waitTimeout() const { return waitTimeout_; }
  void setWaitTimeoutForTesting(double seconds);

 private:
  struct State;

  std::shared_ptr<State> state_;
  std::shared_ptr<PropertyHandlerProtocol<RectangleSize>> viewportSizeHandler_;
  bool shouldCropStatusBar_ = false;
  std::shared_ptr<DebugScreenshotsProvider> debugScreenshotsProvider_;
  std::shared_ptr<SaffraRunner> runner_;
  bool isOpen_ = false;
  OptString hostOS_;
  OptString hostingAppInfo_;
  OptString deviceInfo_;
  std::shared_ptr<ServerConnector> serverConnector_;
  std::shared_ptr<SessionStartInfo> sessionStartInfo_;
  std::shared_ptr<MatchWindowTask> matchWindowTask_;
  double waitTimeout_ = 300.0;
};

}  // namespace saffra
