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

/// The logins of the running service. A login token is random and says nothing about the key
/// it was made with; each login has its own random CSRF token for the forms of its pages.
/// Logins expire after `lifetime` and the oldest go when there are more than `capacity`; a
/// restart forgets them all. Safe to use from several threads.
class Logins {
 public:
  struct Login {
    std::string token;
    std::string csrf;
  };

  explicit Logins(std::chrono::seconds lifetime = std::chrono::hours(12),
                  std::size_t capacity = 4096);

  /// A new login.
  Login create();
  /// The login of `token`, when it is known and has not expired.
  std::optional<Login> find(const std::string& token);

 private:
  struct Entry {
    std::string csrf;
    std::chrono::steady_clock::time_point expires;
  };

  std::chrono::seconds lifetime_;
  std::size_t capacity_;
  std::mutex mutex_;
  /// Keyed by the SHA-256 of the token, so a lookup's timing says nothing about the token.
  std::unordered_map<std::string, Entry> entries_;
};

/// A random 256-bit value in lower-case hex.
std::string randomToken();

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
