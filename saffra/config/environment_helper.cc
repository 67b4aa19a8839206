#include "saffra/config/environment_helper.h"

#include <cstdlib>
#include <string>

namespace saffra {

OptString EnvironmentHelper::environmentVariableForKey(std::string_view key) {
  const char* value = std::getenv(std::string(key).c_str());
  if (!value) return std::nullopt;
  return std::string(value);
}

}  // namespace saffra
