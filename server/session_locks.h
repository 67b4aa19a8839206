// Requests of one session run one at a time.
#pragma once

#include <array>
#include <functional>
#include <mutex>
#include <string>

namespace saffra::server {

/// Locks that keep the requests of one session apart; sessions share them by hash.
class SessionLocks {
 public:
  std::mutex& lockFor(const std::string& sessionId) {
    return sessionLocks[std::hash<std::string>{}(sessionId) % sessionLocks.size()];
  }

 private:
  std::array<std::mutex, 64> sessionLocks;
};

}  // namespace saffra::server
