#include "server/service.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <ctime>
#include <functional>
#include <mutex>
#include <thread>

#include <httplib.h>
#include <openssl/crypto.h>

#include "saffra/images/logger.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/image.h"
#include "saffra/platform/json.h"
#include "saffra/platform/uuid.h"
#include "server/base64.h"
#include "server/match_settings.h"
#include "server/matcher.h"
#include "server/results_document.h"
#include "server/results_page.h"
#include "server/store.h"

namespace saffra::server {

namespace {

using httplib::Request;
using httplib::Response;

/// The branch of sessions that name none, and the last fallback of every baseline lookup.
constexpr const char* kDefaultBranch = "default";

/// A request the service refuses: the status and the message of the JSON error body.
class RequestError : public std::runtime_error {
 public:
  RequestError(int status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

std::int64_t now() {
  return static_cast<std::int64_t>(std::time(nullptr));
}

void replyJson(Response& res, int status, const Json& body) {
  res.status = status;
  res.set_content(json::write(body), "application/json");
}

void replyError(Response& res, int status, const std::string& message) {
  replyJson(res, status, Json{{"error", message}});
}

std::string textAt(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  return value ? json::stringValue(*value).value_or("") : std::string();
}

OptString optTextAt(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  return value ? json::stringValue(*value) : std::nullopt;
}

bool boolAt(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  return value && json::boolValue(*value);
}

double finiteAt(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  double d = value ? json::doubleValue(*value) : 0.0;
  return std::isfinite(d) ? d : 0.0;
}

const Json& objectAt(const Json& object, std::string_view key) {
  static const Json empty = Json::object();
  const Json* value = json::find(object, key);
  return value && value->is_object() ? *value : empty;
}

Json parseBody(const Request& req) {
  std::optional<Json> body = json::parse(req.body);
  if (!body || !body->is_object()) throw RequestError(400, "the body is not a JSON object");
  return std::move(*body);
}

/// Session ids are the service's own UUIDs; anything else (path characters included) is refused
/// before it reaches the store.
std::string sessionIdFrom(const std::string& text) {
  bool safe =
      !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-';
      });
  if (!safe) throw RequestError(400, "invalid session id");
  return text;
}

bool queryFlag(const Request& req, const char* name) {
  if (!req.has_param(name)) return false;
  std::string value = req.get_param_value(name);
  if (value == "true" || value == "1") return true;
  if (value == "false" || value == "0") return false;
  throw RequestError(400, std::string(name) + " must be true or false");
}

bool sameSecret(const std::string& a, const std::string& b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string newToken() {
  std::string token = newUUIDString() + newUUIDString();
  std::erase(token, '-');
  std::transform(token.begin(), token.end(), token.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return token;
}

/// The identity of a baseline: application, test, environment and branch.
std::string baselineKey(const SessionRecord& s, const std::string& branch) {
  return json::write(Json::array({s.appName, s.testName, s.hostOS, s.hostApp, s.displayWidth,
                                  s.displayHeight, s.baselineEnvName, branch}));
}

/// Reads the size a PNG declares in its header, without decoding it.
std::optional<std::pair<std::uint64_t, std::uint64_t>> declaredPngSize(
    const std::vector<std::uint8_t>& png) {
  static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (png.size() < 24 || !std::equal(kSignature, kSignature + 8, png.begin()) ||
      std::string_view(reinterpret_cast<const char*>(&png[12]), 4) != "IHDR") {
    return std::nullopt;
  }
  auto word = [&](std::size_t at) {
    return std::uint64_t{png[at]} << 24 | std::uint64_t{png[at + 1]} << 16 |
           std::uint64_t{png[at + 2]} << 8 | std::uint64_t{png[at + 3]};
  };
  return std::make_pair(word(16), word(20));
}

std::string describeRequest(const Request& req) {
  return req.method + " " + req.path;
}

}  // namespace

struct Service::Impl {
  explicit Impl(ServiceOptions o) : options(std::move(o)) {}

  ServiceOptions options;
  std::unique_ptr<Store> store;
  httplib::Server http;
  std::thread thread;
  int boundPort = 0;
  bool started = false;
  bool stopped = false;
  /// Requests of one session run one at a time; sessions share these locks by hash.
  std::array<std::mutex, 64> sessionLocks;
  /// Match-window requests handled and the nanoseconds spent in their handler.
  std::atomic<std::uint64_t> matchRequests{0};
  std::atomic<std::int64_t> matchNanoseconds{0};

  /// Adds the time from its creation to its end to a request counter.
  class HandlerTimer {
   public:
    HandlerTimer(std::atomic<std::uint64_t>& requests, std::atomic<std::int64_t>& nanoseconds)
        : requests_(requests), nanoseconds_(nanoseconds) {}
    ~HandlerTimer() {
      const auto spent = std::chrono::steady_clock::now() - start_;
      nanoseconds_ += std::chrono::duration_cast<std::chrono::nanoseconds>(spent).count();
      ++requests_;
    }
    HandlerTimer(const HandlerTimer&) = delete;
    HandlerTimer& operator=(const HandlerTimer&) = delete;

   private:
    std::atomic<std::uint64_t>& requests_;
    std::atomic<std::int64_t>& nanoseconds_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  };

  std::mutex& lockFor(const std::string& sessionId) {
    return sessionLocks[std::hash<std::string>{}(sessionId) % sessionLocks.size()];
  }

  bool hasApiKey(const Request& req) const {
    if (!req.has_param("apiKey")) return false;
    std::string key = req.get_param_value("apiKey");
    return std::any_of(options.apiKeys.begin(), options.apiKeys.end(),
                       [&](const std::string& k) { return sameSecret(k, key); });
  }

  void requireApiKey(const Request& req) const {
    if (!hasApiKey(req)) throw RequestError(401, "missing or unknown API key");
  }

  /// The session a read request names, when it carries an API key or the session's token.
  SessionRecord readableSession(const Request& req, const std::string& idText) {
    std::string id = sessionIdFrom(idText);
    bool byKey = hasApiKey(req);
    if (!byKey && !req.has_param("accessToken")) {
      throw RequestError(401, "missing or unknown API key");
    }
    std::optional<SessionRecord> session = store->session(id);
    if (!byKey && (!session || !sameSecret(session->token, req.get_param_value("accessToken")))) {
      throw RequestError(401, "missing or unknown access token");
    }
    if (!session) throw RequestError(404, "unknown session");
    return std::move(*session);
  }

  /// Addresses in replies use the host the client reached us by, when it is a plain host name.
  Links linksFor(const Request& req) const {
    std::string host = req.get_header_value("Host");
    bool plain =
        !host.empty() && host.size() < 256 && std::all_of(host.begin(), host.end(), [](char c) {
          return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == ':' ||
                 c == '[' || c == ']';
        });
    if (!plain) host = options.host + ":" + std::to_string(boundPort);
    return Links("http://" + host);
  }

  Json documentFor(const SessionRecord& session, const Links& links) {
    std::optional<BatchRecord> batch = store->batch(session.batchId);
    return resultsDocument(session, batch ? batch->name : std::nullopt, store->steps(session.id),
                           links);
  }

  // POST /api/sessions/running
  void startSession(const Request& req, Response& res) {
    requireApiKey(req);
    Json body = parseBody(req);
    const Json* info = json::find(body, "startInfo");
    if (!info || !info->is_object()) throw RequestError(400, "startInfo is missing");
    SessionRecord s;
    s.appName = textAt(*info, "appIdOrName");
    s.testName = textAt(*info, "scenarioIdOrName");
    if (s.appName.empty()) throw RequestError(400, "startInfo.appIdOrName is missing");
    if (s.testName.empty()) throw RequestError(400, "startInfo.scenarioIdOrName is missing");
    const Json& environment = objectAt(*info, "environment");
    s.hostOS = textAt(environment, "os");
    s.hostApp = textAt(environment, "hostingApp");
    const Json& displaySize = objectAt(environment, "displaySize");
    s.displayWidth = finiteAt(displaySize, "width");
    s.displayHeight = finiteAt(displaySize, "height");
    s.baselineEnvName = textAt(*info, "baselineEnvName");
    s.defaultMatchSettings = objectAt(*info, "defaultMatchSettings");

    // The baseline comes from the session's branch, else its parent or baseline branch, else
    // the default branch; a saved baseline always goes to the session's own branch.
    std::string branch = textAt(*info, "branchName");
    s.branchName = branch.empty() ? kDefaultBranch : branch;
    std::vector<std::string> candidates;
    for (std::string b : {branch, textAt(*info, "parentBranchName"),
                          textAt(*info, "baselineBranchName"), std::string(kDefaultBranch)}) {
      if (!b.empty() && std::find(candidates.begin(), candidates.end(), b) == candidates.end()) {
        candidates.push_back(b);
      }
    }
    for (const std::string& candidate : candidates) {
      s.baselineId = store->findBaseline(baselineKey(s, candidate));
      if (s.baselineId) break;
    }
    s.baselineKey = baselineKey(s, s.branchName);
    s.isNew = !s.baselineId;

    const Json& batchInfo = objectAt(*info, "batchInfo");
    BatchRecord batch;
    batch.id = textAt(batchInfo, "id");
    if (batch.id.empty()) batch.id = newUUIDString();
    batch.name = optTextAt(batchInfo, "name");
    batch.startedAt = optTextAt(batchInfo, "startedAt");
    batch.sequenceName = optTextAt(batchInfo, "batchSequenceName");
    s.batchId = batch.id;

    s.id = newUUIDString();
    s.token = newToken();
    s.startedAt = now();
    store->recordBatch(batch);
    store->insertSession(s);
    Logger::logWithFormat("session %@ started: '%@' of '%@'%@", s.id, s.testName, s.appName,
                          s.isNew ? " (new test)" : "");
    replyJson(res, s.isNew ? 201 : 200,
              Json{{"id", s.id},
                   {"url", linksFor(req).sessionPage(s)},
                   {"isNew", s.isNew},
                   {"batchId", s.batchId}});
  }

  /// Decodes and checks the uploaded screenshot of a match request.
  std::pair<std::vector<std::uint8_t>, std::shared_ptr<Image>> screenshotFrom(const Json& body) {
    const Json* text = json::find(objectAt(body, "appOutput"), "screenshot64");
    if (!text || !text->is_string() || text->get_ref<const std::string&>().empty()) {
      throw RequestError(400, "appOutput.screenshot64 is missing");
    }
    std::optional<std::vector<std::uint8_t>> png =
        decodeBase64(text->get_ref<const std::string&>());
    if (!png) throw RequestError(400, "screenshot64 is not valid base64");
    auto size = declaredPngSize(*png);
    if (!size) throw RequestError(400, "screenshot64 is not a PNG image");
    if (size->first == 0 || size->second == 0 ||
        size->first * size->second > options.maxImagePixels) {
      throw RequestError(413, "the image's declared size " + std::to_string(size->first) + "x" +
                                  std::to_string(size->second) + " is not accepted");
    }
    try {
      auto image = Image::fromPNGData(*png);
      return {std::move(*png), std::move(image)};
    } catch (const Exception& e) {
      throw RequestError(400, "screenshot64 is not a valid PNG image: " + e.reason());
    }
  }

  std::shared_ptr<Image> storedImage(const std::string& id) {
    std::optional<std::vector<std::uint8_t>> bytes = store->readImage(id);
    if (!bytes) throw StoreError("stored image " + id + " is missing");
    try {
      return Image::fromPNGData(*bytes);
    } catch (const Exception& e) {
      throw StoreError("stored image " + id + " is unreadable: " + e.reason());
    }
  }

  // POST /api/sessions/running/{id}
  void matchWindow(const Request& req, Response& res) {
    HandlerTimer timer(matchRequests, matchNanoseconds);
    requireApiKey(req);
    std::string id = sessionIdFrom(req.matches[1]);
    Json body = parseBody(req);
    auto [png, current] = screenshotFrom(body);
    const Json& options = objectAt(body, "options");
    MatchSettings settings = MatchSettings::fromJson(objectAt(options, "imageMatchSettings"));
    std::string tag = textAt(body, "tag");
    if (tag.empty()) tag = textAt(options, "name");

    std::lock_guard lock(lockFor(id));
    std::optional<SessionRecord> session = store->session(id);
    if (!session) throw RequestError(404, "unknown session");
    if (session->outcome) throw RequestError(409, "the session is already stopped");

    StepRecord step;
    step.position = store->stepCount(id);
    step.tag = tag;
    step.matchLevel = matchLevelName(settings.matchLevel);
    MatchOutcome outcome;
    std::optional<BaselineStep> baseline;
    if (session->baselineId) baseline = store->baselineStep(*session->baselineId, step.position);
    if (baseline) {
      outcome = matchImages(*storedImage(baseline->image), *current, settings);
      step.baselineImage = baseline->image;
    } else {
      // Steps of a new test become its proposed baseline; a step beyond an existing baseline is
      // new and needs approval.
      outcome.matches = session->isNew;
    }
    if (boolAt(options, "forceMatch")) outcome.matches = true;
    if (boolAt(options, "forceMismatch")) outcome.matches = false;
    step.asExpected = outcome.matches;

    // A mismatch sent with ignoreMismatch is a retry that a later attempt replaces.
    bool record =
        outcome.matches ? !boolAt(options, "ignoreMatch") : !boolAt(options, "ignoreMismatch");
    if (record) {
      step.currentImage = store->putImage(png);
      if (outcome.diff) {
        std::vector<std::uint8_t> diffPng = outcome.diff->pngData();
        step.diffImage = store->putImage(diffPng);
      }
      if (auto verdict = checkAccessibility(*current, settings)) {
        step.accessibilityPassed = verdict->passed;
        step.accessibilityLevel = verdict->level;
      }
      store->insertStep(id, step);
    }
    replyJson(res, 200, Json{{"asExpected", outcome.matches}});
  }

  // DELETE /api/sessions/running/{id}?aborted=..&updateBaseline=..
  void stopSession(const Request& req, Response& res) {
    requireApiKey(req);
    std::string id = sessionIdFrom(req.matches[1]);
    bool aborted = queryFlag(req, "aborted");
    bool save = queryFlag(req, "updateBaseline");

    std::lock_guard lock(lockFor(id));
    std::optional<SessionRecord> session = store->session(id);
    if (!session) throw RequestError(404, "unknown session");
    if (!session->outcome) {  // a repeated stop answers with the results of the first
      std::vector<StepRecord> steps = store->steps(id);
      std::vector<BaselineStep> baseline;
      if (session->baselineId) baseline = store->baselineSteps(*session->baselineId);
      Outcome outcome = decideOutcome(steps, baseline, session->isNew, aborted, save, now());
      std::vector<BaselineStep> saved;
      if (outcome.savedAsBaseline) saved = baselineAfterSave(steps);
      store->finishSession(id, outcome, outcome.savedAsBaseline ? &saved : nullptr);
      session->outcome = outcome;
      Logger::logWithFormat("session %@ stopped: %@%@", id, outcome.status,
                            outcome.savedAsBaseline ? ", saved as baseline" : "");
    }
    replyJson(res, 200, documentFor(*session, linksFor(req)));
  }

  // DELETE /api/sessions/batches/{id}/close/bypointerid
  void closeBatch(const Request& req, Response& res) {
    requireApiKey(req);
    std::string id = req.matches[1];
    if (!store->closeBatch(id)) throw RequestError(404, "unknown batch");
    replyJson(res, 200, Json{{"id", id}, {"isClosed", true}});
  }

  // GET /api/sessions/{id} and /app/sessions/{id}: the page, or the document for JSON clients.
  void sessionResults(const Request& req, Response& res, bool api) {
    SessionRecord session = readableSession(req, req.matches[1]);
    Json document = documentFor(session, linksFor(req));
    if (api && req.get_header_value("Accept").find("application/json") != std::string::npos) {
      replyJson(res, 200, document);
    } else {
      res.set_content(renderResultsPage(document), "text/html; charset=utf-8");
    }
  }

  // GET /api/sessions/{id}/steps/{n}/{baseline|current|diff}.png
  void stepImage(const Request& req, Response& res) {
    SessionRecord session = readableSession(req, req.matches[1]);
    std::int64_t position = -1;
    try {
      position = std::stoll(req.matches[2]) - 1;
    } catch (const std::exception&) {
    }
    std::string kind = req.matches[3];
    OptString imageId;
    std::vector<StepRecord> steps = store->steps(session.id);
    auto step = std::find_if(steps.begin(), steps.end(),
                             [&](const StepRecord& s) { return s.position == position; });
    if (step != steps.end()) {
      if (kind == "current") imageId = step->currentImage;
      if (kind == "baseline") imageId = step->baselineImage;
      if (kind == "diff") imageId = step->diffImage;
    } else if (kind == "baseline" && session.outcome) {
      for (const BaselineStep& m : session.outcome->missing) {
        if (m.position == position) imageId = m.image;
      }
    }
    std::optional<std::vector<std::uint8_t>> bytes;
    if (imageId) bytes = store->readImage(*imageId);
    if (!bytes) throw RequestError(404, "no such image");
    res.set_content(std::string(bytes->begin(), bytes->end()), "image/png");
  }

  /// Runs a handler, turning refusals and failures into JSON error replies.
  httplib::Server::Handler guarded(void (Impl::*handler)(const Request&, Response&)) {
    return [this, handler](const Request& req, Response& res) {
      try {
        (this->*handler)(req, res);
      } catch (const RequestError& e) {
        replyError(res, e.status(), e.what());
      } catch (const StoreError& e) {
        Logger::logWithFormat("%@: storage failure: %@", describeRequest(req), e.what());
        replyError(res, 500, "storage failure");
      } catch (const std::exception& e) {
        Logger::logWithFormat("%@: internal error: %@", describeRequest(req), e.what());
        replyError(res, 500, "internal error");
      }
    };
  }

  void registerRoutes() {
    const std::string session = "/api/sessions/running/([^/]+)";
    http.Post("/api/sessions/running", guarded(&Impl::startSession));
    http.Post(session, guarded(&Impl::matchWindow));
    http.Delete(session, guarded(&Impl::stopSession));
    http.Delete("/api/sessions/batches/([^/]+)/close/bypointerid", guarded(&Impl::closeBatch));
    http.Get("/api/sessions/([^/]+)/steps/([0-9]{1,9})/(baseline|current|diff)\\.png",
             guarded(&Impl::stepImage));
    http.Get("/api/sessions/([^/]+)", guarded(&Impl::apiResults));
    http.Get("/app/sessions/([^/]+)", guarded(&Impl::appResults));

    http.set_payload_max_length(options.maxBodyBytes);
    // Replies the server makes itself (no route, body too large) get a JSON error body too.
    // Refusals are logged here, before the reply goes out.
    http.set_error_handler(
        httplib::Server::HandlerWithResponse([this](const Request& req, Response& res) {
          if (res.body.empty()) {
            std::string message =
                res.status == 404 ? "not found"
                : res.status == 413
                    ? "the body is larger than " + std::to_string(options.maxBodyBytes) + " bytes"
                    : "bad request";
            replyError(res, res.status, message);
          }
          std::optional<Json> body = json::parse(res.body);
          Logger::logWithFormat("%@ -> %li: %@", describeRequest(req), res.status,
                                body ? textAt(*body, "error") : std::string());
          return httplib::Server::HandlerResponse::Handled;
        }));
    // One line per request that succeeded; the query (which holds the API key) is left out.
    http.set_logger([](const Request& req, const Response& res) {
      if (res.status < 400) Logger::logWithFormat("%@ -> %li", describeRequest(req), res.status);
    });
    // Only SO_REUSEADDR: the library's default SO_REUSEPORT would let a second service share
    // the port silently.
    http.set_socket_options([](socket_t sock) {
      int yes = 1;
      setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
  }

  void apiResults(const Request& req, Response& res) { sessionResults(req, res, true); }
  void appResults(const Request& req, Response& res) { sessionResults(req, res, false); }
};

Service::Service(ServiceOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Service::~Service() {
  stop();
}

void Service::start() {
  Impl& i = *impl_;
  if (i.started) return;
  if (i.stopped) throw ServiceError("a stopped service cannot start again");
  if (i.options.apiKeys.empty()) throw ServiceError("no API key is configured");
  if (i.options.dataFolder.empty()) throw ServiceError("no data folder is configured");
  try {
    i.store = std::make_unique<Store>(i.options.dataFolder);
  } catch (const StoreError& e) {
    throw ServiceError(e.what());
  }
  i.registerRoutes();
  if (i.options.port == 0) {
    i.boundPort = i.http.bind_to_any_port(i.options.host);
  } else if (i.http.bind_to_port(i.options.host, i.options.port)) {
    i.boundPort = i.options.port;
  } else {
    i.boundPort = -1;
  }
  if (i.boundPort <= 0) {
    i.boundPort = 0;
    throw ServiceError("cannot listen on " + i.options.host + ":" + std::to_string(i.options.port));
  }
  i.thread = std::thread([&i] { i.http.listen_after_bind(); });
  // stop() only reaches a server that is already running, so wait for it to be.
  for (int n = 0; n < 5000 && !i.http.is_running(); ++n) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  i.started = true;
}

void Service::stop() {
  Impl& i = *impl_;
  if (!i.started) return;
  i.http.stop();
  if (i.thread.joinable()) i.thread.join();
  i.started = false;
  i.stopped = true;
}

int Service::port() const {
  return impl_->boundPort;
}

HandlerTime Service::matchWindowTime() const {
  return {impl_->matchRequests.load(), std::chrono::nanoseconds(impl_->matchNanoseconds.load())};
}

std::string Service::url() const {
  return "http://" + impl_->options.host + ":" + std::to_string(impl_->boundPort);
}

}  // namespace saffra::server
