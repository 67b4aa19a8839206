// The proxy through which the service is reached: host, port and optional credentials.
#pragma once

#include <cstdint>
#include <memory>

#include "saffra/platform/nullable.h"

namespace saffra {

/// An HTTP proxy record; immutable, used through std::shared_ptr. Despite its name it is a
/// concrete record that is created directly.
class AbstractProxySettings {
 public:
  /// The port used when none is given.
  static constexpr std::int64_t kDefaultPort = 888;

  /// The host is kept as given (no parsing, no scheme removal) and may be absent; the proxy
  /// dictionary then rejects it.
  AbstractProxySettings(const OptString& uri, std::int64_t port, const OptString& username,
                        const OptString& password);
  /// No credentials.
  AbstractProxySettings(const OptString& uri, std::int64_t port)
      : AbstractProxySettings(uri, port, std::nullopt, std::nullopt) {}
  /// Port 888.
  AbstractProxySettings(const OptString& uri, const OptString& username, const OptString& password)
      : AbstractProxySettings(uri, kDefaultPort, username, password) {}
  virtual ~AbstractProxySettings() = default;

  const OptString& uri() const { return uri_; }
  const OptString& username() const { return username_; }
  const OptString& password() const { return password_; }
  std::int64_t port() const { return port_; }

 private:
  OptString uri_;
  OptString username_;
  OptString password_;
  std::int64_t port_;
};

}  // namespace saffra
