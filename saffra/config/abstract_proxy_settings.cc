#include "saffra/config/abstract_proxy_settings.h"

#include "saffra/base/argument_guard.h"
#include "saffra/base/configurable.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/format.h"

namespace saffra {

AbstractProxySettings::AbstractProxySettings(const OptString& uri, std::int64_t port,
                                             const OptString& username, const OptString& password)
    : port_(port) {
  ArgumentGuard::notNil(uri, "uri");
  uri_ = uri;
  username_ = username;
  password_ = password;
}

Json connectionProxyDictionaryFromProxy(const std::shared_ptr<AbstractProxySettings>& proxy) {
  OptString uri = proxy ? proxy->uri() : std::nullopt;
  Json d = Json::object();
  d[kCFNetworkProxiesHTTPEnable] = true;
  d[kCFNetworkProxiesHTTPPort] = proxy ? proxy->port() : 0;
  if (!uri) {
    throw Exception("NSInvalidArgumentException",
                    format("object cannot be nil (key: %@)", kCFNetworkProxiesHTTPProxy));
  }
  d[kCFNetworkProxiesHTTPProxy] = *uri;
  if (Configurable::isNotEmpty(proxy->username())) d[kCFProxyUsernameKey] = *proxy->username();
  if (Configurable::isNotEmpty(proxy->password())) d[kCFProxyPasswordKey] = *proxy->password();
  return d;
}

std::optional<ProxyConfig> proxyConfigFromDictionary(const Json& dictionary) {
  const Json* enabled = json::find(dictionary, kCFNetworkProxiesHTTPEnable);
  const Json* host = json::find(dictionary, kCFNetworkProxiesHTTPProxy);
  if (!enabled || !json::boolValue(*enabled) || !host) return std::nullopt;
  OptString hostText = json::stringValue(*host);
  if (!Configurable::isNotEmpty(hostText)) return std::nullopt;

  ProxyConfig config;
  config.host = *hostText;
  if (const Json* port = json::find(dictionary, kCFNetworkProxiesHTTPPort)) {
    config.port = json::integerValue(*port);
  }
  if (const Json* user = json::find(dictionary, kCFProxyUsernameKey)) {
    config.username = json::stringValue(*user);
  }
  if (const Json* password = json::find(dictionary, kCFProxyPasswordKey)) {
    config.password = json::stringValue(*password);
  }
  return config;
}

}  // namespace saffra
