// Starts Debian's tinyproxy on a free loopback port for proxy tests, optionally requiring a user
// name and password (Basic authentication), and stops it again.
//
//   SAFFRA_SKIP_WITHOUT_TINYPROXY();
//   saffra::testing::Tinyproxy proxy("user", "secret");
//   HttpTransport transport(proxy.config());   // carries the credentials
#pragma once

#include <sys/types.h>
#include <optional>
#include <string>

#include "saffra/platform/http.h"

namespace saffra::testing {

/// A running tinyproxy process with a generated configuration.
class Tinyproxy {
 public:
  static constexpr const char* kBinary = "/usr/bin/tinyproxy";

  /// True when the tinyproxy binary is installed.
  static bool available();

  /// Starts the proxy and waits until it accepts connections. With a user name, it answers
  /// 407 to requests without those credentials. Throws std::runtime_error when it cannot start.
  explicit Tinyproxy(std::optional<std::string> username = std::nullopt,
                     std::optional<std::string> password = std::nullopt);
  /// Stops the proxy and removes its files.
  ~Tinyproxy();
  Tinyproxy(const Tinyproxy&) = delete;
  Tinyproxy& operator=(const Tinyproxy&) = delete;

  int port() const { return port_; }
  /// A proxy setting for 127.0.0.1:port() with the proxy's own credentials.
  ProxyConfig config() const;
  /// What the proxy logged so far (one line per connection and request).
  std::string log() const;

 private:
  bool start();
  void stop();

  std::optional<std::string> username_;
  std::optional<std::string> password_;
  std::string directory_;
  int port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace saffra::testing

/// Skips the current test with a clear message when tinyproxy is not installed.
#define SAFFRA_SKIP_WITHOUT_TINYPROXY()                                                       \
  do {                                                                                        \
    if (!::saffra::testing::Tinyproxy::available())                                           \
      GTEST_SKIP() << "tinyproxy is not installed (" << ::saffra::testing::Tinyproxy::kBinary \
                   << "); install the Debian package tinyproxy to run proxy tests";           \
  } while (0)
