#include "server/web_access.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace saffra::server {

namespace {

std::string hex(const unsigned char* bytes, std::size_t size) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 15];
  }
  return text;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

/// "scheme://host[:port]" of an absolute URL, or "" when it has none.
std::string originOf(std::string_view url) {
  std::size_t scheme = url.find("://");
  if (scheme == std::string_view::npos) return "";
  std::size_t end = url.find_first_of("/?#", scheme + 3);
  return std::string(url.substr(0, end));
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

Logins::Logins(std::string secret, std::chrono::seconds lifetime)
    : secret_(std::move(secret)), lifetime_(lifetime) {}

std::string Logins::signature(std::string_view text) const {
  return hmacSha256Hex(secret_, text);
}

// A token is "<expiry>.<random>.<signature>": the expiry in seconds since the epoch (a wall
// clock, which every instance shares), 128 random bits, and the HMAC of the two.
Logins::Login Logins::create() const {
  const auto expires = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch() + lifetime_)
                           .count();
  const std::string signedPart = std::to_string(expires) + "." + randomToken().substr(0, 32);
  const std::string token = signedPart + "." + signature(signedPart);
  return Login{token, signature("csrf " + token)};
}

std::optional<Logins::Login> Logins::find(const std::string& token) const {
  const std::size_t dot = token.rfind('.');
  if (token.empty() || token.size() > 128 || dot == std::string::npos) return std::nullopt;
  const std::string signedPart = token.substr(0, dot);
  if (!sameSecret(signature(signedPart), std::string_view(token).substr(dot + 1))) {
    return std::nullopt;
  }
  std::int64_t expires = 0;
  const char* end = signedPart.data() + signedPart.find('.');
  if (std::from_chars(signedPart.data(), end, expires).ptr != end) return std::nullopt;
  const std::int64_t nowSeconds = std::chrono::duration_cast<std::chrono::seconds>(
                                      std::chrono::system_clock::now().time_since_epoch())
                                      .count();
  if (expires <= nowSeconds) return std::nullopt;
  return Login{token, signature("csrf " + token)};
}

AttemptLimiter::AttemptLimiter(std::size_t burst, std::chrono::milliseconds interval,
                               std::size_t maxAddresses)
    : burst_(static_cast<double>(std::max<std::size_t>(burst, 1))),
      interval_(std::max(interval, std::chrono::milliseconds(1))),
      maxAddresses_(std::max<std::size_t>(maxAddresses, 1)) {}

AttemptLimiter::Bucket& AttemptLimiter::refilled(const std::string& address) {
  auto now = std::chrono::steady_clock::now();
  auto refill = [&](Bucket& bucket) {
    double gained = std::chrono::duration<double>(now - bucket.updated) / interval_;
    bucket.attempts = std::min(burst_, bucket.attempts + gained);
    bucket.updated = now;
  };
  auto found = buckets_.find(address);
  if (found != buckets_.end()) {
    refill(found->second);
    return found->second;
  }
  if (buckets_.size() >= maxAddresses_) {
    // Addresses whose attempts are all back are the same as new ones.
    for (auto at = buckets_.begin(); at != buckets_.end();) {
      refill(at->second);
      at = at->second.attempts >= burst_ ? buckets_.erase(at) : std::next(at);
    }
    if (buckets_.size() >= maxAddresses_) buckets_.erase(buckets_.begin());
  }
  return buckets_.emplace(address, Bucket{burst_, now}).first->second;
}

bool AttemptLimiter::allows(const std::string& address) {
  std::lock_guard lock(mutex_);
  return refilled(address).attempts >= 1;
}

void AttemptLimiter::failed(const std::string& address) {
  std::lock_guard lock(mutex_);
  Bucket& bucket = refilled(address);
  bucket.attempts = std::max(0.0, bucket.attempts - 1);
}

std::string randomToken() {
  std::array<unsigned char, 32> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw std::runtime_error("no random bytes for a token");
  }
  return hex(bytes.data(), bytes.size());
}

std::string sha256Hex(std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("cannot hash a text");
  }
  return hex(digest.data(), length);
}

std::string hmacSha256Hex(std::string_view key, std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (!HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
            reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data(),
            &length)) {
    throw std::runtime_error("cannot sign a text");
  }
  return hex(digest.data(), length);
}

bool sameSecret(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<std::string> cookieValue(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    std::size_t end = header.find(';');
    std::string_view pair = trim(header.substr(0, end));
    header = end == std::string_view::npos ? std::string_view() : header.substr(end + 1);
    std::size_t equals = pair.find('=');
    if (equals != std::string_view::npos && trim(pair.substr(0, equals)) == name) {
      return std::string(trim(pair.substr(equals + 1)));
    }
  }
  return std::nullopt;
}

std::string loginCookie(const std::string& token) {
  return std::string(kLoginCookie) + "=" + token + "; Path=/; HttpOnly; SameSite=Strict";
}

std::string localPathOr(const std::string& next, const std::string& fallback) {
  bool local = next.size() >= 1 && next.size() <= 2048 && next[0] == '/' &&
               (next.size() == 1 || (next[1] != '/' && next[1] != '\\')) &&
               std::none_of(next.begin(), next.end(), [](char c) {
                 auto u = static_cast<unsigned char>(c);
                 return u < 0x20 || u == 0x7f || c == '\\';
               });
  return local ? next : fallback;
}

bool isForeignRequest(const RequestSource& source) {
  std::string site = lower(source.secFetchSite);
  if (site == "cross-site") return true;
  std::string own = "http://" + lower(source.host);
  if (!source.origin.empty()) {
    if (source.origin == "null") return site != "same-origin";
    return lower(source.origin) != own;
  }
  if (!source.referer.empty()) return lower(originOf(source.referer)) != own;
  return false;
}

std::string percentEncode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (char c : text) {
    auto u = static_cast<unsigned char>(c);
    if (std::isalnum(u) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += c;
    } else {
      out += '%';
      out += kHex[u >> 4];
      out += kHex[u & 15];
    }
  }
  return out;
}

}  // namespace saffra::server
