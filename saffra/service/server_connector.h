// The REST client of the visual-testing service: four asynchronous calls (start a session, stop
// it, match one window, close a batch) over the library's HTTP transport.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "saffra/config/abstract_proxy_settings.h"
#include "saffra/platform/error.h"
#include "saffra/platform/http_transport.h"
#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"
#include "saffra/service/match_window_data.h"
#include "saffra/service/running_session.h"
#include "saffra/service/session_start_info.h"
#include "saffra/service/test_results.h"

namespace saffra {

/// How an authentication challenge is answered; the values are the platform's.
enum class URLSessionAuthChallengeDisposition : long {
  UseCredential = 0,
  PerformDefaultHandling = 1,
  CancelAuthenticationChallenge = 2,
  RejectProtectionSpace = 3,
};

/// A server-trust challenge: the server and the certificate chain it presented (DER, leaf first).
struct URLAuthenticationChallenge {
  std::string host;
  long port = 0;
  std::vector<std::string> serverTrust;
};

/// A credential that trusts a presented certificate chain.
struct URLCredential {
  std::vector<std::string> serverTrust;
};

/// The client of the service's REST protocol. Every call formats its URL from the server address,
/// a fixed path and the API key (nothing is percent-encoded; an absent part reads "(null)"),
/// sends JSON with the service's headers and a 300 second time-out, and hands the reply, read
/// into its record, to the completion handler. Completion handlers run on the transport's worker
/// thread, one at a time; the only exception is a skipped batch close, which calls back at once on
/// the caller's thread. Transport errors reach the handler unchanged; a reply that is not JSON
/// gives neither a record nor an error; HTTP error statuses with a JSON body still give a record.
/// Nothing is retried. Destroying a connector cancels its requests in flight: their handlers
/// never run. Used through std::shared_ptr.
class ServerConnector {
 public:
  using StartSessionHandler =
      std::function<void(std::shared_ptr<RunningSession> session, std::optional<Error> error)>;
  using StopSessionHandler =
      std::function<void(std::shared_ptr<TestResults> results, std::optional<Error> error)>;
  using MatchWindowHandler =
      std::function<void(std::shared_ptr<MatchResult> result, std::optional<Error> error)>;
  using CloseBatchHandler = std::function<void(std::optional<Error> error)>;

  /// The time-out of every request, in seconds.
  static constexpr std::int64_t kRequestTimeout = 300;

  /// No server address, no API key, timeout 0; a transport without a proxy.
  ServerConnector();
  /// Stores the address, the key and the timeout through their setters, then makes the transport.
  ServerConnector(const OptString& serverURL, const OptString& apiKey, std::int64_t timeout);
  ~ServerConnector();
  ServerConnector(const ServerConnector&) = delete;
  ServerConnector& operator=(const ServerConnector&) = delete;

  /// A new connector with timeout 300.
  static std::shared_ptr<ServerConnector> connectorWithServerURL(const OptString& serverURL,
                                                                 const OptString& apiKey);

  /// The stored key when it is non-empty, else "QUORVANT_API_KEY" when that is non-empty, else
  /// whatever "bamboo_QUORVANT_API_KEY" holds (possibly absent). Read anew for every request.
  OptString apiKey() const;
  /// Stores the key; an absent key is accepted.
  void setApiKey(const OptString& apiKey);
  /// The base address; paths are appended by plain concatenation (a trailing "/" stays).
  OptString serverURL() const;
  void setServerURL(const OptString& serverURL);

  /// Always absent: a proxy lives only in the transport it was given to.
  std::shared_ptr<AbstractProxySettings> proxy() const { return nullptr; }
  /// With a proxy, replaces the transport by a new one that sends everything through it; the
  /// previous transport is kept until the connector dies, so requests already running on it
  /// finish there. Absent keeps the current transport and its proxy: a proxy cannot be removed.
  /// The record itself is not stored. Throws Exception "NSInvalidArgumentException" when the
  /// proxy has no host.
  void setProxy(const std::shared_ptr<AbstractProxySettings>& proxy);
  /// The proxy dictionary of a connection through `proxy`; see the free function of that name.
  static Json connectionProxyDictionaryFromProxy(
      const std::shared_ptr<AbstractProxySettings>& proxy);

  /// The transport that new requests run on.
  std::shared_ptr<HttpTransport> urlSession() const;
  /// Replaces the transport; the previous one is kept like a transport replaced by setProxy().
  /// Calls made while no transport is set end at once, on the caller's thread, with an error.
  void setUrlSession(std::shared_ptr<HttpTransport> urlSession);

  /// Kept from construction but never read: every request uses kRequestTimeout.
  std::int64_t timeout() const;
  void setTimeout(std::int64_t timeout);

  /// Test hook: the time-out, in seconds, that requests actually get (default kRequestTimeout),
  /// so that a test of a server that never answers takes a second instead of five minutes.
  /// Production code never calls it.
  void setRequestTimeoutForTesting(double seconds);

  /// POSTs {"startInfo": info's dictionary} to "/api/sessions/running". The running session is
  /// new exactly when the reply's status is 201. Throws Exception "NSInvalidArgumentException"
  /// naming "startInfo" when `info` is absent.
  void startSessionWithInfo(const std::shared_ptr<SessionStartInfo>& info,
                            StartSessionHandler completionHandler);
  /// DELETEs the running session with "aborted" and "updateBaseline" (= save) as "true"/"false".
  void stopSession(const std::shared_ptr<RunningSession>& session, bool isAborted, bool save,
                   StopSessionHandler completionHandler);
  /// POSTs the match data's dictionary to the running session and logs the full URL. An absent
  /// match data sends no body.
  void matchWindowForSession(const std::shared_ptr<RunningSession>& session,
                             const std::shared_ptr<MatchWindowData>& matchData,
                             MatchWindowHandler completionHandler);
  /// DELETEs the batch, unless "QUORVANT_DONT_CLOSE_BATCHES" is "true" in any letter case: then
  /// it logs the skip and calls back at once, on the caller's thread. Any reply counts as done
  /// (its status is logged); only a transport error is reported.
  void closeBatchWithId(const OptString& batchId, CloseBatchHandler completionHandler);

  // URLSesesion: the server-trust handling of the connection.

  using ChallengeHandler = std::function<void(URLSessionAuthChallengeDisposition disposition,
                                              std::optional<URLCredential> credential)>;
  /// Answers a server-trust challenge with UseCredential and a credential for the presented
  /// trust, without evaluating it: every server certificate is accepted, self-signed, expired
  /// and mismatching ones included. This is deliberate; the transport gives the same answer to
  /// every TLS connection by not verifying peers.
  void URLSession(const std::shared_ptr<HttpTransport>& session,
                  const URLAuthenticationChallenge& challenge,
                  const ChallengeHandler& completionHandler) const;

 private:
  // Sends a request built from the URL, body and method; the handler gets the raw reply.
  void send(const std::string& url, const std::optional<Json>& params, const std::string& method,
            HttpTransport::CompletionHandler handler);
  void replaceTransport(std::shared_ptr<HttpTransport> transport);

  // Settings are read on the caller's thread; the lock only keeps concurrent callers safe.
  mutable std::mutex mutex_;
  OptString apiKey_;
  OptString serverURL_;
  std::shared_ptr<HttpTransport> urlSession_;
  std::int64_t timeout_ = 0;
  double requestTimeout_ = static_cast<double>(kRequestTimeout);
  // Transports replaced by setProxy() or setUrlSession(), kept so their requests can finish.
  std::vector<std::shared_ptr<HttpTransport>> retiredSessions_;
};

}  // namespace saffra
