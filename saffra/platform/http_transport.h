// The HTTP client of the library: libcurl's multi interface driven by one worker thread per
// transport. Every completion handler of a transport runs on that thread, one at a time, so the
// worker is the transport's serial callback queue.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "saffra/platform/http.h"

namespace saffra {

/// Sends HTTP requests asynchronously and hands each reply to a completion handler.
///
/// A request goes out with exactly the headers set on it (plus Host, and Content-Length when the
/// request has a body and sets none): no Expect, no Accept, no User-Agent, no compression.
/// Redirects are not followed; a 3xx reply is handed back as it is. Server certificates are
/// accepted without verification. Proxy variables of the environment are ignored: only the
/// proxy given to the constructor is used.
class HttpTransport {
 public:
  /// Receives the reply or the transport error; runs on the worker thread.
  using CompletionHandler = std::function<void(HttpResponse response)>;

  /// Starts the worker thread. With a proxy, every request goes through it (HTTPS by CONNECT).
  explicit HttpTransport(std::optional<ProxyConfig> proxy = std::nullopt);
  /// Cancels every request in flight and drops their handlers and queued closures without
  /// running them. Returns promptly even when a server never answers. May be called from a
  /// completion handler of this transport.
  ~HttpTransport();

  HttpTransport(const HttpTransport&) = delete;
  HttpTransport& operator=(const HttpTransport&) = delete;

  /// Starts the request and returns at once. The handler later receives the status, headers and
  /// body, or an error (domain "saffra.http", curl's code and message) when no complete reply
  /// arrived: bad URL, refused connection, no byte moving either way for
  /// `request.timeoutSeconds`, a reply body over `request.maxReplyBytes`, reply cut off, TLS or
  /// proxy failure. With an error, status, headers and body hold whatever arrived before the
  /// failure. Nothing is ever thrown for a failed request.
  void send(HttpRequest request, CompletionHandler completionHandler);

  /// Runs `work` on the worker thread, in order with the completion handlers.
  void dispatch(std::function<void()> work);

  /// True when called from this transport's worker thread (inside a handler or closure).
  bool isWorkerThread() const;

  /// The proxy given at construction.
  const std::optional<ProxyConfig>& proxy() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace saffra
