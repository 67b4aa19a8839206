// The results of one test as the service reports them when its session stops, with the nested
// records of the reply: addresses of the session and of each step's images, per-step details,
// the accessibility outcome and the matching defaults the service applied.
//
// Every record reads its reply leniently: a key is read only when present, unknown keys are
// ignored, numbers and booleans go through the json:: readers, and a value of the wrong kind
// where an object or a list belongs is skipped with a log line naming the key. Texts the service
// sends "as received" are kept as OptString read through json::stringValue: a string as it is, a
// number or boolean as its text, null as absent, an object or list as absent (logged).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "saffra/base/region.h"
#include "saffra/checks/match_level.h"
#include "saffra/platform/geometry.h"
#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"

namespace saffra {

/// The outcome of a test.
enum TestResultsStatus : std::uint64_t {
  TestResultsStatusPassed = 0,
  TestResultsStatusUnresolved = 1,
  TestResultsStatusFailed = 2,
};

/// The accessibility outcome of a test.
enum AccessibilityStatus : std::uint64_t {
  AccessibilityStatusPassed = 0,
  AccessibilityStatusFailed = 1,
};

/// The addresses of a session and its batch.
class SessionUrls {
 public:
  SessionUrls() = default;
  /// Reads "batch" and "session" (for the library's own use).
  explicit SessionUrls(const Json& dictionary);

  const OptString& batch() const { return batch_; }
  const OptString& session() const { return session_; }

  /// "batch" and "session", each when present (for the library's own use).
  Json dictionary() const;
  /// The property-list text of dictionary().
  std::string description() const;

 private:
  OptString batch_;
  OptString session_;
};

/// The web application's address of one step.
class AppUrls {
 public:
  AppUrls() = default;
  /// Reads "step" (for the library's own use).
  explicit AppUrls(const Json& dictionary);

  const OptString& step() const { return step_; }

  /// {"step"} or, without a step, an empty object (for the library's own use).
  Json dictionary() const;
  std::string description() const;

 private:
  OptString step_;
};

/// The service's addresses of one step's images.
class ApiUrls {
 public:
  ApiUrls() = default;
  /// Reads "baselineImage", "currentImage" and "diffImage" (for the library's own use).
  explicit ApiUrls(const Json& dictionary);

  const OptString& baselineImage() const { return baselineImage_; }
  const OptString& currentImage() const { return currentImage_; }
  const OptString& diffImage() const { return diffImage_; }

  /// Each of the three addresses when present (for the library's own use).
  Json dictionary() const;
  std::string description() const;

 private:
  OptString baselineImage_;
  OptString currentImage_;
  OptString diffImage_;
};

/// The details of one step of a test.
class StepInfo {
 public:
  StepInfo() = default;
  /// Reads "apiUrls", "appUrls", "hasBaselineImage", "hasCurrentImage", "isDifferent" and
  /// "name" (for the library's own use).
  explicit StepInfo(const Json& dictionary);

  bool isDifferent() const { return isDifferent_; }
  bool hasBaselineImage() const { return hasBaselineImage_; }
  bool hasCurrentImage() const { return hasCurrentImage_; }
  const OptString& name() const { return name_; }
  const std::shared_ptr<ApiUrls>& apiUrls() const { return apiUrls_; }
  const std::shared_ptr<AppUrls>& appUrls() const { return appUrls_; }

  /// "apiUrls" and "appUrls" when present, the three flags always, "name" when present (for
  /// the library's own use).
  Json dictionary() const;
  std::string description() const;

 private:
  bool isDifferent_ = false;
  bool hasBaselineImage_ = false;
  bool hasCurrentImage_ = false;
  OptString name_;
  std::shared_ptr<ApiUrls> apiUrls_;
  std::shared_ptr<AppUrls> appUrls_;
};

/// Whether a test met its accessibility level.
class TestAccessibilityStatus {
 public:
  TestAccessibilityStatus() = default;
  /// Reads "status" and "level" (for the library's own use). It has no wire form of its own.
  explicit TestAccessibilityStatus(const Json& dictionary);

  std::uint64_t status() const { return status_; }
  std::uint64_t level() const { return level_; }

  /// "Passed" gives 0; any other value, absent included, gives 1.
  static AccessibilityStatus accessibilityStatusFromString(const OptString& string);

 private:
  std::uint64_t status_ = AccessibilityStatusPassed;
  std::uint64_t level_ = AccessibilityLevelNone;
};

/// The matching defaults the service applied to a test. Each region list is absent unless the
/// reply had it. `splitBottomHeight` and `splitTopHeight` are flags despite their names, and
/// `reminder` travels under the key "remainder".
class DefaultMatchSettings {
 public:
  using RegionList = std::vector<std::shared_ptr<Region>>;

  DefaultMatchSettings() = default;
  /// Reads "content", "floating", "ignore", "ignoreCaret", "layout", "matchLevel", "remainder",
  /// "scale" (single precision), "splitBottomHeight", "splitTopHeight" and "strict" (for the
  /// library's own use).
  explicit DefaultMatchSettings(const Json& dictionary);

  bool ignoreCaret() const { return ignoreCaret_; }
  bool reminder() const { return reminder_; }
  bool splitBottomHeight() const { return splitBottomHeight_; }
  bool splitTopHeight() const { return splitTopHeight_; }
  const std::optional<RegionList>& content() const { return content_; }
  const std::optional<RegionList>& floating() const { return floating_; }
  const std::optional<RegionList>& ignore() const { return ignore_; }
  const std::optional<RegionList>& layout() const { return layout_; }
  const OptString& matchLevel() const { return matchLevel_; }
  double scale() const { return scale_; }
  const std::optional<RegionList>& strict() const { return strict_; }

  /// The lists and "matchLevel" when present; "ignoreCaret", "remainder", "scale",
  /// "splitBottomHeight" and "splitTopHeight" always (for the library's own use).
  Json dictionary() const;

  /// A Region per element from the integer readings of "left", "top", "width" and "height"
  /// (0 when missing); further keys are dropped. Elements that are not objects are skipped with
  /// a log line naming `key`.
  static RegionList regionsFromDictionaries(const Json& array, std::string_view key = "regions");
  /// Each region's wire form, in order. Throws Exception "NSInvalidArgumentException" for an
  /// absent region.
  static Json dictionariesFromRegions(const RegionList& regions);

 private:
  bool ignoreCaret_ = false;
  bool reminder_ = false;
  bool splitBottomHeight_ = false;
  bool splitTopHeight_ = false;
  std::optional<RegionList> content_;
  std::optional<RegionList> floating_;
  std::optional<RegionList> ignore_;
  std::optional<RegionList> layout_;
  OptString matchLevel_;
  double scale_ = 0;
  std::optional<RegionList> strict_;
};

/// The results of one test. Made from the service's reply; read-only to users except for the
/// status text. A reply that lacks keys, or holds an error object, gives the defaults (status
/// Passed, zero counts, no address); `statusString` and `resultsId` tell a real result apart.
class TestResults {
 public:
  using StepInfoList = std::vector<std::shared_ptr<StepInfo>>;

  /// All defaults: status Passed, counts 0, texts and records absent.
  TestResults() = default;
  /// Reads a stop-session reply (for the library's own use). The results address `url` is the
  /// "session" of "apiUrls" and is set only when the reply also has "appUrls".
  explicit TestResults(const Json& dictionary);

  std::int64_t steps() const { return steps_; }
  std::int64_t matches() const { return matches_; }
  std::int64_t mismatches() const { return mismatches_; }
  std::int64_t missing() const { return missing_; }
  std::int64_t exactMatches() const { return exactMatches_; }
  std::int64_t strictMatches() const { return strictMatches_; }
  std::int64_t contentMatches() const { return contentMatches_; }
  std::int64_t layoutMatches() const { return layoutMatches_; }
  std::int64_t noneMatches() const { return noneMatches_; }
  const OptString& url() const { return url_; }
  bool isNew() const { return isNew_; }
  TestResultsStatus status() const { return status_; }
  const OptString& name() const { return name_; }
  const OptString& secretToken() const { return secretToken_; }
  const OptString& resultsId() const { return resultsId_; }
  const OptString& appName() const { return appName_; }
  const OptString& batchName() const { return batchName_; }
  const OptString& batchId() const { return batchId_; }
  const OptString& branchName() const { return branchName_; }
  const OptString& hostOS() const { return hostOS_; }
  const OptString& hostApp() const { return hostApp_; }
  const Size& hostDisplaySize() const { return hostDisplaySize_; }
  const OptString& startedAt() const { return startedAt_; }
  std::int64_t duration() const { return duration_; }
  bool isDifferent() const { return isDifferent_; }
  bool isAborted() const { return isAborted_; }
  const std::shared_ptr<SessionUrls>& appUrls() const { return appUrls_; }
  const std::shared_ptr<SessionUrls>& apiUrls() const { return apiUrls_; }
  const std::shared_ptr<DefaultMatchSettings>& defaultMatchSettings() const {
    return defaultMatchSettings_;
  }
  const std::optional<StepInfoList>& stepsInfo() const { return stepsInfo_; }
  const std::shared_ptr<TestAccessibilityStatus>& accessibilityStatus() const {
    return accessibilityStatus_;
  }
  /// The status text exactly as received.
  const OptString& statusString() const { return statusString_; }
  void setStatusString(const OptString& value) { statusString_ = value; }

  /// True exactly when the status is Passed.
  bool isPassed() const { return status_ == TestResultsStatusPassed; }

  /// "New test [ steps: 3, test name: login, matches: 2, mismatches: 1, missing: 0], URL: …"
  /// ("Existing test" when the test had a baseline).
  std::string description() const;

  /// The wire form (for the library's own use). Note that "appName" ends up holding the
  /// application addresses object when `appUrls` is present, replacing the name; `hostApp`,
  /// `url` and `accessibilityStatus` are not written.
  Json dictionary() const;

  /// "Passed" gives Passed, "Failed" gives Failed, anything else (absent too) Unresolved.
  static TestResultsStatus statusFromString(const OptString& string);
  /// Width and height in single precision widened to 64 bits; a missing key gives 0.
  static Size hostDisplaySizeFromDictionary(const Json& dictionary);
  /// {"width", "height"}.
  static Json dictionaryFromHostDisplaySize(const Size& size);

 private:
  std::int64_t steps_ = 0;
  std::int64_t matches_ = 0;
  std::int64_t mismatches_ = 0;
  std::int64_t missing_ = 0;
  std::int64_t exactMatches_ = 0;
  std::int64_t strictMatches_ = 0;
  std::int64_t contentMatches_ = 0;
  std::int64_t layoutMatches_ = 0;
  std::int64_t noneMatches_ = 0;
  OptString url_;
  bool isNew_ = false;
  TestResultsStatus status_ = TestResultsStatusPassed;
  OptString name_;
  OptString secretToken_;
  OptString resultsId_;
  OptString appName_;
  OptString batchName_;
  OptString batchId_;
  OptString branchName_;
  OptString hostOS_;
  OptString hostApp_;
  Size hostDisplaySize_;
  OptString startedAt_;
  std::int64_t duration_ = 0;
  bool isDifferent_ = false;
  bool isAborted_ = false;
  std::shared_ptr<SessionUrls> appUrls_;
  std::shared_ptr<SessionUrls> apiUrls_;
  std::shared_ptr<DefaultMatchSettings> defaultMatchSettings_;
  std::optional<StepInfoList> stepsInfo_;
  std::shared_ptr<TestAccessibilityStatus> accessibilityStatus_;
  OptString statusString_;
};

}  // namespace saffra
