// The HTTP request and reply values shared by the request builder, the transport and the
// service connector. Headers keep the order in which they were set; setting a header that is
// already there replaces its value in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "saffra/platform/error.h"
#include "saffra/platform/nullable.h"

namespace saffra {

/// One HTTP request: method, URL, ordered headers, body and time-out.
struct HttpRequest {
  std::string method = "GET";
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  /// Absent means no body at all (no Content-Length either).
  std::optional<std::string> body;
  /// The longest time without any byte sent or received before the request fails; a transfer
  /// that keeps moving is never cut. Not a positive number means 300 seconds.
  double timeoutSeconds = 300.0;
  /// The largest reply body accepted; a longer reply fails the request. 0 means the default,
  /// 64 MB, far more than any results document.
  std::size_t maxReplyBytes = 0;

  /// Sets a header, replacing an earlier value of the same name (names compare case-insensitively).
  void setValueForHTTPHeaderField(const std::string& value, const std::string& field);
  /// The value of a header, or absent.
  OptString valueForHTTPHeaderField(const std::string& field) const;
};

/// What came back: the status and body of a reply, or a transport error.
struct HttpResponse {
  long statusCode = 0;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  /// Set when no complete reply arrived (refused, timed out, cut off, bad URL, TLS failure).
  std::optional<Error> error;
};

/// An HTTP proxy for the transport; HTTPS requests go through it with CONNECT.
struct ProxyConfig {
  std::string host;
  std::int64_t port = 0;
  OptString username;
  OptString password;
};

}  // namespace saffra
