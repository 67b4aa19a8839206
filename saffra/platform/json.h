// JSON for the wire records: an ordered object type (keys stay in the order the records build
// them), a parser that never throws, the writer whose bytes go on the wire, and the lenient
// readers that reply records use to read whatever the service sent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "saffra/platform/nullable.h"

namespace saffra {

/// A JSON value; objects keep their insertion order.
using Json = nlohmann::ordered_json;

namespace json {

/// Parses UTF-8 JSON text. Returns nothing for text that is not JSON, for nesting deeper than
/// 512 levels and for a top level that is neither an object nor an array (as the platform's
/// default reading does). Never throws.
std::optional<Json> parse(std::string_view text);

/// Writes compact JSON as the platform's serializer does: no blanks, keys in insertion order,
/// "/" escaped as "\/", whole floats written as integers ("left":10), other floats in their
/// shortest round-trip form. Throws Exception "NSInvalidArgumentException" for NaN or infinity.
std::string write(const Json& value);

/// Integer reading: numbers truncate toward zero (clamped to the 64-bit range), true/false give
/// 1/0, strings give their leading integer ("12abc" -> 12, "abc" -> 0), anything else 0.
std::int64_t integerValue(const Json& value);
/// Boolean reading: numbers are true when non-zero; strings are true when they start (after
/// blanks, a sign and zeros) with Y, y, T, t or a digit 1-9; anything else false.
bool boolValue(const Json& value);
/// Double reading: numbers as they are, strings by their leading number, booleans 1/0, else 0.
double doubleValue(const Json& value);
/// Single-precision reading: doubleValue rounded to float and widened back
/// (1125.3 reads as 1125.300048828125).
double floatValue(const Json& value);
/// Text reading: a string as it is, a number or boolean as its text, anything else absent.
OptString stringValue(const Json& value);

/// The member `key` of an object, or nullptr when `object` is not an object or lacks the key.
const Json* find(const Json& object, std::string_view key);
/// The boolean reading (boolValue) of the member `key`; false when there is no such member.
bool boolAt(const Json& object, std::string_view key);

/// The property-list text form of a value, as "%@" of a dictionary or list shows it:
/// "{\n    key = value;\n}" and "(\n    item,\n    item\n)", strings that are not purely
/// alphanumeric in double quotes.
std::string description(const Json& value, int indent = 0);

}  // namespace json
}  // namespace saffra
