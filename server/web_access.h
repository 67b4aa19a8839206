// Access to the results pages from a browser: logins held in memory, the cookie that carries
// them, the token that guards the pages' forms against cross-site requests, and the checks of
// where a request comes from and where a login may send the browser next.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace saffra::server {

/// The name of the cookie that carries a login token.
inline constexpr std::string_view kLoginCookie = "saffra_login";

/// The logins of the service. A login token carries its expiry and a random part, signed with
/// an HMAC-SHA256 under a secret: any service instance that has the secret (all instances on one
/// store share it) knows a login without holding it, so a browser may reach any of them, and
/// logins hold no memory however many are made. Each login's CSRF token is derived from its
/// token under the same secret. Logins expire after `lifetime`; a new secret ends them all.
class Logins {
 public:
  struct Login {
    std::string token;
    std::string csrf;
  };

  explicit Logins(std::string secret, std::chrono::seconds lifetime = std::chrono::hours(12));

  /// A new login.
  Login create() const;
  /// The login of `token`, when its signature holds and it has not expired.
  std::optional<Login> find(const std::string& token) const;

 private:
  std::string signature(std::string_view text) const;

  std::string secret_;
  std::chrono::seconds lifetime_;
};

/// Limits the failed key attempts of each client address: `burst` at once, then one per
/// `interval`. Safe to use from several threads.
class AttemptLimiter {
 public:
  explicit AttemptLimiter(std::size_t burst = 20,
                          std::chrono::milliseconds interval = std::chrono::seconds(1),
                          std::size_t maxAddresses = 65536);

  /// True when `address` may try a key now.
  bool allows(const std::string& address);
  /// Counts a failed attempt of `address`.
  void failed(const std::string& address);

 private:
  struct Bucket {
    double attempts;
    std::chrono::steady_clock::time_point updated;
  };
  Bucket& refilled(const std::string& address);

  double burst_;
  std::chrono::milliseconds interval_;
  std::size_t maxAddresses_;
  std::mutex mutex_;
  std::unordered_map<std::string, Bucket> buckets_;
};

/// A random 256-bit value in lower-case hex.
std::string randomToken();

/// The SHA-256 of `text` in lower-case hex.
std::string sha256Hex(std::string_view text);

/// The HMAC-SHA256 of `text` under `key` in lower-case hex.
std::string hmacSha256Hex(std::string_view key, std::string_view text);

/// Compares two secrets in time that depends only on their lengths.
bool sameSecret(std::string_view a, std::string_view b);

/// The value of cookie `name` in a Cookie header.
std::optional<std::string> cookieValue(std::string_view header, std::string_view name);

/// The Set-Cookie value that stores a login token: HttpOnly, SameSite=Strict, whole site.
std::string loginCookie(const std::string& token);

/// `next` when it is a path on this service (one leading "/", no scheme or host, no
/// backslashes or control characters); otherwise `fallback`. Keeps a login from sending the
/// browser to another site.
std::string localPathOr(const std::string& next, const std::string& fallback);

/// The headers that tell where a browser request was made.
struct RequestSource {
  std::string host;          // Host
  std::string origin;        // Origin
  std::string referer;       // Referer
  std::string secFetchSite;  // Sec-Fetch-Site
};

/// True when the request was made by a page of another site: Sec-Fetch-Site says
/// "cross-site", or the Origin (when absent, the Referer) names another origin than
/// "http://<Host>". An opaque Origin ("null", which browsers send for same-site form posts from
/// pages with Referrer-Policy: no-referrer) counts as foreign unless Sec-Fetch-Site says
/// "same-origin".
bool isForeignRequest(const RequestSource& source);

/// Percent-encodes everything but unreserved characters, for a path segment or query value.
std::string percentEncode(std::string_view text);

}  // namespace saffra::server
