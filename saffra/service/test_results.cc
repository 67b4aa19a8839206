#include "saffra/service/test_results.h"

#include "saffra/base/logger.h"
#include "saffra/platform/format.h"
#include "saffra/service/internal/record_reading.h"

namespace saffra {

namespace {

void readInteger(const Json& d, std::string_view key, std::int64_t& field) {
  if (const Json* v = json::find(d, key)) field = json::integerValue(*v);
}

void readBool(const Json& d, std::string_view key, bool& field) {
  if (const Json* v = json::find(d, key)) field = json::boolValue(*v);
}

// Texts keep their previous value (the default) when the key is missing.
void readText(const Json& d, std::string_view key, OptString& field) {
  if (json::find(d, key)) field = records::textMember(d, key);
}

void readRegions(const Json& d, std::string_view key,
                 std::optional<DefaultMatchSettings::RegionList>& field) {
  if (const Json* array = records::arrayMember(d, key)) {
    field = DefaultMatchSettings::regionsFromDictionaries(*array, key);
  }
}

template <class Record>
std::shared_ptr<Record> readRecord(const Json& d, std::string_view key) {
  const Json* object = records::objectMember(d, key);
  return object ? std::make_shared<Record>(*object) : nullptr;
}

void writeText(Json& d, const char* key, const OptString& value) {
  if (value) d[key] = *value;
}

void writeRegions(Json& d, const char* key,
                  const std::optional<DefaultMatchSettings::RegionList>& regions) {
  if (regions) d[key] = DefaultMatchSettings::dictionariesFromRegions(*regions);
}

}  // namespace

// --- SessionUrls, AppUrls, ApiUrls -------------------------------------------------------------

SessionUrls::SessionUrls(const Json& d) {
  readText(d, "batch", batch_);
  readText(d, "session", session_);
}

Json SessionUrls::dictionary() const {
  Json d = Json::object();
  writeText(d, "batch", batch_);
  writeText(d, "session", session_);
  return d;
}

std::string SessionUrls::description() const {
  return json::description(dictionary());
}

AppUrls::AppUrls(const Json& d) {
  readText(d, "step", step_);
}

Json AppUrls::dictionary() const {
  Json d = Json::object();
  writeText(d, "step", step_);
  return d;
}

std::string AppUrls::description() const {
  return json::description(dictionary());
}

ApiUrls::ApiUrls(const Json& d) {
  readText(d, "baselineImage", baselineImage_);
  readText(d, "currentImage", currentImage_);
  readText(d, "diffImage", diffImage_);
}

Json ApiUrls::dictionary() const {
  Json d = Json::object();
  writeText(d, "baselineImage", baselineImage_);
  writeText(d, "currentImage", currentImage_);
  writeText(d, "diffImage", diffImage_);
  return d;
}

std::string ApiUrls::description() const {
  return json::description(dictionary());
}

// --- StepInfo ------------------------------------------------------------------------------

StepInfo::StepInfo(const Json& d) {
  apiUrls_ = readRecord<ApiUrls>(d, "apiUrls");
  appUrls_ = readRecord<AppUrls>(d, "appUrls");
  readBool(d, "hasBaselineImage", hasBaselineImage_);
  readBool(d, "hasCurrentImage", hasCurrentImage_);
  readBool(d, "isDifferent", isDifferent_);
  readText(d, "name", name_);
}

Json StepInfo::dictionary() const {
  Json d = Json::object();
  if (apiUrls_) d["apiUrls"] = apiUrls_->dictionary();
  if (appUrls_) d["appUrls"] = appUrls_->dictionary();
  d["hasBaselineImage"] = hasBaselineImage_;
  d["hasCurrentImage"] = hasCurrentImage_;
  d["isDifferent"] = isDifferent_;
  writeText(d, "name", name_);
  return d;
}

std::string StepInfo::description() const {
  return json::description(dictionary());
}

// --- TestAccessibilityStatus ---------------------------------------------------------------

TestAccessibilityStatus::TestAccessibilityStatus(const Json& d) {
  if (json::find(d, "status")) {
    status_ = accessibilityStatusFromString(records::textMember(d, "status"));
  }
  if (json::find(d, "level")) {
    level_ = AccessibilityLevelConverter::fromString(records::textMember(d, "level"));
  }
}

AccessibilityStatus TestAccessibilityStatus::accessibilityStatusFromString(const OptString& s) {
  return s == "Passed" ? AccessibilityStatusPassed : AccessibilityStatusFailed;
}

// --- DefaultMatchSettings ------------------------------------------------------------------

DefaultMatchSettings::DefaultMatchSettings(const Json& d) {
  readRegions(d, "content", content_);
  readRegions(d, "floating", floating_);
  readRegions(d, "ignore", ignore_);
  readBool(d, "ignoreCaret", ignoreCaret_);
  readRegions(d, "layout", layout_);
  readText(d, "matchLevel", matchLevel_);
  readBool(d, "remainder", reminder_);
  if (const Json* scale = json::find(d, "scale")) scale_ = json::floatValue(*scale);
  readBool(d, "splitBottomHeight", splitBottomHeight_);
  readBool(d, "splitTopHeight", splitTopHeight_);
  readRegions(d, "strict", strict_);
}

Json DefaultMatchSettings::dictionary() const {
  Json d = Json::object();
  writeRegions(d, "content", content_);
  writeRegions(d, "floating", floating_);
  writeRegions(d, "ignore", ignore_);
  d["ignoreCaret"] = ignoreCaret_;
  writeRegions(d, "layout", layout_);
  writeText(d, "matchLevel", matchLevel_);
  d["remainder"] = reminder_;
  d["scale"] = scale_;
  d["splitBottomHeight"] = splitBottomHeight_;
  d["splitTopHeight"] = splitTopHeight_;
  writeRegions(d, "strict", strict_);
  return d;
}

DefaultMatchSettings::RegionList DefaultMatchSettings::regionsFromDictionaries(
    const Json& array, std::string_view key) {
  RegionList regions;
  if (!array.is_array()) return regions;
  for (const Json& element : array) {
    if (!element.is_object()) {
      Logger::logWithFormat("Ignoring an element of \"%@\" of the reply: an object was expected",
                            key);
      continue;
    }
    auto integer = [&](std::string_view name) {
      const Json* v = json::find(element, name);
      return v ? json::integerValue(*v) : 0;
    };
    regions.push_back(std::make_shared<Region>(integer("left"), integer("top"), integer("width"),
                                               integer("height")));
  }
  return regions;
}

Json DefaultMatchSettings::dictionariesFromRegions(const RegionList& regions) {
  Json list = Json::array();
  for (const auto& region : regions) list.push_back(records::requiredDictionary(region, "region"));
  return list;
}

// --- TestResults ---------------------------------------------------------------------------

TestResults::TestResults(const Json& d) {
  if (!d.is_object()) {
    records::logNotAnObject("TestResults");
    return;
  }
  accessibilityStatus_ = readRecord<TestAccessibilityStatus>(d, "accessibilityStatus");
  apiUrls_ = readRecord<SessionUrls>(d, "apiUrls");
  readText(d, "appName", appName_);
  if (json::find(d, "appUrls")) {
    appUrls_ = readRecord<SessionUrls>(d, "appUrls");
    // The results page is the service's session address, taken only once the reply is known
    // to carry application addresses too.
    url_ = apiUrls_ ? apiUrls_->session() : std::nullopt;
  }
  readText(d, "batchId", batchId_);
  readText(d, "batchName", batchName_);
  readText(d, "branchName", branchName_);
  readInteger(d, "contentMatches", contentMatches_);
  defaultMatchSettings_ = readRecord<DefaultMatchSettings>(d, "defaultMatchSettings");
  readInteger(d, "duration", duration_);
  readInteger(d, "exactMatches", exactMatches_);
  readText(d, "hostApp", hostApp_);
  if (const Json* size = records::objectMember(d, "hostDisplaySize")) {
    hostDisplaySize_ = hostDisplaySizeFromDictionary(*size);
  }
  readText(d, "hostOS", hostOS_);
  readText(d, "id", resultsId_);
  readBool(d, "isAborted", isAborted_);
  readBool(d, "isDifferent", isDifferent_);
  readBool(d, "isNew", isNew_);
  readInteger(d, "layoutMatches", layoutMatches_);
  readInteger(d, "matches", matches_);
  readInteger(d, "mismatches", mismatches_);
  readInteger(d, "missing", missing_);
  readText(d, "name", name_);
  readInteger(d, "noneMatches", noneMatches_);
  readText(d, "secretToken", secretToken_);
  readText(d, "startedAt", startedAt_);
  if (json::find(d, "status")) {
    statusString_ = records::textMember(d, "status");
    status_ = statusFromString(statusString_);
  }
  readInteger(d, "steps", steps_);
  if (const Json* steps = records::arrayMember(d, "stepsInfo")) {
    StepInfoList list;
    for (const Json& element : *steps) {
      if (!element.is_object()) {
        Logger::log("Ignoring an element of \"stepsInfo\" of the reply: an object was expected");
        continue;
      }
      list.push_back(std::make_shared<StepInfo>(element));
    }
    stepsInfo_ = std::move(list);
  }
  readInteger(d, "strictMatches", strictMatches_);
}

std::string TestResults::description() const {
  std::string text = isNew_ ? "New test" : "Existing test";
  text += format(" [ steps: %li", steps_);
  text += format(", test name: %@", name_);
  text += format(", matches: %li", matches_);
  text += format(", mismatches: %li", mismatches_);
  text += format(", missing: %li]", missing_);
  text += format(", URL: %@", url_);
  return text;
}

Json TestResults::dictionary() const {
  Json d = Json::object();
  if (apiUrls_) d["apiUrls"] = apiUrls_->dictionary();
  writeText(d, "appName", appName_);
  // The application addresses travel under "appName" and replace the name written above.
  if (appUrls_) d["appName"] = appUrls_->dictionary();
  writeText(d, "batchId", batchId_);
  writeText(d, "batchName", batchName_);
  writeText(d, "branchName", branchName_);
  d["contentMatches"] = contentMatches_;
  if (defaultMatchSettings_) d["defaultMatchSettings"] = defaultMatchSettings_->dictionary();
  d["duration"] = duration_;
  d["exactMatches"] = exactMatches_;
  d["hostDisplaySize"] = dictionaryFromHostDisplaySize(hostDisplaySize_);
  writeText(d, "hostOS", hostOS_);
  writeText(d, "id", resultsId_);
  d["isAborted"] = isAborted_;
  d["isDifferent"] = isDifferent_;
  d["isNew"] = isNew_;
  d["layoutMatches"] = layoutMatches_;
  d["matches"] = matches_;
  d["mismatches"] = mismatches_;
  d["missing"] = missing_;
  writeText(d, "name", name_);
  d["noneMatches"] = noneMatches_;
  writeText(d, "secretToken", secretToken_);
  writeText(d, "startedAt", startedAt_);
  writeText(d, "status", statusString_);
  d["steps"] = steps_;
  if (stepsInfo_) {
    Json steps = Json::array();
    for (const auto& step : *stepsInfo_)
      steps.push_back(records::requiredDictionary(step, "stepsInfo"));
    d["stepsInfo"] = std::move(steps);
  }
  d["strictMatches"] = strictMatches_;
  return d;
}

TestResultsStatus TestResults::statusFromString(const OptString& s) {
  if (s == "Passed") return TestResultsStatusPassed;
  if (s == "Failed") return TestResultsStatusFailed;
  return TestResultsStatusUnresolved;
}

Size TestResults::hostDisplaySizeFromDictionary(const Json& d) {
  Size size;
  if (const Json* width = json::find(d, "width")) size.width = json::floatValue(*width);
  if (const Json* height = json::find(d, "height")) size.height = json::floatValue(*height);
  return size;
}

Json TestResults::dictionaryFromHostDisplaySize(const Size& size) {
  Json d = Json::object();
  d["width"] = size.width;
  d["height"] = size.height;
  return d;
}

}  // namespace saffra
