#include "saffra/service/internal/record_reading.h"

#include "saffra/base/logger.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/format.h"

namespace saffra::records {

namespace {

void logSkipped(std::string_view key, std::string_view expected) {
  Logger::logWithFormat("Ignoring \"%@\" of the reply: %@ was expected", key, expected);
}

}  // namespace

void throwAbsentValue(std::string_view key) {
  throw Exception("NSInvalidArgumentException", format("object cannot be nil (key: %@)", key));
}

const std::string& required(const OptString& value, std::string_view key) {
  if (!value) throwAbsentValue(key);
  return *value;
}

const Json* objectMember(const Json& dictionary, std::string_view key) {
  const Json* member = json::find(dictionary, key);
  if (!member) return nullptr;
  if (!member->is_object()) {
    logSkipped(key, "an object");
    return nullptr;
  }
  return member;
}

const Json* arrayMember(const Json& dictionary, std::string_view key) {
  const Json* member = json::find(dictionary, key);
  if (!member) return nullptr;
  if (!member->is_array()) {
    logSkipped(key, "a list");
    return nullptr;
  }
  return member;
}

OptString textMember(const Json& dictionary, std::string_view key) {
  const Json* member = json::find(dictionary, key);
  if (!member || member->is_null()) return std::nullopt;
  if (member->is_object() || member->is_array()) {
    logSkipped(key, "a text");
    return std::nullopt;
  }
  return json::stringValue(*member);
}

void logNotAnObject(std::string_view record) {
  Logger::logWithFormat("%@: the reply is not an object; nothing was read from it", record);
}

}  // namespace saffra::records
