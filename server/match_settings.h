// The matching settings of one step as they arrive in a match request ("imageMatchSettings")
// or as the session's defaults in a start request ("defaultMatchSettings").
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "saffra/platform/json.h"

namespace saffra::server {

/// How strictly a step is compared with its baseline, weakest first.
enum class MatchLevel { None, Layout, Content, Strict, Exact };

/// "None", "Layout", "Content", "Strict" or "Exact".
std::string matchLevelName(MatchLevel level);
/// The level of a wire name; any other text gives Strict, as clients send it for unknown levels.
MatchLevel matchLevelFromName(std::string_view name);

/// A rectangle in whole pixels of the uploaded image.
struct PixelRect {
  std::int64_t left = 0;
  std::int64_t top = 0;
  std::int64_t width = 0;
  std::int64_t height = 0;
  bool operator==(const PixelRect&) const = default;
};

/// An area whose content may move by up to the given offsets and still match.
struct FloatingRegion {
  PixelRect rect;
  std::int64_t maxUpOffset = 0;
  std::int64_t maxDownOffset = 0;
  std::int64_t maxLeftOffset = 0;
  std::int64_t maxRightOffset = 0;
};

/// An area whose colour contrast is checked; `type` is the wire name ("RegularText", ...).
struct AccessibilityRegion {
  PixelRect rect;
  std::string type;
};

/// The parsed settings. Reading is lenient: unknown keys are ignored, values of the wrong kind
/// and malformed list entries are skipped, missing keys keep the defaults below.
struct MatchSettings {
  MatchLevel matchLevel = MatchLevel::Strict;
  /// "None", "AA" or "AAA" as sent.
  std::string accessibilityLevel = "None";
  bool ignoreCaret = false;
  bool ignoreDisplacements = false;
  bool enablePatterns = false;
  std::vector<PixelRect> ignore;
  std::vector<PixelRect> layout;
  std::vector<PixelRect> strict;
  std::vector<PixelRect> content;
  std::vector<FloatingRegion> floating;
  std::vector<AccessibilityRegion> accessibility;

  static MatchSettings fromJson(const Json& object);
  /// The results document's "defaultMatchSettings" object for these settings.
  Json defaultMatchSettingsJson() const;
};

}  // namespace saffra::server
