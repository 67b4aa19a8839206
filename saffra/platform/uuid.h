// Random identifiers.
#pragma once

#include <string>

namespace saffra {

/// A new random (version 4) UUID in upper-case 8-4-4-4-12 form.
std::string newUUIDString();

}  // namespace saffra
