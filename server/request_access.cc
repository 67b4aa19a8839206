#include "server/request_access.h"

#include <algorithm>
#include <cstdint>

#include "server/store.h"
#include "server/web_pages.h"

namespace saffra::server {

using http::Params;
using http::Request;
using http::Response;

RequestAccess::RequestAccess(const ServiceOptions& options, Store& store)
    : options(options), store(store), logins(store.sharedSecret("logins")) {}

bool RequestAccess::isKnownKey(const std::string& key) {
  if (std::any_of(options.apiKeys.begin(), options.apiKeys.end(),
                  [&](const std::string& k) { return sameSecret(k, key); })) {
    return true;
  }
  if (key.empty()) return false;
  constexpr auto kRemembered = std::chrono::seconds(5);
  const std::string digest = sha256Hex(key);
  const auto at = std::chrono::steady_clock::now();
  {
    std::lock_guard lock(knownMutex);
    auto found = knownDigests.find(digest);
    if (found != knownDigests.end() && at - found->second < kRemembered) return true;
  }
  if (!store.hasApiKeyDigest(digest)) return false;
  std::lock_guard lock(knownMutex);
  if (knownDigests.size() >= 1024) knownDigests.clear();
  knownDigests[digest] = at;
  return true;
}

bool RequestAccess::hasApiKey(const Request& req) {
  if (!req.has_param("apiKey")) return false;
  if (!attempts.allows(req.remoteAddress)) throw tooManyAttempts();
  bool known = isKnownKey(req.get_param_value("apiKey"));
  if (!known) attempts.failed(req.remoteAddress);
  return known;
}

RequestError RequestAccess::tooManyAttempts() {
  return RequestError(429, "too many wrong API keys from this address; try again later");
}

void RequestAccess::requireApiKey(const Request& req) {
  if (!hasApiKey(req)) throw RequestError(401, "missing or unknown API key");
}

std::optional<Logins::Login> RequestAccess::loginOf(const Request& req) {
  std::optional<std::string> token = cookieValue(req.get_header_value("Cookie"), kLoginCookie);
  return token ? logins.find(*token) : std::nullopt;
}

void RequestAccess::requireReader(const Request& req, const std::string& next) {
  if (hasApiKey(req) || loginOf(req)) return;
  if (accepts(req, "text/html")) throw LoginRequired(next);
  throw RequestError(401, "missing or unknown API key");
}

Logins::Login RequestAccess::pageLogin(const Request& req, Response& res) {
  requireReader(req);
  if (std::optional<Logins::Login> login = loginOf(req)) return *login;
  Logins::Login login = logins.create();
  res.set_header("Set-Cookie", loginCookie(login.token));
  return login;
}

void RequestAccess::requireReviewForm(const Request& req, const std::string& sessionIdOrPage) {
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

// GET /app/login?next=...
void RequestAccess::loginForm(const Request& req, Response& res) {
  replyHtml(res, 200,
            renderLoginPage(localPathOr(req.get_param_value("next"), "/app/batches"), ""));
}

// POST /app/login with the form fields apiKey and next.
void RequestAccess::login(const Request& req, Response& res) {
  if (isForeign(req)) throw RequestError(403, "cross-site request refused");
  Params fields = formFields(req);
  std::string key = fieldAt(fields, "apiKey");
  std::string next = localPathOr(fieldAt(fields, "next"), "/app/batches");
  if (!attempts.allows(req.remoteAddress)) throw tooManyAttempts();
  if (!isKnownKey(key)) {
    attempts.failed(req.remoteAddress);
    if (!accepts(req, "text/html")) throw RequestError(401, "missing or unknown API key");
    replyHtml(res, 401, renderLoginPage(next, "Unknown API key."));
    return;
  }
  res.set_header("Set-Cookie", loginCookie(logins.create().token));
  redirect(res, next);
}

std::string RequestAccess::reviewerOfLogin(const std::string& loginToken) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(loginToken.data());
  return "login:" + Store::imageIdOf({bytes, loginToken.size()}).substr(0, 32);
}

std::string RequestAccess::reviewerOf(const Request& req) {
  std::optional<Logins::Login> login = loginOf(req);
  return login ? reviewerOfLogin(login->token) : "api";
}

}  // namespace saffra::server
