#include "server/service.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>

#include "saffra/base/logger.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/geometry.h"
#include "saffra/platform/image.h"
#include "saffra/platform/json.h"
#include "saffra/platform/uuid.h"
#include "server/base64.h"
#include "server/http/http_server.h"
#include "server/image_cache.h"
#include "server/match_body.h"
#include "server/match_settings.h"
#include "server/matcher.h"
#include "server/pixel_pool.h"
#include "server/results_document.h"
#include "server/retention.h"
#include "server/store.h"
#include "server/thumbnail.h"
#include "server/upload_file.h"
#include "server/web_access.h"
#include "server/web_pages.h"

namespace saffra::server {

namespace {

using http::HttpServer;
using http::Params;
using http::Request;
using http::Response;

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

/// A browser request for a page (or image) without credentials: it is sent to the login form.
class LoginRequired : public std::exception {
 public:
  /// `next`: where the login returns to; empty for the request's own address.
  explicit LoginRequired(std::string next = "") : next_(std::move(next)) {}
  const char* what() const noexcept override { return "log in first"; }
  const std::string& next() const { return next_; }

 private:
  std::string next_;
};

bool accepts(const Request& req, std::string_view type) {
  return req.get_header_value("Accept").find(type) != std::string::npos;
}

/// The headers of every reply: pages load their script, style and images from the service
/// only (and their script talks to it only), are never framed, and never send their address (which
/// may hold a key) elsewhere.
void setSecurityHeaders(Response& res) {
  if (res.has_header("Content-Security-Policy")) return;
  res.set_header("Content-Security-Policy",
                 "default-src 'none'; img-src 'self'; style-src 'self'; script-src 'self'; "
                 "connect-src 'self'; "
                 "form-action 'self'; frame-ancestors 'none'; base-uri 'none'");
  res.set_header("X-Frame-Options", "DENY");
  res.set_header("Referrer-Policy", "no-referrer");
  res.set_header("X-Content-Type-Options", "nosniff");
}

void replyHtml(Response& res, int status, const std::string& html) {
  res.status = status;
  res.set_header("Cache-Control", "no-store");
  res.set_content(html, "text/html; charset=utf-8");
}

void redirect(Response& res, const std::string& location) {
  res.status = 303;
  res.set_header("Location", location);
}

/// The request's path and query without the API key, percent-encoded again: where a login
/// returns to.
std::string returnPath(const Request& req) {
  std::string path;
  std::size_t start = 0;
  while (start <= req.path.size()) {
    std::size_t slash = req.path.find('/', start);
    path += percentEncode(req.path.substr(start, slash - start));
    if (slash == std::string::npos) break;
    path += '/';
    start = slash + 1;
  }
  std::string query;
  for (const auto& [name, value] : req.params) {
    if (name == "apiKey") continue;
    query += (query.empty() ? "?" : "&") + percentEncode(name) + "=" + percentEncode(value);
  }
  return path + query;
}

/// The fields of a form posted as application/x-www-form-urlencoded.
Params formFields(const Request& req) {
  Params fields;
  if (req.get_header_value("Content-Type").rfind("application/x-www-form-urlencoded", 0) == 0) {
    http::parseQueryText(req.body, fields);
  }
  return fields;
}

std::string fieldAt(const Params& fields, const std::string& name) {
  auto found = fields.find(name);
  return found == fields.end() ? std::string() : found->second;
}

bool isForeign(const Request& req) {
  return isForeignRequest({req.get_header_value("Host"), req.get_header_value("Origin"),
                           req.get_header_value("Referer"),
                           req.get_header_value("Sec-Fetch-Site")});
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

/// The HTTP server's limits for the service's options.
http::ServerOptions serverOptions(const ServiceOptions& options) {
  http::ServerOptions server;
  server.maxBodyBytes = options.maxBodyBytes;
  return server;
}

std::string describeRequest(const Request& req) {
  return req.method + " " + req.path;
}

/// The states of a stopped session's steps by number (from 1), missing steps after the
/// session's own, with the verdicts `reviews` gives them.
std::vector<std::pair<std::int64_t, std::string>> stepStatesOf(
    const std::vector<StepRecord>& steps, const Outcome& outcome,
    const std::map<std::int64_t, bool>& reviews) {
  auto verdict = [&](std::int64_t position) {
    auto found = reviews.find(position);
    return found == reviews.end() ? std::nullopt : std::optional<bool>(found->second);
  };
  std::vector<std::pair<std::int64_t, std::string>> states;
  states.reserve(steps.size() + outcome.missing.size());
  for (const StepRecord& s : steps)
    states.emplace_back(s.position + 1, stepState(s, verdict(s.position)));
  for (const BaselineStep& m : outcome.missing) {
    std::optional<bool> accepted = verdict(m.position);
    states.emplace_back(m.position + 1,
                        accepted ? (*accepted ? "accepted" : "rejected") : "missing");
  }
  return states;
}

/// A short text that changes whenever one of the states does (FNV-1a of them). A page's forms
/// carry the one they were rendered with, so a decision made on an outdated page (sent twice,
/// or after someone else decided) is refused instead of applied to what the page did not show.
std::string stateToken(const std::vector<std::pair<std::int64_t, std::string>>& states,
                       std::uint64_t hash = 14695981039346656037ull) {
  auto mix = [&](std::string_view text) {
    for (char c : text) {
      hash ^= static_cast<unsigned char>(c);
      hash *= 1099511628211ull;
    }
  };
  for (const auto& [number, state] : states) {
    mix(std::to_string(number));
    mix(":");
    mix(state);
    mix(";");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string token(16, '0');
  for (int i = 15; i >= 0; --i, hash >>= 4) token[static_cast<std::size_t>(i)] = kHex[hash & 15];
  return token;
}

/// Steps that still need a decision.
bool isOpenState(const std::string& state) {
  return state == "mismatched" || state == "new" || state == "missing";
}

}  // namespace

struct Service::Impl {
  explicit Impl(ServiceOptions o)
      : options(std::move(o)), decodedImages(options.decodedImageCacheBytes) {}

  ServiceOptions options;
  std::unique_ptr<Store> store;
  Logins logins;
  AttemptLimiter attempts;
  HttpServer http{serverOptions(options)};
  /// When this run of the service started (seconds since the epoch).
  std::int64_t startedAt = 0;
  /// The background tasks: aborting idle sessions and retention.
  std::unique_ptr<PeriodicTask> idleSessions;
  std::unique_ptr<PeriodicTask> retention;
  int boundPort = 0;
  bool started = false;
  bool stopped = false;
  std::atomic<bool> stopping{false};
  /// Requests of one session run one at a time; sessions share these locks by hash.
  std::array<std::mutex, 64> sessionLocks;
  /// Match-window requests handled and the nanoseconds spent in their handler.
  std::atomic<std::uint64_t> matchRequests{0};
  std::atomic<std::int64_t> matchNanoseconds{0};
  /// Baselines already decoded, by image id.
  ImageCache decodedImages;
  /// Pixel buffers that uploads are decoded into. A few spare ones cover the checks running at
  /// once; more would only hold memory.
  std::shared_ptr<PixelPool> uploadPixels = std::make_shared<PixelPool>(4, std::size_t{128} << 20);
  /// Thumbnails of the images that step lists showed.
  ThumbnailCache thumbnails{std::size_t{32} << 20};

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

  /// Whether the query holds a configured key. An address whose wrong keys used up its
  /// attempts gets 429 for any key until its attempts come back, so keys cannot be guessed fast.
  bool hasApiKey(const Request& req) {
    if (!req.has_param("apiKey")) return false;
    if (!attempts.allows(req.remoteAddress)) throw tooManyAttempts();
    std::string key = req.get_param_value("apiKey");
    bool known = std::any_of(options.apiKeys.begin(), options.apiKeys.end(),
                             [&](const std::string& k) { return sameSecret(k, key); });
    if (!known) attempts.failed(req.remoteAddress);
    return known;
  }

  static RequestError tooManyAttempts() {
    return RequestError(429, "too many wrong API keys from this address; try again later");
  }

  void requireApiKey(const Request& req) {
    if (!hasApiKey(req)) throw RequestError(401, "missing or unknown API key");
  }

  /// The login whose token the request's cookie carries.
  std::optional<Logins::Login> loginOf(const Request& req) {
    std::optional<std::string> token = cookieValue(req.get_header_value("Cookie"), kLoginCookie);
    return token ? logins.find(*token) : std::nullopt;
  }

  /// Pages and images need an API key in the query or a login cookie. Browsers without either
  /// are sent to the login form; other clients get 401.
  void requireReader(const Request& req, const std::string& next = "") {
    if (hasApiKey(req) || loginOf(req)) return;
    if (accepts(req, "text/html")) throw LoginRequired(next);
    throw RequestError(401, "missing or unknown API key");
  }

  /// The login a page's forms belong to; a reader who came with the API key gets one (and its
  /// cookie), so the page's images, links and forms work without the key.
  Logins::Login pageLogin(const Request& req, Response& res) {
    requireReader(req);
    if (std::optional<Logins::Login> login = loginOf(req)) return *login;
    Logins::Login login = logins.createProvisional();
    res.set_header("Set-Cookie", loginCookie(login.token));
    return login;
  }

  /// The session a read request names.
  SessionRecord readableSession(const Request& req, const std::string& idText) {
    requireReader(req);
    std::string id = sessionIdFrom(idText);
    std::optional<SessionRecord> session = store->session(id);
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
      if (std::optional<BaselineRef> found = store->findBaseline(baselineKey(s, candidate))) {
        s.baselineId = found->id;
        s.baselineVersion = found->version;
        s.baselineBranch = candidate;
        break;
      }
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
    s.token = randomToken();
    s.startedAt = now();
    store->insertSession(s, batch);
    Logger::logWithFormat("session %@ started: '%@' of '%@'%@", s.id, s.testName, s.appName,
                          s.isNew ? " (new test)" : "");
    replyJson(res, s.isNew ? 201 : 200,
              Json{{"id", s.id},
                   {"url", linksFor(req).sessionPage(s)},
                   {"isNew", s.isNew},
                   {"batchId", s.batchId}});
  }

  /// The uploaded screenshot's bytes; `png` holds them when they were decoded while reading
  /// the body.
  static std::vector<std::uint8_t> screenshotFrom(const Json& body,
                                                  std::optional<std::vector<std::uint8_t>> png) {
    if (png) return std::move(*png);
    const Json* text = json::find(objectAt(body, "appOutput"), "screenshot64");
    if (!text || !text->is_string() || text->get_ref<const std::string&>().empty()) {
      throw RequestError(400, "appOutput.screenshot64 is missing");
    }
    png = decodeBase64(text->get_ref<const std::string&>());
    if (!png) throw RequestError(400, "screenshot64 is not valid base64");
    return std::move(*png);
  }

  /// Refuses an upload that is not a PNG or whose header declares a size the service does not
  /// accept, before anything decodes it.
  void checkDeclaredSize(const std::vector<std::uint8_t>& png) const {
    auto size = declaredPngSize(png);
    if (!size) throw RequestError(400, "screenshot64 is not a PNG image");
    if (size->first == 0 || size->second == 0 ||
        size->first * size->second > options.maxImagePixels) {
      throw RequestError(413, "the image's declared size " + std::to_string(size->first) + "x" +
                                  std::to_string(size->second) + " is not accepted");
    }
  }

  /// Decodes an upload into one of the pooled pixel buffers; this thread prepares its file
  /// while a helper decodes.
  std::shared_ptr<const Image> decodeUpload(const std::vector<std::uint8_t>& png,
                                            UploadFile& file) {
    try {
      return uploadPixels->decode(png, nullptr, nullptr, {}, [&] { file.prepare(*store); }).image;
    } catch (const Exception& e) {
      throw invalidUpload(e);
    }
  }
  /// The same, compared with `baseline` as it is decoded.
  DecodedMatch decodeUpload(const std::vector<std::uint8_t>& png, UploadFile& file,
                            const DecodedImage& baseline, const MatchSettings& settings) {
    try {
      return decodeAndMatch(*uploadPixels, png, baseline, settings, [&] { file.prepare(*store); });
    } catch (const Exception& e) {
      throw invalidUpload(e);
    }
  }
  static RequestError invalidUpload(const Exception& e) {
    return RequestError(400, "screenshot64 is not a valid PNG image: " + e.reason());
  }

  /// A stored image, decoded, with its bands; baselines are compared again at every run of
  /// their test, so decoded ones are kept.
  DecodedImage storedImage(const std::string& id) {
    if (DecodedImage kept = decodedImages.findDecoded(id); kept.image) return kept;
    std::optional<std::vector<std::uint8_t>> bytes = store->readImage(id);
    if (!bytes) throw StoreError("stored image " + id + " is missing");
    DecodedImage image;
    try {
      image = uploadPixels->decode(*bytes);
    } catch (const Exception& e) {
      throw StoreError("stored image " + id + " is unreadable: " + e.reason());
    }
    decodedImages.insert(id, image);
    return image;
  }

  // POST /api/sessions/running/{id}
  void matchWindow(const Request& req, Response& res) {
    HandlerTimer timer(matchRequests, matchNanoseconds);
    requireApiKey(req);
    std::string id = sessionIdFrom(req.matches[1]);
    // The usual body is read without running its multi-megabyte screenshot text through the
    // JSON parser; anything unusual takes the general way, which gives the precise refusal.
    Json body;
    std::optional<std::vector<std::uint8_t>> uploaded;
    if (std::optional<MatchBody> quick = readMatchBody(req.body)) {
      body = std::move(quick->body);
      uploaded = std::move(quick->screenshot);
    } else {
      body = parseBody(req);
    }
    const std::vector<std::uint8_t> png = screenshotFrom(body, std::move(uploaded));
    const Json& options = objectAt(body, "options");
    MatchSettings settings = MatchSettings::fromJson(objectAt(options, "imageMatchSettings"));
    std::string tag = textAt(body, "tag");
    if (tag.empty()) tag = textAt(options, "name");

    std::lock_guard lock(lockFor(id));
    std::optional<SessionRecord> session = store->session(id);
    if (!session) throw RequestError(404, "unknown session");
    if (session->outcome) throw RequestError(409, stoppedMessage(*session->outcome));
    store->touchSession(id, now());
    checkDeclaredSize(png);

    StepRecord step;
    step.position = store->stepCount(id);
    step.tag = tag;
    step.matchLevel = matchLevelName(settings.matchLevel);
    step.settings = objectAt(options, "imageMatchSettings");
    MatchOutcome outcome;
    // The checkpoint is paired with the baseline step of its tag: the n-th checkpoint with a
    // tag in this session with the n-th baseline step with that tag, whatever comes between.
    std::optional<BaselineStep> baseline;
    if (session->baselineId && session->baselineVersion) {
      baseline = store->baselineStepByTag(*session->baselineId, *session->baselineVersion, tag,
                                          store->stepCountWithTag(id, tag));
    }
    // An upload byte for byte equal to a baseline image of its step (its main image or an
    // accepted alternative) has that image's pixels, so it matches at every level and is not
    // decoded: the stored image was decoded, and so checked, before it was first stored. Only
    // an upload of such a file's size can be it, so only such an upload is hashed before
    // anything else.
    std::optional<std::string> uploadId;
    std::optional<std::string> sameImage;
    if (baseline) {
      std::vector<const std::string*> images{&baseline->image};
      for (const std::string& alternative : baseline->alternatives) images.push_back(&alternative);
      for (const std::string* image : images) {
        if (store->imageSize(*image) != png.size()) continue;
        if (!uploadId) uploadId = Store::imageIdOf(png);
        if (*uploadId == *image) {
          sameImage = *image;
          break;
        }
      }
    }
    const bool sameAsBaseline = sameImage.has_value();
    const bool ignoreMatch = boolAt(options, "ignoreMatch");
    const bool ignoreMismatch = boolAt(options, "ignoreMismatch");
    // Every other upload is hashed while a helper decodes it; a step recorded whatever its
    // verdict also has a new upload written then under a temporary name. The file is stored
    // only once the upload proved a valid image, before the step's row refers to it (otherwise
    // it is removed), and the store flushes it to disk after the reply.
    UploadFile file(png, std::move(uploadId), !ignoreMatch && !ignoreMismatch);

    std::shared_ptr<const Image> current;
    DecodedImage baselinePixels;
    std::optional<std::string> matchedAlternative;
    if (sameAsBaseline) {
      outcome.matches = true;
      if (*sameImage != baseline->image) matchedAlternative = sameImage;
    } else if (baseline) {
      // The comparison follows the decoding.
      baselinePixels = storedImage(baseline->image);
      DecodedMatch match = decodeUpload(png, file, baselinePixels, settings);
      current = std::move(match.current);
      outcome = std::move(match.outcome);
      // A step rendered more than one accepted way passes when it matches any of them.
      for (const std::string& alternative : baseline->alternatives) {
        if (outcome.matches) break;
        MatchOutcome other = matchImages(*storedImage(alternative).image, *current, settings);
        if (other.matches) {
          outcome = std::move(other);
          matchedAlternative = alternative;
        }
      }
    } else {
      current = decodeUpload(png, file);
      // Steps of a new test become its proposed baseline; a step beyond an existing baseline
      // is new and needs approval.
      outcome.matches = session->isNew;
    }
    if (baseline) {
      step.baselineImage = matchedAlternative.value_or(baseline->image);
      step.baselinePosition = baseline->position;
      step.matchedAlternative = matchedAlternative.has_value();
    }
    if (boolAt(options, "forceMatch")) outcome.matches = true;
    if (boolAt(options, "forceMismatch")) outcome.matches = false;
    step.asExpected = outcome.matches;

    // A mismatch sent with ignoreMismatch is a retry that a later attempt replaces.
    const bool record = outcome.matches ? !ignoreMatch : !ignoreMismatch;
    if (record) {
      step.currentImage = sameAsBaseline ? *sameImage : file.keep(*store);
      if (baselinePixels.image) {
        if (std::shared_ptr<Image> diff = diffImage(*baselinePixels.image, outcome)) {
          step.diffImage = store->putImage(diff->pngData());
        }
        if (std::optional<Json> changes = changesOf(outcome)) {
          store->putStepChanges(id, step.position, *changes);
        }
      }
      if (!settings.accessibility.empty()) {
        const std::shared_ptr<const Image> pixels =
            current ? current : storedImage(*sameImage).image;
        if (auto verdict = checkAccessibility(*pixels, settings)) {
          step.accessibilityPassed = verdict->passed;
          step.accessibilityLevel = verdict->level;
        }
      }
      store->insertStep(id, step);
    }
    replyJson(res, 200, Json{{"asExpected", outcome.matches}});
  }

  /// Judges and records the end of a running session (under its lock). A save that would undo
  /// what was accepted into the baseline since the session started is not made: the session is
  /// then left for review.
  Outcome finish(const SessionRecord& session, bool aborted, bool save) {
    std::vector<StepRecord> steps = store->steps(session.id);
    std::vector<BaselineStep> baseline;
    if (session.baselineId && session.baselineVersion) {
      baseline = store->baselineSteps(*session.baselineId, *session.baselineVersion);
    }
    Outcome outcome = decideOutcome(steps, baseline, session.isNew, aborted, save, now());
    std::vector<BaselineStep> saved;
    if (outcome.savedAsBaseline) saved = baselineAfterSave(steps, baseline);
    try {
      store->finishSession(session.id, outcome, outcome.savedAsBaseline ? &saved : nullptr);
    } catch (const StaleBaselineError& e) {
      Logger::logWithFormat("session %@ not saved as the baseline: %@", session.id,
                            std::string(e.what()));
      outcome = decideOutcome(steps, baseline, session.isNew, aborted, false, now());
      store->finishSession(session.id, outcome, nullptr);
    }
    return outcome;
  }

  static std::string stoppedMessage(const Outcome& outcome) {
    return outcome.isAborted ? "the session was aborted" : "the session is already stopped";
  }

  /// Aborts the running sessions whose client has sent nothing for the idle time; sessions of
  /// an earlier run of the service count from its start.
  void abortIdleSessions() {
    const auto idle = std::chrono::duration_cast<std::chrono::seconds>(options.idleSessionTimeout);
    const std::int64_t cutoff = now() - std::max<std::int64_t>(idle.count(), 1);
    if (cutoff < startedAt) return;
    for (const std::string& id : store->idleSessions(cutoff)) {
      std::lock_guard lock(lockFor(id));
      std::optional<SessionRecord> session = store->session(id);
      if (!session || session->outcome || session->lastActiveAt >= cutoff) continue;
      finish(*session, true, false);
      Logger::logWithFormat("session %@ aborted: no request for %li s", id,
                            static_cast<std::int64_t>(idle.count()));
    }
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
      session->outcome = finish(*session, aborted, save);
      Logger::logWithFormat("session %@ stopped: %@%@", id, session->outcome->status,
                            session->outcome->savedAsBaseline ? ", saved as baseline" : "");
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
    if (api && accepts(req, "text/html") && !accepts(req, "application/json")) {
      // The results address the client prints: a browser following it gets the test's page.
      redirect(res, "/app/sessions/" + percentEncode(sessionIdFrom(req.matches[1])));
      return;
    }
    SessionRecord session = readableSession(req, req.matches[1]);
    if (api) {
      replyJson(res, 200, documentFor(session, linksFor(req)));
      return;
    }
    Logins::Login login = pageLogin(req, res);
    TestView view = testView(session, login.csrf);
    view.filter = req.get_param_value("status");
    std::vector<std::pair<std::int64_t, std::string>> states;
    for (const StepView& step : view.steps) states.emplace_back(step.number, step.state);
    view.state = stateToken(states);
    view.undoDecision = store->lastDecision(reviewerOf(login.token));
    replyHtml(res, 200, renderTestPage(view));
  }

  /// A stored image as a page refers to it, with the size its PNG header declares.
  /// Pages refer to images by their content's id, so a browser keeps each one for good; only
  /// the PNG header is read here.
  ImageRef imageRef(const std::string& imageId) {
    ImageRef ref;
    ref.url = "/app/images/" + imageId + ".png";
    ref.thumbnail = "/app/thumbs/" + imageId + ".png";
    if (auto bytes = store->imageHead(imageId, 24)) {
      if (auto size = declaredPngSize(*bytes)) {
        ref.width = static_cast<std::int64_t>(std::min<std::uint64_t>(size->first, INT32_MAX));
        ref.height = static_cast<std::int64_t>(std::min<std::uint64_t>(size->second, INT32_MAX));
      }
    }
    return ref;
  }

  TestView testView(const SessionRecord& session, const std::string& csrf) {
    TestView view;
    view.document = documentFor(session, Links(""));
    view.csrf = csrf;
    view.reviewable = session.outcome.has_value();
    std::map<std::int64_t, Verdict> reviews = store->reviews(session.id);
    auto verdict = [&](std::int64_t position) -> std::optional<bool> {
      auto found = reviews.find(position);
      return found == reviews.end() ? std::nullopt : std::optional<bool>(found->second.accepted);
    };
    std::map<std::int64_t, Json> changes = store->stepChanges(session.id);
    for (const StepRecord& s : store->steps(session.id)) {
      StepView step;
      step.number = s.position + 1;
      step.name = s.tag;
      step.state = stepState(s, verdict(s.position));
      step.matchLevel = s.matchLevel;
      if (s.baselineImage) step.baseline = imageRef(*s.baselineImage);
      step.current = imageRef(s.currentImage);
      if (s.diffImage) step.diff = imageRef(*s.diffImage);
      step.regions = regionsOf(MatchSettings::fromJson(s.settings));
      step.matchedAlternative = s.matchedAlternative;
      step.canAcceptAlternative = s.baselineImage && !s.asExpected;
      if (auto found = changes.find(s.position); found != changes.end()) {
        step.changes = changesFromJson(found->second);
      }
      view.steps.push_back(std::move(step));
    }
    if (session.outcome) {
      for (const BaselineStep& m : session.outcome->missing) {
        StepView step;
        step.number = m.position + 1;
        step.name = m.tag;
        std::optional<bool> accepted = verdict(m.position);
        step.state = accepted ? (*accepted ? "accepted" : "rejected") : "missing";
        step.baseline = imageRef(m.image);
        view.steps.push_back(std::move(step));
      }
    }
    return view;
  }

  // GET /, /app: the batch list.
  void home(const Request&, Response& res) { redirect(res, "/app/batches"); }

  // GET /app/static/{app.css|app.js}
  void staticFile(const Request& req, Response& res) {
    bool css = req.matches[1] == "app.css";
    res.set_header("Cache-Control", "no-cache");
    res.set_content(std::string(css ? pageStyleSheet() : pageScript()),
                    css ? "text/css; charset=utf-8" : "text/javascript; charset=utf-8");
  }

  // GET /app/login?next=...
  void loginForm(const Request& req, Response& res) {
    replyHtml(res, 200,
              renderLoginPage(localPathOr(req.get_param_value("next"), "/app/batches"), ""));
  }

  // POST /app/login with the form fields apiKey and next.
  void login(const Request& req, Response& res) {
    if (isForeign(req)) throw RequestError(403, "cross-site request refused");
    Params fields = formFields(req);
    std::string key = fieldAt(fields, "apiKey");
    std::string next = localPathOr(fieldAt(fields, "next"), "/app/batches");
    if (!attempts.allows(req.remoteAddress)) throw tooManyAttempts();
    bool known = std::any_of(options.apiKeys.begin(), options.apiKeys.end(),
                             [&](const std::string& k) { return sameSecret(k, key); });
    if (!known) {
      attempts.failed(req.remoteAddress);
      if (!accepts(req, "text/html")) throw RequestError(401, "missing or unknown API key");
      replyHtml(res, 401, renderLoginPage(next, "Unknown API key."));
      return;
    }
    std::optional<Logins::Login> login = logins.create();
    if (!login) throw RequestError(503, "too many logins are in use; try again later");
    res.set_header("Set-Cookie", loginCookie(login->token));
    redirect(res, next);
  }

  // GET /app/batches
  // GET /app/batches?q=<search>&page=<n from 1>
  void batchList(const Request& req, Response& res) {
    pageLogin(req, res);
    BatchListView view;
    view.search = req.get_param_value("q").substr(0, 200);
    const std::string pageText = req.get_param_value("page");
    if (!pageText.empty() && pageText.size() < 9 &&
        std::all_of(pageText.begin(), pageText.end(),
                    [](char c) { return c >= '0' && c <= '9'; })) {
      view.page = std::max<std::int64_t>(1, std::stoll(pageText));
    }
    view.batches =
        store->batchSummaries(view.search, (view.page - 1) * view.pageSize, view.pageSize);
    replyHtml(res, 200, renderBatchList(view));
  }

  // GET /app/batches/{id}
  void batchPage(const Request& req, Response& res) {
    Logins::Login login = pageLogin(req, res);
    std::optional<BatchRecord> batch = store->batch(req.matches[1]);
    if (!batch) throw RequestError(404, "unknown batch");
    if (req.has_param("accept")) return batchAcceptConfirmation(res, *batch, login.csrf);
    std::vector<Json> tests;
    for (const SessionRecord& s : store->sessionsInBatch(batch->id)) {
      tests.push_back(resultsDocument(s, batch->name, store->steps(s.id), Links("")));
    }
    replyHtml(res, 200,
              renderBatchPage(*batch, tests,
                              batchActions(batch->id, login.csrf,
                                           store->lastDecision(reviewerOf(login.token)))));
  }

  /// Checks a review form: from this service's own pages, by a logged-in reader, with the
  /// login's CSRF token.
  void requireReviewForm(const Request& req, const std::string& sessionIdOrPage) {
    if (isForeign(req)) throw RequestError(403, "cross-site request refused");
    std::optional<Logins::Login> login = loginOf(req);
    if (!login) {
      // A browser whose login expired logs in again and returns to the page.
      const std::string page = sessionIdOrPage.rfind("/app/", 0) == 0
                                   ? sessionIdOrPage
                                   : "/app/sessions/" + sessionIdOrPage;
      if (!hasApiKey(req)) requireReader(req, page);
      throw RequestError(403, "missing or invalid CSRF token");
    }
    std::string csrf = fieldAt(formFields(req), "csrf");
    if (csrf.empty() || !sameSecret(csrf, login->csrf)) {
      throw RequestError(403, "missing or invalid CSRF token");
    }
  }

  // POST /app/sessions/{id}/steps/{n}/{accept|alternative|reject} and
  // POST /app/sessions/{id}/accept, from the pages.
  void review(const Request& req, Response& res) {
    std::string id = sessionIdFrom(req.matches[1]);
    requireReviewForm(req, id);
    const bool confirmed = fieldAt(formFields(req), "confirm") == "1";
    reviewSession(req, res, id, confirmed, accepts(req, "application/json"));
  }

  // POST /api/sessions/{id}/steps/{n}/{accept|alternative|reject} and
  // POST /api/sessions/{id}/accept, with the API key.
  void reviewApi(const Request& req, Response& res) {
    requireApiKey(req);
    std::string id = sessionIdFrom(req.matches[1]);
    reviewSession(req, res, id, queryFlag(req, "confirm"), true);
  }

  void reviewSession(const Request& req, Response& res, const std::string& id, bool confirmed,
                     bool replyWithJson) {
    bool all = req.matches.size() < 4;
    std::int64_t number = 0;
    std::string action = "accept";
    if (!all) {
      number = std::stoll(req.matches[2]);
      action = req.matches[3];
    }

    std::lock_guard lock(lockFor(id));
    std::optional<SessionRecord> session = store->session(id);
    if (!session) throw RequestError(404, "unknown session");
    if (!session->outcome) throw RequestError(409, "the session is still running");
    std::vector<StepRecord> steps = store->steps(id);
    std::map<std::int64_t, bool> reviews;
    const std::map<std::int64_t, Verdict> verdicts = store->reviews(id);
    for (const auto& [position, verdict] : verdicts) reviews[position] = verdict.accepted;
    const Outcome& stopped = *session->outcome;
    requireShownState(req, all, number, stepStatesOf(steps, stopped, reviews));

    // Accepted images go to the baseline step of their own tag: the n-th step with a tag in
    // the session to the n-th baseline step with that tag.
    auto occurrenceOf = [&](const StepRecord& step) {
      return static_cast<std::int64_t>(std::count_if(steps.begin(), steps.end(), [&](auto& s) {
        return s.tag == step.tag && s.position < step.position;
      }));
    };
    std::optional<std::vector<BaselineStep>> compared;
    auto occurrenceOfMissing = [&](std::size_t i) -> std::int64_t {
      if (!compared) {
        compared = session->baselineId && session->baselineVersion
                       ? store->baselineSteps(*session->baselineId, *session->baselineVersion)
                       : std::vector<BaselineStep>{};
      }
      const std::int64_t at = i < stopped.baselinePositions.size() ? stopped.baselinePositions[i]
                                                                   : stopped.missing[i].position;
      return static_cast<std::int64_t>(std::count_if(
          compared->begin(), compared->end(),
          [&](auto& b) { return b.tag == stopped.missing[i].tag && b.position < at; }));
    };
    std::vector<StepReview> changes;
    auto verdictOn = [&](std::int64_t position, const std::string& verdict) {
      const bool accepted = verdict != "reject";
      for (const StepRecord& s : steps) {
        if (s.position != position) continue;
        StepReview r{position, accepted, false, std::nullopt};
        if (accepted) {
          // Beside the baseline's image only where there is one to keep.
          r.asAlternative = verdict == "alternative" && s.baselineImage.has_value();
          r.change = BaselineChange{r.asAlternative ? BaselineChange::Kind::AddAlternative
                                                    : BaselineChange::Kind::Replace,
                                    s.tag, occurrenceOf(s), s.currentImage};
        }
        changes.push_back(std::move(r));
        return true;
      }
      for (std::size_t i = 0; i < stopped.missing.size(); ++i) {
        const BaselineStep& m = stopped.missing[i];
        if (m.position != position) continue;
        if (verdict == "alternative") {
          throw RequestError(400, "a missing step has no image to accept as an alternative");
        }
        StepReview r{position, accepted, false, std::nullopt};
        if (accepted) {
          r.change = BaselineChange{BaselineChange::Kind::Drop, m.tag, occurrenceOfMissing(i), ""};
        }
        changes.push_back(std::move(r));
        return true;
      }
      return false;
    };
    if (all) {
      // Everything that keeps the test from passing: changed, new and missing steps.
      // Steps accepted already are left as they are.
      auto acceptedAlready = [&](std::int64_t position) {
        auto found = reviews.find(position);
        return found != reviews.end() && found->second;
      };
      for (const StepRecord& s : steps) {
        if (stepState(s, std::nullopt) != "matched" && !acceptedAlready(s.position)) {
          verdictOn(s.position, "accept");
        }
      }
      for (const BaselineStep& m : stopped.missing) {
        if (!acceptedAlready(m.position)) verdictOn(m.position, "accept");
      }
      if (changes.empty()) {
        throw RequestError(409,
                           "Nothing to accept: every changed, new or missing step of the "
                           "test is accepted already.");
      }
    } else if (number < 1 || !verdictOn(number - 1, action)) {
      throw RequestError(404, "unknown step");
    } else if (auto found = verdicts.find(number - 1);
               found != verdicts.end() && found->second.accepted == changes[0].accepted &&
               found->second.asAlternative == changes[0].asAlternative) {
      // The same decision again (a double click, a repeated request): nothing changes.
      throw RequestError(409, "Step " + std::to_string(number) + " is " +
                                  (changes[0].accepted ? "accepted" : "rejected") +
                                  " already; nothing was changed.");
    }
    for (const StepReview& r : changes) reviews[r.position] = r.accepted;
    Outcome outcome = stopped;
    outcome.status = reviewedStatus(outcome, steps, reviews);
    std::int64_t decision = 0;
    try {
      decision = store->decide(reviewerOf(req), all ? "test" : "step", {{id, changes, outcome}},
                               confirmed);
    } catch (const StaleBaselineError& e) {
      const std::string message = std::string(e.what()) + "; accepting would replace it";
      if (!replyWithJson && accepts(req, "text/html")) {
        std::optional<Logins::Login> login = loginOf(req);
        replyHtml(res, 409,
                  renderConfirmAcceptPage(e.what(), req.path, login ? login->csrf : "",
                                          "/app/sessions/" + id));
        return;
      }
      replyJson(res, 409,
                Json{{"error", message + " (confirm to accept anyway)"},
                     {"comparedVersion", e.comparedVersion()},
                     {"currentVersion", e.currentVersion()}});
      return;
    }
    Logger::logWithFormat("session %@ reviewed: %@", id, outcome.status);

    if (!replyWithJson) {
      redirect(res, "/app/sessions/" + id + (all ? "" : "#step-" + std::to_string(number)));
      return;
    }
    Json stepStates = Json::array();
    for (const StepRecord& s : steps) {
      auto found = reviews.find(s.position);
      stepStates.push_back(
          {{"step", s.position + 1},
           {"status", stepState(s, found == reviews.end() ? std::nullopt
                                                          : std::optional<bool>(found->second))}});
    }
    for (const BaselineStep& m : stopped.missing) {
      auto found = reviews.find(m.position);
      std::string state = found == reviews.end() ? "missing"
                          : found->second        ? "accepted"
                                                 : "rejected";
      stepStates.push_back({{"step", m.position + 1}, {"status", state}});
    }
    Json reply{{"id", id},
               {"status", outcome.status},
               {"state", stateToken(stepStatesOf(steps, stopped, reviews))},
               {"decision", decision}};
    if (!all) {
      for (const Json& s : stepStates) {
        if (s["step"] == number) reply["step"] = s;
      }
    }
    reply["steps"] = std::move(stepStates);
    replyJson(res, 200, reply);
  }

  /// Who decides: a page's login (by a digest of its token, so the database holds no secret)
  /// or a holder of an API key. Undo works on the reviewer's own decisions.
  static std::string reviewerOf(const std::string& loginToken) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(loginToken.data());
    return "login:" + Store::imageIdOf({bytes, loginToken.size()}).substr(0, 32);
  }
  std::string reviewerOf(const Request& req) {
    std::optional<Logins::Login> login = loginOf(req);
    return login ? reviewerOf(login->token) : "api";
  }

  /// A decision may carry the state its page showed (form field or query "state": the step's
  /// state, or the token of the whole test). When the test changed since, the decision is
  /// refused and changes nothing: it was sent twice, or someone decided in between.
  static void requireShownState(const Request& req, bool all, std::int64_t number,
                                const std::vector<std::pair<std::int64_t, std::string>>& states) {
    const std::string shown =
        req.has_param("state") ? req.get_param_value("state") : fieldAt(formFields(req), "state");
    if (shown.empty()) return;
    std::string current;
    if (all) {
      current = stateToken(states);
    } else {
      for (const auto& [n, state] : states) {
        if (n == number) current = state;
      }
    }
    if (current.empty() || shown == current) return;  // an unknown step is refused as such
    throw RequestError(
        409, all ? "The test was decided since this page was shown (or this decision was sent "
                   "twice); nothing was changed. Reload the page to see it."
                 : "Step " + std::to_string(number) + " was decided since this page was shown " +
                       "(it is " + (current == "mismatched" ? "changed" : current) +
                       " now), or this decision was sent twice; nothing was changed. Reload the "
                       "page to see it.");
  }

  /// What a batch-wide accept would do: for every stopped session of the batch that was not
  /// aborted and did not pass, its changed, new and missing steps without a verdict, accepted.
  struct BatchPlan {
    std::vector<SessionDecision> decisions;
    /// The sessions accepted, with their names and the number of steps.
    std::vector<std::pair<SessionRecord, std::int64_t>> tests;
    std::int64_t steps = 0;
    std::int64_t leftOut = 0;  // running and aborted sessions
    std::string state;         // changes when any session or step of the batch does
  };
  BatchPlan planBatchAccept(const std::vector<SessionRecord>& sessions) {
    BatchPlan plan;
    std::vector<std::pair<std::int64_t, std::string>> tokens;
    for (std::size_t i = 0; i < sessions.size(); ++i) {
      const SessionRecord& session = sessions[i];
      if (!session.outcome || session.outcome->isAborted) {
        ++plan.leftOut;
        tokens.emplace_back(static_cast<std::int64_t>(i),
                            session.id + (session.outcome ? "!" : "?"));
        continue;
      }
      const Outcome& stopped = *session.outcome;
      if (stopped.status == "Passed") {
        // Nothing stands in its way (a new test saved as its baseline passes with new steps).
        tokens.emplace_back(static_cast<std::int64_t>(i), session.id + "=");
        continue;
      }
      std::vector<StepRecord> steps = store->steps(session.id);
      std::map<std::int64_t, bool> reviews;
      for (const auto& [position, verdict] : store->reviews(session.id)) {
        reviews[position] = verdict.accepted;
      }
      std::vector<std::pair<std::int64_t, std::string>> states =
          stepStatesOf(steps, stopped, reviews);
      tokens.emplace_back(static_cast<std::int64_t>(i), session.id + stateToken(states));
      // States are in the order of `steps`, then of the missing steps.
      std::vector<StepReview> changes;
      std::map<std::string, std::int64_t> seen;  // steps of each tag so far, in position order
      for (std::size_t k = 0; k < steps.size(); ++k) {
        const StepRecord& s = steps[k];
        const std::int64_t occurrence = seen[s.tag]++;
        if (!isOpenState(states[k].second)) continue;
        changes.push_back(
            {s.position, true, false,
             BaselineChange{BaselineChange::Kind::Replace, s.tag, occurrence, s.currentImage}});
      }
      std::optional<std::vector<BaselineStep>> compared;
      for (std::size_t k = 0; k < stopped.missing.size(); ++k) {
        if (!isOpenState(states[steps.size() + k].second)) continue;
        if (!compared) {
          compared = session.baselineId && session.baselineVersion
                         ? store->baselineSteps(*session.baselineId, *session.baselineVersion)
                         : std::vector<BaselineStep>{};
        }
        const BaselineStep& m = stopped.missing[k];
        const std::int64_t at =
            k < stopped.baselinePositions.size() ? stopped.baselinePositions[k] : m.position;
        const auto occurrence = static_cast<std::int64_t>(std::count_if(
            compared->begin(), compared->end(),
            [&](const BaselineStep& b) { return b.tag == m.tag && b.position < at; }));
        changes.push_back({m.position, true, false,
                           BaselineChange{BaselineChange::Kind::Drop, m.tag, occurrence, ""}});
      }
      if (changes.empty()) continue;
      for (const StepReview& r : changes) reviews[r.position] = true;
      Outcome outcome = stopped;
      outcome.status = reviewedStatus(outcome, steps, reviews);
      plan.steps += static_cast<std::int64_t>(changes.size());
      plan.tests.emplace_back(session, static_cast<std::int64_t>(changes.size()));
      plan.decisions.push_back({session.id, std::move(changes), std::move(outcome)});
    }
    plan.state = stateToken(tokens);
    return plan;
  }

  /// Holds the locks of these sessions (each once, in one order, so that two holders never
  /// wait for each other).
  std::vector<std::unique_lock<std::mutex>> lockSessions(
      const std::vector<SessionRecord>& sessions) {
    std::vector<std::mutex*> locks;
    for (const SessionRecord& s : sessions) locks.push_back(&lockFor(s.id));
    std::sort(locks.begin(), locks.end());
    locks.erase(std::unique(locks.begin(), locks.end()), locks.end());
    std::vector<std::unique_lock<std::mutex>> held;
    for (std::mutex* m : locks) held.emplace_back(*m);
    return held;
  }

  static std::string batchPath(const std::string& batchId) {
    return "/app/batches/" + percentEncode(batchId);
  }
  static std::string testLabel(const SessionRecord& s) { return s.appName + " / " + s.testName; }

  /// Replies a refusal: a page for a browser's form, JSON otherwise.
  static void refuse(const Request& req, Response& res, bool replyWithJson, int status,
                     const std::string& message, const std::string& back) {
    if (!replyWithJson && accepts(req, "text/html")) {
      replyHtml(res, status, renderMessagePage("Nothing was changed", message, back));
      return;
    }
    replyError(res, status, message);
  }

  // GET /app/batches/{id}?accept=1: what a batch-wide accept would do, and its button.
  void batchAcceptConfirmation(Response& res, const BatchRecord& batch, const std::string& csrf) {
    std::vector<SessionRecord> sessions = store->sessionsInBatch(batch.id);
    BatchPlan plan;
    {
      auto held = lockSessions(sessions);
      plan = planBatchAccept(sessions);
    }
    replyHtml(res, 200, renderBatchAcceptPage(batchAcceptView(batch, plan, csrf, {})));
  }

  static BatchAcceptView batchAcceptView(const BatchRecord& batch, const BatchPlan& plan,
                                         const std::string& csrf,
                                         const std::vector<StaleSession>& stale) {
    BatchAcceptView view;
    view.batchId = batch.id;
    view.batchName = batch.name && !batch.name->empty() ? *batch.name : batch.id;
    for (const auto& [session, steps] : plan.tests) {
      view.tests.push_back({session.id, testLabel(session), steps});
    }
    view.steps = plan.steps;
    view.leftOut = plan.leftOut;
    view.state = plan.state;
    view.csrf = csrf;
    for (const StaleSession& s : stale) {
      std::string name = s.sessionId;
      for (const auto& [session, steps] : plan.tests) {
        if (session.id == s.sessionId) name = testLabel(session);
      }
      view.stale.push_back(name + ": " + s.message);
    }
    return view;
  }

  // POST /app/batches/{id}/accept (page form: csrf, state, confirm) and
  // POST /api/batches/{id}/accept?confirm=..&state=.. (API key): accepts every changed, new or
  // missing step without a verdict in every stopped, not aborted session of the batch, as one
  // decision in one transaction.
  void batchAcceptForm(const Request& req, Response& res) {
    const std::string id = req.matches[1];
    requireReviewForm(req, batchPath(id));
    Params fields = formFields(req);
    acceptBatch(req, res, id, fieldAt(fields, "confirm") == "1", fieldAt(fields, "state"),
                accepts(req, "application/json"));
  }
  void batchAcceptApi(const Request& req, Response& res) {
    requireApiKey(req);
    acceptBatch(req, res, req.matches[1], queryFlag(req, "confirm"), req.get_param_value("state"),
                true);
  }
  void acceptBatch(const Request& req, Response& res, const std::string& id, bool confirmed,
                   const std::string& shownState, bool replyWithJson) {
    std::optional<BatchRecord> batch = store->batch(id);
    if (!batch) throw RequestError(404, "unknown batch");
    std::vector<SessionRecord> sessions = store->sessionsInBatch(id);
    auto held = lockSessions(sessions);
    BatchPlan plan = planBatchAccept(sessions);
    const std::string confirmation = batchPath(id) + "?accept=1";
    if (!shownState.empty() && shownState != plan.state) {
      refuse(req, res, replyWithJson, 409,
             "The batch changed since the confirmation was shown (a test finished or a step was "
             "decided, or this accept was sent twice); nothing was accepted.",
             confirmation);
      return;
    }
    if (plan.decisions.empty()) {
      refuse(req, res, replyWithJson, 409,
             "Nothing to accept: no stopped test of the batch has a changed, new or missing step "
             "without a decision.",
             batchPath(id));
      return;
    }
    std::int64_t decision = 0;
    try {
      decision = store->decide(reviewerOf(req), "batch", plan.decisions, confirmed);
    } catch (const StaleSessionsError& e) {
      if (!replyWithJson && accepts(req, "text/html")) {
        std::optional<Logins::Login> login = loginOf(req);
        replyHtml(res, 409,
                  renderBatchAcceptPage(
                      batchAcceptView(*batch, plan, login ? login->csrf : "", e.sessions())));
        return;
      }
      Json stale = Json::array();
      for (const StaleSession& s : e.sessions()) {
        stale.push_back({{"id", s.sessionId},
                         {"message", s.message},
                         {"comparedVersion", s.comparedVersion},
                         {"currentVersion", s.currentVersion}});
      }
      replyJson(res, 409,
                Json{{"error", std::to_string(e.sessions().size()) +
                                   " of the tests were compared with a baseline that moved on "
                                   "since; accepting would replace it (confirm to accept anyway)"},
                     {"stale", std::move(stale)}});
      return;
    }
    Logger::logWithFormat("batch %@ accepted: %li steps in %li tests", id, plan.steps,
                          static_cast<std::int64_t>(plan.tests.size()));
    if (!replyWithJson) {
      redirect(res, batchPath(id));
      return;
    }
    Json tests = Json::array();
    for (std::size_t i = 0; i < plan.tests.size(); ++i) {
      tests.push_back({{"id", plan.tests[i].first.id},
                       {"steps", plan.tests[i].second},
                       {"status", plan.decisions[i].outcome.status}});
    }
    replyJson(res, 200,
              Json{{"batchId", id},
                   {"decision", decision},
                   {"steps", plan.steps},
                   {"tests", std::move(tests)}});
  }

  // POST /app/undo (page form: csrf, decision, next) and POST /api/undo?decision=N (API key):
  // undoes the reviewer's last decision. `decision` is the one the page offered to undo, so an
  // undo sent twice undoes once.
  void undoForm(const Request& req, Response& res) {
    requireReviewForm(req, "/app/batches");
    Params fields = formFields(req);
    undo(req, res, reviewerOf(req), fieldAt(fields, "decision"), accepts(req, "application/json"),
         localPathOr(fieldAt(fields, "next"), "/app/batches"));
  }
  void undoApi(const Request& req, Response& res) {
    requireApiKey(req);
    undo(req, res, "api", req.get_param_value("decision"), true, "");
  }
  void undo(const Request& req, Response& res, const std::string& reviewer,
            const std::string& decisionText, bool replyWithJson, const std::string& next) {
    std::optional<std::int64_t> expected;
    if (!decisionText.empty()) {
      try {
        std::size_t used = 0;
        expected = std::stoll(decisionText, &used);
        if (used != decisionText.size()) expected.reset();
      } catch (const std::logic_error&) {
      }
      if (!expected) throw RequestError(400, "decision must be a number");
    }
    std::optional<UndoneDecision> undone;
    if (std::optional<UndoneDecision> last = store->decisionToUndo(reviewer)) {
      // No review of its sessions runs meanwhile. Should another decision of the reviewer come
      // first, the store refuses: it is not the one these locks cover.
      std::vector<SessionRecord> sessions(last->sessions.size());
      for (std::size_t i = 0; i < sessions.size(); ++i) sessions[i].id = last->sessions[i];
      auto held = lockSessions(sessions);
      if (!expected) expected = last->id;
      try {
        undone = store->undoLastDecision(reviewer, expected);
      } catch (const UndoRefused& e) {
        std::string message = e.what();
        message[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(message[0])));
        refuse(req, res, replyWithJson, 409, message + "; nothing was undone.", next);
        return;
      }
    }
    if (!undone) {
      refuse(req, res, replyWithJson, 409, "There is no decision of yours to undo.", next);
      return;
    }
    Logger::logWithFormat("decision %li undone (%@ of %li tests)", undone->id, undone->scope,
                          static_cast<std::int64_t>(undone->sessions.size()));
    if (!replyWithJson) {
      redirect(res, next);
      return;
    }
    std::optional<std::int64_t> last = store->lastDecision(reviewer);
    replyJson(res, 200,
              Json{{"undone",
                    {{"id", undone->id}, {"scope", undone->scope}, {"sessions", undone->sessions}}},
                   {"decision", last ? Json(*last) : Json()}});
  }

  /// The identity of a baseline as its key holds it, for its page.
  static std::vector<std::pair<std::string, std::string>> baselineIdentity(const std::string& key) {
    static const char* const kLabels[] = {"Application", "Test",          "OS",
                                          "Hosting app", "Display width", "Display height",
                                          "Environment", "Branch"};
    std::vector<std::pair<std::string, std::string>> identity;
    std::optional<Json> parts = json::parse(key);
    if (!parts || !parts->is_array()) return identity;
    for (std::size_t i = 0; i < parts->size() && i < std::size(kLabels); ++i) {
      const Json& part = (*parts)[i];
      identity.emplace_back(kLabels[i], part.is_string() ? part.get<std::string>()
                                                         : formatNumber(json::doubleValue(part)));
    }
    return identity;
  }

  static std::int64_t baselineIdFrom(const std::string& text) {
    try {
      std::size_t used = 0;
      const std::int64_t id = std::stoll(text, &used);
      if (used == text.size() && id > 0) return id;
    } catch (const std::exception&) {
    }
    throw RequestError(404, "unknown baseline");
  }

  static Json historyJson(const BaselineHistory& h) {
    Json versions = Json::array();
    for (const BaselineVersion& v : h.versions) {
      Json entry{{"version", v.version},
                 {"createdAt", isoTime(v.createdAt)},
                 {"kind", v.kind},
                 {"steps", v.steps}};
      if (v.sessionId) entry["sessionId"] = *v.sessionId;
      if (v.fromVersion) entry["fromVersion"] = *v.fromVersion;
      versions.push_back(std::move(entry));
    }
    return Json{
        {"id", h.id}, {"currentVersion", h.currentVersion}, {"versions", std::move(versions)}};
  }

  // GET /api/baselines/{id} and /app/baselines/{id}
  void baselineApi(const Request& req, Response& res) { baselineResults(req, res, true); }
  void baselinePage(const Request& req, Response& res) { baselineResults(req, res, false); }
  void baselineResults(const Request& req, Response& res, bool api) {
    requireReader(req);
    std::optional<BaselineHistory> history = store->baselineHistory(baselineIdFrom(req.matches[1]));
    if (!history) throw RequestError(404, "unknown baseline");
    if (api) {
      replyJson(res, 200, historyJson(*history));
      return;
    }
    Logins::Login login = pageLogin(req, res);
    replyHtml(res, 200, renderBaselinePage({*history, baselineIdentity(history->key), login.csrf}));
  }

  // POST /api/baselines/{id}/rollback?version=N (API key) and
  // POST /app/baselines/{id}/versions/{n}/rollback (page form)
  void rollbackApi(const Request& req, Response& res) {
    requireApiKey(req);
    rollback(req, res, baselineIdFrom(req.matches[1]), req.get_param_value("version"), true);
  }
  void rollbackForm(const Request& req, Response& res) {
    const std::int64_t id = baselineIdFrom(req.matches[1]);
    requireReviewForm(req, "/app/baselines/" + std::to_string(id));
    rollback(req, res, id, req.matches[2], accepts(req, "application/json"));
  }
  void rollback(const Request&, Response& res, std::int64_t id, const std::string& versionText,
                bool replyWithJson) {
    std::int64_t version = 0;
    try {
      std::size_t used = 0;
      version = std::stoll(versionText, &used);
      if (used != versionText.size()) throw RequestError(400, "version must be a number");
    } catch (const std::logic_error&) {
      throw RequestError(400, "version must be a number");
    }
    std::int64_t made = 0;
    try {
      made = store->rollBack(id, version);
    } catch (const UnknownVersionError& e) {
      throw RequestError(e.removed() ? 410 : 404, e.what());
    }
    Logger::logWithFormat("baseline %li rolled back to version %li as version %li", id, version,
                          made);
    if (!replyWithJson) {
      redirect(res, "/app/baselines/" + std::to_string(id));
      return;
    }
    std::optional<BaselineHistory> history = store->baselineHistory(id);
    replyJson(res, 200, history ? historyJson(*history) : Json{{"id", id}});
  }

  // GET of a review address.
  void reviewNeedsPost(const Request&, Response& res) {
    res.set_header("Allow", "POST");
    throw RequestError(405, "use POST");
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
    if (imageId && notModified(req, res, *imageId, false)) return;
    if (imageId) bytes = store->readImage(*imageId);
    if (!bytes) throw RequestError(404, "no such image");
    res.set_content(std::string(bytes->begin(), bytes->end()), "image/png");
  }

  /// Answers 304 when the browser holds the image already; otherwise marks the reply with the
  /// image's id. `forever`: the address names the content, so it never changes.
  static bool notModified(const Request& req, Response& res, const std::string& imageId,
                          bool forever) {
    const std::string tag = "\"" + imageId + "\"";
    res.set_header("ETag", tag);
    res.set_header("Cache-Control",
                   forever ? "private, max-age=31536000, immutable" : "private, no-cache");
    if (req.get_header_value("If-None-Match") != tag) return false;
    res.status = 304;
    return true;
  }

  // GET /app/images/{id}.png and /app/thumbs/{id}.png: a stored image by its id, whole or as a
  // thumbnail.
  void imageById(const Request& req, Response& res) {
    requireReader(req);
    const std::string id = req.matches[2];
    const bool thumb = req.matches[1] == "thumbs";
    if (!store->imageSize(id)) throw RequestError(404, "no such image");
    if (notModified(req, res, id, true)) return;
    if (!thumb) {
      std::optional<std::vector<std::uint8_t>> bytes = store->readImage(id);
      if (!bytes) throw RequestError(404, "no such image");
      res.set_content(std::string(bytes->begin(), bytes->end()), "image/png");
      return;
    }
    std::shared_ptr<const std::vector<std::uint8_t>> png = thumbnails.find(id);
    if (!png) {
      std::optional<std::vector<std::uint8_t>> bytes = store->readImage(id);
      if (!bytes) throw RequestError(404, "no such image");
      std::shared_ptr<Image> image;
      try {
        image = Image::fromPNGData(*bytes);
      } catch (const Exception& e) {
        throw StoreError("stored image " + id + " is unreadable: " + e.reason());
      }
      png = std::make_shared<const std::vector<std::uint8_t>>(
          makeThumbnail(*image, kThumbnailWidth, kThumbnailHeight));
      thumbnails.insert(id, png);
    }
    res.set_content(std::string(png->begin(), png->end()), "image/png");
  }

  /// Runs a handler, turning refusals and failures into JSON error replies.
  HttpServer::Handler guarded(void (Impl::*handler)(const Request&, Response&)) {
    return [this, handler](const Request& req, Response& res) {
      setSecurityHeaders(res);
      try {
        (this->*handler)(req, res);
      } catch (const LoginRequired& e) {
        std::string next = e.next().empty() ? returnPath(req) : e.next();
        redirect(res, "/app/login?next=" + percentEncode(next));
      } catch (const RequestError& e) {
        replyError(res, e.status(), e.what());
      } catch (const StoreUnavailable& e) {
        replyError(res, 503, "the data folder is unavailable");
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
    http.Get("/app/(images|thumbs)/([0-9a-f]{64})\\.png", guarded(&Impl::imageById));
    http.Get("/", guarded(&Impl::home));
    http.Get("/app/?", guarded(&Impl::home));
    http.Get("/app/static/(app\\.css|app\\.js)", guarded(&Impl::staticFile));
    http.Get("/app/login", guarded(&Impl::loginForm));
    http.Post("/app/login", guarded(&Impl::login));
    http.Get("/app/batches/?", guarded(&Impl::batchList));
    http.Get("/app/batches/(.+)", guarded(&Impl::batchPage));
    const std::string stepReview =
        "/app/sessions/([^/]+)/steps/([0-9]{1,9})/(accept|alternative|reject)";
    const std::string acceptAll = "/app/sessions/([^/]+)/accept";
    http.Post(stepReview, guarded(&Impl::review));
    http.Post(acceptAll, guarded(&Impl::review));
    http.Get(stepReview, guarded(&Impl::reviewNeedsPost));
    http.Get(acceptAll, guarded(&Impl::reviewNeedsPost));
    http.Post("/api/sessions/([^/]+)/steps/([0-9]{1,9})/(accept|alternative|reject)",
              guarded(&Impl::reviewApi));
    http.Post("/api/sessions/([^/]+)/accept", guarded(&Impl::reviewApi));
    http.Post("/app/batches/(.+)/accept", guarded(&Impl::batchAcceptForm));
    http.Post("/api/batches/(.+)/accept", guarded(&Impl::batchAcceptApi));
    http.Post("/app/undo", guarded(&Impl::undoForm));
    http.Post("/api/undo", guarded(&Impl::undoApi));
    http.Get("/api/baselines/([^/]+)", guarded(&Impl::baselineApi));
    http.Post("/api/baselines/([^/]+)/rollback", guarded(&Impl::rollbackApi));
    http.Get("/app/baselines/([^/]+)", guarded(&Impl::baselinePage));
    http.Post("/app/baselines/([^/]+)/versions/([0-9]{1,9})/rollback",
              guarded(&Impl::rollbackForm));

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
  i.boundPort = i.http.start(i.options.host, i.options.port);
  if (i.boundPort <= 0) {
    i.boundPort = 0;
    throw ServiceError("cannot listen on " + i.options.host + ":" + std::to_string(i.options.port));
  }
  i.startedAt = now();
  if (i.options.idleSessionTimeout.count() > 0) {
    // Checked a few times per idle time, at least every minute.
    const auto every = std::clamp<std::chrono::milliseconds>(
        i.options.idleSessionTimeout / 4, std::chrono::milliseconds(200), std::chrono::minutes(1));
    i.idleSessions = std::make_unique<PeriodicTask>(
        every, [&i] { i.abortIdleSessions(); }, false);
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
