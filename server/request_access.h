// Who may do what: the API keys of protocol requests, the logins of pages (with their CSRF
// tokens) and the login form itself.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "server/http/request.h"
#include "server/replies.h"
#include "server/service.h"
#include "server/web_access.h"

namespace saffra::server {

class Store;

/// Checks the credentials of requests: an API key in the query (one of the service's options,
/// or one added to the store), or a login cookie; keeps the wrong-key attempts of each address.
/// Also answers the login form. Logins are signed with the store's shared secret, so every
/// service on one store knows them.
class RequestAccess {
 public:
  RequestAccess(const ServiceOptions& options, Store& store);

  /// Whether the query holds a configured key. An address whose wrong keys used up its
  /// attempts gets 429 for any key until its attempts come back, so keys cannot be guessed fast.
  bool hasApiKey(const http::Request& req);

  void requireApiKey(const http::Request& req);

  /// The login whose token the request's cookie carries.
  std::optional<Logins::Login> loginOf(const http::Request& req);

  /// Pages and images need an API key in the query or a login cookie. Browsers without either
  /// are sent to the login form; other clients get 401.
  void requireReader(const http::Request& req, const std::string& next = "");

  /// The login a page's forms belong to; a reader who came with the API key gets one (and its
  /// cookie), so the page's images, links and forms work without the key.
  Logins::Login pageLogin(const http::Request& req, http::Response& res);

  /// Checks a review form: from this service's own pages, by a logged-in reader, with the
  /// login's CSRF token.
  void requireReviewForm(const http::Request& req, const std::string& sessionIdOrPage);

  /// True when `key` is one of the options' keys or a key in use in the store. Keys found in
  /// the store are remembered for a few seconds, so a revoked key may work that long.
  bool isKnownKey(const std::string& key);

  /// Who decides, for the record of decisions: a page's login (by a digest of its token, so
  /// the database holds no secret) or "api" for a holder of an API key. Undo works on the
  /// reviewer's own decisions.
  std::string reviewerOf(const http::Request& req);
  static std::string reviewerOfLogin(const std::string& loginToken);
  // GET /app/login?next=...
  void loginForm(const http::Request& req, http::Response& res);

  // POST /app/login with the form fields apiKey and next.
  void login(const http::Request& req, http::Response& res);

 private:
  static RequestError tooManyAttempts();

  const ServiceOptions& options;
  Store& store;
  Logins logins;
  AttemptLimiter attempts;
  /// Digests of keys the store knew, and when it was asked.
  std::mutex knownMutex;
  std::unordered_map<std::string, std::chrono::steady_clock::time_point> knownDigests;
};

}  // namespace saffra::server
