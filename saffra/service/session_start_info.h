// The records sent when a test session starts: the start record itself, the environment the
// test runs in and the user-defined properties. They serialise to the JSON objects the service
// expects under "startInfo".
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "saffra/checks/image_match_settings.h"
#include "saffra/config/batch_info.h"
#include "saffra/config/session_type_converter.h"
#include "saffra/platform/geometry.h"
#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"

namespace saffra {

/// Where a test runs: host operating system and application, their descriptions, the device
/// and the viewport size in points. Used through std::shared_ptr.
class AppEnvironment {
 public:
  AppEnvironment() = default;
  /// Stores only the inferred description (which is never sent).
  explicit AppEnvironment(const OptString& inferred) : inferred_(inferred) {}
  AppEnvironment(const OptString& hostOS, const OptString& hostApp, const OptString& osInfo,
                 const OptString& hostingAppInfo, const OptString& deviceInfo,
                 const Size& viewportSize)
      : hostOS_(hostOS),
        hostApp_(hostApp),
        osInfo_(osInfo),
        hostingAppInfo_(hostingAppInfo),
        deviceInfo_(deviceInfo),
        viewportSize_(viewportSize) {}

  const OptString& inferred() const { return inferred_; }
  void setInferred(const OptString& value) { inferred_ = value; }
  const OptString& hostOS() const { return hostOS_; }
  void setHostOS(const OptString& value) { hostOS_ = value; }
  const OptString& hostApp() const { return hostApp_; }
  void setHostApp(const OptString& value) { hostApp_ = value; }
  const OptString& osInfo() const { return osInfo_; }
  void setOsInfo(const OptString& value) { osInfo_ = value; }
  const OptString& hostingAppInfo() const { return hostingAppInfo_; }
  void setHostingAppInfo(const OptString& value) { hostingAppInfo_ = value; }
  const OptString& deviceInfo() const { return deviceInfo_; }
  void setDeviceInfo(const OptString& value) { deviceInfo_ = value; }
  const Size& viewportSize() const { return viewportSize_; }
  void setViewportSize(const Size& value) { viewportSize_ = value; }

  /// "displaySize" {"width", "height"} always, then "os", "hostingApp", "OSInfo",
  /// "HostingAppInfo" and "DeviceInfo", each only when non-empty. `inferred` is never sent.
  Json dictionary() const;
  /// "[hostOS = … hostApp = … osInfo = … hostingAppInfo = … deviceInfo = … displaySize = WxH]",
  /// with "?" for absent or empty texts and the size in six decimals.
  std::string description() const;

 private:
  OptString inferred_;
  OptString hostOS_;
  OptString hostApp_;
  OptString osInfo_;
  OptString hostingAppInfo_;
  OptString deviceInfo_;
  Size viewportSize_;
};

/// A user-defined name/value pair sent with the start of a session.
class StartSessionProperty {
 public:
  StartSessionProperty(const OptString& name, const OptString& value)
      : name_(name), value_(value) {}

  const OptString& name() const { return name_; }
  void setName(const OptString& value) { name_ = value; }
  const OptString& value() const { return value_; }
  void setValue(const OptString& value) { value_ = value; }

  /// {"name", "value"}. Throws Exception "NSInvalidArgumentException" naming the key when either
  /// is absent.
  Json dictionary() const;

 private:
  OptString name_;
  OptString value_;
};

/// The request body of a session start. The session object keeps one for its whole life: each
/// start sets it up anew, while the properties added to it only grow.
class SessionStartInfo {
 public:
  using PropertyList = std::vector<std::shared_ptr<StartSessionProperty>>;

  /// No properties; every other field absent, false or 0.
  SessionStartInfo() = default;

  /// Stores the twelve values as given (objects shared, not copied); properties are kept.
  void setupWithAgentId(const OptString& agentId, std::uint64_t sessionType,
                        const OptString& appName, const OptString& testName,
                        const OptString& baselineEnvName, std::shared_ptr<AppEnvironment> appEnv,
                        std::shared_ptr<BatchInfo> batchInfo, const OptString& branchName,
                        const OptString& parentBranchName, const OptString& baselineBranchName,
                        bool saveDiffs, std::shared_ptr<ImageMatchSettings> defaultMatchSettings);

  /// Appends a property; duplicates are kept. Throws Exception "NSInvalidArgumentException" for
  /// an absent property, which no list can hold.
  void addProperty(std::shared_ptr<StartSessionProperty> property);

  bool saveDiffs() const { return saveDiffs_; }
  void setSaveDiffs(bool value) { saveDiffs_ = value; }
  const OptString& agentId() const { return agentId_; }
  void setAgentId(const OptString& value) { agentId_ = value; }
  /// 0 = sequential, anything else = progression.
  std::uint64_t sessionType() const { return sessionType_; }
  void setSessionType(std::uint64_t value) { sessionType_ = value; }
  const OptString& appName() const { return appName_; }
  void setAppName(const OptString& value) { appName_ = value; }
  const OptString& testName() const { return testName_; }
  void setTestName(const OptString& value) { testName_ = value; }
  const OptString& baselineEnvName() const { return baselineEnvName_; }
  const std::shared_ptr<AppEnvironment>& appEnv() const { return appEnv_; }
  void setAppEnv(std::shared_ptr<AppEnvironment> value) { appEnv_ = std::move(value); }
  const std::shared_ptr<BatchInfo>& batchInfo() const { return batchInfo_; }
  void setBatchInfo(std::shared_ptr<BatchInfo> value) { batchInfo_ = std::move(value); }
  const std::shared_ptr<ImageMatchSettings>& defaultMatchSettings() const {
    return defaultMatchSettings_;
  }
  const PropertyList& properties() const { return properties_; }
  const OptString& branchName() const { return branchName_; }
  void setBranchName(const OptString& value) { branchName_ = value; }
  const OptString& parentBranchName() const { return parentBranchName_; }
  void setParentBranchName(const OptString& value) { parentBranchName_ = value; }
  const OptString& baselineBranchName() const { return baselineBranchName_; }
  void setBaselineBranchName(const OptString& value) { baselineBranchName_ = value; }

  /// The start record: "appIdOrName", "scenarioIdOrName", "batchInfo", "environment",
  /// "defaultMatchSettings", "agentId", "saveDiffs", "properties", "sessionType" always; then
  /// "branchName", "parentBranchName", "baselineBranchName", "baselineEnvName" each when its own
  /// field is non-empty. The parent and baseline branch entries carry the value of `branchName`
  /// (the service reads them that way). Throws Exception "NSInvalidArgumentException" naming the
  /// key when a value to be written is absent.
  Json dictionary() const;

 private:
  bool saveDiffs_ = false;
  OptString agentId_;
  std::uint64_t sessionType_ = SessionTypeSequential;
  OptString appName_;
  OptString testName_;
  OptString baselineEnvName_;
  std::shared_ptr<AppEnvironment> appEnv_;
  std::shared_ptr<BatchInfo> batchInfo_;
  std::shared_ptr<ImageMatchSettings> defaultMatchSettings_;
  PropertyList properties_;
  OptString branchName_;
  OptString parentBranchName_;
  OptString baselineBranchName_;
};

}  // namespace saffra
