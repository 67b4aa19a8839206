// Reads the process environment. Each call looks the variable up afresh, so tests that change
// variables see the change at once.
#pragma once

#include <string_view>

#include "saffra/platform/nullable.h"

namespace saffra {

/// Environment variable lookup.
class EnvironmentHelper {
 public:
  /// The value of `key`, unaltered, or absent when it is not set.
  static OptString environmentVariableForKey(std::string_view key);
};

}  // namespace saffra
