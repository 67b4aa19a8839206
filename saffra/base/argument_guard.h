// Argument guards that operations call on entry, naming the parameter they receive. They are
// deliberately empty: they document intent, never throw, log or change state, and an absent
// argument flows on into the operation.
#pragma once

#include <string_view>

namespace saffra {

/// Entry checks that accept everything.
class ArgumentGuard {
 public:
  template <class T>
  static void notNil(const T& /*value*/, std::string_view /*paramName*/) {}
  template <class T>
  static void notNilOrEmpty(const T& value, std::string_view paramName) {
    notNil(value, paramName);
  }
  static void isValidState(bool /*state*/, std::string_view /*errorMessage*/) {}
  template <class T>
  static void greaterThanOrEqualToZero(const T& /*value*/, std::string_view /*paramName*/) {}
};

}  // namespace saffra
