#include "saffra/checks/image_match_settings.h"

#include "saffra/platform/exception.h"
#include "saffra/platform/format.h"

namespace saffra {

namespace {

// Each element's own wire form, in list order. An absent element cannot be put into the list.
template <class T>
Json dictionaries(const std::vector<std::shared_ptr<T>>& list, const char* key) {
  Json result = Json::array();
  for (const auto& element : list) {
    if (!element) {
      throw Exception("NSInvalidArgumentException",
                      format("object cannot be nil (list of key: %@)", key));
    }
    result.push_back(element->dictionary());
  }
  return result;
}

}  // namespace

std::shared_ptr<ImageMatchSettings> ImageMatchSettings::defaultImageMatchSettings() {
  return std::make_shared<ImageMatchSettings>(MatchLevelStrict);
}

std::string ImageMatchSettings::description() const {
  return format("Match level: %@", matchLevelToString(matchLevel_));
}

std::string ImageMatchSettings::matchLevelToString(std::int64_t level) {
  switch (level) {
    case MatchLevelNone:
      return "None";
    case MatchLevelLayout:
      return "Layout";
    case MatchLevelContent:
      return "Content";
    case MatchLevelExact:
      return "Exact";
    default:
      return "Strict";
  }
}

Json ImageMatchSettings::dictionary() const {
  Json ignore = dictionaries(ignoredRegions_, "Ignore");
  Json layout = dictionaries(layoutRegions_, "Layout");
  Json strict = dictionaries(strictRegions_, "Strict");
  Json content = dictionaries(contentRegions_, "Content");
  Json floating = dictionaries(floatingRegions_, "Floating");
  Json accessibility = dictionaries(accessibility_, "accessibility");

  Json d = Json::object();
  d["matchLevel"] = matchLevelToString(matchLevel_);
  d["accessibilityLevel"] = AccessibilityLevelConverter::toString(accessibilityLevel_);
  d["ignoreCaret"] = ignoreCaret_;
  d["IgnoreDisplacements"] = ignoreDispacements_;
  d["enablePatterns"] = enablePatterns_;
  d["Ignore"] = std::move(ignore);
  d["Layout"] = std::move(layout);
  d["Strict"] = std::move(strict);
  d["Content"] = std::move(content);
  d["Floating"] = std::move(floating);
  d["accessibility"] = std::move(accessibility);
  return d;
}

}  // namespace saffra
