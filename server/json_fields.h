// Readings of the members of JSON objects that requests and stored rows share: a missing member
// or one of another type reads as empty, 0 or an empty object. (Booleans: json::boolAt.)
#pragma once

#include <string>
#include <string_view>

#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"

namespace saffra::server {

/// The text reading (json::stringValue) of the member `key`; empty when there is none.
std::string textAt(const Json& object, std::string_view key);
/// The same, absent when there is none.
OptString optTextAt(const Json& object, std::string_view key);
/// The number at `key`; 0 when missing or not finite.
double finiteAt(const Json& object, std::string_view key);
/// The object at `key`; an empty object when missing or not an object.
const Json& objectAt(const Json& object, std::string_view key);

}  // namespace saffra::server
