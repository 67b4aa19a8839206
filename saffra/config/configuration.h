// The plain record of every user-settable option of a visual test: who the test is, where its
// baseline lives, how the service is reached, its batch and the default matching settings.
// Branch names default from the environment; nothing is validated.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "saffra/checks/image_match_settings.h"
#include "saffra/config/abstract_proxy_settings.h"
#include "saffra/config/batch_info.h"
#include "saffra/platform/geometry.h"
#include "saffra/platform/nullable.h"

namespace saffra {

/// All fields and operations of a configuration; create a Configuration instead.
class ConfigurationBase {
 public:
  /// The defaults: branch names from the environment, default match settings with the caret
  /// ignored, new tests saved, failed tests not saved, a sequential session.
  ConfigurationBase();
  /// The defaults with a test name.
  explicit ConfigurationBase(const OptString& testName);
  /// The defaults with names and a viewport size.
  ConfigurationBase(const OptString& appName, const OptString& testName, const Size& viewportSize);
  /// A shallow copy: batch, default match settings and proxy are the very objects of `other`,
  /// so a later match level or caret change through either one is seen by both. The defaults
  /// are not applied.
  ConfigurationBase(const ConfigurationBase& other);
  ConfigurationBase& operator=(const ConfigurationBase&) = delete;
  virtual ~ConfigurationBase() = default;

  const OptString& branchName() const { return branchName_; }
  void setBranchName(const OptString& value) { branchName_ = value; }
  const OptString& parentBranchName() const { return parentBranchName_; }
  void setParentBranchName(const OptString& value) { parentBranchName_ = value; }
  const OptString& baselineBranchName() const { return baselineBranchName_; }
  void setBaselineBranchName(const OptString& value) { baselineBranchName_ = value; }
  const OptString& agentId() const { return agentId_; }
  void setAgentId(const OptString& value) { agentId_ = value; }

  /// The match level of the default match settings (0 when there are none).
  std::int64_t matchLevel() const;
  /// Sets the match level of the default match settings (nothing when there are none).
  void setMatchLevel(std::int64_t value);

  bool saveDiffs() const { return saveDiffs_; }
  void setSaveDiffs(bool value) { saveDiffs_ = value; }

  /// The caret flag of the default match settings (false when there are none).
  bool ignoreCaret() const;
  /// Sets the caret flag of the default match settings (nothing when there are none).
  void setIgnoreCaret(bool value);

  std::uint64_t sessionType() const { return sessionType_; }
  void setSessionType(std::uint64_t value) { sessionType_ = value; }
  /// Shared, not copied.
  const std::shared_ptr<BatchInfo>& batch() const { return batch_; }
  void setBatch(std::shared_ptr<BatchInfo> value) { batch_ = std::move(value); }
  const OptString& baselineEnvName() const { return baselineEnvName_; }
  void setBaselineEnvName(const OptString& value) { baselineEnvName_ = value; }
  const OptString& appName() const { return appName_; }
  void setAppName(const OptString& value) { appName_ = value; }
  const OptString& testName() const { return testName_; }
  void setTestName(const OptString& value) { testName_ = value; }
  const Size& viewportSize() const { return viewportSize_; }
  void setViewportSize(const Size& value) { viewportSize_ = value; }
  /// Kept here; not forwarded to the default match settings.
  bool ignoreDisplacements() const { return ignoreDisplacements_; }
  void setIgnoreDisplacements(bool value) { ignoreDisplacements_ = value; }
  bool enablePatterns() const { return enablePatterns_; }
  void setEnablePatterns(bool value) { enablePatterns_ = value; }
  /// Shared, not copied.
  const std::shared_ptr<ImageMatchSettings>& defaultMatchSettings() const {
    return defaultMatchSettings_;
  }
  void setDefaultMatchSettings(std::shared_ptr<ImageMatchSettings> value) {
    defaultMatchSettings_ = std::move(value);
  }
  /// Seconds a check may keep retrying a mismatch.
  std::int64_t matchTimeout() const { return matchTimeout_; }
  void setMatchTimeout(std::int64_t value) { matchTimeout_ = value; }
  const OptString& hostApp() const { return hostApp_; }
  void setHostApp(const OptString& value) { hostApp_ = value; }
  const OptString& hostOS() const { return hostOS_; }
  void setHostOS(const OptString& value) { hostOS_ = value; }
  bool saveNewTests() const { return saveNewTests_; }
  void setSaveNewTests(bool value) { saveNewTests_ = value; }
  bool saveFailedTests() const { return saveFailedTests_; }
  void setSaveFailedTests(bool value) { saveFailedTests_ = value; }
  const OptString& apiKey() const { return apiKey_; }
  void setApiKey(const OptString& value) { apiKey_ = value; }
  const OptString& serverUrl() const { return serverUrl_; }
  void setServerUrl(const OptString& value) { serverUrl_ = value; }
  /// Shared, not copied.
  const std::shared_ptr<AbstractProxySettings>& proxy() const { return proxy_; }
  void setProxy(std::shared_ptr<AbstractProxySettings> value) { proxy_ = std::move(value); }
  /// Stored and copied only.
  std::uint64_t accessibilityValidation() const { return accessibilityValidation_; }
  void setAccessibilityValidation(std::uint64_t value) { accessibilityValidation_ = value; }

  /// Lines "\n\tbatch = ...", branchName, parentBranchName, agentId, baselineEnvName,
  /// saveDiffs, appName, testName, viewportSize and sessionType; absent texts as "(null)".
  std::string description() const;

 private:
  void setupDefaultValues();

  OptString branchName_;
  OptString parentBranchName_;
  OptString baselineBranchName_;
  OptString agentId_;
  // Written only by the copy and read by nothing: the matchLevel and ignoreCaret properties
  // always go through defaultMatchSettings_.
  std::int64_t matchLevel_ = 0;
  bool saveDiffs_ = false;
  bool ignoreCaret_ = false;
  std::uint64_t sessionType_ = 0;
  std::shared_ptr<BatchInfo> batch_;
  OptString baselineEnvName_;
  OptString appName_;
  OptString testName_;
  Size viewportSize_;
  bool ignoreDisplacements_ = false;
  bool enablePatterns_ = false;
  std::shared_ptr<ImageMatchSettings> defaultMatchSettings_;
  std::int64_t matchTimeout_ = 0;
  OptString hostApp_;
  OptString hostOS_;
  bool saveNewTests_ = false;
  bool saveFailedTests_ = false;
  OptString apiKey_;
  OptString serverUrl_;
  std::shared_ptr<AbstractProxySettings> proxy_;
  std::uint64_t accessibilityValidation_ = 0;
};

/// The configuration the rest of the library creates and passes around; used through
/// std::shared_ptr. Copy it with std::make_shared<Configuration>(*other).
class Configuration : public ConfigurationBase {
 public:
  using ConfigurationBase::ConfigurationBase;
  Configuration() = default;
  Configuration(const Configuration& other) = default;
  /// The shallow copy of any configuration.
  explicit Configuration(const ConfigurationBase& other) : ConfigurationBase(other) {}
};

}  // namespace saffra
