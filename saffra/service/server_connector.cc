#include "saffra/service/server_connector.h"

#include <utility>

#include "saffra/base/argument_guard.h"
#include "saffra/base/configurable.h"
#include "saffra/base/environment_helper.h"
#include "saffra/base/logger.h"
#include "saffra/platform/format.h"
#include "saffra/service/http_request_builder.h"
#include "saffra/service/internal/record_reading.h"

namespace saffra {
namespace {

constexpr const char* kRunningSessionsPath = "/api/sessions/running";
constexpr const char* kBatchesPath = "/api/sessions/batches";

const char* trueOrFalse(bool value) {
  return value ? "true" : "false";
}

// The session id as it goes into a URL; an absent session reads "(null)" like an absent id.
OptString sessionIdText(const std::shared_ptr<RunningSession>& session) {
  if (!session) return std::nullopt;
  return session->sessionIdText();
}

// The reply read into a record, or nothing when the body is not JSON.
template <class Record>
std::shared_ptr<Record> recordFromReply(const HttpResponse& response) {
  std::optional<Json> parsed = json::parse(response.body);
  if (!parsed) return nullptr;
  return std::make_shared<Record>(*parsed);
}

// Completion for the calls whose reply is one record: a transport error, or the record (absent
// for a body that is not JSON) without an error.
template <class Record>
HttpTransport::CompletionHandler recordHandler(
    std::function<void(std::shared_ptr<Record>, std::optional<Error>)> completionHandler) {
  return [completionHandler = std::move(completionHandler)](HttpResponse response) {
    if (!completionHandler) return;
    if (response.error) {
      completionHandler(nullptr, std::move(response.error));
      return;
    }
    completionHandler(recordFromReply<Record>(response), std::nullopt);
  };
}

std::shared_ptr<HttpTransport> makeTransport(std::optional<ProxyConfig> proxy = std::nullopt) {
  return std::make_shared<HttpTransport>(std::move(proxy));
}

}  // namespace

ServerConnector::ServerConnector() : urlSession_(makeTransport()) {}

ServerConnector::ServerConnector(const OptString& serverURL, const OptString& apiKey,
                                 std::int64_t timeout) {
  setServerURL(serverURL);
  setApiKey(apiKey);
  setTimeout(timeout);
  urlSession_ = makeTransport();
}

ServerConnector::~ServerConnector() = default;

std::shared_ptr<ServerConnector> ServerConnector::connectorWithServerURL(const OptString& serverURL,
                                                                         const OptString& apiKey) {
  return std::make_shared<ServerConnector>(serverURL, apiKey, kRequestTimeout);
}

OptString ServerConnector::apiKey() const {
  OptString stored;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stored = apiKey_;
  }
  if (Configurable::isNotEmpty(stored)) return stored;
  return EnvironmentHelper::environmentPair("QUORVANT_API_KEY", "bamboo_QUORVANT_API_KEY");
}

void ServerConnector::setApiKey(const OptString& apiKey) {
  ArgumentGuard::notNil(apiKey, "apiKey");
  std::lock_guard<std::mutex> lock(mutex_);
  apiKey_ = apiKey;
}

OptString ServerConnector::serverURL() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return serverURL_;
}

void ServerConnector::setServerURL(const OptString& serverURL) {
  ArgumentGuard::notNil(serverURL, "serverUrl");
  std::lock_guard<std::mutex> lock(mutex_);
  serverURL_ = serverURL;
}

void ServerConnector::setProxy(const std::shared_ptr<AbstractProxySettings>& proxy) {
  if (!proxy) return;
  Json dictionary = connectionProxyDictionaryFromProxy(proxy);
  replaceTransport(makeTransport(proxyConfigFromDictionary(dictionary)));
}

Json ServerConnector::connectionProxyDictionaryFromProxy(
    const std::shared_ptr<AbstractProxySettings>& proxy) {
  return saffra::connectionProxyDictionaryFromProxy(proxy);
}

std::shared_ptr<HttpTransport> ServerConnector::urlSession() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return urlSession_;
}

void ServerConnector::setUrlSession(std::shared_ptr<HttpTransport> urlSession) {
  replaceTransport(std::move(urlSession));
}

void ServerConnector::replaceTransport(std::shared_ptr<HttpTransport> transport) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (urlSession_ && urlSession_ != transport) retiredSessions_.push_back(std::move(urlSession_));
  urlSession_ = std::move(transport);
}

std::int64_t ServerConnector::timeout() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return timeout_;
}

void ServerConnector::setTimeout(std::int64_t timeout) {
  std::lock_guard<std::mutex> lock(mutex_);
  timeout_ = timeout;
}

void ServerConnector::setRequestTimeoutForTesting(double seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  requestTimeout_ = seconds;
}

void ServerConnector::send(const std::string& url, const std::optional<Json>& params,
                           const std::string& method, HttpTransport::CompletionHandler handler) {
  HttpRequest request = HTTPRequestBuilder::requestWithURL(url, params, method, kRequestTimeout);
  std::shared_ptr<HttpTransport> transport;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    request.timeoutSeconds = requestTimeout_;
    transport = urlSession_;
  }
  if (!transport) {
    // Only reachable after setUrlSession(nullptr); reported rather than left waiting forever.
    HttpResponse response;
    response.error = Error{"saffra.http", 0, "The connector has no URL session"};
    if (handler) handler(std::move(response));
    return;
  }
  transport->send(std::move(request), std::move(handler));
}

void ServerConnector::startSessionWithInfo(const std::shared_ptr<SessionStartInfo>& info,
                                           StartSessionHandler completionHandler) {
  std::string url = format("%@%@?apiKey=%@", serverURL(), kRunningSessionsPath, apiKey());
  if (!info) records::throwAbsentValue("startInfo");
  std::optional<Json> body(std::in_place, Json::object());
  (*body)["startInfo"] = info->dictionary();
  send(url, body, "POST",
       [completionHandler = std::move(completionHandler)](HttpResponse response) {
         if (!completionHandler) return;
         if (response.error) {
           completionHandler(nullptr, std::move(response.error));
           return;
         }
         auto session = recordFromReply<RunningSession>(response);
         if (session) session->setIsNewSession(response.statusCode == 201);
         completionHandler(std::move(session), std::nullopt);
       });
}

void ServerConnector::stopSession(const std::shared_ptr<RunningSession>& session, bool isAborted,
                                  bool save, StopSessionHandler completionHandler) {
  std::string url =
      format("%@%@/%@?apiKey=%@&aborted=%@&updateBaseline=%@", serverURL(), kRunningSessionsPath,
             sessionIdText(session), apiKey(), trueOrFalse(isAborted), trueOrFalse(save));
  send(url, std::nullopt, "DELETE", recordHandler<TestResults>(std::move(completionHandler)));
}

void ServerConnector::matchWindowForSession(const std::shared_ptr<RunningSession>& session,
                                            const std::shared_ptr<MatchWindowData>& matchData,
                                            MatchWindowHandler completionHandler) {
  ArgumentGuard::notNil(session, "runningSession");
  ArgumentGuard::notNil(matchData, "matchData");
  std::string url = format("%@%@/%@?apiKey=%@", serverURL(), kRunningSessionsPath,
                           sessionIdText(session), apiKey());
  Logger::logWithFormat("Match window URL: %@", url);
  std::optional<Json> body;
  if (matchData) body = matchData->dictionary();
  send(url, body, "POST", recordHandler<MatchResult>(std::move(completionHandler)));
}

void ServerConnector::closeBatchWithId(const OptString& batchId,
                                       CloseBatchHandler completionHandler) {
  if (EnvironmentHelper::dontCloseBatches()) {
    Logger::log(
        "QUORVANT_DONT_CLOSE_BATCHES environment variable set to true. Skipping batch close.");
    if (completionHandler) completionHandler(std::nullopt);
    return;
  }
  ArgumentGuard::notNil(batchId, "batchId");
  Logger::logWithFormat("Close batch with ID: %@", batchId);
  std::string url =
      format("%@%@/%@/close/bypointerid?apiKey=%@", serverURL(), kBatchesPath, batchId, apiKey());
  send(url, std::nullopt, "DELETE",
       [completionHandler = std::move(completionHandler)](HttpResponse response) {
         if (response.error) {
           if (completionHandler) completionHandler(std::move(response.error));
           return;
         }
         Logger::logWithFormat("delete batch is done with %li status", response.statusCode);
         if (completionHandler) completionHandler(std::nullopt);
       });
}

void ServerConnector::URLSession(const std::shared_ptr<HttpTransport>& /*session*/,
                                 const URLAuthenticationChallenge& challenge,
                                 const ChallengeHandler& completionHandler) const {
  // The trust is deliberately not evaluated: a credential for whatever chain was presented.
  if (completionHandler) {
    completionHandler(URLSessionAuthChallengeDisposition::UseCredential,
                      URLCredential{challenge.serverTrust});
  }
}

}  // namespace saffra
