// The local service: an HTTP server that speaks the visual-testing REST protocol (start a
// session, match a window, stop a session, close a batch), keeps baselines and results in a
// data folder, and serves the results pages and stored images. Tests start it in-process on a
// free loopback port; `saffra serve` runs it from the command line.
//
// Protocol requests need one of the configured API keys in the query (apiKey=...).
//
// Results pages (all under /app; / and /app lead to /app/batches):
//   GET  /app/batches                      batches, newest first
//   GET  /app/batches/{batchId}            the batch's tests
//   GET  /app/sessions/{id}                one test: steps, images, regions, review buttons
//   GET  /app/login?next=/path             login form; POST /app/login (apiKey, next) logs in
//   POST /app/sessions/{id}/steps/{n}/accept | alternative | reject,
//   POST /app/sessions/{id}/accept (all)
//   GET  /app/batches/{id}?accept=1         what a batch-wide accept takes; its button posts
//   POST /app/batches/{id}/accept           (every open step of every stopped test, one decision)
//   POST /app/undo (decision, next)         undoes the reader's last decision
//   GET  /app/baselines/{id}                a baseline's versions; POST
//        /app/baselines/{id}/versions/{n}/rollback makes a new version with version n's steps
// API (API key): GET /api/baselines/{id}, POST /api/baselines/{id}/rollback?version=N, and the
// reviews as POST /api/sessions/{id}/accept and /api/sessions/{id}/steps/{n}/{action}
// (JSON replies; confirm=true accepts over a baseline that moved on), POST
// /api/batches/{id}/accept and POST /api/undo?decision=N (the API's own last decision).
// A decision may carry the state its page showed ("state": a step's state, or the token of the
// test or batch); one made on a page that no longer shows it, or one that changes nothing, is
// refused with 409.
// Pages, images (/api/sessions/{id}/steps/{n}/{baseline,current,diff}.png) and the results
// document (GET /api/sessions/{id}; a browser, which asks for text/html, is sent to the test's
// page instead) need an API key in the query
// or a login cookie. The cookie holds a random login token kept in memory (a restart logs
// everyone out), never the key. A page opened with the key also sets that cookie so its images
// and forms work. Browsers (Accept: text/html) without either are redirected to the login form,
// other clients get 401. The session's secret token, which the results still report, grants
// nothing: pages are for holders of an API key only, so the addresses in the results carry no
// credentials.
//
// Reviews are form posts that must come from the service's own pages: they need the login's
// CSRF token (hidden field "csrf") and are refused with 403 when Sec-Fetch-Site is cross-site
// or Origin (else Referer) names another origin. Accepting a step makes a new version of the
// baseline in which the baseline step of the step's tag has its current image (creating the
// baseline of a new test); accepting it as an alternative keeps the baseline's image and adds
// the current one beside it; rejecting marks it failed. An accept is refused with 409 when the
// baseline moved on since the session was compared with it, unless confirmed (form field
// confirm=1).
// A rejected step fails the test; once every changed, new or missing step is accepted the test
// passes. A review replies 303 to the test page, or JSON with the new statuses when the client
// accepts application/json.
//
// Webhooks (ServiceOptions::webhooks) hear of sessions and batches that end and of reviewers'
// decisions: see server/webhook_events.h for the events and server/webhook_sender.h for the
// headers, the signature and the retries.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace saffra::server {

/// The service could not start (no API key, data folder unusable, address in use, a webhook
/// without an http(s) address or a secret).
class ServiceError : public std::runtime_error {
 public:
  /// Why: `BadAddress` for a database address that cannot be one, `Unreachable` for a
  /// database that cannot be reached or refuses the login, `Settings` for settings that cannot
  /// work (no API key anywhere, no data folder), `Other` for the rest.
  enum class Reason { Other, BadAddress, Unreachable, Settings };
  explicit ServiceError(const std::string& message, Reason reason = Reason::Other)
      : std::runtime_error(message), reason_(reason) {}
  Reason reason() const { return reason_; }

 private:
  Reason reason_;
};

/// A receiver of the service's events: every event is POSTed to `url` (http:// or https://) as
/// JSON, signed with an HMAC-SHA256 of the body keyed with `secret`.
struct Webhook {
  std::string url;
  std::string secret;
};

/// How events reach the webhooks: a background sender with a bounded queue, so that no request
/// of a client or reviewer waits for a receiver.
struct WebhookDelivery {
  /// Deliveries waiting to be sent or retried; when full, the oldest is dropped.
  std::size_t queueLimit = 1000;
  /// Deliveries sent at once (at least one); more wait in the queue. A receiver that hangs
  /// holds one of these until its time-out, so a few cannot hold up the others.
  std::size_t maxInFlight = 8;
  /// A failed attempt (refused, timed out, not 2xx) is retried after each of these delays in
  /// turn; once they are used up the delivery is dropped.
  std::vector<std::chrono::milliseconds> retryDelays = {
      std::chrono::seconds(1), std::chrono::seconds(2), std::chrono::seconds(4),
      std::chrono::seconds(8)};
  /// An attempt fails when connecting or the reply stalls this long.
  std::chrono::milliseconds timeout = std::chrono::seconds(10);
  /// Stopping the service waits this long at most for deliveries still queued or in flight.
  std::chrono::milliseconds stopGrace = std::chrono::seconds(3);
};

/// How the service runs.
struct ServiceOptions {
  /// Address to listen on.
  std::string host = "127.0.0.1";
  /// Port to listen on; 0 picks a free one (see Service::port()).
  int port = 0;
  /// Where the database and the images live; created when missing.
  std::filesystem::path dataFolder;
  /// A PostgreSQL address ("postgresql://..."); when given, the data live there instead of in
  /// `dataFolder`, and several services may share it.
  std::string database;
  /// The keys a request may carry, beside those added to the store (`saffra keys add`); at
  /// least one of either is needed.
  std::vector<std::string> apiKeys;
  /// Requests with a larger body are refused with 413.
  std::size_t maxBodyBytes = std::size_t{100} << 20;
  /// Uploaded images declaring more pixels than this are refused before they are decoded.
  std::size_t maxImagePixels = std::size_t{64} << 20;
  /// Memory for decoded baselines kept between checks (pixel bytes); 0 keeps none.
  std::size_t decodedImageCacheBytes = std::size_t{256} << 20;
  /// A running session that gets no request for this long is aborted; sessions that an earlier
  /// run of the service left running are aborted this long after the start. 0 never aborts.
  std::chrono::milliseconds idleSessionTimeout = std::chrono::minutes(30);
  /// Retention (off while both are 0): stopped sessions and baseline versions older than
  /// `keepDays` days are removed, and each baseline keeps at most `keepVersions` versions. The
  /// current version and versions a kept session was compared with always stay; image files
  /// are removed once nothing refers to them.
  std::int64_t keepDays = 0;
  std::int64_t keepVersions = 0;
  /// How often retention runs (also once at the start).
  std::chrono::milliseconds retentionInterval = std::chrono::hours(1);
  /// Image files written or used this recently are never removed by retention.
  std::chrono::seconds imageGrace = std::chrono::hours(1);
  /// Where the events go (a session or batch ended, a reviewer decided); none by default.
  std::vector<Webhook> webhooks;
  WebhookDelivery webhookDelivery;
};

/// Time the service spent handling requests of one kind, measured inside its handler (from
/// the parsed request to the reply's body; reading and writing the socket are not included).
struct HandlerTime {
  std::uint64_t requests = 0;
  std::chrono::nanoseconds total{0};
};

/// The running service. Handles requests on a pool of threads until stopped or destroyed.
class Service {
 public:
  explicit Service(ServiceOptions options);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  /// Opens the data folder, binds and starts serving in the background. Throws ServiceError.
  /// A service runs once: start() after stop() throws.
  void start();
  /// Stops serving and waits for requests in progress; calling it again does nothing.
  void stop();
  /// The port bound by start() (0 before).
  int port() const;
  /// "http://host:port" of the running service.
  std::string url() const;
  /// The match-window requests handled so far, failed ones included, and their time.
  HandlerTime matchWindowTime() const;
  /// Time this process has spent waiting for a database server's replies (see
  /// Store::timeInDatabase).
  std::chrono::nanoseconds timeInDatabase() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace saffra::server
