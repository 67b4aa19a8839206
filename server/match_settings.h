// The matching settings of one step as they arrive in a match request ("imageMatchSettings")
// or as the session's defaults in a start request ("defaultMatchSettings"). Levels and regions
// are the comparison engine's own types; the flags and the results document form are the
// service's.
#pragma once

#include <string>
#include <vector>

#include "saffra/platform/json.h"
#include "server/compare/compare.h"

namespace saffra::server {

using compare::AccessibilityLevel;
using compare::AccessibilityRegion;
using compare::AccessibilityRegionType;
using compare::FloatingRegion;
using compare::MatchLevel;
using compare::matchLevelFromName;
using compare::matchLevelName;
using compare::PixelRect;

/// The parsed settings. Reading is lenient: unknown keys are ignored, values of the wrong kind
/// and malformed list entries are skipped, missing keys keep the defaults below.
struct MatchSettings {
  /// Only level names count; any other value (numbers included) reads as Strict.
  MatchLevel matchLevel = MatchLevel::Strict;
  AccessibilityLevel accessibilityLevel = AccessibilityLevel::None;
  bool ignoreCaret = false;
  bool ignoreDisplacements = false;
  bool enablePatterns = false;
  std::vector<PixelRect> ignore;
  std::vector<PixelRect> layout;
  std::vector<PixelRect> strict;
  std::vector<PixelRect> content;
  std::vector<FloatingRegion> floating;
  /// A region without a readable "type" is checked as a GraphicalObject.
  std::vector<AccessibilityRegion> accessibility;

  static MatchSettings fromJson(const Json& object);
  /// The results document's "defaultMatchSettings" object for these settings.
  Json defaultMatchSettingsJson() const;
};

}  // namespace saffra::server
