// How the service compares one image with its baseline: the match level, the caret,
// displacement and pattern flags, the six lists of special regions and the accessibility level.
// One object is shared by every holder it is handed to (a configuration and its copies, say);
// lists are copied when they are set.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "saffra/base/region.h"
#include "saffra/checks/accessibility_region_by_rectangle.h"
#include "saffra/checks/floating_match_settings.h"
#include "saffra/checks/match_level.h"
#include "saffra/platform/json.h"

namespace saffra {

/// Matching settings of one check or of a session's defaults; used through std::shared_ptr.
class ImageMatchSettings {
 public:
  using RegionList = std::vector<std::shared_ptr<Region>>;
  using FloatingRegionList = std::vector<std::shared_ptr<FloatingMatchSettings>>;
  using AccessibilityRegionList = std::vector<std::shared_ptr<AccessibilityRegionByRectangle>>;

  /// Match level "Strict", flags false, empty lists, accessibility level "None".
  ImageMatchSettings() = default;
  /// The defaults with the given match level.
  explicit ImageMatchSettings(std::int64_t matchLevel) : matchLevel_(matchLevel) {}
  /// A new object with match level "Strict" on every call.
  static std::shared_ptr<ImageMatchSettings> defaultImageMatchSettings();

  bool ignoreCaret() const { return ignoreCaret_; }
  void setIgnoreCaret(bool value) { ignoreCaret_ = value; }
  /// Whether displaced content is ignored (the name's spelling is part of the interface).
  bool ignoreDispacements() const { return ignoreDispacements_; }
  void setIgnoreDispacements(bool value) { ignoreDispacements_ = value; }
  bool enablePatterns() const { return enablePatterns_; }
  void setEnablePatterns(bool value) { enablePatterns_ = value; }
  /// Any value is kept; values outside 1-5 travel as "Strict".
  std::int64_t matchLevel() const { return matchLevel_; }
  void setMatchLevel(std::int64_t value) { matchLevel_ = value; }

  const RegionList& ignoredRegions() const { return ignoredRegions_; }
  void setIgnoredRegions(RegionList regions) { ignoredRegions_ = std::move(regions); }
  const RegionList& layoutRegions() const { return layoutRegions_; }
  void setLayoutRegions(RegionList regions) { layoutRegions_ = std::move(regions); }
  const RegionList& strictRegions() const { return strictRegions_; }
  void setStrictRegions(RegionList regions) { strictRegions_ = std::move(regions); }
  const RegionList& contentRegions() const { return contentRegions_; }
  void setContentRegions(RegionList regions) { contentRegions_ = std::move(regions); }
  const FloatingRegionList& floatingRegions() const { return floatingRegions_; }
  void setFloatingRegions(FloatingRegionList regions) { floatingRegions_ = std::move(regions); }
  const AccessibilityRegionList& accessibility() const { return accessibility_; }
  void setAccessibility(AccessibilityRegionList regions) { accessibility_ = std::move(regions); }

  /// Any value is kept; values other than 0-2 travel as "None".
  std::uint64_t accessibilityLevel() const { return accessibilityLevel_; }
  void setAccessibilityLevel(std::uint64_t value) { accessibilityLevel_ = value; }

  /// "Match level: <wire name>"
  std::string description() const;

  /// The wire name of a match level: "None", "Layout", "Content", "Strict", "Exact", and
  /// "Strict" for any other value (for the library's own use).
  static std::string matchLevelToString(std::int64_t level);
  /// The wire form with all eleven keys, in their defined order and irregular key case (for the
  /// library's own use). Throws Exception "NSInvalidArgumentException" naming the list's key when
  /// a list holds an absent element.
  Json dictionary() const;

 private:
  bool ignoreCaret_ = false;
  bool ignoreDispacements_ = false;
  bool enablePatterns_ = false;
  std::int64_t matchLevel_ = MatchLevelStrict;
  RegionList ignoredRegions_;
  RegionList layoutRegions_;
  RegionList strictRegions_;
  RegionList contentRegions_;
  FloatingRegionList floatingRegions_;
  AccessibilityRegionList accessibility_;
  std::uint64_t accessibilityLevel_ = AccessibilityLevelNone;
};

}  // namespace saffra
