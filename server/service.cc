#include "server/service.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>

#include "saffra/base/logger.h"
#include "saffra/platform/json.h"
#include "server/clock.h"
#include "server/decision_routes.h"
#include "server/http/http_server.h"
#include "server/replies.h"
#include "server/request_access.h"
#include "server/retention.h"
#include "server/review_routes.h"
#include "server/session_api.h"
#include "server/session_locks.h"
#include "server/store.h"
#include "server/upload_pipeline.h"
#include "server/web_routes.h"
#include "server/webhook_events.h"
#include "server/webhook_sender.h"

namespace saffra::server {

namespace {

using http::HttpServer;
using http::Request;
using http::Response;

/// The HTTP server's limits for the service's options.
http::ServerOptions serverOptions(const ServiceOptions& options) {
  http::ServerOptions server;
  server.maxBodyBytes = options.maxBodyBytes;
  return server;
}

std::string describeRequest(const Request& req) {
  return req.method + " " + req.path;
}

}  // namespace

struct Service::Impl {
  explicit Impl(ServiceOptions o) : options(std::move(o)) {}

  ServiceOptions options;
  std::unique_ptr<Store> store;
  std::unique_ptr<RequestAccess> access;
  SessionLocks locks;
  /// The handlers, made once the store is open.
  std::unique_ptr<UploadPipeline> uploads;
  std::unique_ptr<SessionApi> sessions;
  std::unique_ptr<WebRoutes> web;
  std::unique_ptr<ReviewRoutes> reviews;
  std::unique_ptr<DecisionRoutes> decisions;
  /// Tells the webhooks about sessions and batches that end and decisions of reviewers.
  std::unique_ptr<WebhookSender> webhooks;
  std::unique_ptr<WebhookEvents> events;
  HttpServer http{serverOptions(options)};
  /// When this run of the service started (seconds since the epoch).
  std::atomic<std::int64_t> startedAt{0};
  /// The background tasks: aborting idle sessions and retention.
  std::unique_ptr<PeriodicTask> idleSessions;
  std::unique_ptr<PeriodicTask> retention;
  std::atomic<int> boundPort{0};
  bool started = false;
  bool stopped = false;
  std::atomic<bool> stopping{false};

  /// Makes the handlers over the open store.
  void makeHandlers() {
    access = std::make_unique<RequestAccess>(options, *store);
    uploads = std::make_unique<UploadPipeline>(options, store.get());
    webhooks = std::make_unique<WebhookSender>(options.webhooks, options.webhookDelivery);
    events = std::make_unique<WebhookEvents>(*webhooks, store.get(), options.host, boundPort);
    sessions = std::make_unique<SessionApi>(options, store.get(), *access, locks, *uploads, *events,
                                            boundPort, startedAt);
    web = std::make_unique<WebRoutes>(options, store.get(), *access, boundPort);
    reviews = std::make_unique<ReviewRoutes>(store.get(), *access, locks, *events);
    decisions = std::make_unique<DecisionRoutes>(store.get(), *access, locks, *events);
  }

  /// Runs a handler, turning refusals and failures into JSON error replies.
  template <class Routes>
  static HttpServer::Handler guarded(Routes& routes,
                                     void (Routes::*handler)(const Request&, Response&)) {
    return [&routes, handler](const Request& req, Response& res) {
      setSecurityHeaders(res);
      try {
        (routes.*handler)(req, res);
      } catch (const LoginRequired& e) {
        std::string next = e.next().empty() ? returnPath(req) : e.next();
        redirect(res, "/app/login?next=" + percentEncode(next));
      } catch (const RequestError& e) {
        replyError(res, e.status(), e.what());
      } catch (const StoreUnavailable& e) {
        replyError(res, 503, "the store is unavailable for now");
      } catch (const StoreError& e) {
        Logger::logWithFormat("%@: storage failure: %@", describeRequest(req), e.what());
        replyError(res, 500, "storage failure");
      } catch (const std::exception& e) {
        Logger::logWithFormat("%@: internal error: %@", describeRequest(req), e.what());
        replyError(res, 500, "internal error");
      }
    };
  }

  // GET /app/batches/{id}: the batch's page, or with ?accept=1 what a batch-wide accept takes.
  void batchPage(const Request& req, Response& res) {
    if (req.has_param("accept")) {
      decisions->batchAcceptPage(req, res);
    } else {
      web->batchPage(req, res);
    }
  }

  void registerRoutes() {
    const std::string session = "/api/sessions/running/([^/]+)";
    http.Post("/api/sessions/running", guarded(*sessions, &SessionApi::startSession));
    http.Post(session, guarded(*sessions, &SessionApi::matchWindow));
    http.Delete(session, guarded(*sessions, &SessionApi::stopSession));
    http.Delete("/api/sessions/batches/([^/]+)/close/bypointerid",
                guarded(*sessions, &SessionApi::closeBatch));
    http.Get("/api/sessions/([^/]+)/steps/([0-9]{1,9})/(baseline|current|diff)\\.png",
             guarded(*web, &WebRoutes::stepImage));
    http.Get("/api/sessions/([^/]+)", guarded(*web, &WebRoutes::apiResults));
    http.Get("/app/sessions/([^/]+)", guarded(*web, &WebRoutes::appResults));
    http.Get("/app/(images|thumbs)/([0-9a-f]{64})\\.png", guarded(*web, &WebRoutes::imageById));
    http.Get("/", guarded(*web, &WebRoutes::home));
    http.Get("/app/?", guarded(*web, &WebRoutes::home));
    http.Get("/app/static/(app\\.css|app\\.js)", guarded(*web, &WebRoutes::staticFile));
    http.Get("/app/login", guarded(*access, &RequestAccess::loginForm));
    http.Post("/app/login", guarded(*access, &RequestAccess::login));
    http.Get("/app/batches/?", guarded(*web, &WebRoutes::batchList));
    http.Get("/app/batches/(.+)", guarded(*this, &Impl::batchPage));
    const std::string stepReview =
        "/app/sessions/([^/]+)/steps/([0-9]{1,9})/(accept|alternative|reject)";
    const std::string acceptAll = "/app/sessions/([^/]+)/accept";
    http.Post(stepReview, guarded(*reviews, &ReviewRoutes::review));
    http.Post(acceptAll, guarded(*reviews, &ReviewRoutes::review));
    http.Get(stepReview, guarded(*reviews, &ReviewRoutes::reviewNeedsPost));
    http.Get(acceptAll, guarded(*reviews, &ReviewRoutes::reviewNeedsPost));
    http.Post("/api/sessions/([^/]+)/steps/([0-9]{1,9})/(accept|alternative|reject)",
              guarded(*reviews, &ReviewRoutes::reviewApi));
    http.Post("/api/sessions/([^/]+)/accept", guarded(*reviews, &ReviewRoutes::reviewApi));
    http.Post("/app/batches/(.+)/accept", guarded(*decisions, &DecisionRoutes::batchAcceptForm));
    http.Post("/api/batches/(.+)/accept", guarded(*decisions, &DecisionRoutes::batchAcceptApi));
    http.Post("/app/undo", guarded(*decisions, &DecisionRoutes::undoForm));
    http.Post("/api/undo", guarded(*decisions, &DecisionRoutes::undoApi));
    http.Get("/api/baselines/([^/]+)", guarded(*reviews, &ReviewRoutes::baselineApi));
    http.Post("/api/baselines/([^/]+)/rollback", guarded(*reviews, &ReviewRoutes::rollbackApi));
    http.Get("/app/baselines/([^/]+)", guarded(*reviews, &ReviewRoutes::baselinePage));
    http.Post("/app/baselines/([^/]+)/versions/([0-9]{1,9})/rollback",
              guarded(*reviews, &ReviewRoutes::rollbackForm));

    // Replies the server makes itself (no route, body too large) get a JSON error body too.
    // Refusals are logged here, before the reply goes out.
    http.set_error_handler([this](const Request& req, Response& res) {
      setSecurityHeaders(res);
      if (res.body.empty()) {
        std::string message =
            res.status == 404 ? "not found"
            : res.status == 413
                ? "the body is larger than " + std::to_string(options.maxBodyBytes) + " bytes"
            : res.status == 408 ? "the request did not arrive in time"
                                : "bad request";
        replyError(res, res.status, message);
      }
      std::optional<Json> body = json::parse(res.body);
      Logger::logWithFormat("%@ -> %li: %@", describeRequest(req), res.status,
                            body ? textAt(*body, "error") : std::string());
    });
    // One line per request that succeeded; the query (which holds the API key) is left out.
    http.set_logger([](const Request& req, const Response& res) {
      if (res.status < 400) Logger::logWithFormat("%@ -> %li", describeRequest(req), res.status);
    });
  }
};

Service::Service(ServiceOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Service::~Service() {
  stop();
}

void Service::start() {
  Impl& i = *impl_;
  if (i.started) return;
  if (i.stopped) throw ServiceError("a stopped service cannot start again");
  if (i.options.database.empty() && i.options.dataFolder.empty()) {
    throw ServiceError("no data folder is configured", ServiceError::Reason::Settings);
  }
  if (!i.options.database.empty() && !isDatabaseAddress(i.options.database)) {
    throw ServiceError("the database address must start with postgresql://",
                       ServiceError::Reason::BadAddress);
  }
  WebhookSender::validate(i.options.webhooks);
  try {
    i.store =
        openStore(i.options.database.empty() ? i.options.dataFolder.string() : i.options.database);
    const std::vector<ApiKeyRecord> keys = i.store->apiKeys();
    if (i.options.apiKeys.empty() &&
        std::none_of(keys.begin(), keys.end(), [](const auto& k) { return !k.revokedAt; })) {
      throw ServiceError("no API key is configured", ServiceError::Reason::Settings);
    }
  } catch (const StoreAddressError& e) {
    throw ServiceError(e.what(), ServiceError::Reason::BadAddress);
  } catch (const StoreUnavailable& e) {
    throw ServiceError(e.what(), ServiceError::Reason::Unreachable);
  } catch (const StoreError& e) {
    throw ServiceError(e.what());
  }
  i.makeHandlers();
  i.registerRoutes();
  // Handlers read both as soon as the server runs, on its threads: atomics, set before
  // anything can reach them except the port, which is known only once bound.
  i.startedAt = now();
  i.boundPort = i.http.start(i.options.host, i.options.port);
  if (i.boundPort <= 0) {
    i.boundPort = 0;
    throw ServiceError("cannot listen on " + i.options.host + ":" + std::to_string(i.options.port));
  }
  if (i.options.idleSessionTimeout.count() > 0) {
    // Checked a few times per idle time, at least every minute.
    const auto every = std::clamp<std::chrono::milliseconds>(
        i.options.idleSessionTimeout / 4, std::chrono::milliseconds(200), std::chrono::minutes(1));
    i.idleSessions = std::make_unique<PeriodicTask>(
        every, [&i] { i.sessions->abortIdleSessions(); }, false);
  }
  if (i.options.keepDays > 0 || i.options.keepVersions > 0) {
    RetentionPolicy policy{i.options.keepDays, i.options.keepVersions, i.options.imageGrace};
    i.retention = std::make_unique<PeriodicTask>(
        i.options.retentionInterval,
        [&i, policy] { runRetention(*i.store, policy, now(), [&i] { return i.stopping.load(); }); },
        true);
  }
  i.started = true;
}

void Service::stop() {
  Impl& i = *impl_;
  if (!i.started) return;
  i.stopping = true;
  i.retention.reset();
  i.idleSessions.reset();
  i.http.stop();
  // After the last request: what the requests caused is queued, and gets a short while.
  i.webhooks->stop();
  i.started = false;
  i.stopped = true;
}

int Service::port() const {
  return impl_->boundPort.load();
}

HandlerTime Service::matchWindowTime() const {
  return impl_->sessions ? impl_->sessions->matchWindowTime() : HandlerTime{};
}

std::chrono::nanoseconds Service::timeInDatabase() const {
  return impl_->store ? impl_->store->timeInDatabase() : std::chrono::nanoseconds(0);
}

std::string Service::url() const {
  return "http://" + impl_->options.host + ":" + std::to_string(impl_->boundPort.load());
}

}  // namespace saffra::server
