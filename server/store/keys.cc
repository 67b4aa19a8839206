// API keys (kept as digests, never as text) and the secrets that every service on one store
// shares.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <openssl/rand.h>

#include "server/store.h"
#include "server/store/sql_store.h"

namespace saffra::server {

using storage::Lease;
using storage::Statement;

bool SqlStore::addApiKey(const std::string& name, const std::string& digest, std::int64_t at) {
  requireWritable();
  Lease db = lease();
  // Nothing is added when a key in use has this name (or, by chance, this digest).
  Statement s(*db,
              "INSERT INTO api_keys(digest, name, created_at) VALUES(?, ?, ?) "
              "ON CONFLICT DO NOTHING");
  s.bind(1, digest).bind(2, name).bind(3, at);
  s.run();
  return db->changes() > 0;
}

std::vector<ApiKeyRecord> SqlStore::apiKeys() {
  Lease db = lease();
  Statement s(
      *db, "SELECT name, digest, created_at, revoked_at FROM api_keys ORDER BY created_at, name");
  std::vector<ApiKeyRecord> keys;
  while (s.step()) {
    ApiKeyRecord key{s.text(0), s.text(1), s.integer(2), std::nullopt};
    if (!s.isNull(3)) key.revokedAt = s.integer(3);
    keys.push_back(std::move(key));
  }
  return keys;
}

bool SqlStore::revokeApiKey(const std::string& name, std::int64_t at) {
  requireWritable();
  Lease db = lease();
  Statement s(*db, "UPDATE api_keys SET revoked_at = ? WHERE name = ? AND revoked_at IS NULL");
  s.bind(1, at).bind(2, name);
  s.run();
  return db->changes() > 0;
}

bool SqlStore::hasApiKeyDigest(const std::string& digest) {
  Lease db = lease();
  Statement s(*db, "SELECT 1 FROM api_keys WHERE digest = ? AND revoked_at IS NULL");
  s.bind(1, digest);
  return s.step();
}

std::string SqlStore::sharedSecret(const std::string& name) {
  Lease db = lease();
  auto read = [&]() -> std::optional<std::string> {
    Statement s(*db, "SELECT value FROM shared_secrets WHERE name = ?");
    s.bind(1, name);
    return s.step() ? std::optional<std::string>(s.text(0)) : std::nullopt;
  };
  if (std::optional<std::string> value = read()) return *value;
  requireWritable();
  unsigned char bytes[32];
  if (RAND_bytes(bytes, sizeof bytes) != 1) throw StoreError("no random bytes for a secret");
  static constexpr char kHex[] = "0123456789abcdef";
  std::string value;
  for (unsigned char b : bytes) {
    value += kHex[b >> 4];
    value += kHex[b & 15];
  }
  {
    // Another service on the same store may have made it meanwhile: the first one stays.
    Statement s(*db, "INSERT INTO shared_secrets(name, value) VALUES(?, ?) ON CONFLICT DO NOTHING");
    s.bind(1, name).bind(2, value);
    s.run();
  }
  std::optional<std::string> kept = read();
  if (!kept) throw StoreError("cannot keep the secret " + name);
  return *kept;
}

}  // namespace saffra::server
