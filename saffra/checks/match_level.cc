#include "saffra/checks/match_level.h"

namespace saffra {

std::string AccessibilityLevelConverter::toString(std::uint64_t level) {
  switch (level) {
    case AccessibilityLevelAA:
      return "AA";
    case AccessibilityLevelAAA:
      return "AAA";
    default:
      return "None";
  }
}

AccessibilityLevel AccessibilityLevelConverter::fromString(const OptString& string) {
  if (string == "AA") return AccessibilityLevelAA;
  if (string == "AAA") return AccessibilityLevelAAA;
  return AccessibilityLevelNone;
}

}  // namespace saffra
