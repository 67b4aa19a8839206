// API keys (kept as digests, never as text) and the secrets that every service instance on one
// store shares.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <openssl/rand.h>

#include "server/store.h"
#include "server/store/statement.h"

namespace saffra::server {

using namespace storage;

bool Store::addApiKey(const std::string& name, const std::string& digest, std::int64_t at) {
  requireOwnFolder();
  std::lock_guard lock(mutex_);
  // Ignored when a key in use has this name (or, by chance, this digest).
  Statement s(*statements_,
              "INSERT OR IGNORE INTO api_keys(digest, name, created_at) VALUES(?, ?, ?)");
  s.bind(1, digest).bind(2, name).bind(3, at);
  s.run();
  return sqlite3_changes(db_) > 0;
}

std::vector<ApiKeyRecord> Store::apiKeys() {
  std::lock_guard lock(mutex_);
  Statement s(
      *statements_,
      "SELECT name, digest, created_at, revoked_at FROM api_keys ORDER BY created_at, name");
  std::vector<ApiKeyRecord> keys;
  while (s.step()) {
    ApiKeyRecord key{s.text(0), s.text(1), s.integer(2), std::nullopt};
    if (!s.isNull(3)) key.revokedAt = s.integer(3);
    keys.push_back(std::move(key));
  }
  return keys;
}

bool Store::revokeApiKey(const std::string& name, std::int64_t at) {
  requireOwnFolder();
  std::lock_guard lock(mutex_);
  Statement s(*statements_,
              "UPDATE api_keys SET revoked_at = ? WHERE name = ? AND revoked_at IS NULL");
  s.bind(1, at).bind(2, name);
  s.run();
  return sqlite3_changes(db_) > 0;
}

bool Store::hasApiKeyDigest(const std::string& digest) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_, "SELECT 1 FROM api_keys WHERE digest = ? AND revoked_at IS NULL");
  s.bind(1, digest);
  return s.step();
}

std::string Store::sharedSecret(const std::string& name) {
  std::lock_guard lock(mutex_);
  {
    Statement s(*statements_, "SELECT value FROM shared_secrets WHERE name = ?");
    s.bind(1, name);
    if (s.step()) return s.text(0);
  }
  requireOwnFolder();
  unsigned char bytes[32];
  if (RAND_bytes(bytes, sizeof bytes) != 1) throw StoreError("no random bytes for a secret");
  static constexpr char kHex[] = "0123456789abcdef";
  std::string value;
  for (unsigned char b : bytes) {
    value += kHex[b >> 4];
    value += kHex[b & 15];
  }
  // Another process on the same store may have made it meanwhile: the first one stays.
  {
    Statement s(*statements_, "INSERT OR IGNORE INTO shared_secrets(name, value) VALUES(?, ?)");
    s.bind(1, name).bind(2, value);
    s.run();
  }
  Statement s(*statements_, "SELECT value FROM shared_secrets WHERE name = ?");
  s.bind(1, name);
  if (!s.step()) throw StoreError("cannot keep the secret " + name);
  return s.text(0);
}

}  // namespace saffra::server
