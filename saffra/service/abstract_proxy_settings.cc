#include "saffra/service/abstract_proxy_settings.h"

#include "saffra/config/argument_guard.h"

namespace saffra {

AbstractProxySettings::AbstractProxySettings(const OptString& uri, std::int64_t port,
                                             const OptString& username, const OptString& password)
    : port_(port) {
  ArgumentGuard::notNil(uri, "uri");
  uri_ = uri;
  username_ = username;
  password_ = password;
}

}  // namespace saffra
