// The platform's error object as a small value: a domain, a code and a localized description.
// Operations that report errors take an ErrorSlot; they write through a non-null slot and skip a
// null one.
#pragma once

#include <optional>
#include <string>

namespace saffra {

/// An error value handed back beside results.
struct Error {
  std::string domain;
  long code = 0;
  std::string localizedDescription;

  bool operator==(const Error&) const = default;
};

/// Where an operation writes an error it reports; may be null.
using ErrorSlot = std::optional<Error>*;

/// Writes `error` into `slot` when the slot is given.
inline void writeError(ErrorSlot slot, const std::optional<Error>& error) {
  if (slot) *slot = error;
}

}  // namespace saffra
