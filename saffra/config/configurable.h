// Text predicates used across the library. A text counts as set when it is present and not "".
#pragma once

#include "saffra/platform/nullable.h"

namespace saffra::Configurable {

/// True unless the text is absent or equals "" (a text of blanks is set).
inline bool isNotEmpty(const OptString& s) {
  return s.has_value() && !s->empty();
}

/// `s` when it is set, otherwise "".
inline std::string notEmptyString(const OptString& s) {
  return isNotEmpty(s) ? *s : std::string();
}

}  // namespace saffra::Configurable
