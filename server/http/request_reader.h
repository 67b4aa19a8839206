// Reads HTTP/1.1 requests from the bytes of a connection as they arrive: the request line and
// headers, then a body of a declared length or in chunks, within limits on the head's size
// and the body's total size.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "server/http/request.h"

namespace saffra::server::http {

/// Limits on what a request may hold.
struct RequestLimits {
  std::size_t maxHeadBytes = 64 << 10;
  std::size_t maxBodyBytes = std::size_t{100} << 20;
};

/// Parses one request after another from a connection's bytes; bytes past a request's end are
/// kept for the next one (pipelining).
class RequestReader {
 public:
  enum class Progress {
    /// More bytes are needed.
    NeedMore,
    /// The head is parsed and a body follows (see expectsContinue()); call read() again.
    HeadReady,
    /// The request is complete: take it with takeRequest().
    Complete,
    /// The bytes are not an acceptable request: reply failureStatus() and close.
    Failed,
  };

  explicit RequestReader(RequestLimits limits) : limits_(limits) {}

  /// Adds bytes that arrived.
  void append(std::string_view bytes) { buffer_.append(bytes); }
  /// Parses what has arrived so far.
  Progress read();
  /// The request read so far; its head is complete once read() returned HeadReady or Complete.
  const Request& request() const { return request_; }
  /// Hands over the complete request and starts the next one.
  Request takeRequest();
  /// True when the client waits for "100 Continue" before sending the body.
  bool expectsContinue() const { return expectsContinue_; }
  /// True when the connection may carry another request after this one's reply.
  bool keepAlive() const { return keepAlive_; }
  /// True once any byte of the current request has arrived.
  bool started() const { return state_ != State::Head || buffer_.size() > offset_; }
  /// The status to refuse a failed request with, and why.
  int failureStatus() const { return failureStatus_; }
  const std::string& failureReason() const { return failureReason_; }

 private:
  enum class State { Head, FixedBody, ChunkSize, ChunkData, ChunkDataEnd, Trailers, Done, Failed };

  Progress fail(int status, std::string reason);
  Progress parseHead(std::string_view head);
  Progress readBody();
  /// Consumes one CRLF-terminated line from the buffer; false when none is complete yet.
  bool takeLine(std::string_view& line, std::size_t maxLength, bool& tooLong);
  void compact();

  RequestLimits limits_;
  std::string buffer_;
  std::size_t offset_ = 0;
  State state_ = State::Head;
  Request request_;
  std::size_t remaining_ = 0;
  std::size_t trailerBytes_ = 0;
  bool expectsContinue_ = false;
  bool keepAlive_ = true;
  int failureStatus_ = 0;
  std::string failureReason_;
};

}  // namespace saffra::server::http
