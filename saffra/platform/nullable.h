// Absent values. The library's objects are shared references that may be absent (nullptr); a
// text that may be absent is an OptString. Absent and empty are different: an empty batch id is
// sent to the service, an absent one is left out.
#pragma once

#include <optional>
#include <string>

namespace saffra {

/// A string that may be absent.
using OptString = std::optional<std::string>;

}  // namespace saffra
