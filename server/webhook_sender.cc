#include "server/webhook_sender.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "saffra/base/logger.h"
#include "saffra/platform/http_transport.h"
#include "saffra/platform/uuid.h"
#include "server/clock.h"
#include "server/results_document.h"

namespace saffra::server {

namespace {

using Clock = std::chrono::steady_clock;

/// A receiver's reply is not read; a longer one fails the attempt.
constexpr std::size_t kMaxReplyBytes = 64 * 1024;

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) ==
                  std::tolower(static_cast<unsigned char>(b));
         });
}

/// The scheme, host and port of a webhook's address, for log lines: its path, query and user
/// part often hold a token, which the log must not show.
std::string addressForLog(const std::string& url) {
  const std::size_t scheme = url.find("://");
  if (scheme == std::string::npos) return "(webhook)";
  std::size_t end = url.find_first_of("/?#", scheme + 3);
  std::string authority = url.substr(scheme + 3, end == std::string::npos ? end : end - scheme - 3);
  if (std::size_t at = authority.rfind('@'); at != std::string::npos) {
    authority = authority.substr(at + 1);
  }
  return url.substr(0, scheme + 3) + authority;
}

}  // namespace

struct WebhookSender::Impl {
  struct Delivery {
    std::size_t webhook = 0;
    std::string id;
    std::string event;
    std::string body;
    std::string signature;
    std::size_t attempts = 0;
    Clock::time_point due;
  };

  Impl(std::vector<Webhook> w, WebhookDelivery d) : webhooks(std::move(w)), settings(std::move(d)) {
    transport = std::make_unique<HttpTransport>();
    thread = std::thread([this] { run(); });
  }

  const std::vector<Webhook> webhooks;
  const WebhookDelivery settings;
  const std::size_t maxInFlight = std::max<std::size_t>(settings.maxInFlight, 1);

  std::mutex mutex;
  std::condition_variable changed;
  /// Deliveries waiting for their first attempt or a retry, oldest first.
  std::map<std::uint64_t, Delivery> waiting;
  std::uint64_t nextSequence = 0;
  std::size_t inFlight = 0;
  /// stop() began: everything waiting is due now and nothing is retried.
  bool stopping = false;
  /// The thread ends; nothing more is sent.
  bool closed = false;
  std::unique_ptr<HttpTransport> transport;
  std::thread thread;

  std::string describe(const Delivery& d) const {
    return d.event + " " + d.id + " to " + addressForLog(webhooks[d.webhook].url);
  }

  /// Adds a delivery to the queue (under the lock); returns the log line of the one it
  /// pushed out, if any.
  std::optional<std::string> enqueue(std::uint64_t sequence, Delivery d) {
    std::optional<std::string> dropped;
    if (waiting.size() >= std::max<std::size_t>(settings.queueLimit, 1)) {
      auto oldest = waiting.begin();
      dropped = "webhook delivery " + describe(oldest->second) + " dropped: the queue is full (" +
                std::to_string(waiting.size()) + " waiting)";
      waiting.erase(oldest);
    }
    waiting.emplace(sequence, std::move(d));
    return dropped;
  }

  void run() {
    std::unique_lock lock(mutex);
    while (!closed) {
      const Clock::time_point now = Clock::now();
      std::vector<std::pair<std::uint64_t, Delivery>> ready;
      std::optional<Clock::time_point> next;
      for (auto it = waiting.begin(); it != waiting.end();) {
        if (inFlight + ready.size() < maxInFlight && (stopping || it->second.due <= now)) {
          ready.emplace_back(it->first, std::move(it->second));
          it = waiting.erase(it);
        } else {
          if (!next || it->second.due < *next) next = it->second.due;
          ++it;
        }
      }
      if (!ready.empty()) {
        inFlight += ready.size();
        lock.unlock();
        for (auto& [sequence, delivery] : ready) post(sequence, std::move(delivery));
        lock.lock();
        continue;
      }
      if (next && inFlight < maxInFlight) {
        changed.wait_until(lock, *next);
      } else {
        changed.wait(lock);
      }
    }
  }

  void post(std::uint64_t sequence, Delivery d) {
    HttpRequest request;
    request.method = "POST";
    request.url = webhooks[d.webhook].url;
    request.headers = {{"Content-Type", "application/json"},
                       {"User-Agent", "saffra-serve"},
                       {"X-Saffra-Event", d.event},
                       {"X-Saffra-Delivery", d.id},
                       {"X-Saffra-Signature", d.signature}};
    request.body = d.body;
    request.timeoutSeconds =
        std::max(0.001, std::chrono::duration<double>(settings.timeout).count());
    request.maxReplyBytes = kMaxReplyBytes;
    auto shared = std::make_shared<Delivery>(std::move(d));
    transport->send(std::move(request), [this, sequence, shared](HttpResponse response) {
      finished(sequence, std::move(*shared), response);
    });
  }

  /// Runs on the transport's thread when an attempt ended.
  void finished(std::uint64_t sequence, Delivery d, const HttpResponse& response) {
    const bool delivered =
        !response.error && response.statusCode >= 200 && response.statusCode < 300;
    std::optional<std::string> line;
    {
      std::lock_guard lock(mutex);
      --inFlight;
      ++d.attempts;
      if (!delivered) {
        const std::string failure = response.error
                                        ? response.error->localizedDescription
                                        : "status " + std::to_string(response.statusCode);
        if (!stopping && d.attempts <= settings.retryDelays.size()) {
          d.due = Clock::now() + settings.retryDelays[d.attempts - 1];
          line = enqueue(sequence, std::move(d));
        } else {
          line = "webhook delivery " + describe(d) + " dropped after " +
                 std::to_string(d.attempts) + (d.attempts == 1 ? " attempt: " : " attempts: ") +
                 failure;
        }
      }
    }
    changed.notify_all();
    if (line) Logger::log(*line);
  }

  void send(const std::string& event, const Json& fields) {
    const std::string occurredAt = isoTime(now());
    for (std::size_t i = 0; i < webhooks.size(); ++i) {
      Delivery d;
      d.webhook = i;
      d.id = newUUIDString();
      d.event = event;
      Json body{{"event", event}, {"deliveryId", d.id}, {"occurredAt", occurredAt}};
      if (fields.is_object()) {
        for (const auto& [key, value] : fields.items()) body[key] = value;
      }
      d.body = json::write(body);
      d.signature = signature(webhooks[i].secret, d.body);
      d.due = Clock::now();
      std::optional<std::string> line;
      {
        std::lock_guard lock(mutex);
        if (stopping) {
          line = "webhook delivery " + describe(d) + " dropped: the service is stopping";
        } else {
          line = enqueue(nextSequence++, std::move(d));
        }
      }
      changed.notify_all();
      if (line) Logger::log(*line);
    }
  }

  void stop() {
    std::unique_lock lock(mutex);
    if (closed) return;
    stopping = true;
    changed.notify_all();
    changed.wait_for(lock, settings.stopGrace, [&] { return waiting.empty() && inFlight == 0; });
    closed = true;
    lock.unlock();
    changed.notify_all();
    thread.join();
    // Cancels the attempts in flight without running their handlers; returns promptly even
    // when a receiver never answers.
    transport.reset();
    lock.lock();
    const std::size_t left = waiting.size() + inFlight;
    lock.unlock();
    if (left > 0) {
      Logger::log("webhooks: " + std::to_string(left) + (left == 1 ? " delivery" : " deliveries") +
                  " not delivered when the service stopped");
    }
  }
};

WebhookSender::WebhookSender(std::vector<Webhook> webhooks, WebhookDelivery delivery)
    : enabled_(!webhooks.empty()) {
  if (enabled_) impl_ = std::make_shared<Impl>(std::move(webhooks), std::move(delivery));
}

WebhookSender::~WebhookSender() {
  stop();
}

void WebhookSender::send(const std::string& event, const Json& fields) {
  if (impl_) impl_->send(event, fields);
}

void WebhookSender::stop() {
  if (impl_) impl_->stop();
}

std::string WebhookSender::signature(std::string_view secret, std::string_view body) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
       reinterpret_cast<const unsigned char*>(body.data()), body.size(), digest, &length);
  static const char kHex[] = "0123456789abcdef";
  std::string out = "sha256=";
  for (unsigned int i = 0; i < length; ++i) {
    out += kHex[digest[i] >> 4];
    out += kHex[digest[i] & 15];
  }
  return out;
}

void WebhookSender::validate(const std::vector<Webhook>& webhooks) {
  for (const Webhook& w : webhooks) {
    const bool http = startsWithNoCase(w.url, "http://") || startsWithNoCase(w.url, "https://");
    const std::size_t host = w.url.find("://") + 3;
    const bool wellFormed = http && host < w.url.size() && w.url[host] != '/' &&
                            std::none_of(w.url.begin(), w.url.end(),
                                         [](unsigned char c) { return c <= ' ' || c == 0x7F; });
    if (!wellFormed) {
      throw ServiceError(
          "the webhook address \"" + w.url + "\" is not an http:// or https:// address",
          ServiceError::Reason::Settings);
    }
    if (w.secret.empty()) {
      throw ServiceError("the webhook " + addressForLog(w.url) + " has no secret",
                         ServiceError::Reason::Settings);
    }
  }
}

}  // namespace saffra::server
