// A plain loopback TCP connection for tests that need what an HTTP client library hides:
// partial or trickled requests, pipelining, idle kept-alive connections, a chosen source address.
#pragma once

#include <string>
#include <string_view>

namespace saffra::testing {

/// A blocking connection to 127.0.0.1:`port`; reads give up after `readTimeoutSeconds`.
class RawConnection {
 public:
  explicit RawConnection(int port, const std::string& sourceAddress = "",
                         int readTimeoutSeconds = 10);
  ~RawConnection();
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool connected() const { return connected_; }
  /// Sends all of `bytes`; false when the connection failed.
  bool send(std::string_view bytes);
  /// Reads one HTTP/1.1 reply (head and Content-Length body; no body for a reply to HEAD or an
  /// interim 1xx). Returns "" when the connection ends or the read times out first.
  std::string reply(bool toHead = false);
  /// True when the peer closed the connection (a read ends instead of timing out).
  bool closedByPeer();

  /// The status code of a reply, 0 for none.
  static int statusOf(const std::string& reply);
  /// The body of a reply.
  static std::string bodyOf(const std::string& reply);

 private:
  int fd_ = -1;
  bool connected_ = false;
  std::string buffer_;
};

}  // namespace saffra::testing
