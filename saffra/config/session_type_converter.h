// Session types of a test session and their wire names.
#pragma once

#include <cstdint>
#include <string>

namespace saffra {

/// How the service orders the steps of a session. Any value other than 0 is a progression.
enum SessionType : std::uint64_t {
  SessionTypeSequential = 0,
  SessionTypeProgression = 1,
};

/// Converts session types to their wire names.
class SessionTypeConverter {
 public:
  /// "SEQUENTIAL" for 0, "PROGRESSION" for any other value.
  static std::string sessionTypeToString(std::uint64_t sessionType) {
    return sessionType == SessionTypeSequential ? "SEQUENTIAL" : "PROGRESSION";
  }
};

}  // namespace saffra
