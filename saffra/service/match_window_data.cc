#include "saffra/service/match_window_data.h"

#include "saffra/base/configurable.h"
#include "saffra/service/internal/record_reading.h"

namespace saffra {

using Configurable::isNotEmpty;
using Configurable::notEmptyString;

Json AppOutput::dictionary() const {
  Json d = Json::object();
  if (isNotEmpty(screenshot64_)) d["screenshot64"] = *screenshot64_;
  if (isNotEmpty(title_)) d["title"] = *title_;
  return d;
}

Json Options::dictionary() const {
  Json d = Json::object();
  d["name"] = records::required(name_, "name");
  d["ignoreMismatch"] = ignoreMismatch_;
  d["ignoreMatch"] = ignoreMatch_;
  d["forceMismatch"] = forceMismatch_;
  d["forceMatch"] = forceMatch_;
  d["imageMatchSettings"] = records::requiredDictionary(imageMatchSettings_, "imageMatchSettings");
  d["source"] = notEmptyString(source_);
  return d;
}

Json MatchWindowData::dictionary() const {
  Json d = Json::object();
  d["appOutput"] = records::requiredDictionary(appOutput_, "appOutput");
  d["tag"] = notEmptyString(tag_);
  d["options"] = records::requiredDictionary(options_, "options");
  return d;
}

MatchResult::MatchResult(const Json& dictionary) {
  if (!dictionary.is_object()) {
    records::logNotAnObject("MatchResult");
    return;
  }
  if (const Json* screenshot = json::find(dictionary, "screenshot")) screenshot_ = *screenshot;
  if (const Json* asExpected = json::find(dictionary, "asExpected")) {
    asExpected_ = json::boolValue(*asExpected);
  }
}

Json MatchResult::dictionary() const {
  if (!screenshot_) records::throwAbsentValue("screenshot");
  Json d = Json::object();
  d["screenshot"] = *screenshot_;
  d["asExpected"] = asExpected_;
  return d;
}

}  // namespace saffra
