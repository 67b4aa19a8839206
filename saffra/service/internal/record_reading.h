// Helpers shared by the wire records: the failure of a dictionary that would hold an absent
// value, and the lenient reading of reply members whose kind may not be what a record expects.
// For the library's own use.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"

namespace saffra::records {

/// Throws Exception "NSInvalidArgumentException" with the reason
/// "object cannot be nil (key: <key>)", as the platform's dictionary does for an absent value.
[[noreturn]] void throwAbsentValue(std::string_view key);

/// The text, or the failure above when it is absent.
const std::string& required(const OptString& value, std::string_view key);

/// The object's wire form, or the failure above when the object is absent.
template <class T>
Json requiredDictionary(const std::shared_ptr<T>& object, std::string_view key) {
  if (!object) throwAbsentValue(key);
  return object->dictionary();
}

/// The member `key` of `dictionary` when it is an object. A member of another kind is skipped
/// with a log line naming the key; a missing member gives nullptr silently.
const Json* objectMember(const Json& dictionary, std::string_view key);
/// The member `key` of `dictionary` when it is an array; otherwise as objectMember.
const Json* arrayMember(const Json& dictionary, std::string_view key);
/// The text of a member taken as received: a string as it is, a number or boolean as its text
/// (see json::stringValue). null gives absent; an object or array gives absent with a log line.
OptString textMember(const Json& dictionary, std::string_view key);
/// Logs that a whole reply handed to `record` was not an object (nothing else is read from it).
void logNotAnObject(std::string_view record);

}  // namespace saffra::records
