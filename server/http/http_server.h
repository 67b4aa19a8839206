// An HTTP/1.1 server on one event loop: connections cost a file descriptor and a few buffers
// while they wait, so idle kept-alive clients and slow or stalled senders do not hold back
// anyone else. Complete requests go to a bounded pool of worker threads that run the handlers.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "server/http/request.h"

namespace saffra::server::http {

/// Limits and sizes of a server.
struct ServerOptions {
  /// Bodies larger than this, declared or chunked, are refused with 413.
  std::size_t maxBodyBytes = std::size_t{100} << 20;
  std::size_t maxHeadBytes = 64 << 10;
  /// A request's head must arrive whole within this time from its first byte.
  std::chrono::milliseconds headTimeout{10'000};
  /// A body must arrive whole within this time from the end of its head.
  std::chrono::milliseconds bodyTimeout{120'000};
  /// A reply that the client does not read for this long is dropped with its connection.
  std::chrono::milliseconds writeTimeout{60'000};
  /// A kept-alive connection without a request for this long is closed.
  std::chrono::milliseconds idleTimeout{300'000};
  /// Connections open at once; more are answered 503 and closed.
  std::size_t maxConnections = 8192;
  /// Threads running handlers.
  std::size_t workerThreads = 8;
  int listenBacklog = 4096;
};

/// Serves requests on a loopback or other address until stopped. Routes are set before start().
class HttpServer {
 public:
  using Handler = std::function<void(const Request&, Response&)>;

  explicit HttpServer(ServerOptions options = {});
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// Routes a method and a pattern that must match the whole raw (still percent-encoded) path;
  /// the pattern's groups reach the handler percent-decoded in Request::matches. HEAD requests
  /// run the GET route and reply without the body.
  void route(const std::string& method, const std::string& pattern, Handler handler);
  void Get(const std::string& pattern, Handler h) { route("GET", pattern, std::move(h)); }
  void Post(const std::string& pattern, Handler h) { route("POST", pattern, std::move(h)); }
  void Delete(const std::string& pattern, Handler h) { route("DELETE", pattern, std::move(h)); }
  /// Called for every reply with a status of 400 or more before it goes out, including the
  /// server's own refusals (no route, malformed request, body too large, time-out).
  void set_error_handler(Handler handler);
  /// Called after every reply is built.
  void set_logger(std::function<void(const Request&, const Response&)> logger);

  /// Binds `host:port` (0 picks a free port) and starts serving in the background. Returns the
  /// bound port, or 0 when the address cannot be bound.
  int start(const std::string& host, int port);
  /// Stops accepting, finishes the requests the workers are running and closes everything.
  void stop();
  /// Connections open now (for tests and monitoring).
  std::size_t openConnections() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace saffra::server::http
