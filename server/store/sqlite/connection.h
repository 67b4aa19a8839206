// The SQLite binding: the database connection with its cache of prepared statements, and the
// statements it lends. Included by the SQLite engine's own files only.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include <sqlite3.h>

#include "server/store/binding.h"
#include "server/store/sqlite/sqlite_store.h"

namespace saffra::server {

// Prepared statements are kept for the next use of the same SQL text: every check runs the
// same few queries, and preparing them again each time costs more than running them.
// Statements in use are not in the cache, so two of the same text can run at once. Used under
// the store's lock only.
class SqliteStore::Connection : public storage::Link {
 public:
  explicit Connection(sqlite3* db) : db_(db) {}
  ~Connection() override {
    for (auto& [sql, query] : idle_) delete query;
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  storage::Dialect dialect() const override { return storage::Dialect::Sqlite; }

  storage::Query* take(const std::string& sql) override {
    if (auto found = idle_.find(sql); found != idle_.end()) {
      Query* query = found->second;
      idle_.erase(found);
      return query;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) !=
        SQLITE_OK) {
      sqlite3_finalize(stmt);
      fail(db_);
    }
    return new Query(db_, stmt);
  }

  /// Resets a statement and keeps it, unless one of its text is kept already.
  void give(storage::Query* given) noexcept override {
    auto* query = static_cast<Query*>(given);
    sqlite3_reset(query->stmt);
    sqlite3_clear_bindings(query->stmt);
    if (!idle_.try_emplace(sqlite3_sql(query->stmt), query).second) delete query;
  }

  void exec(const char* sql) override {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
      std::string text = message ? message : sqlite3_errmsg(db_);
      sqlite3_free(message);
      throw StoreError("database: " + text);
    }
  }
  // BEGIN IMMEDIATE takes the database's write lock at once, so what the transaction reads
  // stays true until it commits. SQLite has one writer at a time whatever the scope.
  void begin(Scope) override { exec("BEGIN IMMEDIATE"); }
  void commit() override { exec("COMMIT"); }
  void rollback() noexcept override { sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr); }
  std::int64_t changes() override { return sqlite3_changes(db_); }
  // The deletions fill the write-ahead log; folding it into the database now keeps the
  // automatic checkpoint out of the next check's commit.
  void tidy() noexcept override {
    sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  }

 private:
  [[noreturn]] static void fail(sqlite3* db) {
    throw StoreError(std::string("database: ") + sqlite3_errmsg(db));
  }

  struct Query : storage::Query {
    Query(sqlite3* db, sqlite3_stmt* stmt) : db(db), stmt(stmt) {}
    ~Query() override { sqlite3_finalize(stmt); }
    void bindText(int i, const std::string& text) override {
      check(
          sqlite3_bind_text(stmt, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT));
    }
    void bindInteger(int i, std::int64_t value) override {
      check(sqlite3_bind_int64(stmt, i, value));
    }
    void bindNull(int i) override { check(sqlite3_bind_null(stmt, i)); }
    bool step() override {
      int rc = sqlite3_step(stmt);
      if (rc == SQLITE_ROW) return true;
      if (rc == SQLITE_DONE) return false;
      fail(db);
    }
    bool isNull(int col) const override { return sqlite3_column_type(stmt, col) == SQLITE_NULL; }
    std::int64_t integer(int col) const override { return sqlite3_column_int64(stmt, col); }
    std::string text(int col) const override {
      const auto* p = sqlite3_column_text(stmt, col);
      return p ? std::string(reinterpret_cast<const char*>(p),
                             static_cast<std::size_t>(sqlite3_column_bytes(stmt, col)))
               : std::string();
    }
    void check(int rc) {
      if (rc != SQLITE_OK) fail(db);
    }
    sqlite3* db;
    sqlite3_stmt* stmt;
  };

  sqlite3* db_;
  std::unordered_map<std::string, Query*> idle_;
};

}  // namespace saffra::server
