#include "server/match_settings.h"

#include <utility>

namespace saffra::server {

namespace {

Json rectJson(const PixelRect& r) {
  return {{"left", r.left}, {"top", r.top}, {"width", r.width}, {"height", r.height}};
}

Json rectsJson(const std::vector<PixelRect>& rects) {
  Json list = Json::array();
  for (const PixelRect& r : rects) list.push_back(rectJson(r));
  return list;
}

}  // namespace

MatchSettings MatchSettings::fromJson(const Json& object) {
  MatchSettings s;
  if (!object.is_object()) return s;
  compare::CompareOptions read = compare::CompareOptions::fromJson(object);
  s.accessibilityLevel = read.accessibilityLevel;
  s.ignore = std::move(read.ignoreRegions);
  s.layout = std::move(read.layoutRegions);
  s.strict = std::move(read.strictRegions);
  s.content = std::move(read.contentRegions);
  s.floating = std::move(read.floatingRegions);
  s.accessibility = std::move(read.accessibilityRegions);

  // The engine also takes numeric levels and reads an untyped accessibility region as text;
  // the service keeps to level names and checks such a region as a graphical object.
  if (const Json* level = json::find(object, "matchLevel")) {
    s.matchLevel = matchLevelFromName(json::stringValue(*level).value_or(""));
  }
  if (const Json* list = json::find(object, "accessibility"); list && list->is_array()) {
    auto region = s.accessibility.begin();
    for (const Json& element : *list) {
      if (!element.is_object()) continue;
      const Json* type = json::find(element, "type");
      if (!type || !json::stringValue(*type))
        region->type = AccessibilityRegionType::GraphicalObject;
      ++region;
    }
  }

  s.ignoreCaret = json::boolAt(object, "ignoreCaret");
  s.ignoreDisplacements = json::boolAt(object, "IgnoreDisplacements");
  s.enablePatterns = json::boolAt(object, "enablePatterns");
  return s;
}

Json MatchSettings::defaultMatchSettingsJson() const {
  Json floatingList = Json::array();
  for (const FloatingRegion& f : floating) {
    Json entry = rectJson(f.rect);
    entry["maxUpOffset"] = f.maxUpOffset;
    entry["maxDownOffset"] = f.maxDownOffset;
    entry["maxLeftOffset"] = f.maxLeftOffset;
    entry["maxRightOffset"] = f.maxRightOffset;
    floatingList.push_back(std::move(entry));
  }
  return Json{{"content", rectsJson(content)},
              {"floating", std::move(floatingList)},
              {"ignore", rectsJson(ignore)},
              {"ignoreCaret", ignoreCaret},
              {"layout", rectsJson(layout)},
              {"matchLevel", std::string(matchLevelName(matchLevel))},
              {"remainder", false},
              {"scale", 1.0},
              {"splitBottomHeight", false},
              {"splitTopHeight", false},
              {"strict", rectsJson(strict)}};
}

}  // namespace saffra::server
