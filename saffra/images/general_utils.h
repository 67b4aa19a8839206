// Small utilities: a whole-second sleep and deep copies of lists.
//
// A deep copy gives a list that shares nothing with its source: nested lists are copied level by
// level, and shared objects (std::shared_ptr elements, at any depth) are replaced by copies made
// with the object's copy() when it has one, otherwise with its copy constructor. So a list of
// growable lists (std::vector<std::shared_ptr<std::vector<T>>>) comes back with new inner lists,
// and changing one of them leaves the source unchanged. Elements must be copyable.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

namespace saffra {

/// Blocking helpers.
class GeneralUtils {
 public:
  /// Blocks the calling thread for `seconds` whole seconds (at most about 136 years).
  static void sleep(std::uint64_t seconds);
};

namespace Utility {

namespace detail {

template <class T>
T deepCopy(const T& value);
template <class T>
std::vector<T> deepCopy(const std::vector<T>& list);
template <class T>
std::shared_ptr<T> deepCopy(const std::shared_ptr<T>& object);

template <class T>
T deepCopy(const T& value) {
  return value;
}

template <class T>
std::vector<T> deepCopy(const std::vector<T>& list) {
  std::vector<T> result;
  result.reserve(list.size());
  for (const T& element : list) result.push_back(deepCopy(element));
  return result;
}

template <class T>
std::shared_ptr<T> deepCopy(const std::shared_ptr<T>& object) {
  if (!object) return nullptr;
  if constexpr (requires {
                  { object->copy() } -> std::convertible_to<std::shared_ptr<T>>;
                }) {
    return object->copy();
  } else {
    return std::make_shared<std::remove_const_t<T>>(deepCopy(*object));
  }
}

}  // namespace detail

/// A copy of `list` that shares nothing with it, nested lists and shared objects included.
template <class T>
std::vector<T> trueDeepCopyOf(const std::vector<T>& list) {
  return detail::deepCopy(list);
}

/// The same deep copy, for callers that go on to grow the list.
template <class T>
std::vector<T> trueMutableDeepCopyOf(const std::vector<T>& list) {
  return detail::deepCopy(list);
}

}  // namespace Utility
}  // namespace saffra
