#include "server/match_settings.h"

#include <array>
#include <utility>

namespace saffra::server {

namespace {

constexpr std::array<std::pair<MatchLevel, std::string_view>, 5> kLevelNames = {{
    {MatchLevel::None, "None"},
    {MatchLevel::Layout, "Layout"},
    {MatchLevel::Content, "Content"},
    {MatchLevel::Strict, "Strict"},
    {MatchLevel::Exact, "Exact"},
}};

std::int64_t integerAt(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  return value ? json::integerValue(*value) : 0;
}

bool boolAt(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  return value && json::boolValue(*value);
}

PixelRect rectFrom(const Json& object) {
  return {integerAt(object, "left"), integerAt(object, "top"), integerAt(object, "width"),
          integerAt(object, "height")};
}

// Calls `add` for every object element of the array under `key`; anything else is skipped.
template <class Add>
void forEachObject(const Json& settings, std::string_view key, Add add) {
  const Json* list = json::find(settings, key);
  if (!list || !list->is_array()) return;
  for (const Json& element : *list) {
    if (element.is_object()) add(element);
  }
}

std::vector<PixelRect> rectsAt(const Json& settings, std::string_view key) {
  std::vector<PixelRect> rects;
  forEachObject(settings, key, [&](const Json& e) { rects.push_back(rectFrom(e)); });
  return rects;
}

Json rectsJson(const std::vector<PixelRect>& rects) {
  Json list = Json::array();
  for (const PixelRect& r : rects) {
    list.push_back({{"left", r.left}, {"top", r.top}, {"width", r.width}, {"height", r.height}});
  }
  return list;
}

}  // namespace

std::string matchLevelName(MatchLevel level) {
  for (const auto& [value, name] : kLevelNames) {
    if (value == level) return std::string(name);
  }
  return "Strict";
}

MatchLevel matchLevelFromName(std::string_view name) {
  for (const auto& [value, text] : kLevelNames) {
    if (text == name) return value;
  }
  return MatchLevel::Strict;
}

MatchSettings MatchSettings::fromJson(const Json& object) {
  MatchSettings s;
  if (!object.is_object()) return s;
  if (const Json* level = json::find(object, "matchLevel")) {
    s.matchLevel = matchLevelFromName(json::stringValue(*level).value_or(""));
  }
  if (const Json* level = json::find(object, "accessibilityLevel")) {
    OptString name = json::stringValue(*level);
    if (name == "AA" || name == "AAA") s.accessibilityLevel = *name;
  }
  s.ignoreCaret = boolAt(object, "ignoreCaret");
  s.ignoreDisplacements = boolAt(object, "IgnoreDisplacements");
  s.enablePatterns = boolAt(object, "enablePatterns");
  s.ignore = rectsAt(object, "Ignore");
  s.layout = rectsAt(object, "Layout");
  s.strict = rectsAt(object, "Strict");
  s.content = rectsAt(object, "Content");
  forEachObject(object, "Floating", [&](const Json& e) {
    s.floating.push_back({rectFrom(e), integerAt(e, "maxUpOffset"), integerAt(e, "maxDownOffset"),
                          integerAt(e, "maxLeftOffset"), integerAt(e, "maxRightOffset")});
  });
  forEachObject(object, "accessibility", [&](const Json& e) {
    const Json* type = json::find(e, "type");
    s.accessibility.push_back(
        {rectFrom(e), type ? json::stringValue(*type).value_or("") : std::string()});
  });
  return s;
}

Json MatchSettings::defaultMatchSettingsJson() const {
  Json floatingList = Json::array();
  for (const FloatingRegion& f : floating) {
    floatingList.push_back({{"left", f.rect.left},
                            {"top", f.rect.top},
                            {"width", f.rect.width},
                            {"height", f.rect.height},
                            {"maxUpOffset", f.maxUpOffset},
                            {"maxDownOffset", f.maxDownOffset},
                            {"maxLeftOffset", f.maxLeftOffset},
                            {"maxRightOffset", f.maxRightOffset}});
  }
  return Json{{"content", rectsJson(content)},
              {"floating", std::move(floatingList)},
              {"ignore", rectsJson(ignore)},
              {"ignoreCaret", ignoreCaret},
              {"layout", rectsJson(layout)},
              {"matchLevel", matchLevelName(matchLevel)},
              {"remainder", false},
              {"scale", 1.0},
              {"splitBottomHeight", false},
              {"splitTopHeight", false},
              {"strict", rectsJson(strict)}};
}

}  // namespace saffra::server
