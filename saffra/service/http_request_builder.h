// Builds the requests the service connector sends: JSON bodies and the service's fixed headers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "saffra/platform/http.h"
#include "saffra/platform/json.h"

namespace saffra {

/// Makes service requests.
class HTTPRequestBuilder {
 public:
  /// A request for `url` with the method and a time-out of `timeoutInterval` seconds. With
  /// `params`, the body is their compact JSON text and "Content-Length" its length in bytes (0
  /// with an empty body when they cannot be written). Always "Content-Type" and then "Accept"
  /// set to "application/json"; no other header.
  static HttpRequest requestWithURL(const std::string& url, const std::optional<Json>& params,
                                    const std::string& httpMethod, std::int64_t timeoutInterval);
};

}  // namespace saffra
