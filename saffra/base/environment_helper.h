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

  /// A setting with a CI twin ("QUORVANT_BRANCH" / "bamboo_QUORVANT_BRANCH"): the primary
  /// variable when it is set and not "", otherwise whatever the twin holds, absent or "" included.
  static OptString environmentPair(std::string_view primary, std::string_view twin);

  /// True when QUORVANT_DONT_CLOSE_BATCHES, lower-cased, is exactly "true" ("TRUE" counts;
  /// "1", "yes" and " true" do not).
  static bool dontCloseBatches();
};

}  // namespace saffra
