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
/// Logins expire after `lifetime`; a restart forgets them all. No login ever makes room for a
/// new one: when `capacity` logins are in use, the login form is refused until one expires.
/// A page opened with the key offers a provisional login that takes a place only once its
/// cookie comes back, so clients that never keep cookies fill only the provisional places, where
/// the oldest make room. Safe to use from several threads.
class Logins {
 public:
  struct Login {
    std::string token;
    std::string csrf;
  };

  explicit Logins(std::chrono::seconds lifetime = std::chrono::hours(12),
                  std::size_t capacity = 4096, std::size_t provisionalCapacity = 1024);

  /// A new login; nothing when every place is taken.
  std::optional<Login> create();
  /// A new provisional login.
  Login createProvisional();
  /// The login of `token`, when it is known and has not expired; a provisional one takes a
  /// place now if one is free.
  std::optional<Login> find(const std::string& token);

 private:
  struct Entry {
    std::string csrf;
    std::chrono::steady_clock::time_point expires;
  };
  using Entries = std::unordered_map<std::string, Entry>;

  std::chrono::seconds lifetime_;
  std::size_t capacity_;
  std::size_t provisionalCapacity_;
  std::mutex mutex_;
  /// Keyed by the SHA-256 of the token, so a lookup's timing says nothing about the token.
  Entries entries_;
  Entries provisional_;
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
