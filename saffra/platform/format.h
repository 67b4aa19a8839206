// The one text formatter of the library. Messages are kept verbatim with printf-style
// placeholders and rendered here:
//   %@   text as it is; an absent text or a null object as "(null)"; an object through its
//        description(); a number in its shortest form; a bool as 1 or 0
//   %li, %ld, %lu, %d, %i, %u, %zu, %lld, %llu   an integer (floats are truncated toward zero)
//   %f   six decimals (%.Nf gives N decimals)
//   %%   a percent sign
// A placeholder without a matching argument renders as "(null)"; arguments left over are ignored.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "saffra/platform/nullable.h"

namespace saffra {

/// Something with a text form, as objects render through "%@".
template <class T>
concept Describable = requires(const T& t) {
  { t.description() } -> std::convertible_to<std::string>;
};

/// One argument of format(): a text, a number, or an absent value.
class FormatArg {
 public:
  enum class Kind { Absent, Text, Signed, Unsigned, Float, Bool };

  FormatArg(std::nullptr_t) {}
  FormatArg(const char* text) : kind_(text ? Kind::Text : Kind::Absent), text_(text ? text : "") {}
  FormatArg(std::string_view text) : kind_(Kind::Text), text_(text) {}
  FormatArg(const std::string& text) : kind_(Kind::Text), text_(text) {}
  FormatArg(const OptString& text) : kind_(text ? Kind::Text : Kind::Absent), text_(text.value_or("")) {}
  FormatArg(bool value) : kind_(Kind::Bool), signed_(value ? 1 : 0) {}
  template <std::signed_integral I>
  FormatArg(I value) : kind_(Kind::Signed), signed_(static_cast<std::int64_t>(value)) {}
  template <std::unsigned_integral U>
    requires(!std::same_as<U, bool>)
  FormatArg(U value) : kind_(Kind::Unsigned), unsigned_(static_cast<std::uint64_t>(value)) {}
  template <class E>
    requires std::is_enum_v<E>
  FormatArg(E value) : FormatArg(static_cast<std::underlying_type_t<E>>(value)) {}
  FormatArg(double value) : kind_(Kind::Float), float_(value) {}
  FormatArg(float value) : kind_(Kind::Float), float_(value) {}
  /// A shared object renders through description(), or as "(null)" when absent.
  template <Describable T>
  FormatArg(const std::shared_ptr<T>& object)
      : kind_(object ? Kind::Text : Kind::Absent), text_(object ? object->description() : "") {}
  /// A value with a text form renders through description().
  template <Describable T>
    requires(!std::is_pointer_v<T>)
  FormatArg(const T& object) : kind_(Kind::Text), text_(object.description()) {}

  Kind kind() const { return kind_; }
  /// The text "%@" shows.
  std::string objectText() const;
  /// The value "%li" shows.
  std::int64_t integerValue() const;
  /// The value "%f" shows.
  double floatValue() const;

 private:
  Kind kind_ = Kind::Absent;
  std::string text_;
  std::int64_t signed_ = 0;
  std::uint64_t unsigned_ = 0;
  double float_ = 0;
};

/// Renders `format` with the arguments in order.
std::string formatArgs(std::string_view format, std::initializer_list<FormatArg> args);

/// Renders `format` with the arguments in order, e.g. format("Close batch with ID: %@", id).
template <class... Args>
std::string format(std::string_view fmt, const Args&... args) {
  return formatArgs(fmt, {FormatArg(args)...});
}

}  // namespace saffra
