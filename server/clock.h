// The service's clock for what it records: whole seconds since the epoch.
#pragma once

#include <cstdint>
#include <ctime>

namespace saffra::server {

/// Seconds since the epoch, now.
inline std::int64_t now() {
  return static_cast<std::int64_t>(std::time(nullptr));
}

}  // namespace saffra::server
