// The PostgreSQL engine: the address, the pool of connections, and image bytes in a table.
#include "server/store/postgres/postgres_store.h"

#include <libpq-fe.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "server/clock.h"
#include "server/store/postgres/connection.h"

namespace saffra::server {

using postgres::Param;
using postgres::Result;

namespace {

constexpr Oid kBigintType = 20;
constexpr Oid kTextType = 25;
constexpr Oid kByteaType = 17;

Param text(const std::string& value) {
  return {value, kTextType, false};
}
Param integer(std::int64_t value) {
  return {std::to_string(value), kBigintType, false};
}

/// The first line of a libpq message, without its trailing space.
std::string firstLine(const char* message) {
  std::string line = message ? message : "";
  line = line.substr(0, line.find('\n'));
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
  return line;
}

/// Host, port and database of a parsed address, for messages (never its password).
std::string describe(PQconninfoOption* options) {
  std::string host, port, database;
  for (PQconninfoOption* o = options; o && o->keyword; ++o) {
    const std::string value = o->val ? o->val : "";
    if (std::strcmp(o->keyword, "host") == 0) host = value;
    if (std::strcmp(o->keyword, "hostaddr") == 0 && host.empty()) host = value;
    if (std::strcmp(o->keyword, "port") == 0) port = value;
    // libpq reads the port only when it connects: a port that is no number (or a list of
    // them) is a malformed address, told apart from a server that does not answer.
    if (std::strcmp(o->keyword, "port") == 0 &&
        value.find_first_not_of("0123456789,") != std::string::npos) {
      throw StoreAddressError("the database address is malformed: \"" + value +
                              "\" is not a port number");
    }
    if (std::strcmp(o->keyword, "dbname") == 0) database = value;
  }
  std::string where = host.empty() ? "localhost" : host;
  if (!port.empty()) where += ":" + port;
  if (!database.empty()) where += "/" + database;
  return where;
}

}  // namespace

PostgresStore::PostgresStore(const std::string& address, int connections)
    : address_(address), connections_(connections < 1 ? 1 : connections) {
  char* error = nullptr;
  PQconninfoOption* options = PQconninfoParse(address_.c_str(), &error);
  if (!options) {
    std::string why = firstLine(error ? error : "out of memory");
    PQfreemem(error);
    throw StoreAddressError("the database address is malformed: " + why);
  }
  try {
    where_ = describe(options);
  } catch (...) {
    PQconninfoFree(options);
    throw;
  }
  PQconninfoFree(options);
  migrate();
}

PostgresStore::~PostgresStore() = default;

std::unique_ptr<PostgresStore::Connection> PostgresStore::connect() {
  // A server that does not answer is given up on after some seconds, unless the address says
  // otherwise (later values win).
  const char* keywords[] = {"connect_timeout", "application_name", "dbname", nullptr};
  const char* values[] = {"5", "saffra", address_.c_str(), nullptr};
  PGconn* conn = PQconnectdbParams(keywords, values, 1);
  if (!conn) throw StoreUnavailable("cannot connect to the database at " + where_);
  if (PQstatus(conn) != CONNECTION_OK) {
    const std::string why = firstLine(PQerrorMessage(conn));
    const bool refused = PQconnectionNeedsPassword(conn) ||
                         why.find("authentication failed") != std::string::npos ||
                         why.find("no password supplied") != std::string::npos;
    PQfinish(conn);
    throw StoreUnavailable((refused ? "the database at " + where_ + " refused the login: "
                                    : "cannot connect to the database at " + where_ + ": ") +
                           why);
  }
  return std::make_unique<Connection>(conn);
}

// A connection is lent to one operation at a time; a few are kept open between operations.
// One that broke (the server restarted or went away) is closed, and so are the idle ones, which
// most likely broke with it: the next operation connects anew. An idle one that the server
// closed while nobody used it is found out before it is lent, so that a restart no request saw
// fails no request.
storage::Lease PostgresStore::lease() {
  std::unique_lock lock(poolMutex_);
  poolFree_.wait(lock, [&] { return !idle_.empty() || open_ < connections_; });
  Connection* lent = nullptr;
  while (!lent && !idle_.empty()) {
    std::unique_ptr<Connection> candidate = std::move(idle_.back());
    idle_.pop_back();
    if (candidate->stillOpen()) {
      lent = candidate.release();
    } else {
      --open_;  // closed as `candidate` goes
    }
  }
  if (!lent) {
    ++open_;
    lock.unlock();
    try {
      lent = connect().release();
    } catch (...) {
      lock.lock();
      --open_;
      poolFree_.notify_one();
      throw;
    }
  }
  return storage::Lease(*lent, [this, lent] { giveBack(lent); });
}

void PostgresStore::giveBack(Connection* connection) noexcept {
  std::unique_ptr<Connection> owned(connection);
  std::vector<std::unique_ptr<Connection>> closed;
  {
    std::lock_guard lock(poolMutex_);
    if (owned->reusable()) {
      idle_.push_back(std::move(owned));
    } else {
      closed = std::move(idle_);
      idle_.clear();
      open_ -= 1 + static_cast<int>(closed.size());
    }
  }
  poolFree_.notify_all();
  // `owned` (when not kept) and `closed` are closed here, outside the lock.
}

std::string PostgresStore::putImage(std::span<const std::uint8_t> png, const std::string& id) {
  if (!isImageId(id)) throw StoreError("not an image id: " + id);
  storage::Lease db = lease();
  auto& c = static_cast<Connection&>(*db);
  const std::int64_t at = now();
  // Bytes already stored are not sent again; their use is noted, so retention, which leaves
  // recently used images alone, does not remove them before the row that refers to them is
  // written. A use noted within this second already is not written again: that would store
  // the same time, at the cost of a commit that waits for the disk.
  const Result stored = c.run(
      "WITH noted AS (UPDATE images SET used_at = $2 WHERE id = $1 AND used_at < $2) "
      "SELECT 1 FROM images WHERE id = $1",
      {text(id), integer(at)});
  if (PQntuples(stored.get()) > 0) return id;
  Param bytes{std::string(reinterpret_cast<const char*>(png.data()), png.size()), kByteaType, true};
  // The same bytes stored by another request meanwhile are the same image: kept once.
  c.run(
      "INSERT INTO images(id, bytes, size, used_at) VALUES($1, $2, $3, $4) "
      "ON CONFLICT (id) DO NOTHING",
      {text(id), std::move(bytes), integer(static_cast<std::int64_t>(png.size())), integer(at)});
  return id;
}

bool PostgresStore::hasImage(const std::string& id, std::uint64_t size) const {
  return imageSize(id) == size;
}

std::optional<std::uint64_t> PostgresStore::imageSize(const std::string& id) const {
  if (!isImageId(id)) return std::nullopt;
  storage::Lease db = lease();
  Result r = static_cast<Connection&>(*db).run("SELECT size FROM images WHERE id = $1", {text(id)});
  if (PQntuples(r.get()) == 0) return std::nullopt;
  return static_cast<std::uint64_t>(std::strtoll(PQgetvalue(r.get(), 0, 0), nullptr, 10));
}

namespace {

/// An upload's bytes, stored when kept.
class PendingRow : public Store::PendingImage {
 public:
  PendingRow(Store& store, std::span<const std::uint8_t> png, std::string id)
      : store_(store), bytes_(png.begin(), png.end()), id_(std::move(id)) {}
  std::string keep() override {
    if (!kept_) store_.putImage(bytes_, id_);
    kept_ = true;
    return id_;
  }

 private:
  Store& store_;
  std::vector<std::uint8_t> bytes_;
  std::string id_;
  bool kept_ = false;
};

std::optional<std::vector<std::uint8_t>> bytesOf(const Result& r) {
  if (PQntuples(r.get()) == 0) return std::nullopt;
  const auto* p = reinterpret_cast<const std::uint8_t*>(PQgetvalue(r.get(), 0, 0));
  return std::vector<std::uint8_t>(p, p + PQgetlength(r.get(), 0, 0));
}

}  // namespace

std::unique_ptr<Store::PendingImage> PostgresStore::writeImage(std::span<const std::uint8_t> png,
                                                               const std::string& id) {
  if (!isImageId(id)) throw StoreError("not an image id: " + id);
  return std::make_unique<PendingRow>(*this, png, id);
}

std::optional<std::vector<std::uint8_t>> PostgresStore::readImage(const std::string& id) const {
  if (!isImageId(id)) return std::nullopt;
  storage::Lease db = lease();
  return bytesOf(static_cast<Connection&>(*db).run("SELECT bytes FROM images WHERE id = $1",
                                                   {text(id)}, true));
}

std::optional<std::vector<std::uint8_t>> PostgresStore::imageHead(const std::string& id,
                                                                  std::size_t count) const {
  if (!isImageId(id)) return std::nullopt;
  storage::Lease db = lease();
  return bytesOf(static_cast<Connection&>(*db).run(
      "SELECT substring(bytes FROM 1 FOR $2::integer) FROM images WHERE id = $1",
      {text(id), integer(static_cast<std::int64_t>(std::min<std::size_t>(count, 1u << 30)))},
      true));
}

std::int64_t PostgresStore::removeUnusedImages(const std::string& prefix, std::int64_t before) {
  if (prefix.size() != 2 || prefix.find_first_not_of("0123456789abcdef") != std::string::npos) {
    return 0;
  }
  storage::Lease db = lease();
  auto& c = static_cast<Connection&>(*db);
  // Ids of the prefix sort from it up to the prefix followed by 'g' (after every hex digit).
  c.run(
      "DELETE FROM images i WHERE i.id >= $1 AND i.id < $2 AND i.used_at < $3 "
      "AND NOT EXISTS (SELECT 1 FROM steps WHERE current_image = i.id) "
      "AND NOT EXISTS (SELECT 1 FROM steps WHERE baseline_image = i.id) "
      "AND NOT EXISTS (SELECT 1 FROM steps WHERE diff_image = i.id) "
      "AND NOT EXISTS (SELECT 1 FROM baseline_version_steps WHERE image = i.id) "
      "AND NOT EXISTS (SELECT 1 FROM baseline_alternatives WHERE image = i.id)",
      {text(prefix), text(prefix + "g"), integer(before)});
  return c.changes();
}

}  // namespace saffra::server
