#include "saffra/platform/http_transport.h"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>

namespace saffra {
namespace {

constexpr const char* kErrorDomain = "saffra.http";
constexpr double kDefaultTimeoutSeconds = 300.0;
constexpr std::size_t kDefaultMaxReplyBytes = std::size_t{64} << 20;

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

Error curlError(CURLcode code, const char* detail) {
  std::string message = detail && *detail ? detail : curl_easy_strerror(code);
  return Error{kErrorDomain, static_cast<long>(code), std::move(message)};
}

bool hasControlCharacter(const std::string& text, bool allowSpace) {
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f) return true;
    if (!allowSpace && c == ' ') return true;
  }
  return false;
}

bool hasHeader(const HttpRequest& request, const char* name) {
  for (const auto& header : request.headers) {
    if (strcasecmp(header.first.c_str(), name) == 0) return true;
  }
  return false;
}

// Checks the URL the way the request will use it: an absolute http or https URL without spaces.
std::optional<Error> validateURL(const std::string& url) {
  CURLU* parsed = curl_url();
  if (!parsed) return curlError(CURLE_OUT_OF_MEMORY, nullptr);
  std::optional<Error> error;
  CURLUcode rc = curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0);
  if (rc != CURLUE_OK) {
    error = Error{kErrorDomain, CURLE_URL_MALFORMAT,
                  "Invalid URL \"" + url + "\": " + curl_url_strerror(rc)};
  } else {
    char* scheme = nullptr;
    if (curl_url_get(parsed, CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK ||
        (strcasecmp(scheme, "http") != 0 && strcasecmp(scheme, "https") != 0)) {
      error = Error{kErrorDomain, CURLE_UNSUPPORTED_PROTOCOL,
                    "Unsupported URL \"" + url + "\": only http and https are supported"};
    }
    curl_free(scheme);
  }
  curl_url_cleanup(parsed);
  return error;
}

long timeoutMilliseconds(double seconds) {
  if (!std::isfinite(seconds) || seconds <= 0) seconds = kDefaultTimeoutSeconds;
  double ms = std::ceil(seconds * 1000.0);
  if (ms > static_cast<double>(INT_MAX)) return INT_MAX;
  return static_cast<long>(ms);
}

void reportStrayException(const char* where) {
  try {
    throw;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "saffra: exception escaped an HTTP %s: %s\n", where, e.what());
  } catch (...) {
    std::fprintf(stderr, "saffra: exception escaped an HTTP %s\n", where);
  }
}

// One request on its way: the request, its handler, the reply being received and curl's handle.
struct Job {
  HttpRequest request;
  HttpTransport::CompletionHandler handler;
  HttpResponse response;
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  bool reserved = false;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  std::size_t maxReplyBytes = kDefaultMaxReplyBytes;
  /// Set when the reply outgrew maxReplyBytes or no byte moved for the time-out.
  bool tooLarge = false;
  bool stalled = false;
  long inactivityMs = 0;
  curl_off_t lastMoved = -1;
  std::chrono::steady_clock::time_point lastMovedAt = std::chrono::steady_clock::now();

  ~Job() {
    if (easy) curl_easy_cleanup(easy);
    curl_slist_free_all(headerList);
  }

  static size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* job = static_cast<Job*>(user);
    size_t length = size * count;
    try {
      if (length > job->maxReplyBytes - job->response.body.size()) {
        job->tooLarge = true;
        return 0;  // curl ends the transfer with a write error
      }
      if (!job->reserved) {
        job->reserved = true;
        curl_off_t expected = -1;
        curl_easy_getinfo(job->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
        if (expected > 0 && static_cast<std::uint64_t>(expected) <= job->maxReplyBytes) {
          job->response.body.reserve(static_cast<size_t>(expected));
        }
      }
      job->response.body.append(data, length);
    } catch (...) {
      return 0;  // out of memory: curl ends the transfer with a write error
    }
    return length;
  }

  /// Fails the transfer once no byte went either way for the time-out; curl calls this at least
  /// once a second while the transfer runs.
  static int onProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t,
                        curl_off_t uploaded) {
    auto* job = static_cast<Job*>(user);
    auto now = std::chrono::steady_clock::now();
    if (downloaded + uploaded != job->lastMoved) {
      job->lastMoved = downloaded + uploaded;
      job->lastMovedAt = now;
      return 0;
    }
    if (now - job->lastMovedAt >= std::chrono::milliseconds(job->inactivityMs)) {
      job->stalled = true;
      return 1;
    }
    return 0;
  }

  static size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto* job = static_cast<Job*>(user);
    size_t length = size * count;
    // Header bytes are bytes moving too, though curl counts only the body's in its progress.
    job->lastMovedAt = std::chrono::steady_clock::now();
    try {
      std::string line(data, length);
      while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
      if (line.rfind("HTTP/", 0) == 0) {
        // A new status line (after an interim 1xx reply): only the final reply's headers count.
        job->response.headers.clear();
      } else if (auto colon = line.find(':'); colon != std::string::npos) {
        auto valueStart = line.find_first_not_of(" \t", colon + 1);
        job->response.headers.emplace_back(
            line.substr(0, colon), valueStart == std::string::npos ? "" : line.substr(valueStart));
      }
    } catch (...) {
      return 0;
    }
    return length;
  }
};

}  // namespace

struct HttpTransport::Impl : std::enable_shared_from_this<Impl> {
  // One entry of the worker's queue: a request to start or a closure to run.
  struct Item {
    std::unique_ptr<Job> job;
    std::function<void()> work;
  };

  std::optional<ProxyConfig> proxy;
  CURLM* multi = nullptr;
  std::thread worker;
  std::thread::id workerId;

  std::mutex mutex;
  std::deque<Item> queue;             // guarded by mutex
  std::atomic<bool> stopping{false};  // written under mutex

  // Worker-thread state.
  std::unordered_map<CURL*, std::unique_ptr<Job>> active;

  ~Impl() {
    if (multi) curl_multi_cleanup(multi);
  }

  void enqueue(Item item) {
    std::lock_guard<std::mutex> lock(mutex);
    if (stopping) return;
    queue.push_back(std::move(item));
    // Held under the mutex so the worker cannot be tearing the multi handle down meanwhile.
    curl_multi_wakeup(multi);
  }

  void run() {
    for (;;) {
      std::deque<Item> items;
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping) break;
        items.swap(queue);
      }
      for (auto& item : items) {
        if (stopping) break;
        if (item.job) {
          start(std::move(item.job));
        } else {
          runGuarded(item.work, "closure");
        }
      }
      if (stopping) break;
      int running = 0;
      curl_multi_perform(multi, &running);
      deliverFinished();
      if (stopping) break;
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    // Cancel what is still running; its handlers are dropped.
    for (auto& [easy, job] : active) curl_multi_remove_handle(multi, easy);
    active.clear();
    {
      std::lock_guard<std::mutex> lock(mutex);
      queue.clear();
    }
  }

  template <class Fn>
  void runGuarded(Fn& fn, const char* what) {
    try {
      if (fn) fn();
    } catch (...) {
      reportStrayException(what);
    }
  }

  void complete(Job& job, std::optional<Error> error) {
    job.response.error = std::move(error);
    if (stopping) return;
    auto handler = std::move(job.handler);
    if (!handler) return;
    try {
      handler(std::move(job.response));
    } catch (...) {
      reportStrayException("completion handler");
    }
  }

  void deliverFinished() {
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURL* easy = message->easy_handle;
      CURLcode result = message->data.result;
      curl_multi_remove_handle(multi, easy);
      auto found = active.find(easy);
      if (found == active.end()) continue;
      std::unique_ptr<Job> job = std::move(found->second);
      active.erase(found);
      long status = 0;
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
      job->response.statusCode = status;
      std::optional<Error> error;
      if (job->tooLarge || result == CURLE_FILESIZE_EXCEEDED) {
        error = Error{kErrorDomain, CURLE_FILESIZE_EXCEEDED,
                      "The reply is larger than the limit of " +
                          std::to_string(job->maxReplyBytes) + " bytes"};
      } else if (job->stalled) {
        error = Error{kErrorDomain, CURLE_OPERATION_TIMEDOUT,
                      "No data moved for " + std::to_string(job->inactivityMs) + " ms"};
      } else if (result != CURLE_OK) {
        error = curlError(result, job->errorBuffer);
      }
      complete(*job, std::move(error));
      if (stopping) return;
    }
  }

  void start(std::unique_ptr<Job> job) {
    if (auto error = configure(*job)) {
      complete(*job, std::move(error));
      return;
    }
    if (curl_multi_add_handle(multi, job->easy) != CURLM_OK) {
      complete(*job, curlError(CURLE_FAILED_INIT, "Could not start the request"));
      return;
    }
    CURL* easy = job->easy;
    active.emplace(easy, std::move(job));
  }

  // Prepares the curl handle of a job, or says why the request cannot be sent.
  std::optional<Error> configure(Job& job) {
    const HttpRequest& request = job.request;
    if (auto error = validateURL(request.url)) return error;
    if (request.method.empty() || hasControlCharacter(request.method, false)) {
      return Error{kErrorDomain, CURLE_BAD_FUNCTION_ARGUMENT,
                   "Invalid HTTP method \"" + request.method + "\""};
    }
    for (const auto& [name, value] : request.headers) {
      if (name.empty() || hasControlCharacter(name, false) || name.find(':') != std::string::npos ||
          hasControlCharacter(value, true)) {
        return Error{kErrorDomain, CURLE_BAD_FUNCTION_ARGUMENT,
                     "Invalid HTTP header \"" + name + "\""};
      }
    }
    if (proxy && proxy->host.empty()) {
      return Error{kErrorDomain, CURLE_COULDNT_RESOLVE_PROXY, "The proxy has no host"};
    }

    job.easy = curl_easy_init();
    if (!job.easy) return curlError(CURLE_OUT_OF_MEMORY, nullptr);
    CURL* easy = job.easy;
    CURLcode rc = CURLE_OK;
    auto set = [&](CURLoption option, auto value) {
      if (rc == CURLE_OK) rc = curl_easy_setopt(easy, option, value);
    };

    set(CURLOPT_PRIVATE, &job);
    set(CURLOPT_ERRORBUFFER, job.errorBuffer);
    set(CURLOPT_NOSIGNAL, 1L);
    // Tearing down a transport must not wait for a name lookup that is still running.
    set(CURLOPT_QUICK_EXIT, 1L);
    set(CURLOPT_URL, request.url.c_str());
    set(CURLOPT_PATH_AS_IS, 1L);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    set(CURLOPT_FOLLOWLOCATION, 0L);
    // The time-out counts time without progress, not the whole transfer: the progress
    // callback measures it to the millisecond, and curl's own low-speed check (whole seconds)
    // keeps it called while nothing moves.
    job.inactivityMs = timeoutMilliseconds(request.timeoutSeconds);
    set(CURLOPT_CONNECTTIMEOUT_MS, job.inactivityMs);
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_XFERINFOFUNCTION, &Job::onProgress);
    set(CURLOPT_XFERINFODATA, &job);
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, std::max(1L, (job.inactivityMs + 999) / 1000));
    if (request.maxReplyBytes > 0) job.maxReplyBytes = request.maxReplyBytes;
    set(CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(std::min<std::uint64_t>(
                                       job.maxReplyBytes, std::uint64_t{1} << 62)));
    // Every server certificate is accepted, as the service connector's trust handling does.
    set(CURLOPT_SSL_VERIFYPEER, 0L);
    set(CURLOPT_SSL_VERIFYHOST, 0L);
    set(CURLOPT_PROXY_SSL_VERIFYPEER, 0L);
    set(CURLOPT_PROXY_SSL_VERIFYHOST, 0L);
    set(CURLOPT_WRITEFUNCTION, &Job::onBody);
    set(CURLOPT_WRITEDATA, &job);
    set(CURLOPT_HEADERFUNCTION, &Job::onHeader);
    set(CURLOPT_HEADERDATA, &job);
    set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);

    if (proxy) {
      set(CURLOPT_PROXY, proxy->host.c_str());
      set(CURLOPT_PROXYPORT, static_cast<long>(proxy->port));
      set(CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
      set(CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC));
      if (proxy->username && !proxy->username->empty()) {
        set(CURLOPT_PROXYUSERNAME, proxy->username->c_str());
      }
      if (proxy->password && !proxy->password->empty()) {
        set(CURLOPT_PROXYPASSWORD, proxy->password->c_str());
      }
    } else {
      set(CURLOPT_PROXY, "");  // no proxy, whatever the environment says
    }

    const std::string& method = request.method;
    if (request.body) {
      set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body->size()));
      set(CURLOPT_POSTFIELDS, request.body->data());
      if (method != "POST") set(CURLOPT_CUSTOMREQUEST, method.c_str());
    } else if (method == "GET") {
      set(CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
      set(CURLOPT_NOBODY, 1L);
    } else {
      set(CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    // The request's own headers, then blanks that keep curl from adding its defaults.
    try {
      auto append = [&](const std::string& line) {
        curl_slist* grown = curl_slist_append(job.headerList, line.c_str());
        if (!grown) throw std::bad_alloc();
        job.headerList = grown;
      };
      for (const auto& [name, value] : request.headers) {
        append(value.empty() ? name + ";" : name + ": " + value);
      }
      if (!hasHeader(request, "Expect")) append("Expect:");
      if (!hasHeader(request, "Accept")) append("Accept:");
      if (request.body && !hasHeader(request, "Content-Type")) append("Content-Type:");
    } catch (const std::bad_alloc&) {
      return curlError(CURLE_OUT_OF_MEMORY, nullptr);
    }
    set(CURLOPT_HTTPHEADER, job.headerList);
    if (rc != CURLE_OK) return curlError(rc, nullptr);
    return std::nullopt;
  }
};

HttpTransport::HttpTransport(std::optional<ProxyConfig> proxy) : impl_(std::make_shared<Impl>()) {
  initCurlOnce();
  impl_->proxy = std::move(proxy);
  impl_->multi = curl_multi_init();
  if (!impl_->multi) throw std::bad_alloc();
  // The worker keeps the shared state alive, so a transport destroyed from one of its own
  // handlers can let the worker finish on its own.
  impl_->worker = std::thread([impl = impl_] { impl->run(); });
  impl_->workerId = impl_->worker.get_id();
}

HttpTransport::~HttpTransport() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->stopping = true;
    curl_multi_wakeup(impl_->multi);
  }
  if (std::this_thread::get_id() == impl_->workerId) {
    impl_->worker.detach();
  } else {
    impl_->worker.join();
  }
}

void HttpTransport::send(HttpRequest request, CompletionHandler completionHandler) {
  auto job = std::make_unique<Job>();
  job->request = std::move(request);
  job->handler = std::move(completionHandler);
  impl_->enqueue(Impl::Item{std::move(job), {}});
}

void HttpTransport::dispatch(std::function<void()> work) {
  impl_->enqueue(Impl::Item{nullptr, std::move(work)});
}

bool HttpTransport::isWorkerThread() const {
  return std::this_thread::get_id() == impl_->workerId;
}

const std::optional<ProxyConfig>& HttpTransport::proxy() const {
  return impl_->proxy;
}

}  // namespace saffra
