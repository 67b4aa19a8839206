// A scripted loopback HTTP(S) server for tests. Each test scripts the reply of a route (method and
// path) and reads back every request exactly as it arrived: request line, raw query, headers in
// order with duplicates, body. Faults are scripted the same way: delays, dropped connections,
// bodies cut off mid-way, and requests that hang until released.
//
//   auto& server = saffra::testing::TestServer::shared();   // reset before every test
//   server.route("POST", "/api/sessions/running", Reply::json(201, R"({"id":"s1"})"));
//   ... send requests to server.url("/api/sessions/running?apiKey=k") ...
//   EXPECT_EQ(server.requests().at(0).query, "apiKey=k");
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace saffra::testing {

/// One request as the server received it.
struct RecordedRequest {
  std::string method;
  /// The request target exactly as on the request line ("/a//b?x=1").
  std::string target;
  /// The target up to the first '?', not decoded.
  std::string path;
  /// The raw text after the first '?', or absent when the target has no '?'.
  std::optional<std::string> query;
  /// The header lines in arrival order, names as sent, duplicates kept.
  std::vector<std::pair<std::string, std::string>> headers;
  /// The body after transfer decoding.
  std::string body;
  /// The request line and header lines as received, up to and including the blank line.
  std::string head;

  /// The first value of a header (name compared case-insensitively), or absent.
  std::optional<std::string> header(const std::string& name) const;
  /// How many times a header was sent.
  std::size_t headerCount(const std::string& name) const;
};

/// A scripted reply.
struct Reply {
  enum class Fault {
    None,
    /// Close the connection without answering.
    Drop,
    /// Announce the whole body in Content-Length, send half of it, then close.
    CutBody,
    /// Answer nothing until releaseHangs(), reset() or shutdown; then close.
    Hang,
    /// Send the body in pieces of `pieceBytes`, waiting `pieceInterval` before each but the first.
    Trickle,
    /// Send a chunked body without end, until the client leaves (at most 4 GB).
    Endless,
    /// Read the request head and 64 KB of its body, then reset the connection.
    ResetUpload,
  };

  int status = 200;
  std::string body;
  std::string contentType = "application/json";
  /// Extra reply headers.
  std::vector<std::pair<std::string, std::string>> headers;
  /// Wait this long before answering (cut short by reset()).
  std::chrono::milliseconds delay{0};
  Fault fault = Fault::None;
  std::size_t pieceBytes = 0;
  std::chrono::milliseconds pieceInterval{0};

  static Reply json(int status, std::string body);
  static Reply text(int status, std::string body, std::string contentType = "text/html");
  static Reply drop();
  static Reply cutBody(int status, std::string body);
  static Reply hang();
  static Reply trickle(int status, std::string body, std::size_t pieceBytes,
                       std::chrono::milliseconds pieceInterval);
  static Reply endless();
  static Reply resetUpload();
  /// This reply, sent after a delay.
  Reply after(std::chrono::milliseconds wait) const;
};

/// The server. Requests to a route that was not scripted get 404 with a short text body.
class TestServer {
 public:
  enum class Scheme { Http, Https };
  /// Computes the reply from the request.
  using Responder = std::function<Reply(const RecordedRequest&)>;

  /// Starts a server on a free loopback port. HTTPS uses a self-signed certificate for
  /// "localhost" and 127.0.0.1 generated on the spot.
  explicit TestServer(Scheme scheme = Scheme::Http);
  /// Releases hanging requests and stops the server.
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  /// The plain HTTP server of this test binary, started on first use and reset automatically
  /// before every GoogleTest test.
  static TestServer& shared();
  /// The HTTPS server of this test binary, like shared().
  static TestServer& sharedTLS();

  int port() const;
  /// "http://127.0.0.1:<port>" or "https://127.0.0.1:<port>".
  std::string baseURL() const;
  /// baseURL() followed by `pathAndQuery`, unchanged.
  std::string url(const std::string& pathAndQuery) const;

  /// Scripts the reply of a route. The path is compared with the raw request path (no query);
  /// a path ending in '*' matches every path with that prefix. A later call replaces the route.
  void route(const std::string& method, const std::string& path, Reply reply);
  /// Scripts successive replies; the last one repeats.
  void route(const std::string& method, const std::string& path, std::vector<Reply> replies);
  /// Scripts a reply computed from each request.
  void route(const std::string& method, const std::string& path, Responder responder);

  /// Every request received since the last reset, in arrival order.
  std::vector<RecordedRequest> requests() const;
  /// Waits until at least `count` requests arrived; false when the wait ran out.
  bool waitForRequests(std::size_t count,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  /// Forgets the recorded requests, keeping the routes (long runs that post large bodies).
  void clearRequests();
  /// Lets every hanging request end (its connection is closed).
  void releaseHangs();
  /// Forgets routes and recorded requests and releases hanging requests.
  void reset();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace saffra::testing
