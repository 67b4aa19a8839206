// The PostgreSQL binding: statements prepared once per connection, parameters typed by how they
// are bound, texts escaped on the way in and out, and failures told apart (a lost connection
// makes the store unavailable for now; anything else is an error of the statement).
#include "server/store/postgres/connection.h"

#include <poll.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace saffra::server {

namespace postgres {

namespace {

constexpr unsigned char kEscape = 0x01;
constexpr Oid kBigintType = 20;
constexpr Oid kTextType = 25;

/// The length of the well-formed UTF-8 sequence at `p` (at most `left` bytes), or 0.
std::size_t utf8Length(const unsigned char* p, std::size_t left) {
  const unsigned char c = p[0];
  if (c < 0x80) return 1;
  std::size_t n = 0;
  unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) low = 0xA0;   // no overlong forms
    if (c == 0xED) high = 0x9F;  // no surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  if (left < n || p[1] < low || p[1] > high) return 0;
  for (std::size_t i = 2; i < n; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return n;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::string encodeText(const std::string& text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  bool plain = true;
  for (std::size_t i = 0; i < size && plain; ++i) plain = p[i] > kEscape && p[i] < 0x80;
  if (plain) return text;
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(size + 8);
  for (std::size_t i = 0; i < size;) {
    const std::size_t n = p[i] <= kEscape ? 0 : utf8Length(p + i, size - i);
    if (n == 0) {
      out += static_cast<char>(kEscape);
      out += kHex[p[i] >> 4];
      out += kHex[p[i] & 15];
      ++i;
    } else {
      out.append(text, i, n);
      i += n;
    }
  }
  return out;
}

std::string decodeText(const char* text, std::size_t size) {
  if (!std::memchr(text, kEscape, size)) return std::string(text, size);
  std::string out;
  out.reserve(size);
  for (std::size_t i = 0; i < size; ++i) {
    if (static_cast<unsigned char>(text[i]) == kEscape && i + 2 < size &&
        hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace postgres

using postgres::Param;
using postgres::Result;

namespace {

/// A statement of the connection: run on its first step, its rows read one by one.
class PostgresQuery : public storage::Query {
 public:
  PostgresQuery(PostgresStore::Connection& connection, const std::string& sql)
      : connection_(connection), sql_(sql) {}

  void bindText(int i, const std::string& text) override {
    at(i) = {postgres::encodeText(text), postgres::kTextType, false};
  }
  void bindInteger(int i, std::int64_t value) override {
    at(i) = {std::to_string(value), postgres::kBigintType, false};
  }
  void bindNull(int i) override { at(i) = {}; }

  bool step() override {
    if (!result_) {
      result_ = connection_.run(sql_, params_);
      row_ = 0;
    } else {
      ++row_;
    }
    return row_ < PQntuples(result_.get());
  }
  bool isNull(int col) const override { return PQgetisnull(result_.get(), row_, col) != 0; }
  std::int64_t integer(int col) const override {
    if (isNull(col)) return 0;
    const char* value = PQgetvalue(result_.get(), row_, col);
    if (value[0] == 't' && value[1] == '\0') return 1;  // a boolean
    return std::strtoll(value, nullptr, 10);
  }
  std::string text(int col) const override {
    return postgres::decodeText(PQgetvalue(result_.get(), row_, col),
                                static_cast<std::size_t>(PQgetlength(result_.get(), row_, col)));
  }

 private:
  Param& at(int i) {
    if (params_.size() < static_cast<std::size_t>(i)) params_.resize(static_cast<std::size_t>(i));
    return params_[static_cast<std::size_t>(i - 1)];
  }

  PostgresStore::Connection& connection_;
  const std::string& sql_;
  std::vector<Param> params_;
  Result result_{nullptr, &PQclear};
  int row_ = 0;
};

// Time this process spent waiting for the database's replies, for benchmarks' reports.
std::atomic<std::int64_t> waitedNanoseconds{0};

struct WaitTimer {
  const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  ~WaitTimer() {
    waitedNanoseconds += std::chrono::duration_cast<std::chrono::nanoseconds>(
                             std::chrono::steady_clock::now() - start)
                             .count();
  }
};

}  // namespace

std::chrono::nanoseconds PostgresStore::timeInDatabase() const {
  return std::chrono::nanoseconds(waitedNanoseconds.load());
}

// The text and the type of each parameter name a prepared statement: the types follow the
// C++ values bound, so a statement bound with a NULL where it once had a number is prepared
// again rather than guessed.
Result PostgresStore::Connection::run(const std::string& sql, const std::vector<Param>& params,
                                      bool binaryResult) {
  const WaitTimer timer;
  std::string key = sql;
  key += '\0';
  std::vector<Oid> types;
  for (const Param& p : params) {
    types.push_back(p.type);
    key += std::to_string(p.type) + ',';
  }
  auto found = prepared_.find(key);
  if (found == prepared_.end()) {
    std::string name = "s" + std::to_string(prepared_.size());
    Result prepared(
        PQprepare(conn_, name.c_str(), sql.c_str(), static_cast<int>(params.size()), types.data()),
        &PQclear);
    if (!prepared || PQresultStatus(prepared.get()) != PGRES_COMMAND_OK) fail(prepared.get());
    found = prepared_.emplace(std::move(key), std::move(name)).first;
  }
  std::vector<const char*> values;
  std::vector<int> lengths, formats;
  for (const Param& p : params) {
    values.push_back(p.value ? p.value->data() : nullptr);
    lengths.push_back(p.value ? static_cast<int>(p.value->size()) : 0);
    formats.push_back(p.binary ? 1 : 0);
  }
  Result result(PQexecPrepared(conn_, found->second.c_str(), static_cast<int>(params.size()),
                               values.data(), lengths.data(), formats.data(), binaryResult ? 1 : 0),
                &PQclear);
  const ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
  if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) fail(result.get());
  changes_ = std::strtoll(PQcmdTuples(result.get()), nullptr, 10);
  return result;
}

storage::Query* PostgresStore::Connection::take(const std::string& sql) {
  return new PostgresQuery(*this, translated(sql));
}

void PostgresStore::Connection::give(storage::Query* query) noexcept {
  delete query;
}

bool PostgresStore::Connection::stillOpen() const {
  if (PQstatus(conn_) != CONNECTION_OK) return false;
  pollfd socket{PQsocket(conn_), POLLIN, 0};
  return ::poll(&socket, 1, 0) == 0;
}

void PostgresStore::Connection::exec(const char* sql) {
  const WaitTimer timer;
  Result result(PQexec(conn_, sql), &PQclear);
  const ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
  if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) fail(result.get());
}

// Write transactions of the whole database take one advisory lock, as SQLite's BEGIN
// IMMEDIATE takes its write lock: what such a transaction read (a baseline's current version)
// stays true until it commits, in every instance of the service. Row-scoped ones rely on
// PostgreSQL's row locks and constraints alone.
void PostgresStore::Connection::begin(Scope scope) {
  exec("BEGIN");
  if (scope == Scope::Database) {
    run("SELECT pg_advisory_xact_lock($1)",
        {Param{std::to_string(postgres::kWriteLock), postgres::kBigintType, false}});
  }
}

void PostgresStore::Connection::rollback() noexcept {
  if (PQstatus(conn_) == CONNECTION_OK) PQclear(PQexec(conn_, "ROLLBACK"));
}

void PostgresStore::Connection::fail(const PGresult* result) {
  const char* primary = result ? PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY) : nullptr;
  std::string message = primary ? primary : PQerrorMessage(conn_);
  message = message.substr(0, message.find('\n'));
  const char* state = result ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
  // Class 08 (connection exception) and 57P (the server shutting down or restarting).
  const bool lost =
      PQstatus(conn_) != CONNECTION_OK ||
      (state && (std::strncmp(state, "08", 2) == 0 || std::strncmp(state, "57P", 3) == 0));
  if (lost) {
    broken_ = true;
    throw StoreUnavailable("the database cannot be reached: " + message);
  }
  throw StoreError("database: " + message);
}

const std::string& PostgresStore::Connection::translated(const std::string& sql) {
  if (auto found = translated_.find(sql); found != translated_.end()) return found->second;
  std::string out;
  out.reserve(sql.size() + 8);
  int next = 0;
  bool quoted = false;
  for (std::size_t i = 0; i < sql.size(); ++i) {
    const char c = sql[i];
    if (c == '\'') quoted = !quoted;  // '' inside a literal toggles twice
    if (c != '?' || quoted) {
      out += c;
      continue;
    }
    std::size_t end = i + 1;
    while (end < sql.size() && sql[end] >= '0' && sql[end] <= '9') ++end;
    out += '$';
    out += end > i + 1 ? sql.substr(i + 1, end - i - 1) : std::to_string(++next);
    i = end - 1;
  }
  return translated_.emplace(sql, std::move(out)).first->second;
}

}  // namespace saffra::server
