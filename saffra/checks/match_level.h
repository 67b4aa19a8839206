// The wire vocabularies of match settings: match levels, accessibility levels and accessibility
// region types. Values are stored as plain 64-bit integers, so any number can be held; numbers
// outside a table travel under the table's fallback name.
#pragma once

#include <cstdint>
#include <string>

#include "saffra/platform/nullable.h"

namespace saffra {

/// How strictly an image is compared with its baseline (wire names "None" ... "Exact").
/// Any other value, 0 included, travels as "Strict".
enum MatchLevel : std::int64_t {
  MatchLevelNone = 1,
  MatchLevelLayout = 2,
  MatchLevelContent = 3,
  MatchLevelStrict = 4,
  MatchLevelExact = 5,
};

/// The accessibility standard a test is checked against ("None", "AA", "AAA").
/// Any other value travels as "None".
enum AccessibilityLevel : std::uint64_t {
  AccessibilityLevelNone = 0,
  AccessibilityLevelAA = 1,
  AccessibilityLevelAAA = 2,
};

/// What an accessibility region holds. 4 and every larger value travel as "GraphicalObject".
enum AccessibilityRegionType : std::uint64_t {
  AccessibilityRegionTypeIgnoreContrast = 0,
  AccessibilityRegionTypeRegularText = 1,
  AccessibilityRegionTypeLargeText = 2,
  AccessibilityRegionTypeBoldText = 3,
  AccessibilityRegionTypeGraphicalObject = 4,
};

/// Converts accessibility levels to and from their wire names.
class AccessibilityLevelConverter {
 public:
  /// "None", "AA" or "AAA"; "None" for any other value.
  static std::string toString(std::uint64_t level);
  /// Exact, case-sensitive: "AA" gives 1, "AAA" gives 2, anything else (absent too) gives 0.
  static AccessibilityLevel fromString(const OptString& string);
};

}  // namespace saffra
