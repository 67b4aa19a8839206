// The proxy through which the service is reached: host, port and optional credentials, and its
// translation into the proxy dictionary of the connection (entries named after the platform's
// network proxy keys) and from there into the transport's ProxyConfig.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "saffra/platform/http.h"
#include "saffra/platform/json.h"
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

/// Keys of the proxy dictionary, with the platform's values.
inline constexpr const char* kCFNetworkProxiesHTTPEnable = "HTTPEnable";
inline constexpr const char* kCFNetworkProxiesHTTPPort = "HTTPPort";
inline constexpr const char* kCFNetworkProxiesHTTPProxy = "HTTPProxy";
inline constexpr const char* kCFProxyUsernameKey = "kCFProxyUsernameKey";
inline constexpr const char* kCFProxyPasswordKey = "kCFProxyPasswordKey";

/// The proxy dictionary of a connection, in this order: HTTP proxying enabled (true), the port,
/// the host, then the user name and the password, each only when it is a non-empty text. Only
/// HTTP entries are written. Throws Exception "NSInvalidArgumentException" naming the host key
/// when the host is absent (an absent proxy has no host either).
Json connectionProxyDictionaryFromProxy(const std::shared_ptr<AbstractProxySettings>& proxy);

/// The transport's proxy from a proxy dictionary; nothing when HTTP proxying is not enabled or
/// no host is given.
std::optional<ProxyConfig> proxyConfigFromDictionary(const Json& dictionary);

}  // namespace saffra
