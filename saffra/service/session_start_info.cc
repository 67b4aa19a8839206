#include "saffra/service/session_start_info.h"

#include "saffra/base/argument_guard.h"
#include "saffra/base/configurable.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/format.h"
#include "saffra/service/internal/record_reading.h"

namespace saffra {

using Configurable::isNotEmpty;

namespace {

std::string orQuestionMark(const OptString& text) {
  return isNotEmpty(text) ? *text : std::string("?");
}

}  // namespace

Json AppEnvironment::dictionary() const {
  Json d = Json::object();
  d["displaySize"] = {{"width", viewportSize_.width}, {"height", viewportSize_.height}};
  if (isNotEmpty(hostOS_)) d["os"] = *hostOS_;
  if (isNotEmpty(hostApp_)) d["hostingApp"] = *hostApp_;
  if (isNotEmpty(osInfo_)) d["OSInfo"] = *osInfo_;
  if (isNotEmpty(hostingAppInfo_)) d["HostingAppInfo"] = *hostingAppInfo_;
  if (isNotEmpty(deviceInfo_)) d["DeviceInfo"] = *deviceInfo_;
  return d;
}

std::string AppEnvironment::description() const {
  return format(
      "[hostOS = %@ hostApp = %@ osInfo = %@ hostingAppInfo = %@ deviceInfo = %@ displaySize = %@]",
      orQuestionMark(hostOS_), orQuestionMark(hostApp_), orQuestionMark(osInfo_),
      orQuestionMark(hostingAppInfo_), orQuestionMark(deviceInfo_),
      format("%fx%f", viewportSize_.width, viewportSize_.height));
}

Json StartSessionProperty::dictionary() const {
  Json d = Json::object();
  d["name"] = records::required(name_, "name");
  d["value"] = records::required(value_, "value");
  return d;
}

void SessionStartInfo::setupWithAgentId(const OptString& agentId, std::uint64_t sessionType,
                                        const OptString& appName, const OptString& testName,
                                        const OptString& baselineEnvName,
                                        std::shared_ptr<AppEnvironment> appEnv,
                                        std::shared_ptr<BatchInfo> batchInfo,
                                        const OptString& branchName,
                                        const OptString& parentBranchName,
                                        const OptString& baselineBranchName, bool saveDiffs,
                                        std::shared_ptr<ImageMatchSettings> defaultMatchSettings) {
  ArgumentGuard::notNil(agentId, "agentId");
  ArgumentGuard::notNil(appName, "appName");
  ArgumentGuard::notNil(testName, "testName");
  ArgumentGuard::notNil(appEnv, "appEnv");
  ArgumentGuard::notNil(batchInfo, "batchInfo");
  ArgumentGuard::notNil(defaultMatchSettings, "defaultMatchSettings");

  agentId_ = agentId;
  sessionType_ = sessionType;
  appName_ = appName;
  testName_ = testName;
  baselineEnvName_ = baselineEnvName;
  appEnv_ = std::move(appEnv);
  batchInfo_ = std::move(batchInfo);
  branchName_ = branchName;
  parentBranchName_ = parentBranchName;
  baselineBranchName_ = baselineBranchName;
  saveDiffs_ = saveDiffs;
  defaultMatchSettings_ = std::move(defaultMatchSettings);
}

void SessionStartInfo::addProperty(std::shared_ptr<StartSessionProperty> property) {
  if (!property) {
    throw Exception("NSInvalidArgumentException", "object cannot be nil (property)");
  }
  PropertyList grown = properties_;
  grown.push_back(std::move(property));
  properties_ = std::move(grown);
}

Json SessionStartInfo::dictionary() const {
  Json properties = Json::array();
  for (const auto& property : properties_) {
    properties.push_back(records::requiredDictionary(property, "properties"));
  }

  Json d = Json::object();
  d["appIdOrName"] = records::required(appName_, "appIdOrName");
  d["scenarioIdOrName"] = records::required(testName_, "scenarioIdOrName");
  d["batchInfo"] = records::requiredDictionary(batchInfo_, "batchInfo");
  d["environment"] = records::requiredDictionary(appEnv_, "environment");
  d["defaultMatchSettings"] =
      records::requiredDictionary(defaultMatchSettings_, "defaultMatchSettings");
  d["agentId"] = records::required(agentId_, "agentId");
  d["saveDiffs"] = saveDiffs_;
  d["properties"] = std::move(properties);
  d["sessionType"] = SessionTypeConverter::sessionTypeToString(sessionType_);

  if (isNotEmpty(branchName_)) d["branchName"] = *branchName_;
  // Both entries carry the branch name, while their presence follows their own fields.
  if (isNotEmpty(parentBranchName_)) {
    d["parentBranchName"] = records::required(branchName_, "parentBranchName");
  }
  if (isNotEmpty(baselineBranchName_)) {
    d["baselineBranchName"] = records::required(branchName_, "baselineBranchName");
  }
  if (isNotEmpty(baselineEnvName_)) d["baselineEnvName"] = *baselineEnvName_;
  return d;
}

}  // namespace saffra
