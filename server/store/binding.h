// The binding the store's queries run through, the same for both engines: a connection lent to
// one operation, its statements and transactions. Included by the store's own files only.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "saffra/platform/nullable.h"
#include "server/store.h"

namespace saffra::server::storage {

/// The SQL a query may need in two forms (JSON functions, case-insensitive matching).
enum class Dialect { Sqlite, Postgres };

/// A statement of one connection. Parameters are numbered from 1 and written `?` or `?N`;
/// columns are numbered from 0.
class Query {
 public:
  virtual ~Query() = default;
  virtual void bindText(int i, const std::string& text) = 0;
  virtual void bindInteger(int i, std::int64_t value) = 0;
  virtual void bindNull(int i) = 0;
  /// True when a row is ready, false when the statement is done. Throws StoreError.
  virtual bool step() = 0;
  virtual bool isNull(int col) const = 0;
  virtual std::int64_t integer(int col) const = 0;
  virtual std::string text(int col) const = 0;
};

/// One connection to the database, used by one operation at a time.
class Link {
 public:
  virtual ~Link() = default;
  virtual Dialect dialect() const = 0;
  /// A statement for `sql`, ready to bind. Throws StoreError.
  virtual Query* take(const std::string& sql) = 0;
  /// Ends the use of a statement from take().
  virtual void give(Query* query) noexcept = 0;
  /// Runs statements without parameters. Throws StoreError.
  virtual void exec(const char* sql) = 0;
  /// What a write transaction holds while it runs.
  enum class Scope {
    /// One transaction at a time for the whole database, whatever process holds the
    /// connection, so that what it read (a baseline's current version) stays true until it
    /// commits.
    Database,
    /// Only the rows it writes: for writes that read nothing they depend on, so that
    /// transactions of other sessions commit beside it (and share a flush to disk).
    Rows,
  };
  /// Starts a transaction that writes.
  virtual void begin(Scope scope) = 0;
  virtual void commit() = 0;
  virtual void rollback() noexcept = 0;
  /// The rows the last statement changed.
  virtual std::int64_t changes() = 0;
  /// A moment to tidy up after a large removal (SQLite folds its write-ahead log back).
  virtual void tidy() noexcept {}
};

/// A connection lent to one operation; given back when this goes.
class Lease {
 public:
  Lease(Link& link, std::function<void()> giveBack)
      : link_(&link), giveBack_(std::move(giveBack)) {}
  ~Lease() {
    if (giveBack_) giveBack_();
  }
  Lease(Lease&& other) noexcept
      : link_(other.link_), giveBack_(std::exchange(other.giveBack_, nullptr)) {}
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;
  Lease& operator=(Lease&&) = delete;

  Link& operator*() const { return *link_; }
  Link* operator->() const { return link_; }

 private:
  Link* link_;
  std::function<void()> giveBack_;
};

/// A statement of a connection, given back when this goes.
class Statement {
 public:
  Statement(Link& link, const std::string& sql) : link_(link), query_(link.take(sql)) {}
  ~Statement() { link_.give(query_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int i, const std::string& text) {
    query_->bindText(i, text);
    return *this;
  }
  Statement& bind(int i, const OptString& text) { return text ? bind(i, *text) : bindNull(i); }
  Statement& bind(int i, std::int64_t value) {
    query_->bindInteger(i, value);
    return *this;
  }
  Statement& bind(int i, const std::optional<std::int64_t>& value) {
    return value ? bind(i, *value) : bindNull(i);
  }
  Statement& bindNull(int i) {
    query_->bindNull(i);
    return *this;
  }

  /// True when a row is ready, false when the statement is done.
  bool step() { return query_->step(); }
  void run() {
    while (step()) {
    }
  }

  bool isNull(int col) const { return query_->isNull(col); }
  std::int64_t integer(int col) const { return query_->integer(col); }
  std::string text(int col) const { return query_->text(col); }
  OptString optText(int col) const { return isNull(col) ? OptString() : OptString(text(col)); }

 private:
  Link& link_;
  Query* query_;
};

inline void exec(Link& link, const char* sql) {
  link.exec(sql);
}

/// A transaction that writes, rolled back when the scope is left by an exception (or without
/// commit()).
class Transaction {
 public:
  explicit Transaction(Link& link, Link::Scope scope = Link::Scope::Database) : link_(link) {
    link_.begin(scope);
  }
  ~Transaction() {
    if (!committed_) link_.rollback();
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit() {
    link_.commit();
    committed_ = true;
  }

 private:
  Link& link_;
  bool committed_ = false;
};

}  // namespace saffra::server::storage
