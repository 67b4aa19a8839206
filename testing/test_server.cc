#include "testing/test_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace saffra::testing {
namespace {

using namespace std::chrono_literals;

constexpr auto kPollSlice = 50ms;
constexpr auto kReadTimeout = 10s;
constexpr auto kIdleTimeout = 5s;
constexpr int kWorkerThreads = 32;

// A connection as httplib sees it, over a plain socket or TLS. It keeps the bytes of the current
// request head as they were received, and can be told to drop the connection or to stop writing
// part-way through a reply body.
class ConnectionStream : public httplib::Stream {
 public:
  /// Decides from a request head whether to reset the connection part-way through its body.
  using ResetCheck = std::function<bool(const std::string& head)>;

  ConnectionStream(int fd, SSL* ssl, const std::atomic<bool>& stopping, ResetCheck resetCheck)
      : fd_(fd), ssl_(ssl), stopping_(stopping), resetCheck_(std::move(resetCheck)) {}

  bool is_readable() const override { return hasBuffered() || waitFor(POLLIN, kReadTimeout); }
  bool is_writable() const override { return !dropped_ && waitFor(POLLOUT, kReadTimeout); }

  ssize_t read(char* ptr, size_t size) override {
    if (dropped_) return -1;
    if (pos_ == buffer_.size()) {
      if (!fill()) return pos_ == buffer_.size() && eof_ ? 0 : -1;
    }
    size_t n = std::min(size, buffer_.size() - pos_);
    std::copy_n(buffer_.data() + pos_, n, ptr);
    if (!headComplete_) {
      head_.append(ptr, n);
      headComplete_ = head_.size() >= 4 && head_.compare(head_.size() - 4, 4, "\r\n\r\n") == 0;
      resetArmed_ = headComplete_ && resetCheck_ && resetCheck_(head_);
      bodySeen_ = 0;
    } else if (resetArmed_ && (bodySeen_ += n) >= kResetAfterBodyBytes) {
      // Unread input and a zero linger make the close a reset.
      linger abort{1, 0};
      setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
      dropped_ = true;
      return -1;
    }
    pos_ += n;
    return static_cast<ssize_t>(n);
  }

  ssize_t write(const char* ptr, size_t size) override {
    if (dropped_) return -1;
    size_t allowed = size;
    if (cutAfter_) {
      // Count the reply's body bytes once the header block has gone out.
      std::string_view chunk(ptr, size);
      size_t bodyStart = 0;
      if (!replyHeadSent_) {
        replySoFar_.append(chunk);
        auto end = replySoFar_.find("\r\n\r\n");
        if (end == std::string::npos) return sendAll(ptr, size) ? static_cast<ssize_t>(size) : -1;
        replyHeadSent_ = true;
        bodyStart = size - (replySoFar_.size() - (end + 4));
      }
      size_t bodyBytes = size - bodyStart;
      size_t room = *cutAfter_ - std::min(*cutAfter_, bodySent_);
      allowed = bodyStart + std::min(bodyBytes, room);
      bodySent_ += std::min(bodyBytes, room);
    }
    if (!sendAll(ptr, allowed)) return -1;
    if (allowed < size) {
      drop();
      return -1;
    }
    return static_cast<ssize_t>(size);
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    addressOf(getpeername, ip, port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    addressOf(getsockname, ip, port);
  }
  socket_t socket() const override { return fd_; }

  // Waits for the next request on a kept-alive connection.
  bool waitForNextRequest() {
    if (hasBuffered()) return true;
    return waitFor(POLLIN, kIdleTimeout);
  }

  // The head of the request being served; the next request starts a new one.
  std::string takeHead() {
    std::string head = std::move(head_);
    head_.clear();
    headComplete_ = false;
    return head;
  }

  void drop() {
    dropped_ = true;
    ::shutdown(fd_, SHUT_RDWR);
  }
  bool dropped() const { return dropped_; }
  void cutReplyBodyAfter(size_t bytes) { cutAfter_ = bytes; }

 private:
  bool hasBuffered() const { return pos_ < buffer_.size() || (ssl_ && SSL_pending(ssl_) > 0); }

  // Polls in short slices so that a stopping server is noticed quickly.
  bool waitFor(short events, std::chrono::milliseconds limit) const {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!stopping_ && std::chrono::steady_clock::now() < deadline) {
      pollfd p{fd_, events, 0};
      int rc = ::poll(&p, 1, static_cast<int>(kPollSlice.count()));
      if (rc > 0) return true;
      if (rc < 0 && errno != EINTR) return false;
    }
    return false;
  }

  bool fill() {
    if (eof_ || !is_readable()) return false;
    buffer_.resize(64 * 1024);
    pos_ = 0;
    ssize_t n = ssl_ ? SSL_read(ssl_, buffer_.data(), static_cast<int>(buffer_.size()))
                     : ::recv(fd_, buffer_.data(), buffer_.size(), 0);
    if (n <= 0) {
      buffer_.clear();
      eof_ = true;
      return false;
    }
    buffer_.resize(static_cast<size_t>(n));
    return true;
  }

  bool sendAll(const char* ptr, size_t size) {
    while (size > 0) {
      ssize_t n = ssl_ ? SSL_write(ssl_, ptr, static_cast<int>(std::min<size_t>(size, 1 << 20)))
                       : ::send(fd_, ptr, size, MSG_NOSIGNAL);
      if (n <= 0) {
        if (!ssl_ && n < 0 && errno == EINTR) continue;
        return false;
      }
      ptr += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }

  template <class Getter>
  void addressOf(Getter getter, std::string& ip, int& port) const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getter(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) return;
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    ip = text;
    port = ntohs(address.sin_port);
  }

  static constexpr size_t kResetAfterBodyBytes = 64 * 1024;

  int fd_;
  SSL* ssl_;
  const std::atomic<bool>& stopping_;
  ResetCheck resetCheck_;
  bool resetArmed_ = false;
  size_t bodySeen_ = 0;
  std::string buffer_;
  size_t pos_ = 0;
  bool eof_ = false;
  std::string head_;
  bool headComplete_ = false;
  bool dropped_ = false;
  std::optional<size_t> cutAfter_;
  std::string replySoFar_;
  bool replyHeadSent_ = false;
  size_t bodySent_ = 0;
};

thread_local ConnectionStream* tCurrentStream = nullptr;

void parseHead(const std::string& head, RecordedRequest& request) {
  size_t lineEnd = head.find("\r\n");
  std::string requestLine = head.substr(0, lineEnd);
  size_t firstSpace = requestLine.find(' ');
  size_t lastSpace = requestLine.rfind(' ');
  if (firstSpace != std::string::npos && lastSpace > firstSpace) {
    request.method = requestLine.substr(0, firstSpace);
    request.target = requestLine.substr(firstSpace + 1, lastSpace - firstSpace - 1);
  }
  size_t question = request.target.find('?');
  request.path = request.target.substr(0, question);
  if (question != std::string::npos) request.query = request.target.substr(question + 1);

  size_t start = lineEnd == std::string::npos ? head.size() : lineEnd + 2;
  while (start < head.size()) {
    size_t end = head.find("\r\n", start);
    if (end == std::string::npos || end == start) break;
    std::string line = head.substr(start, end - start);
    size_t colon = line.find(':');
    if (colon != std::string::npos) {
      size_t valueStart = line.find_first_not_of(" \t", colon + 1);
      size_t valueEnd = line.find_last_not_of(" \t");
      std::string value =
          valueStart == std::string::npos ? "" : line.substr(valueStart, valueEnd - valueStart + 1);
      request.headers.emplace_back(line.substr(0, colon), std::move(value));
    }
    start = end + 2;
  }
}

// A self-signed certificate for localhost and 127.0.0.1, made fresh for each server.
SSL_CTX* makeSelfSignedContext() {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* cert = X509_new();
  SSL_CTX* ctx = nullptr;
  if (key && cert) {
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 7 * 24 * 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509V3_CTX v3;
    X509V3_set_ctx_nodb(&v3);
    X509V3_set_ctx(&v3, cert, cert, nullptr, nullptr, 0);
    if (X509_EXTENSION* san =
            X509V3_EXT_conf_nid(nullptr, &v3, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1")) {
      X509_add_ext(cert, san, -1);
      X509_EXTENSION_free(san);
    }
    if (X509_sign(cert, key, EVP_sha256()) > 0) {
      ctx = SSL_CTX_new(TLS_server_method());
      if (ctx &&
          (SSL_CTX_use_certificate(ctx, cert) != 1 || SSL_CTX_use_PrivateKey(ctx, key) != 1)) {
        SSL_CTX_free(ctx);
        ctx = nullptr;
      }
    }
  }
  X509_free(cert);
  EVP_PKEY_free(key);
  if (!ctx) throw std::runtime_error("test server: could not make a self-signed certificate");
  return ctx;
}

}  // namespace

std::optional<std::string> RecordedRequest::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0) return value;
  }
  return std::nullopt;
}

std::size_t RecordedRequest::headerCount(const std::string& name) const {
  std::size_t count = 0;
  for (const auto& header : headers) count += strcasecmp(header.first.c_str(), name.c_str()) == 0;
  return count;
}

Reply Reply::json(int status, std::string body) {
  Reply reply;
  reply.status = status;
  reply.body = std::move(body);
  return reply;
}

Reply Reply::text(int status, std::string body, std::string contentType) {
  Reply reply = json(status, std::move(body));
  reply.contentType = std::move(contentType);
  return reply;
}

Reply Reply::drop() {
  Reply reply;
  reply.fault = Fault::Drop;
  return reply;
}

Reply Reply::cutBody(int status, std::string body) {
  Reply reply = json(status, std::move(body));
  reply.fault = Fault::CutBody;
  return reply;
}

Reply Reply::hang() {
  Reply reply;
  reply.fault = Fault::Hang;
  return reply;
}

Reply Reply::trickle(int status, std::string body, std::size_t pieceBytes,
                     std::chrono::milliseconds pieceInterval) {
  Reply reply = json(status, std::move(body));
  reply.fault = Fault::Trickle;
  reply.pieceBytes = std::max<std::size_t>(1, pieceBytes);
  reply.pieceInterval = pieceInterval;
  return reply;
}

Reply Reply::endless() {
  Reply reply;
  reply.fault = Fault::Endless;
  return reply;
}

Reply Reply::resetUpload() {
  Reply reply;
  reply.fault = Fault::ResetUpload;
  return reply;
}

Reply Reply::after(std::chrono::milliseconds wait) const {
  Reply reply = *this;
  reply.delay = wait;
  return reply;
}

struct TestServer::Impl {
  // httplib's server with connections handled by ConnectionStream, so that the raw request head
  // is seen and faults can be injected; TLS is done here with OpenSSL.
  class Server : public httplib::Server {
   public:
    Server(Impl& owner, SSL_CTX* ctx) : owner_(owner), ctx_(ctx) {}

   private:
    bool process_and_close_socket(socket_t sock) override {
      int on = 1;
      setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      timeval limit{static_cast<time_t>(kReadTimeout.count()), 0};
      setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
      setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
      SSL* ssl = nullptr;
      bool ready = true;
      if (ctx_) {
        ssl = SSL_new(ctx_);
        ready = ssl && SSL_set_fd(ssl, sock) == 1 && SSL_accept(ssl) == 1;
      }
      if (ready) {
        ConnectionStream stream(sock, ssl, owner_.stopping, [this](const std::string& head) {
          return owner_.resetsUpload(head);
        });
        while (!owner_.stopping && stream.waitForNextRequest()) {
          bool closed = false;
          tCurrentStream = &stream;
          bool ok = process_request(stream, false, closed, nullptr);
          tCurrentStream = nullptr;
          if (!ok || closed || stream.dropped()) break;
        }
      }
      if (ssl) SSL_free(ssl);
      ::shutdown(sock, SHUT_RDWR);
      ::close(sock);
      return true;
    }

    Impl& owner_;
    SSL_CTX* ctx_;
  };

  struct Route {
    std::vector<Reply> replies;
    std::size_t next = 0;
    Responder responder;
  };

  Scheme scheme;
  SSL_CTX* ctx = nullptr;
  std::unique_ptr<Server> server;
  std::thread thread;
  int port = 0;
  std::atomic<bool> stopping{false};

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::map<std::pair<std::string, std::string>, Route> routes;
  std::vector<RecordedRequest> requests;
  std::uint64_t releaseGeneration = 0;

  ~Impl() {
    if (ctx) SSL_CTX_free(ctx);
  }

  void handle(const httplib::Request& raw, httplib::Response& response) {
    ConnectionStream* stream = tCurrentStream;
    RecordedRequest request;
    if (stream) parseHead(stream->takeHead(), request);
    request.body = raw.body;

    Reply reply;
    std::uint64_t generation;
    {
      std::lock_guard<std::mutex> lock(mutex);
      generation = releaseGeneration;
      reply = pick(request);
      requests.push_back(std::move(request));
    }
    changed.notify_all();

    if (reply.delay.count() > 0) {
      std::unique_lock<std::mutex> lock(mutex);
      changed.wait_for(lock, reply.delay,
                       [&] { return stopping || releaseGeneration != generation; });
    }
    if (reply.fault == Reply::Fault::Hang) {
      std::unique_lock<std::mutex> lock(mutex);
      changed.wait(lock, [&] { return stopping || releaseGeneration != generation; });
    }
    if (reply.fault == Reply::Fault::Drop || reply.fault == Reply::Fault::Hang) {
      if (stream) stream->drop();
      return;
    }
    if (reply.fault == Reply::Fault::CutBody && stream) {
      stream->cutReplyBodyAfter(reply.body.size() / 2);
    }
    response.status = reply.status;
    for (const auto& [name, value] : reply.headers) response.set_header(name, value);
    if (reply.fault == Reply::Fault::Trickle) {
      auto body = std::make_shared<std::string>(std::move(reply.body));
      response.set_content_provider(
          body->size(), reply.contentType,
          [this, body, reply, generation](size_t offset, size_t length, httplib::DataSink& sink) {
            if (offset > 0) {
              std::unique_lock<std::mutex> lock(mutex);
              if (changed.wait_for(lock, reply.pieceInterval,
                                   [&] { return stopping || releaseGeneration != generation; })) {
                return false;
              }
            }
            return sink.write(body->data() + offset, std::min(length, reply.pieceBytes));
          });
      return;
    }
    if (reply.fault == Reply::Fault::Endless) {
      auto sent = std::make_shared<std::size_t>(0);
      response.set_chunked_content_provider(reply.contentType,
                                            [this, sent](size_t, httplib::DataSink& sink) {
                                              static const std::string piece(64 * 1024, 'x');
                                              if (stopping || *sent >= (std::size_t{4} << 30))
                                                return false;
                                              *sent += piece.size();
                                              return sink.write(piece.data(), piece.size());
                                            });
      return;
    }
    response.set_content(reply.body, reply.contentType);
  }

  // True when the route of a request head answers by resetting the upload.
  bool resetsUpload(const std::string& head) {
    RecordedRequest request;
    parseHead(head, request);
    std::lock_guard<std::mutex> lock(mutex);
    auto found = routes.find({request.method, request.path});
    if (found == routes.end() || found->second.replies.empty()) return false;
    Route& route = found->second;
    if (route.replies[std::min(route.next, route.replies.size() - 1)].fault !=
        Reply::Fault::ResetUpload) {
      return false;
    }
    ++route.next;  // the request is never handled, so its reply is used up here
    return true;
  }

  // The reply scripted for a request; called under the mutex.
  Reply pick(const RecordedRequest& request) {
    auto found = routes.find({request.method, request.path});
    if (found == routes.end()) {
      for (auto it = routes.begin(); it != routes.end(); ++it) {
        const auto& [method, path] = it->first;
        if (method == request.method && !path.empty() && path.back() == '*' &&
            request.path.compare(0, path.size() - 1, path, 0, path.size() - 1) == 0) {
          found = it;
          break;
        }
      }
    }
    if (found == routes.end()) {
      return Reply::text(404, "no route for " + request.method + " " + request.path, "text/plain");
    }
    Route& route = found->second;
    if (route.responder) return route.responder(request);
    if (route.replies.empty()) return Reply{};
    Reply reply = route.replies[std::min(route.next, route.replies.size() - 1)];
    ++route.next;
    return reply;
  }
};

TestServer::TestServer(Scheme scheme) : impl_(std::make_shared<Impl>()) {
  impl_->scheme = scheme;
  if (scheme == Scheme::Https) impl_->ctx = makeSelfSignedContext();
  impl_->server = std::make_unique<Impl::Server>(*impl_, impl_->ctx);
  auto* server = impl_->server.get();
  server->new_task_queue = [] { return new httplib::ThreadPool(kWorkerThreads); };
  server->set_keep_alive_timeout(5);
  auto handler = [impl = impl_.get()](const httplib::Request& request,
                                      httplib::Response& response) {
    impl->handle(request, response);
  };
  server->Get(".*", handler);
  server->Post(".*", handler);
  server->Put(".*", handler);
  server->Patch(".*", handler);
  server->Delete(".*", handler);
  server->Options(".*", handler);
  impl_->port = server->bind_to_any_port("127.0.0.1");
  if (impl_->port <= 0) throw std::runtime_error("test server: could not bind a loopback port");
  auto ended = std::make_shared<std::atomic<bool>>(false);
  impl_->thread = std::thread([server, ended] {
    server->listen_after_bind();
    *ended = true;
  });
  // Connections would wait in the backlog anyway, but stop() only works once the loop runs.
  while (!server->is_running() && !*ended) std::this_thread::sleep_for(1ms);
}

TestServer::~TestServer() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->stopping = true;
  }
  impl_->changed.notify_all();
  impl_->server->stop();
  impl_->thread.join();
}

namespace {

// One server per scheme for the whole test binary, reset before every GoogleTest test.
template <TestServer::Scheme scheme>
TestServer& sharedServer() {
  static TestServer server(scheme);
  static bool registered = [] {
    class ResetBeforeEachTest : public ::testing::EmptyTestEventListener {
      void OnTestStart(const ::testing::TestInfo&) override { server.reset(); }
    };
    ::testing::UnitTest::GetInstance()->listeners().Append(new ResetBeforeEachTest);
    return true;
  }();
  (void)registered;
  return server;
}

}  // namespace

TestServer& TestServer::shared() {
  return sharedServer<Scheme::Http>();
}

TestServer& TestServer::sharedTLS() {
  return sharedServer<Scheme::Https>();
}

int TestServer::port() const {
  return impl_->port;
}

std::string TestServer::baseURL() const {
  return std::string(impl_->scheme == Scheme::Https ? "https" : "http") +
         "://127.0.0.1:" + std::to_string(impl_->port);
}

std::string TestServer::url(const std::string& pathAndQuery) const {
  return baseURL() + pathAndQuery;
}

void TestServer::route(const std::string& method, const std::string& path, Reply reply) {
  route(method, path, std::vector<Reply>{std::move(reply)});
}

void TestServer::route(const std::string& method, const std::string& path,
                       std::vector<Reply> replies) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->routes[{method, path}] = Impl::Route{std::move(replies), 0, nullptr};
}

void TestServer::route(const std::string& method, const std::string& path, Responder responder) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->routes[{method, path}] = Impl::Route{{}, 0, std::move(responder)};
}

std::vector<RecordedRequest> TestServer::requests() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->requests;
}

bool TestServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(impl_->mutex);
  return impl_->changed.wait_for(lock, timeout, [&] { return impl_->requests.size() >= count; });
}

void TestServer::clearRequests() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->requests.clear();
}

void TestServer::releaseHangs() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    ++impl_->releaseGeneration;
  }
  impl_->changed.notify_all();
}

void TestServer::reset() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->routes.clear();
    impl_->requests.clear();
    ++impl_->releaseGeneration;
  }
  impl_->changed.notify_all();
}

}  // namespace saffra::testing
