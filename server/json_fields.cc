#include "server/json_fields.h"

#include <cmath>

namespace saffra::server {

std::string textAt(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  return value ? json::stringValue(*value).value_or("") : std::string();
}

OptString optTextAt(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  return value ? json::stringValue(*value) : std::nullopt;
}

double finiteAt(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  double d = value ? json::doubleValue(*value) : 0.0;
  return std::isfinite(d) ? d : 0.0;
}

const Json& objectAt(const Json& object, std::string_view key) {
  static const Json empty = Json::object();
  const Json* value = json::find(object, key);
  return value && value->is_object() ? *value : empty;
}

}  // namespace saffra::server
