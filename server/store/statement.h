// The store's SQLite binding: the cache of prepared statements, a statement from it, and
// transactions. Included by the store's own files only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include <sqlite3.h>

#include "server/store.h"

namespace saffra::server {

// Prepared statements kept for the next use of the same SQL text: every check runs the same
// few queries, and preparing them again each time costs more than running them. Statements in
// use are not in the cache, so two of the same text can run at once. Used under the store's
// lock only.
class Store::StatementCache {
 public:
  explicit StatementCache(sqlite3* db) : db_(db) {}
  ~StatementCache() {
    for (auto& [sql, stmt] : idle_) sqlite3_finalize(stmt);
  }
  StatementCache(const StatementCache&) = delete;
  StatementCache& operator=(const StatementCache&) = delete;

  sqlite3* db() const { return db_; }
  /// A statement for `sql`, kept or newly prepared; nullptr when it does not prepare.
  sqlite3_stmt* take(const char* sql) {
    if (auto found = idle_.find(sql); found != idle_.end()) {
      sqlite3_stmt* stmt = found->second;
      idle_.erase(found);
      return stmt;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
      sqlite3_finalize(stmt);
      return nullptr;
    }
    return stmt;
  }
  /// Resets a statement and keeps it, unless one of its text is kept already.
  void give(sqlite3_stmt* stmt) {
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    if (!idle_.try_emplace(sqlite3_sql(stmt), stmt).second) sqlite3_finalize(stmt);
  }

 private:
  sqlite3* db_;
  std::unordered_map<std::string, sqlite3_stmt*> idle_;
};

namespace storage {

// A prepared statement from the store's cache; columns and parameters are numbered as SQLite
// numbers them.
class Statement {
 public:
  Statement(Store::StatementCache& cache, const char* sql) : cache_(cache), db_(cache.db()) {
    stmt_ = cache_.take(sql);
    if (!stmt_) fail();
  }
  Statement(Store::StatementCache& cache, const std::string& sql) : Statement(cache, sql.c_str()) {}
  ~Statement() { cache_.give(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int i, const std::string& text) {
    check(
        sqlite3_bind_text(stmt_, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT));
    return *this;
  }
  Statement& bind(int i, const OptString& text) { return text ? bind(i, *text) : bindNull(i); }
  Statement& bind(int i, std::int64_t value) {
    check(sqlite3_bind_int64(stmt_, i, value));
    return *this;
  }
  Statement& bind(int i, const std::optional<std::int64_t>& value) {
    return value ? bind(i, *value) : bindNull(i);
  }
  Statement& bindNull(int i) {
    check(sqlite3_bind_null(stmt_, i));
    return *this;
  }

  /// True when a row is ready, false when the statement is done.
  bool step() {
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    fail();
  }
  void run() {
    while (step()) {
    }
  }

  bool isNull(int col) const { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }
  std::int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }
  std::string text(int col) const {
    const auto* p = sqlite3_column_text(stmt_, col);
    return p ? std::string(reinterpret_cast<const char*>(p),
                           static_cast<std::size_t>(sqlite3_column_bytes(stmt_, col)))
             : std::string();
  }
  OptString optText(int col) const { return isNull(col) ? OptString() : OptString(text(col)); }

 private:
  void check(int rc) {
    if (rc != SQLITE_OK) fail();
  }
  [[noreturn]] void fail() { throw StoreError(std::string("database: ") + sqlite3_errmsg(db_)); }

  Store::StatementCache& cache_;
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

inline void exec(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errmsg(db);
    sqlite3_free(message);
    throw StoreError("database: " + text);
  }
}

// BEGIN IMMEDIATE ... COMMIT, rolled back when the scope is left by an exception.
class Transaction {
 public:
  explicit Transaction(sqlite3* db) : db_(db) { exec(db_, "BEGIN IMMEDIATE"); }
  ~Transaction() {
    if (!committed_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  void commit() {
    exec(db_, "COMMIT");
    committed_ = true;
  }

 private:
  sqlite3* db_;
  bool committed_ = false;
};

}  // namespace storage

}  // namespace saffra::server
