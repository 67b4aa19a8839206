// The PostgreSQL binding: one libpq connection, its prepared statements and the statements it
// lends. Texts cross it escaped so that any bytes survive (PostgreSQL text holds neither NUL nor
// malformed UTF-8). Included by the PostgreSQL engine's own files only.
#pragma once

#include <libpq-fe.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/store/binding.h"
#include "server/store/postgres/postgres_store.h"

namespace saffra::server {

namespace postgres {

/// A text as the database keeps it: bytes that PostgreSQL text cannot hold (NUL, malformed
/// UTF-8) and the escape byte 0x01 itself become 0x01 and two hex digits. One to one, so
/// equality and lookups are unchanged.
std::string encodeText(const std::string& text);
std::string decodeText(const char* text, std::size_t size);

/// One parameter of a statement: NULL, or a value in text form (binary for bytea).
struct Param {
  std::optional<std::string> value;
  Oid type = 0;  // 0: taken from the statement
  bool binary = false;
};

using Result = std::unique_ptr<PGresult, decltype(&PQclear)>;

/// The advisory lock that write transactions hold, one at a time for the whole database.
inline constexpr std::int64_t kWriteLock = 0x5AFF7A0001;
/// The advisory lock held while the schema is checked and brought up to date.
inline constexpr std::int64_t kSchemaLock = 0x5AFF7A0002;

}  // namespace postgres

class PostgresStore::Connection : public storage::Link {
 public:
  explicit Connection(PGconn* conn) : conn_(conn) {}
  ~Connection() override { PQfinish(conn_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  storage::Dialect dialect() const override { return storage::Dialect::Postgres; }
  storage::Query* take(const std::string& sql) override;
  void give(storage::Query* query) noexcept override;
  void exec(const char* sql) override;
  void begin(Scope scope) override;
  void commit() override { exec("COMMIT"); }
  void rollback() noexcept override;
  std::int64_t changes() override { return changes_; }

  /// Runs `sql` (parameters written `$N`) as a statement prepared once per connection. Throws
  /// StoreUnavailable when the connection is lost, StoreError otherwise.
  postgres::Result run(const std::string& sql, const std::vector<postgres::Param>& params,
                       bool binaryResult = false);
  /// False when the server sent anything while the connection sat idle, found without
  /// waiting: a server that restarts ends every connection with a message and EOF, and an idle
  /// connection is sent nothing else that matters here.
  bool stillOpen() const;
  /// False once the connection broke or was left inside a transaction: it is closed then.
  bool reusable() const {
    return !broken_ && PQstatus(conn_) == CONNECTION_OK &&
           PQtransactionStatus(conn_) == PQTRANS_IDLE;
  }

 private:
  /// Throws for a failed result (or none): StoreUnavailable when the connection is gone.
  [[noreturn]] void fail(const PGresult* result);
  /// `sql` with its `?` and `?N` parameters written as PostgreSQL's `$N`.
  const std::string& translated(const std::string& sql);

  PGconn* conn_;
  std::unordered_map<std::string, std::string> translated_;
  std::unordered_map<std::string, std::string> prepared_;  // SQL and types -> statement name
  std::int64_t changes_ = 0;
  bool broken_ = false;
};

}  // namespace saffra::server
