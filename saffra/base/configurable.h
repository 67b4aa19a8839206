// Text predicates and helpers used across the library. A text counts as set when it is present
// and not "" (a text of blanks is set). Texts are UTF-8; the cutting operations split only at
// ASCII characters, so they never cut a multi-byte character apart.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"

namespace saffra::Configurable {

/// True unless the text is absent or equals "" (a text of blanks is set).
inline bool isNotEmpty(const OptString& s) {
  return s.has_value() && !s->empty();
}
inline bool isNotEmpty(const std::string& s) {
  return !s.empty();
}
inline bool isNotEmpty(const char* s) {
  return s != nullptr && *s != '\0';
}
/// For values read from JSON: false for null (the null marker) and for "", true otherwise.
inline bool isNotEmpty(const Json& value) {
  return !value.is_null() && !(value.is_string() && value.get_ref<const std::string&>().empty());
}

/// `s` when it is set, otherwise "".
inline std::string notEmptyString(const OptString& s) {
  return isNotEmpty(s) ? *s : std::string();
}

/// True when `s` occurs in `receiver` (plain, case-sensitive).
bool containsString(std::string_view receiver, std::string_view s);
/// True as soon as `receiver` contains one of `strings`; the list ends at its first absent entry.
bool containsOneOfStrings(std::string_view receiver, const std::vector<OptString>& strings);
/// True for ".", "!", "?" and "\n".
bool isEndOfSentence(std::string_view s);
/// `s` without leading and trailing white space and line breaks (Unicode ones included).
std::string stringByTrimmingSpaces(std::string_view s);
/// True when `s` holds nothing but decimal digits ("" counts; "-1" does not).
bool isInteger(std::string_view s);
/// Removes every "." and then turns every "," into ".": "1.234,50" gives "1234.50".
std::string priceStringCorrection(std::string_view s);

/// Removes and returns the first sentence of `s`: everything up to and including the first
/// end-of-sentence character before the last one, or the whole text when there is none.
std::string cutFirstSentenceFromString(std::string& s);
/// Removes and returns what follows the last end-of-sentence character before the final
/// character; "" (with `s` unchanged) when there is none.
std::string cutLastSentenceFromString(std::string& s);
/// Removes and returns the last word with its leading blank. Throws Exception
/// "NSRangeException" when `s` holds no blank (an empty text included).
std::string cutLastWordFromString(std::string& s);

}  // namespace saffra::Configurable
