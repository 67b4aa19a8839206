#include "saffra/base/environment_helper.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>

#include "saffra/base/configurable.h"

namespace saffra {

OptString EnvironmentHelper::environmentVariableForKey(std::string_view key) {
  const char* value = std::getenv(std::string(key).c_str());
  if (!value) return std::nullopt;
  return std::string(value);
}

OptString EnvironmentHelper::environmentPair(std::string_view primary, std::string_view twin) {
  // The primary is read a second time when it is set, as every reader of a pair does.
  if (Configurable::isNotEmpty(environmentVariableForKey(primary))) {
    return environmentVariableForKey(primary);
  }
  return environmentVariableForKey(twin);
}

bool EnvironmentHelper::dontCloseBatches() {
  OptString value = environmentVariableForKey("QUORVANT_DONT_CLOSE_BATCHES");
  if (!value) return false;
  std::string lower = *value;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower == "true";
}

}  // namespace saffra
