// The check pipeline of the session object: from one check (region provider, tag, settings) to
// the match task and back, and the application output the task asks for.
#include <vector>

#include "saffra/base/argument_guard.h"
#include "saffra/base/logger.h"
#include "saffra/checks/region_providers.h"
#include "saffra/images/region_filter.h"
#include "saffra/platform/base64.h"
#include "saffra/platform/expectation.h"
#include "saffra/results/exceptions.h"
#include "saffra/session/internal/saffra_base_state.h"
#include "saffra/session/saffra_base.h"

namespace saffra {

namespace {

constexpr const char* kTimeOutReason = "--- Time-out exception";

}  // namespace

void SaffraBase::checkWindowBase(const std::shared_ptr<RegionProviderProtocol>& regionProvider,
                                 const OptString& tag, bool ignoreMismatch,
                                 const std::shared_ptr<CheckSettingsProtocol>& checkSettings,
                                 const OptString& source,
                                 CheckCompletionHandler completionHandler) {
  const std::string stepTag = tag.value_or("");
  ensureRunningSession();

  auto expectation = std::make_shared<Expectation>("Check window expectation");
  std::weak_ptr<State> weakState = state_;
  matchWindow(regionProvider, stepTag, ignoreMismatch, checkSettings, source,
              [weakState, expectation, ignoreMismatch, stepTag](std::shared_ptr<MatchResult> result,
                                                                std::optional<Error> error) {
                auto state = weakState.lock();
                if (!state) return;
                if (error) {
                  Logger::logWithFormat("Failed to check: %@", error->localizedDescription);
                }
                {
                  std::lock_guard lock(state->mutex);
                  state->matchResult = result;
                  // A match result carries the service's raw value, never a screenshot object
                  // of this library, so the last screenshot becomes absent when it is taken.
                  if ((result && result->asExpected()) || !ignoreMismatch) {
                    state->lastScreenshot = nullptr;
                  }
                }
                if (!(result && result->asExpected())) state->validateResult(result, stepTag);
                Logger::log("Done!");
                expectation->fulfill();
              });

  const WaiterResult waited = Waiter::waitForExpectations({expectation}, waitTimeout_);
  if (completionHandler && waited == WaiterResult::Completed) {
    completionHandler(matchResult());
  } else if (waited == WaiterResult::TimedOut) {
    throw TestFailedException(kTimeOutReason);
  }
}

void SaffraBase::ensureRunningSession() {
  if (runningSession()) return;
  Logger::log("No running session, calling start session..");
  auto expectation = std::make_shared<Expectation>("Start session expectation");
  startSessionWithCompletionHandler([expectation](std::optional<Error> error) {
    if (error) Logger::logWithFormat("Failed to start session: %@", error->localizedDescription);
    expectation->fulfill();
  });
  if (Waiter::waitForExpectations({expectation}, waitTimeout_) == WaiterResult::TimedOut) {
    throw TestFailedException(kTimeOutReason);
  }
  if (auto session = runningSession()) {
    // The task reaches this object without owning it: the object owns the task.
    std::shared_ptr<AppOutputProviderProtocol> self(std::shared_ptr<void>(), this);
    matchWindowTask_ = std::make_shared<MatchWindowTask>(
        serverConnector_, session, static_cast<std::int64_t>(matchTimeout()), self);
    matchWindowTask_->setWaitTimeoutForTesting(waitTimeout_);
  } else {
    // No session: end the test. The check goes on and, without a task, waits in vain.
    close(nullptr);
  }
}

void SaffraBase::matchWindow(const std::shared_ptr<RegionProviderProtocol>& regionProvider,
                             const OptString& tag, bool ignoreMismatch,
                             const std::shared_ptr<CheckSettingsProtocol>& settings,
                             const OptString& source,
                             MatchWindowTask::CompletionHandler completionHandler) {
  std::shared_ptr<ImageMatchSettings> imageMatchSettings;
  std::int64_t retryTimeout = -1;  // the task's default
  if (auto internal = std::dynamic_pointer_cast<CheckSettingsInternalProtocol>(settings)) {
    retryTimeout = internal->getTimeoutInSeconds();
    auto defaults = defaultMatchSettings();
    std::int64_t level = internal->getMatchLevel();
    // Level 1 is the check settings' "not chosen".
    if (level == MatchLevelNone) level = defaults ? defaults->matchLevel() : 0;
    imageMatchSettings = std::make_shared<ImageMatchSettings>(level);
    imageMatchSettings->setAccessibilityLevel(defaults ? defaults->accessibilityLevel() : 0);
    collectIgnoredRegionsFrom(*internal, *imageMatchSettings);
    collectLayoutRegionsFrom(*internal, *imageMatchSettings);
    collectStrictRegionsFrom(*internal, *imageMatchSettings);
    collectContentRegionsFrom(*internal, *imageMatchSettings);
    collectFloatingRegionsFrom(*internal, *imageMatchSettings);
    collectAccessibilityRegionsFrom(*internal, *imageMatchSettings);
    // A check can switch these on, never off against a session default that is on.
    imageMatchSettings->setIgnoreCaret(internal->getIgnoreCaret() || ignoreCaret());
    imageMatchSettings->setIgnoreDispacements(internal->getIgnoreDisplacements() ||
                                              ignoreDisplacements());
    auto config = configuration();
    imageMatchSettings->setEnablePatterns(internal->getEnablePatterns() ||
                                          (config && config->enablePatterns()));
  }
  if (saveDebugScreenshots()) {
    Logger::logWithFormat("Debug screenshots will be saved into folder at path: %@",
                          debugScreenshotsProvider_->path());
  }
  Logger::log("Calling match window...");
  // Without a task (a session that never started) nothing is sent and the check's wait runs out.
  if (!matchWindowTask_) return;
  matchWindowTask_->matchWindow(regionProvider ? regionProvider->getRegion() : nullptr,
                                lastScreenshot(), tag, shouldMatchWindowRunOnceOnTimeout(),
                                ignoreMismatch, imageMatchSettings, retryTimeout, source,
                                std::move(completionHandler));
}

// ---- region collectors ----------------------------------------------------------------------

// The regions of one plain kind (ignore, layout, strict, content): each provider's region, moved
// up by the status bar when it is cut off.
ImageMatchSettings::RegionList SaffraBase::filteredRegions(
    const CheckSettingsInternalProtocol::ProviderList& providers) const {
  ImageMatchSettings::RegionList regions;
  for (const auto& provider : providers) {
    regions.push_back(RegionFilter::filterRegion(provider ? provider->getRegion() : nullptr,
                                                 statusBarHeight(), shouldCropStatusBar_));
  }
  return regions;
}

void SaffraBase::collectIgnoredRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                           ImageMatchSettings& to) const {
  to.setIgnoredRegions(filteredRegions(settings.getIgnoredRegions()));
}

void SaffraBase::collectLayoutRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                          ImageMatchSettings& to) const {
  to.setLayoutRegions(filteredRegions(settings.getLayoutRegions()));
}

void SaffraBase::collectStrictRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                          ImageMatchSettings& to) const {
  to.setStrictRegions(filteredRegions(settings.getStrictRegions()));
}

void SaffraBase::collectContentRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                           ImageMatchSettings& to) const {
  to.setContentRegions(filteredRegions(settings.getContentRegions()));
}

void SaffraBase::collectFloatingRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                            ImageMatchSettings& to) const {
  ImageMatchSettings::FloatingRegionList regions;
  for (const auto& provider : settings.getFloatingRegions()) {
    auto filtered = RegionFilter::filterFloatingRegion(provider ? provider->getRegion() : nullptr,
                                                       statusBarHeight(), shouldCropStatusBar_);
    regions.push_back(std::make_shared<FloatingMatchSettings>(filtered));
  }
  to.setFloatingRegions(std::move(regions));
}

void SaffraBase::collectAccessibilityRegionsFrom(const CheckSettingsInternalProtocol& settings,
                                                 ImageMatchSettings& to) const {
  ImageMatchSettings::AccessibilityRegionList regions;
  for (const auto& provider : settings.getAccessibilityRegions()) {
    regions.push_back(RegionFilter::filterAccessibilityRegion(
        provider ? provider->getRegion() : nullptr, statusBarHeight(), shouldCropStatusBar_));
  }
  to.setAccessibility(std::move(regions));
}

// ---- application output ------------------------------------------------------------------------

std::shared_ptr<AppOutputWithScreenshot> SaffraBase::appOutputWithScreenshotForRegion(
    const std::shared_ptr<Region>& region, const std::shared_ptr<SaffraScreenshot>& /*unused*/) {
  Logger::log("Getting screenshot...");
  std::shared_ptr<SaffraScreenshot> shot = screenshot();
  if (!shot) return nullptr;
  debugScreenshotsProvider_->save(shot->image(), "original screenshot");
  Logger::log("Done getting screenshot!");

  const double scale = scaleRatio();
  if (region && !region->isEmpty()) {
    shot = shot->cropRegion(region, scale);
  } else if (shouldCropStatusBar_) {
    shot = shot->cropStatusBarWithHeight(statusBarHeight(), scale);
  }
  debugScreenshotsProvider_->save(shot->image(), "after cropping region or status bar");

  auto scaled = shot->downscale(scale);
  debugScreenshotsProvider_->save(scaled->image(), "scaled");

  auto output = std::make_shared<AppOutput>(title(), base64ScreenshotStringFromScreenshot(scaled));
  return std::make_shared<AppOutputWithScreenshot>(output, scaled);
}

std::shared_ptr<AppOutputWithScreenshot> SaffraBase::appOutputForRegion(
    const std::shared_ptr<Region>& region, const std::shared_ptr<SaffraScreenshot>& lastSreenshot) {
  return appOutputWithScreenshotForRegion(region, lastSreenshot);
}

OptString SaffraBase::base64ScreenshotStringFromScreenshot(
    const std::shared_ptr<SaffraScreenshot>& screenshot) {
  ArgumentGuard::notNil(screenshot, "screenshot");
  if (!screenshot || !screenshot->image()) return std::nullopt;
  return base64::encodeLines64(screenshot->image()->pngData());
}

}  // namespace saffra
