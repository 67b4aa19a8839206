#include "saffra/session/saffra_base.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "saffra/base/argument_guard.h"
#include "saffra/base/configurable.h"
#include "saffra/base/environment_helper.h"
#include "saffra/base/logger.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/expectation.h"
#include "saffra/platform/format.h"
#include "saffra/platform/system_info.h"
#include "saffra/results/error_builder.h"
#include "saffra/results/exceptions.h"
#include "saffra/results/session_results.h"
#include "saffra/service/server_connector.h"
#include "saffra/session/internal/saffra_base_state.h"
#include "saffra/version.h"

namespace saffra {

namespace {

constexpr const char* kTimeOutReason = "--- Time-out exception";
constexpr const char* kConnectorNotSet = "server connector not set";
constexpr const char* kDefaultEndpoint = "https://api.saffra.dev";
constexpr const char* kLibraryBundleIdentifier = "com.quorvant.saffra.images";

bool waitTimedOut(const std::shared_ptr<Expectation>& expectation, double timeout) {
  return Waiter::waitForExpectations({expectation}, timeout) == WaiterResult::TimedOut;
}

// What the stop handler of a close hands back to the waiting caller.
struct CloseOutcome {
  std::mutex mutex;
  std::optional<Error> error;
  std::exception_ptr exception;
};

}  // namespace

void SaffraBase::State::validateResult(const std::shared_ptr<MatchResult>& result,
                                       const OptString& tag) {
  if (result && result->asExpected()) return;
  std::shared_ptr<RunningSession> session;
  {
    std::lock_guard lock(mutex);
    shouldMatchWindowRunOnceOnTimeout = true;
    session = runningSession;
  }
  if (!(session && session->isNewSession())) Logger::logWithFormat("Mismatch! (%@)", tag);
}

// ---- construction ------------------------------------------------------------------------

SaffraBase::SaffraBase() : SaffraBase(std::make_shared<SaffraRunner>()) {}

SaffraBase::SaffraBase(const OptString& serverURL) : SaffraBase(std::make_shared<SaffraRunner>()) {
  setServerURL(serverURL);
}

SaffraBase::SaffraBase(std::shared_ptr<SaffraRunner> runner)
    : state_(std::make_shared<State>()), runner_(std::move(runner)) {
  serverConnector_ = std::make_shared<ServerConnector>();
  setServerURL(defaultServerURL());
  sessionStartInfo_ = std::make_shared<SessionStartInfo>();
  viewportSizeHandler_ = std::make_shared<SimplePropertyHandler<RectangleSize>>();
  viewportSizeHandler_->setProperty(nullptr);
  debugScreenshotsProvider_ = std::make_shared<NullDebugScreenshotsProvider>();
  // No configuration is attached yet, so these four writes change nothing; the configuration's
  // own defaults govern.
  setMatchTimeout(2);
  setDefaultMatchSettings(ImageMatchSettings::defaultImageMatchSettings());
  setSaveNewTests(true);
  setSaveFailedTests(false);
}

SaffraBase::~SaffraBase() {
  // Drop pending handlers before the rest of the object goes: the match task shares the
  // connector, and handlers only reach the state record through a weak reference.
  matchWindowTask_.reset();
  serverConnector_.reset();
}

std::string SaffraBase::defaultServerURL() {
  OptString url = EnvironmentHelper::environmentVariableForKey("QUORVANT_SERVER_URL");
  if (Configurable::isNotEmpty(url)) return *url;
  url = EnvironmentHelper::environmentVariableForKey("bamboo_QUORVANT_SERVER_URL");
  if (Configurable::isNotEmpty(url)) return *url;
  return kDefaultEndpoint;
}

// The connector's requests get a second more than the waits, so that a silent service ends in
// the wait's time-out rather than racing it with a transport error.
void SaffraBase::setWaitTimeoutForTesting(double seconds) {
  waitTimeout_ = seconds;
  if (matchWindowTask_) matchWindowTask_->setWaitTimeoutForTesting(seconds);
  if (serverConnector_) serverConnector_->setRequestTimeoutForTesting(seconds + 1);
}

void SaffraBase::setServerConnector(std::shared_ptr<ServerConnector> connector) {
  serverConnector_ = std::move(connector);
  if (serverConnector_ && waitTimeout_ != 300.0) {
    serverConnector_->setRequestTimeoutForTesting(waitTimeout_ + 1);
  }
}

// ---- hooks ---------------------------------------------------------------------------------

Size SaffraBase::viewportSize() const {
  auto config = configuration();
  return config ? config->viewportSize() : Size();
}

void SaffraBase::setViewportSize(const Size& size) {
  if (auto config = configuration()) config->setViewportSize(size);
}

Size SaffraBase::viewportSizeForOpen() const {
  auto config = configuration();
  return config ? config->viewportSize() : Size();
}

// ---- forwarded settings --------------------------------------------------------------------

OptString SaffraBase::apiKey() const {
  if (!serverConnector_) throw SaffraException(kConnectorNotSet);
  return serverConnector_->apiKey();
}

void SaffraBase::setApiKey(const OptString& apiKey) {
  if (!serverConnector_) throw SaffraException(kConnectorNotSet);
  ArgumentGuard::notNil(apiKey, "apiKey");
  serverConnector_->setApiKey(apiKey);
}

OptString SaffraBase::serverURL() const {
  if (!serverConnector_) throw SaffraException(kConnectorNotSet);
  return serverConnector_->serverURL();
}

void SaffraBase::setServerURL(const OptString& serverURL) {
  if (!serverConnector_) return;
  serverConnector_->setServerURL(Configurable::isNotEmpty(serverURL) ? *serverURL
                                                                     : defaultServerURL());
}

std::shared_ptr<AbstractProxySettings> SaffraBase::proxy() const {
  if (!serverConnector_) throw SaffraException(kConnectorNotSet);
  return serverConnector_->proxy();
}

void SaffraBase::setProxy(std::shared_ptr<AbstractProxySettings> proxy) {
  if (!serverConnector_) throw SaffraException(kConnectorNotSet);
  if (auto config = configuration()) config->setProxy(proxy);
  serverConnector_->setProxy(proxy);
}

OptString SaffraBase::baselineEnvName() const {
  auto config = configuration();
  return config ? config->baselineEnvName() : std::nullopt;
}

void SaffraBase::setBaselineEnvName(const OptString& name) {
  auto config = configuration();
  if (!config) return;
  if (Configurable::isNotEmpty(name)) {
    std::string withoutBlanks = *name;
    std::erase(withoutBlanks, ' ');
    config->setBaselineEnvName(withoutBlanks);
  } else {
    config->setBaselineEnvName(std::nullopt);
  }
}

// Getters and setters that only pass a value through to the configuration; without one the
// getters give the empty value and the setters do nothing.
#define SAFFRA_FORWARD(Type, getter, setter, empty)           \
  Type SaffraBase::getter() const {                           \
    auto config = configuration();                            \
    return config ? config->getter() : empty;                 \
  }                                                           \
  void SaffraBase::setter(const Type& value) {                \
    if (auto config = configuration()) config->setter(value); \
  }

SAFFRA_FORWARD(OptString, branchName, setBranchName, std::nullopt)
SAFFRA_FORWARD(OptString, parentBranchName, setParentBranchName, std::nullopt)
SAFFRA_FORWARD(OptString, baselineBranchName, setBaselineBranchName, std::nullopt)
SAFFRA_FORWARD(OptString, hostApp, setHostApp, std::nullopt)
#undef SAFFRA_FORWARD

std::shared_ptr<BatchInfo> SaffraBase::batch() const {
  auto config = configuration();
  return config ? config->batch() : nullptr;
}

void SaffraBase::setBatch(std::shared_ptr<BatchInfo> batch) {
  if (auto config = configuration()) config->setBatch(std::move(batch));
}

OptString SaffraBase::osInfo() const {
  auto config = configuration();
  return config ? config->hostOS() : std::nullopt;
}

void SaffraBase::setOsInfo(const OptString& value) {
  if (auto config = configuration()) config->setHostOS(value);
}

std::uint64_t SaffraBase::matchTimeout() const {
  auto config = configuration();
  return config ? static_cast<std::uint64_t>(config->matchTimeout()) : 0;
}

void SaffraBase::setMatchTimeout(std::uint64_t seconds) {
  if (seconds == 1) {
    throw Exception("IllegalArgumentException",
                    format("Match timeout must be set in seconds, and must be > %li", 1));
  }
  if (auto config = configuration()) config->setMatchTimeout(static_cast<std::int64_t>(seconds));
}

bool SaffraBase::ignoreDisplacements() const {
  auto config = configuration();
  return config && config->ignoreDisplacements();
}

void SaffraBase::setIgnoreDisplacements(bool value) {
  if (auto config = configuration()) config->setIgnoreDisplacements(value);
}

bool SaffraBase::saveDiffs() const {
  auto config = configuration();
  return config && config->saveDiffs();
}

void SaffraBase::setSaveDiffs(bool value) {
  if (auto config = configuration()) config->setSaveDiffs(value);
}

bool SaffraBase::saveNewTests() const {
  auto config = configuration();
  return config && config->saveNewTests();
}

void SaffraBase::setSaveNewTests(bool value) {
  if (auto config = configuration()) config->setSaveNewTests(value);
}

bool SaffraBase::saveFailedTests() const {
  auto config = configuration();
  return config && config->saveFailedTests();
}

void SaffraBase::setSaveFailedTests(bool value) {
  if (auto config = configuration()) config->setSaveFailedTests(value);
}

std::int64_t SaffraBase::matchLevel() const {
  auto settings = defaultMatchSettings();
  return settings ? settings->matchLevel() : 0;
}

void SaffraBase::setMatchLevel(std::int64_t value) {
  if (auto settings = defaultMatchSettings()) settings->setMatchLevel(value);
}

bool SaffraBase::ignoreCaret() const {
  auto settings = defaultMatchSettings();
  return settings && settings->ignoreCaret();
}

void SaffraBase::setIgnoreCaret(bool value) {
  if (auto settings = defaultMatchSettings()) settings->setIgnoreCaret(value);
}

std::shared_ptr<ImageMatchSettings> SaffraBase::defaultMatchSettings() const {
  auto config = configuration();
  return config ? config->defaultMatchSettings() : nullptr;
}

void SaffraBase::setDefaultMatchSettings(std::shared_ptr<ImageMatchSettings> value) {
  if (auto config = configuration()) config->setDefaultMatchSettings(std::move(value));
}

std::string SaffraBase::debugScreenshotsPath() const {
  return debugScreenshotsProvider_ ? debugScreenshotsProvider_->path() : std::string();
}

void SaffraBase::setDebugScreenshotsPath(const OptString& path) {
  if (debugScreenshotsProvider_) debugScreenshotsProvider_->setPath(path);
}

OptString SaffraBase::debugScreenshotsPrefix() const {
  return debugScreenshotsProvider_ ? debugScreenshotsProvider_->prefix() : std::nullopt;
}

void SaffraBase::setDebugScreenshotsPrefix(const OptString& prefix) {
  if (debugScreenshotsProvider_) debugScreenshotsProvider_->setPrefix(prefix);
}

bool SaffraBase::saveDebugScreenshots() const {
  return !std::dynamic_pointer_cast<NullDebugScreenshotsProvider>(debugScreenshotsProvider_);
}

void SaffraBase::setSaveDebugScreenshots(bool value) {
  auto previous = debugScreenshotsProvider_;
  std::shared_ptr<DebugScreenshotsProvider> provider;
  if (value) {
    provider = std::make_shared<FileDebugScreenshotsProvider>();
  } else {
    provider = std::make_shared<NullDebugScreenshotsProvider>();
  }
  if (previous) {
    provider->setPrefix(previous->prefix());
    provider->setPath(previous->path());
  }
  debugScreenshotsProvider_ = std::move(provider);
}

// ---- state written by handlers ---------------------------------------------------------------

bool SaffraBase::shouldMatchWindowRunOnceOnTimeout() const {
  std::lock_guard lock(state_->mutex);
  return state_->shouldMatchWindowRunOnceOnTimeout;
}

void SaffraBase::setShouldMatchWindowRunOnceOnTimeout(bool value) {
  std::lock_guard lock(state_->mutex);
  state_->shouldMatchWindowRunOnceOnTimeout = value;
}

std::shared_ptr<RunningSession> SaffraBase::runningSession() const {
  std::lock_guard lock(state_->mutex);
  return state_->runningSession;
}

std::shared_ptr<TestResults> SaffraBase::testResult() const {
  std::lock_guard lock(state_->mutex);
  return state_->testResult;
}

std::shared_ptr<SaffraScreenshot> SaffraBase::lastScreenshot() const {
  std::lock_guard lock(state_->mutex);
  return state_->lastScreenshot;
}

std::shared_ptr<MatchResult> SaffraBase::matchResult() const {
  std::lock_guard lock(state_->mutex);
  return state_->matchResult;
}

// ---- open, start, close, abort -----------------------------------------------------------------

void SaffraBase::openBaseWithApplicationName(const OptString& appName, const OptString& testName,
                                             const Size& viewportSize) {
  if (auto config = configuration()) {
    config->setAppName(Configurable::isNotEmpty(appName) ? *appName : "Application name");
    config->setTestName(Configurable::isNotEmpty(testName) ? *testName : "Test name");
    config->setViewportSize(viewportSize);
  }
  validateApiKey();
  validateSessionOpen();
  Logger::logWithFormat("Saffra server URL is %@", serverURL());
  Logger::logWithFormat("Default match settings = %@", defaultMatchSettings());
  viewportSizeHandler_->setProperty(std::make_shared<RectangleSize>(viewportSizeForOpen()));
  serverConnector_->setServerURL(serverURL());
  serverConnector_->setApiKey(apiKey());
  serverConnector_->setProxy(proxy());
  isOpen_ = true;
}

void SaffraBase::startSessionWithCompletionHandler(StartCompletionHandler completionHandler) {
  Logger::log("No running session, calling start session..");
  auto environment = appEnvironment();
  auto batchInfo = batch();
  if (!batchInfo) {
    Logger::log("No batch set");
    batchInfo = std::make_shared<BatchInfo>(std::nullopt);
  }

  OptString branch = branchName();
  if (!Configurable::isNotEmpty(branch)) {
    branch = EnvironmentHelper::environmentVariableForKey("QUORVANT_BRANCH");
  }
  OptString parentBranch = parentBranchName();
  if (!Configurable::isNotEmpty(parentBranch)) {
    parentBranch = EnvironmentHelper::environmentVariableForKey("QUORVANT_PARENT_BRANCH");
    if (!Configurable::isNotEmpty(parentBranch)) {
      parentBranch = EnvironmentHelper::environmentVariableForKey("bamboo_QUORVANT_PARENT_BRANCH");
    }
  }
  // The configured baseline branch is used only when a baseline environment name is set.
  OptString baselineBranch;
  if (Configurable::isNotEmpty(baselineEnvName())) {
    baselineBranch = baselineBranchName();
  } else {
    baselineBranch = EnvironmentHelper::environmentVariableForKey("QUORVANT_BASELINE_BRANCH");
    if (!Configurable::isNotEmpty(baselineBranch)) {
      baselineBranch =
          EnvironmentHelper::environmentVariableForKey("bamboo_QUORVANT_BASELINE_BRANCH");
    }
  }

  auto config = configuration();
  const OptString appName = config ? config->appName() : std::nullopt;
  const OptString testName = config ? config->testName() : std::nullopt;
  sessionStartInfo_->setupWithAgentId(fullAgentId(), config ? config->sessionType() : 0, appName,
                                      testName, baselineEnvName(), environment, batchInfo, branch,
                                      parentBranch, baselineBranch, saveDiffs(),
                                      defaultMatchSettings());

  // What the handler needs is taken now: it runs on the transport's thread.
  const std::string started = format("'%@' of '%@' %@", testName, appName, environment);
  const OptString batchId = config && config->batch() ? config->batch()->batchId() : std::nullopt;
  // The runner is handed this object as the closer of its batch without taking ownership.
  std::shared_ptr<BatchCloserProtocol> closer(std::shared_ptr<void>(), this);
  std::weak_ptr<State> weakState = state_;
  auto runner = runner_;

  Logger::log("Starting server session...");
  serverConnector_->startSessionWithInfo(
      sessionStartInfo_, [weakState, started, batchId, closer, runner,
                          completionHandler = std::move(completionHandler)](
                             std::shared_ptr<RunningSession> session, std::optional<Error> error) {
        auto state = weakState.lock();
        if (!state) return;
        if (error) {
          if (completionHandler) completionHandler(error);
          return;
        }
        if (session) {
          {
            std::lock_guard lock(state->mutex);
            state->runningSession = session;
            state->shouldMatchWindowRunOnceOnTimeout = session->isNewSession();
          }
          Logger::logWithFormat(
              session->isNewSession() ? "--- New test started - %@" : "--- Test started - %@",
              started);
          if (runner) runner->addBatchCloser(closer, batchId);
          Logger::log("Done!");
        }
        if (completionHandler) completionHandler(std::nullopt);
      });
}

std::shared_ptr<TestResults> SaffraBase::close(ErrorSlot error) {
  return closeWithThrow(true, error);
}

std::shared_ptr<TestResults> SaffraBase::closeWithThrow(bool shouldThrow, ErrorSlot error) {
  isOpen_ = false;
  auto session = runningSession();
  if (!session) {
    Logger::log("Server session was not started");
    Logger::log("--- Empty test ended.");
    return std::make_shared<TestResults>();
  }
  Logger::log("Ending server session...");
  const bool save = session->isNewSession() ? saveNewTests() : saveFailedTests();
  Logger::logWithFormat("Automatically save test? %@", save ? "YES" : "NO");

  auto expectation = std::make_shared<Expectation>("Check window expectation");
  auto outcome = std::make_shared<CloseOutcome>();
  std::weak_ptr<State> weakState = state_;
  serverConnector_->stopSession(
      session, false, save,
      [weakState, outcome, expectation, shouldThrow](std::shared_ptr<TestResults> results,
                                                     std::optional<Error> /*error*/) {
        auto state = weakState.lock();
        if (!state) return;
        if (results) {
          {
            std::lock_guard lock(state->mutex);
            state->testResult = results;
          }
          // An exception for the test's outcome must reach the waiting caller, not this thread.
          std::lock_guard lock(outcome->mutex);
          try {
            logSessionResults(results, shouldThrow, &outcome->error);
          } catch (...) {
            outcome->exception = std::current_exception();
          }
        }
        {
          std::lock_guard lock(state->mutex);
          state->lastScreenshot = nullptr;
          state->runningSession = nullptr;
        }
        expectation->fulfill();
      });

  if (waitTimedOut(expectation, waitTimeout_)) {
    {
      std::lock_guard lock(outcome->mutex);
      outcome->error = ErrorBuilder::errorWithDescription("--- Time-out");
    }
    throw TestFailedException(kTimeOutReason);
  }
  std::exception_ptr exception;
  {
    std::lock_guard lock(outcome->mutex);
    if (outcome->error) writeError(error, outcome->error);
    // Taken out, so that this thread holds the only reference to the exception.
    exception = std::exchange(outcome->exception, nullptr);
  }
  if (exception) std::rethrow_exception(exception);
  return testResult();
}

void SaffraBase::abortIfNotClosed() {
  auto session = runningSession();
  if (!session) {
    Logger::log("Closed");
    return;
  }
  isOpen_ = false;
  std::weak_ptr<State> weakState = state_;
  serverConnector_->stopSession(
      session, true, false,
      [weakState](std::shared_ptr<TestResults> results, std::optional<Error> error) {
        auto state = weakState.lock();
        if (!state) return;
        {
          std::lock_guard lock(state->mutex);
          state->testResult = std::move(results);
          state->lastScreenshot = nullptr;
        }
        Logger::log("--- Test aborted.");
        {
          std::lock_guard lock(state->mutex);
          state->runningSession = nullptr;
        }
        if (error) {
          Logger::logWithFormat("Failed to abort server session: %@", error->localizedDescription);
        }
      });
}

void SaffraBase::closeBatchWithId(const OptString& batchId) {
  auto expectation = std::make_shared<Expectation>("Close batch expectation");
  serverConnector_->closeBatchWithId(batchId, [batchId, expectation](std::optional<Error> error) {
    if (error) {
      Logger::logWithFormat("Failed to close batch with id %@: %@", batchId,
                            error->localizedDescription);
    } else {
      Logger::logWithFormat("Batch with id %@ is closed", batchId);
    }
    expectation->fulfill();
  });
  if (waitTimedOut(expectation, waitTimeout_)) throw TestFailedException(kTimeOutReason);
}

void SaffraBase::addProperty(const OptString& name, const OptString& value) {
  ArgumentGuard::notNil(name, "property name");
  ArgumentGuard::notNil(value, "property value");
  sessionStartInfo_->addProperty(std::make_shared<StartSessionProperty>(name, value));
}

void SaffraBase::logSessionResults(const std::shared_ptr<TestResults>& results, bool throwException,
                                   ErrorSlot error) {
  saffra::logSessionResults(results, throwException, error);
}

// ---- validations
// ---------------------------------------------------------------------------------

void SaffraBase::validateApiKey() const {
  if (!Configurable::isNotEmpty(apiKey())) {
    const char* message = "API key is missing! Please set it using setApiKey()";
    Logger::log(message);
    throw SaffraException(message);
  }
}

void SaffraBase::validateSessionOpen() {
  if (isOpen_) {
    abortIfNotClosed();
    const char* message = "A test is already running";
    Logger::log(message);
    throw SaffraException(message);
  }
}

void SaffraBase::validateResult(const std::shared_ptr<MatchResult>& result, const OptString& tag) {
  state_->validateResult(result, tag);
}

// ---- environment and agent id ------------------------------------------------------------------

std::shared_ptr<AppEnvironment> SaffraBase::appEnvironment() const {
  const OptString configuredHostApp = hostApp();
  const OptString configuredOsInfo = osInfo();
  auto viewport = viewportSizeHandler_ ? viewportSizeHandler_->property() : nullptr;
  return std::make_shared<AppEnvironment>(
      getMajorOSInfo(),
      Configurable::isNotEmpty(configuredHostApp) ? *configuredHostApp : getHostingAppInfo(),
      Configurable::isNotEmpty(configuredOsInfo) ? *configuredOsInfo : getFullOSInfo(),
      Configurable::isNotEmpty(hostingAppInfo_) ? *hostingAppInfo_ : getHostingAppInfo(),
      Configurable::isNotEmpty(deviceInfo_) ? *deviceInfo_ : getDeviceInfo(),
      viewport ? viewport->size() : Size());
}

std::string SaffraBase::baseAgentId() const {
  // The version belongs to the library's own bundle; another identifier finds none.
  const OptString version = sdkBundleIdentifier() == kLibraryBundleIdentifier
                                ? OptString(libraryVersion())
                                : std::nullopt;
  return format("%@/%@", sdkName(), version);
}

std::string SaffraBase::fullAgentId() const {
  auto config = configuration();
  if (config && config->agentId()) return format("%@ [%@]", config->agentId(), baseAgentId());
  return baseAgentId();
}

std::string SaffraBase::getFullOSInfo() const {
  const auto version = system_info::osVersion();
  return format("%@ %li.%li", system_info::osName(), version.major, version.minor);
}

std::string SaffraBase::getMajorOSInfo() const {
  return format("%@ %li", system_info::osName(), system_info::osVersion().major);
}

std::string SaffraBase::getDeviceInfo() const {
  return system_info::hostName();
}

std::string SaffraBase::getHostingAppInfo() const {
  return "Test app";
}

}  // namespace saffra
