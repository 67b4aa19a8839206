#include "saffra/config/configuration.h"

#include "saffra/base/environment_helper.h"
#include "saffra/config/session_type_converter.h"
#include "saffra/platform/format.h"

namespace saffra {

ConfigurationBase::ConfigurationBase() {
  setupDefaultValues();
}

ConfigurationBase::ConfigurationBase(const OptString& testName) : testName_(testName) {
  setupDefaultValues();
}

ConfigurationBase::ConfigurationBase(const OptString& appName, const OptString& testName,
                                     const Size& viewportSize)
    : appName_(appName), testName_(testName), viewportSize_(viewportSize) {
  setupDefaultValues();
}

ConfigurationBase::ConfigurationBase(const ConfigurationBase& other)
    : branchName_(other.branchName()),
      parentBranchName_(other.parentBranchName()),
      baselineBranchName_(other.baselineBranchName()),
      agentId_(other.agentId()),
      matchLevel_(other.matchLevel()),
      saveDiffs_(other.saveDiffs()),
      ignoreCaret_(other.ignoreCaret()),
      sessionType_(other.sessionType()),
      batch_(other.batch()),
      baselineEnvName_(other.baselineEnvName()),
      appName_(other.appName()),
      testName_(other.testName()),
      viewportSize_(other.viewportSize()),
      ignoreDisplacements_(other.ignoreDisplacements()),
      enablePatterns_(other.enablePatterns()),
      defaultMatchSettings_(other.defaultMatchSettings()),
      matchTimeout_(other.matchTimeout()),
      hostApp_(other.hostApp()),
      hostOS_(other.hostOS()),
      saveNewTests_(other.saveNewTests()),
      saveFailedTests_(other.saveFailedTests()),
      apiKey_(other.apiKey()),
      serverUrl_(other.serverUrl()),
      proxy_(other.proxy()),
      accessibilityValidation_(other.accessibilityValidation()) {}

void ConfigurationBase::setupDefaultValues() {
  agentId_ = std::nullopt;
  baselineBranchName_ = EnvironmentHelper::environmentPair("QUORVANT_BASELINE_BRANCH",
                                                           "bamboo_QUORVANT_BASELINE_BRANCH");
  branchName_ = EnvironmentHelper::environmentPair("QUORVANT_BRANCH", "bamboo_QUORVANT_BRANCH");
  defaultMatchSettings_ = ImageMatchSettings::defaultImageMatchSettings();
  defaultMatchSettings_->setIgnoreCaret(true);
  parentBranchName_ =
      EnvironmentHelper::environmentPair("QUORVANT_PARENT_BRANCH", "bamboo_QUORVANT_PARENT_BRANCH");
  saveNewTests_ = true;
  saveFailedTests_ = false;
  sessionType_ = SessionTypeSequential;
}

std::int64_t ConfigurationBase::matchLevel() const {
  return defaultMatchSettings_ ? defaultMatchSettings_->matchLevel() : 0;
}

void ConfigurationBase::setMatchLevel(std::int64_t value) {
  if (defaultMatchSettings_) defaultMatchSettings_->setMatchLevel(value);
}

bool ConfigurationBase::ignoreCaret() const {
  return defaultMatchSettings_ && defaultMatchSettings_->ignoreCaret();
}

void ConfigurationBase::setIgnoreCaret(bool value) {
  if (defaultMatchSettings_) defaultMatchSettings_->setIgnoreCaret(value);
}

std::string ConfigurationBase::description() const {
  std::string text = format("\n\tbatch = %@", batch_ ? batch_->name() : std::nullopt);
  text += format("\n\tbranchName = %@", branchName_);
  text += format("\n\tparentBranchName = %@", parentBranchName_);
  text += format("\n\tagentId = %@", agentId_);
  text += format("\n\tbaselineEnvName = %@", baselineEnvName_);
  text += format("\n\tsaveDiffs = %@", saveDiffs_ ? "true" : "false");
  text += format("\n\tappName = %@", appName_);
  text += format("\n\ttestName = %@", testName_);
  text += format("\n\tviewportSize = %@", toString(viewportSize_));
  text += format("\n\tsessionType = %@", SessionTypeConverter::sessionTypeToString(sessionType_));
  return text;
}

}  // namespace saffra
