// GCC 12 reports maybe-uninitialized inside <regex>'s automaton (std::function moves) when
// building with sanitizers; the warnings are about library code, not this file's.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "server/http/http_server.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <regex>
#include <thread>
#include <unordered_map>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "server/http/request_reader.h"

namespace saffra::server::http {

namespace {

using Clock = std::chrono::steady_clock;

/// epoll tags of the two descriptors that are not connections; connections count from 2.
constexpr std::uint64_t kListenTag = 0;
constexpr std::uint64_t kWakeTag = 1;
/// Longest request target; a longer one is refused with 414 before any pattern sees it.
constexpr std::size_t kMaxTarget = 8192;
/// Bytes read from one connection before the loop turns to the others.
constexpr std::size_t kReadBudget = 1 << 20;
/// How long a closing connection's unread input is drained so the client sees the reply.
constexpr std::chrono::milliseconds kDrainTime{2000};

const char* reasonPhrase(int status) {
  switch (status) {
    case 100:
      return "Continue";
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 204:
      return "No Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 303:
      return "See Other";
    case 304:
      return "Not Modified";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 409:
      return "Conflict";
    case 413:
      return "Payload Too Large";
    case 414:
      return "URI Too Long";
    case 417:
      return "Expectation Failed";
    case 429:
      return "Too Many Requests";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return status < 400 ? "OK" : "Error";
  }
}

std::string addressOf(const sockaddr_storage& address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, text, sizeof text);
  } else if (address.ss_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, text,
              sizeof text);
  }
  return text;
}

bool sameName(const std::string& a, const char* b) {
  return strcasecmp(a.c_str(), b) == 0;
}

}  // namespace

struct HttpServer::Impl {
  struct Route {
    std::string method;
    std::regex pattern;
    Handler handler;
  };

  /// What a connection is doing; each stage but Working has its own deadline.
  enum class Stage { Idle, Head, Body, Working, Writing, Draining };

  struct Connection {
    Connection(int f, std::uint64_t t, RequestLimits limits) : fd(f), tag(t), reader(limits) {}
    int fd;
    std::uint64_t tag;
    RequestReader reader;
    Stage stage = Stage::Idle;
    Clock::time_point deadline;
    std::string out;
    std::size_t outOffset = 0;
    bool closeAfterWrite = false;
    bool peerClosed = false;
    std::uint32_t events = 0;
    std::string remoteAddress;
  };

  struct Job {
    std::uint64_t tag;
    Request request;
    bool keepAlive;
  };

  struct Completion {
    std::uint64_t tag;
    std::string reply;
    bool close;
  };

  explicit Impl(ServerOptions o) : options(o) {}

  ServerOptions options;
  std::vector<Route> routes;
  Handler errorHandler;
  std::function<void(const Request&, const Response&)> logger;

  int listenFd = -1;
  int epollFd = -1;
  int wakeFd = -1;
  std::thread loopThread;
  std::vector<std::thread> workers;
  std::atomic<bool> stopping{false};
  std::atomic<std::size_t> connectionCount{0};

  // Owned by the loop thread.
  std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> connections;
  std::uint64_t nextTag = 2;
  bool listening = true;
  Clock::time_point resumeListening;

  // Shared between the loop and the workers.
  std::mutex jobsMutex;
  std::condition_variable jobsReady;
  std::deque<Job> jobs;
  bool workersStop = false;
  std::mutex completionsMutex;
  std::vector<Completion> completions;

  // ---- Replies

  std::string serialize(Response& res, bool keepAlive, bool withBody) const {
    std::string head =
        "HTTP/1.1 " + std::to_string(res.status) + " " + reasonPhrase(res.status) + "\r\n";
    // The server frames the reply itself; handlers' framing headers are left out.
    for (const auto& [name, value] : res.headers) {
      if (sameName(name, "Content-Length") || sameName(name, "Connection") ||
          sameName(name, "Transfer-Encoding")) {
        continue;
      }
      head += name + ": " + value + "\r\n";
    }
    head += "Content-Length: " + std::to_string(res.body.size()) + "\r\n";
    head += keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
    if (withBody) {
      head.reserve(head.size() + res.body.size());
      head += res.body;
    }
    return head;
  }

  /// Runs the error handler and the logger on a reply the server makes itself.
  std::string refusal(const Request& req, int status, bool keepAlive) {
    Response res;
    res.status = status;
    finish(req, res);
    return serialize(res, keepAlive, req.method != "HEAD");
  }

  void finish(const Request& req, Response& res) {
    if (res.status < 0) res.status = 200;
    if (res.status >= 400 && errorHandler) {
      try {
        errorHandler(req, res);
      } catch (...) {
      }
    }
    if (logger) {
      try {
        logger(req, res);
      } catch (...) {
      }
    }
  }

  // ---- Workers

  void handle(Job& job) {
    Request& req = job.request;
    Response res;
    const bool head = req.method == "HEAD";
    const std::string& method = head ? std::string("GET") : req.method;
    const std::string rawPath = req.target.substr(0, req.target.find('?'));
    bool routed = false;
    for (const Route& route : routes) {
      if (route.method != method) continue;
      std::smatch groups;
      if (!std::regex_match(rawPath, groups, route.pattern)) continue;
      routed = true;
      req.matches.clear();
      bool decoded = true;
      for (const auto& group : groups) {
        std::optional<std::string> text = percentDecode(group.str(), false);
        if (!text) decoded = false;
        req.matches.push_back(text ? std::move(*text) : std::string());
      }
      if (!decoded) {
        res.status = 400;
        break;
      }
      try {
        route.handler(req, res);
      } catch (...) {
        res = Response();
        res.status = 500;
      }
      break;
    }
    if (!routed) res.status = 404;
    finish(req, res);
    Completion done{job.tag, serialize(res, job.keepAlive, !head), !job.keepAlive};
    {
      std::lock_guard lock(completionsMutex);
      completions.push_back(std::move(done));
    }
    wake();
  }

  void workerLoop() {
    while (true) {
      Job job;
      {
        std::unique_lock lock(jobsMutex);
        jobsReady.wait(lock, [&] { return workersStop || !jobs.empty(); });
        if (workersStop) return;
        job = std::move(jobs.front());
        jobs.pop_front();
      }
      handle(job);
    }
  }

  void wake() {
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(wakeFd, &one, sizeof one);
  }

  // ---- The event loop

  void watch(Connection& c, std::uint32_t events) {
    if (c.events == events) return;
    epoll_event event{};
    event.events = events;
    event.data.u64 = c.tag;
    epoll_ctl(epollFd, EPOLL_CTL_MOD, c.fd, &event);
    c.events = events;
  }

  void close(Connection& c) {
    epoll_ctl(epollFd, EPOLL_CTL_DEL, c.fd, nullptr);
    ::close(c.fd);
    connections.erase(c.tag);
    connectionCount = connections.size();
  }

  void setStage(Connection& c, Stage stage) {
    c.stage = stage;
    Clock::time_point now = Clock::now();
    switch (stage) {
      case Stage::Idle:
        c.deadline = now + options.idleTimeout;
        break;
      case Stage::Head:
        c.deadline = now + options.headTimeout;
        break;
      case Stage::Body:
        c.deadline = now + options.bodyTimeout;
        break;
      case Stage::Writing:
        c.deadline = now + options.writeTimeout;
        break;
      case Stage::Draining:
        c.deadline = now + kDrainTime;
        break;
      case Stage::Working:
        c.deadline = Clock::time_point::max();
        break;
    }
  }

  void acceptAll() {
    while (true) {
      sockaddr_storage address{};
      socklen_t length = sizeof address;
      int fd = accept4(listenFd, reinterpret_cast<sockaddr*>(&address), &length,
                       SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
          // Out of descriptors: stop accepting for a moment rather than spin on the backlog.
          epoll_ctl(epollFd, EPOLL_CTL_DEL, listenFd, nullptr);
          listening = false;
          resumeListening = Clock::now() + std::chrono::milliseconds(100);
        }
        return;
      }
      if (connections.size() >= options.maxConnections) {
        static constexpr char kBusy[] =
            "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        [[maybe_unused]] ssize_t n = ::send(fd, kBusy, sizeof kBusy - 1, MSG_NOSIGNAL);
        ::close(fd);
        continue;
      }
      int yes = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
      RequestLimits limits{options.maxHeadBytes, options.maxBodyBytes};
      auto connection = std::make_unique<Connection>(fd, nextTag++, limits);
      connection->remoteAddress = addressOf(address);
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u64 = connection->tag;
      if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
        ::close(fd);
        continue;
      }
      connection->events = EPOLLIN;
      setStage(*connection, Stage::Idle);
      connections.emplace(connection->tag, std::move(connection));
      connectionCount = connections.size();
    }
  }

  /// Queues bytes to send and sends what the socket takes now. False when the connection was
  /// closed.
  bool send(Connection& c, std::string bytes) {
    if (c.out.empty()) {
      c.out = std::move(bytes);
      c.outOffset = 0;
    } else {
      c.out += bytes;
    }
    return flush(c);
  }

  bool flush(Connection& c) {
    while (c.outOffset < c.out.size()) {
      ssize_t n =
          ::send(c.fd, c.out.data() + c.outOffset, c.out.size() - c.outOffset, MSG_NOSIGNAL);
      if (n > 0) {
        c.outOffset += static_cast<std::size_t>(n);
        if (c.stage == Stage::Writing) setStage(c, Stage::Writing);
        continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      if (n < 0 && errno == EINTR) continue;
      close(c);
      return false;
    }
    if (c.outOffset < c.out.size()) {
      watch(c, (c.stage == Stage::Writing ? 0u : c.events & EPOLLIN) | EPOLLOUT);
      return true;
    }
    std::string().swap(c.out);
    c.outOffset = 0;
    if (c.stage == Stage::Writing) return replySent(c);
    watch(c, c.events & ~static_cast<std::uint32_t>(EPOLLOUT));
    return true;
  }

  /// The whole reply went out: close, or wait for the next request on the connection.
  bool replySent(Connection& c) {
    if (c.closeAfterWrite || c.peerClosed) {
      if (c.peerClosed) {
        close(c);
        return false;
      }
      // Half-close and drain what the client still sends, so it reads the reply instead of
      // a reset.
      shutdown(c.fd, SHUT_WR);
      setStage(c, Stage::Draining);
      watch(c, EPOLLIN);
      return true;
    }
    setStage(c, c.reader.started() ? Stage::Head : Stage::Idle);
    watch(c, EPOLLIN);
    return process(c);
  }

  /// Refuses the connection's request with `status` and closes it once the reply is out.
  bool refuse(Connection& c, int status) {
    c.closeAfterWrite = true;
    Request req = c.reader.request();
    req.remoteAddress = c.remoteAddress;
    std::string reply = refusal(req, status, false);
    setStage(c, Stage::Writing);
    return send(c, std::move(reply));
  }

  /// Parses what arrived and dispatches a complete request. False when the connection closed.
  bool process(Connection& c) {
    while (c.stage == Stage::Idle || c.stage == Stage::Head || c.stage == Stage::Body) {
      if (c.stage == Stage::Idle && c.reader.started()) setStage(c, Stage::Head);
      RequestReader::Progress progress = c.reader.read();
      switch (progress) {
        case RequestReader::Progress::NeedMore:
          if (c.peerClosed) {
            close(c);
            return false;
          }
          return true;
        case RequestReader::Progress::Failed:
          return refuse(c, c.reader.failureStatus());
        case RequestReader::Progress::HeadReady:
          if (c.reader.request().target.size() > kMaxTarget) return refuse(c, 414);
          setStage(c, Stage::Body);
          if (c.reader.expectsContinue() && !send(c, "HTTP/1.1 100 Continue\r\n\r\n")) {
            return false;
          }
          continue;
        case RequestReader::Progress::Complete: {
          if (c.reader.request().target.size() > kMaxTarget) return refuse(c, 414);
          bool keepAlive = c.reader.keepAlive() && !c.peerClosed;
          Job job{c.tag, c.reader.takeRequest(), keepAlive};
          job.request.remoteAddress = c.remoteAddress;
          setStage(c, Stage::Working);
          watch(c, 0);
          {
            std::lock_guard lock(jobsMutex);
            jobs.push_back(std::move(job));
          }
          jobsReady.notify_one();
          return true;
        }
      }
    }
    return true;
  }

  void readFrom(Connection& c) {
    char buffer[64 << 10];
    std::size_t total = 0;
    while (total < kReadBudget) {
      ssize_t n = recv(c.fd, buffer, sizeof buffer, 0);
      if (n > 0) {
        total += static_cast<std::size_t>(n);
        if (c.stage != Stage::Draining) c.reader.append(std::string_view(buffer, n));
        continue;
      }
      if (n == 0) {
        c.peerClosed = true;
        break;
      }
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) break;
      close(c);
      return;
    }
    if (c.stage == Stage::Draining) {
      if (c.peerClosed) close(c);
      return;
    }
    process(c);
  }

  void onEvent(std::uint64_t tag, std::uint32_t events) {
    auto found = connections.find(tag);
    if (found == connections.end()) return;
    Connection& c = *found->second;
    if (events & EPOLLERR) {
      close(c);
      return;
    }
    if (events & EPOLLOUT) {
      if (!flush(c)) return;
    }
    if (events & (EPOLLIN | EPOLLHUP)) {
      if (c.stage == Stage::Working || c.stage == Stage::Writing) {
        // Not reading now; a hang-up with both sides closed ends the connection.
        if (events & EPOLLHUP) close(c);
        return;
      }
      readFrom(c);
    }
  }

  void takeCompletions() {
    std::uint64_t count;
    [[maybe_unused]] ssize_t n = read(wakeFd, &count, sizeof count);
    std::vector<Completion> done;
    {
      std::lock_guard lock(completionsMutex);
      done.swap(completions);
    }
    for (Completion& completion : done) {
      auto found = connections.find(completion.tag);
      if (found == connections.end()) continue;
      Connection& c = *found->second;
      c.closeAfterWrite = completion.close;
      setStage(c, Stage::Writing);
      send(c, std::move(completion.reply));
    }
  }

  void expireDeadlines() {
    Clock::time_point now = Clock::now();
    if (!listening && now >= resumeListening) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u64 = kListenTag;
      epoll_ctl(epollFd, EPOLL_CTL_ADD, listenFd, &event);
      listening = true;
    }
    std::vector<std::uint64_t> expired;
    for (const auto& [tag, c] : connections) {
      if (now >= c->deadline) expired.push_back(tag);
    }
    for (std::uint64_t tag : expired) {
      Connection& c = *connections.at(tag);
      if (c.stage == Stage::Head || c.stage == Stage::Body) {
        refuse(c, 408);
      } else {
        close(c);
      }
    }
  }

  void loop() {
    epoll_event events[256];
    Clock::time_point nextSweep = Clock::now();
    while (!stopping) {
      int n = epoll_wait(epollFd, events, 256, 250);
      for (int i = 0; i < n; ++i) {
        std::uint64_t tag = events[i].data.u64;
        if (tag == kListenTag) {
          acceptAll();
        } else if (tag == kWakeTag) {
          takeCompletions();
        } else {
          onEvent(tag, events[i].events);
        }
      }
      if (Clock::now() >= nextSweep) {
        expireDeadlines();
        nextSweep = Clock::now() + std::chrono::milliseconds(250);
      }
    }
  }

  int bind(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.empty() ? nullptr : host.c_str(), std::to_string(port).c_str(), &hints,
                    &found) != 0) {
      return 0;
    }
    int bound = 0;
    for (addrinfo* at = found; at && !bound; at = at->ai_next) {
      int fd =
          socket(at->ai_family, at->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, at->ai_protocol);
      if (fd < 0) continue;
      // SO_REUSEADDR but not SO_REUSEPORT, which would let a second server share the port.
      int yes = 1;
      setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
      if (::bind(fd, at->ai_addr, at->ai_addrlen) != 0 || listen(fd, options.listenBacklog) != 0) {
        ::close(fd);
        continue;
      }
      sockaddr_storage address{};
      socklen_t length = sizeof address;
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
      bound =
          ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(address).sin6_port
                                              : reinterpret_cast<sockaddr_in&>(address).sin_port);
      listenFd = fd;
    }
    freeaddrinfo(found);
    return bound;
  }
};

HttpServer::HttpServer(ServerOptions options) : impl_(std::make_unique<Impl>(options)) {}

HttpServer::~HttpServer() {
  stop();
}

void HttpServer::route(const std::string& method, const std::string& pattern, Handler handler) {
  impl_->routes.push_back({method, std::regex(pattern), std::move(handler)});
}

void HttpServer::set_error_handler(Handler handler) {
  impl_->errorHandler = std::move(handler);
}

void HttpServer::set_logger(std::function<void(const Request&, const Response&)> logger) {
  impl_->logger = std::move(logger);
}

int HttpServer::start(const std::string& host, int port) {
  Impl& i = *impl_;
  if (i.loopThread.joinable()) return 0;
  int bound = i.bind(host, port);
  if (bound == 0) return 0;
  i.epollFd = epoll_create1(EPOLL_CLOEXEC);
  i.wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kListenTag;
  epoll_ctl(i.epollFd, EPOLL_CTL_ADD, i.listenFd, &event);
  event.data.u64 = kWakeTag;
  epoll_ctl(i.epollFd, EPOLL_CTL_ADD, i.wakeFd, &event);
  for (std::size_t n = 0; n < std::max<std::size_t>(1, i.options.workerThreads); ++n) {
    i.workers.emplace_back([&i] { i.workerLoop(); });
  }
  i.loopThread = std::thread([&i] { i.loop(); });
  return bound;
}

void HttpServer::stop() {
  Impl& i = *impl_;
  if (!i.loopThread.joinable()) return;
  i.stopping = true;
  i.wake();
  i.loopThread.join();
  {
    std::lock_guard lock(i.jobsMutex);
    i.workersStop = true;
    i.jobs.clear();
  }
  i.jobsReady.notify_all();
  for (std::thread& worker : i.workers) worker.join();
  i.workers.clear();
  for (auto& [tag, connection] : i.connections) ::close(connection->fd);
  i.connections.clear();
  i.connectionCount = 0;
  ::close(i.listenFd);
  ::close(i.wakeFd);
  ::close(i.epollFd);
  i.listenFd = i.wakeFd = i.epollFd = -1;
}

std::size_t HttpServer::openConnections() const {
  return impl_->connectionCount;
}

}  // namespace saffra::server::http
