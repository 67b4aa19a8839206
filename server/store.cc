#include "server/store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <openssl/evp.h>
#include <sqlite3.h>

#include "saffra/base/logger.h"
#include "saffra/platform/uuid.h"

namespace saffra::server {

namespace fs = std::filesystem;

namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS batches(
  id TEXT PRIMARY KEY,
  name TEXT,
  started_at TEXT,
  sequence_name TEXT,
  is_closed INTEGER NOT NULL DEFAULT 0,
  closed_at INTEGER);
CREATE TABLE IF NOT EXISTS baselines(
  id INTEGER PRIMARY KEY,
  key TEXT NOT NULL UNIQUE,
  updated_at INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS baseline_steps(
  baseline_id INTEGER NOT NULL REFERENCES baselines(id),
  position INTEGER NOT NULL,
  tag TEXT NOT NULL,
  image TEXT NOT NULL,
  PRIMARY KEY(baseline_id, position));
CREATE TABLE IF NOT EXISTS sessions(
  id TEXT PRIMARY KEY,
  token TEXT NOT NULL,
  info TEXT NOT NULL,
  baseline_key TEXT NOT NULL,
  baseline_id INTEGER,
  is_new INTEGER NOT NULL,
  started_at INTEGER NOT NULL,
  batch_id TEXT NOT NULL,
  outcome TEXT);
CREATE INDEX IF NOT EXISTS sessions_by_batch ON sessions(batch_id);
CREATE TABLE IF NOT EXISTS steps(
  session_id TEXT NOT NULL REFERENCES sessions(id),
  position INTEGER NOT NULL,
  tag TEXT NOT NULL,
  current_image TEXT NOT NULL,
  baseline_image TEXT,
  diff_image TEXT,
  as_expected INTEGER NOT NULL,
  match_level TEXT NOT NULL,
  accessibility TEXT,
  settings TEXT,
  PRIMARY KEY(session_id, position));
CREATE TABLE IF NOT EXISTS reviews(
  session_id TEXT NOT NULL REFERENCES sessions(id),
  position INTEGER NOT NULL,
  accepted INTEGER NOT NULL,
  PRIMARY KEY(session_id, position));
)sql";

// Columns added after the first release, with their definitions: a database that lacks one
// gets it on open, so data survives upgrades.
struct AddedColumn {
  const char* table;
  const char* column;
  const char* definition;
};
constexpr AddedColumn kAddedColumns[] = {
    {"steps", "settings", "settings TEXT"},
};

// The schema's versions after the first: each step runs once, in one transaction, on a database
// of the version before it, and the number it reaches is kept in schema_version. The SQL keeps
// to what other engines share (no engine-specific types or statements).
struct SchemaStep {
  std::int64_t version;
  const char* sql;
};
constexpr SchemaStep kSchemaSteps[] = {
    // Baselines keep their history: every saved or accepted change makes a version, and a
    // version's steps may have alternative images. Sessions note the version and branch they
    // were compared with and when their client was last heard of; steps note the baseline step
    // they were paired with (by tag) and whether they matched an alternative.
    {2, R"sql(
CREATE TABLE baseline_versions(
  baseline_id INTEGER NOT NULL REFERENCES baselines(id),
  version INTEGER NOT NULL,
  created_at INTEGER NOT NULL,
  kind TEXT NOT NULL,
  session_id TEXT,
  from_version INTEGER,
  PRIMARY KEY(baseline_id, version));
CREATE TABLE baseline_version_steps(
  baseline_id INTEGER NOT NULL,
  version INTEGER NOT NULL,
  position INTEGER NOT NULL,
  tag TEXT NOT NULL,
  image TEXT NOT NULL,
  PRIMARY KEY(baseline_id, version, position),
  FOREIGN KEY(baseline_id, version) REFERENCES baseline_versions(baseline_id, version));
CREATE INDEX baseline_version_steps_by_tag
  ON baseline_version_steps(baseline_id, version, tag, position);
CREATE INDEX baseline_version_steps_by_image ON baseline_version_steps(image);
CREATE TABLE baseline_alternatives(
  baseline_id INTEGER NOT NULL,
  version INTEGER NOT NULL,
  position INTEGER NOT NULL,
  image TEXT NOT NULL,
  PRIMARY KEY(baseline_id, version, position, image),
  FOREIGN KEY(baseline_id, version) REFERENCES baseline_versions(baseline_id, version));
CREATE INDEX baseline_alternatives_by_image ON baseline_alternatives(image);
ALTER TABLE baselines ADD COLUMN current_version INTEGER NOT NULL DEFAULT 1;
ALTER TABLE baselines ADD COLUMN latest_version INTEGER NOT NULL DEFAULT 1;
INSERT INTO baseline_versions(baseline_id, version, created_at, kind)
  SELECT id, 1, updated_at, 'migrated' FROM baselines;
INSERT INTO baseline_version_steps(baseline_id, version, position, tag, image)
  SELECT baseline_id, 1, position, tag, image FROM baseline_steps;
DROP TABLE baseline_steps;
ALTER TABLE sessions ADD COLUMN baseline_version INTEGER;
ALTER TABLE sessions ADD COLUMN baseline_branch TEXT;
ALTER TABLE sessions ADD COLUMN last_active_at INTEGER;
UPDATE sessions SET baseline_version = 1 WHERE baseline_id IS NOT NULL;
UPDATE sessions SET last_active_at = started_at;
CREATE INDEX sessions_by_start ON sessions(started_at);
CREATE INDEX sessions_by_baseline ON sessions(baseline_id, baseline_version);
CREATE INDEX sessions_running ON sessions(last_active_at) WHERE outcome IS NULL;
ALTER TABLE steps ADD COLUMN baseline_position INTEGER;
ALTER TABLE steps ADD COLUMN matched_alternative INTEGER NOT NULL DEFAULT 0;
UPDATE steps SET baseline_position = position WHERE baseline_image IS NOT NULL;
CREATE INDEX steps_by_tag ON steps(session_id, tag);
CREATE INDEX steps_by_current_image ON steps(current_image);
CREATE INDEX steps_by_baseline_image ON steps(baseline_image);
CREATE INDEX steps_by_diff_image ON steps(diff_image);
ALTER TABLE reviews ADD COLUMN as_alternative INTEGER NOT NULL DEFAULT 0;
)sql"},
    // What the comparison found in a step (changed area, its boxes), for the review pages.
    {3, R"sql(
CREATE TABLE step_changes(
  session_id TEXT NOT NULL,
  position INTEGER NOT NULL,
  changes TEXT NOT NULL,
  PRIMARY KEY(session_id, position));
)sql"},
    // Decisions (a step, a test or a batch reviewed at once) and what each changed, so the
    // reviewer's last one can be undone: the outcome and verdicts its sessions had before, and
    // the baseline versions it made.
    {4, R"sql(
CREATE TABLE decisions(
  id INTEGER PRIMARY KEY,
  reviewer TEXT NOT NULL,
  scope TEXT NOT NULL,
  made_at INTEGER NOT NULL,
  undone INTEGER NOT NULL DEFAULT 0);
CREATE INDEX decisions_by_reviewer ON decisions(reviewer, undone, id);
CREATE TABLE decision_sessions(
  decision_id INTEGER NOT NULL,
  session_id TEXT NOT NULL,
  outcome TEXT,
  reviews TEXT NOT NULL,
  PRIMARY KEY(decision_id, session_id));
CREATE INDEX decision_sessions_by_session ON decision_sessions(session_id, decision_id);
CREATE TABLE decision_baselines(
  decision_id INTEGER NOT NULL,
  baseline_id INTEGER NOT NULL,
  session_id TEXT NOT NULL,
  previous_version INTEGER,
  made_version INTEGER NOT NULL,
  PRIMARY KEY(decision_id, baseline_id));
)sql"},
};
constexpr std::int64_t kSchemaVersion = 4;

std::int64_t now() {
  return static_cast<std::int64_t>(std::time(nullptr));
}

}  // namespace

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

namespace {

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

void exec(sqlite3* db, const char* sql) {
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

std::string sha256Hex(std::span<const std::uint8_t> bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    throw StoreError("cannot hash image");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

// Writes `bytes` to a new file at `path`. Throws StoreError, leaving no file behind.
void writeFile(const fs::path& path, std::span<const std::uint8_t> bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) throw StoreError("cannot create " + path.string() + ": " + std::strerror(errno));
  const std::uint8_t* p = bytes.data();
  std::size_t left = bytes.size();
  bool ok = true;
  while (ok && left > 0) {
    ssize_t written = ::write(fd, p, left);
    if (written < 0 && errno == EINTR) continue;
    ok = written > 0;
    if (ok) {
      p += written;
      left -= static_cast<std::size_t>(written);
    }
  }
  const int error = errno;
  ::close(fd);
  if (!ok) {
    ::unlink(path.c_str());
    throw StoreError("cannot write " + path.string() + ": " + std::strerror(error));
  }
}

// Flushes a file or folder to disk: empty when done (or when it is gone: nothing of it is
// left to lose), else why not.
std::string flushToDisk(const fs::path& path, int flags) {
  int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? std::string() : path.string() + ": " + std::strerror(errno);
  int rc;
  do {
    rc = ::fsync(fd);
  } while (rc != 0 && errno == EINTR);
  const int error = errno;
  ::close(fd);
  return rc == 0 ? std::string() : path.string() + ": " + std::strerror(error);
}

Json sessionInfoJson(const SessionRecord& s) {
  return Json{{"appName", s.appName},
              {"testName", s.testName},
              {"hostOS", s.hostOS},
              {"hostApp", s.hostApp},
              {"displaySize", {{"width", s.displayWidth}, {"height", s.displayHeight}}},
              {"baselineEnvName", s.baselineEnvName},
              {"branchName", s.branchName},
              {"defaultMatchSettings", s.defaultMatchSettings}};
}

std::string stringAt(const Json& object, std::string_view key) {
  const Json* v = json::find(object, key);
  return v ? json::stringValue(*v).value_or("") : std::string();
}

bool boolAt(const Json& object, std::string_view key) {
  const Json* v = json::find(object, key);
  return v && json::boolValue(*v);
}

void readSessionInfo(const Json& info, SessionRecord& s) {
  s.appName = stringAt(info, "appName");
  s.testName = stringAt(info, "testName");
  s.hostOS = stringAt(info, "hostOS");
  s.hostApp = stringAt(info, "hostApp");
  if (const Json* size = json::find(info, "displaySize")) {
    if (const Json* w = json::find(*size, "width")) s.displayWidth = json::doubleValue(*w);
    if (const Json* h = json::find(*size, "height")) s.displayHeight = json::doubleValue(*h);
  }
  s.baselineEnvName = stringAt(info, "baselineEnvName");
  s.branchName = stringAt(info, "branchName");
  if (const Json* settings = json::find(info, "defaultMatchSettings")) {
    s.defaultMatchSettings = *settings;
  }
}

Json outcomeJson(const Outcome& o) {
  Json missing = Json::array();
  for (std::size_t i = 0; i < o.missing.size(); ++i) {
    const BaselineStep& m = o.missing[i];
    Json entry{{"position", m.position}, {"tag", m.tag}, {"image", m.image}};
    if (i < o.baselinePositions.size()) entry["baselinePosition"] = o.baselinePositions[i];
    missing.push_back(std::move(entry));
  }
  return Json{{"status", o.status},
              {"stoppedStatus", o.stoppedStatus},
              {"isAborted", o.isAborted},
              {"isDifferent", o.isDifferent},
              {"savedAsBaseline", o.savedAsBaseline},
              {"stoppedAt", o.stoppedAt},
              {"missing", std::move(missing)}};
}

Outcome readOutcome(const Json& j) {
  Outcome o;
  o.status = stringAt(j, "status");
  o.stoppedStatus = stringAt(j, "stoppedStatus");
  if (o.stoppedStatus.empty()) o.stoppedStatus = o.status;
  o.isAborted = boolAt(j, "isAborted");
  o.isDifferent = boolAt(j, "isDifferent");
  o.savedAsBaseline = boolAt(j, "savedAsBaseline");
  if (const Json* t = json::find(j, "stoppedAt")) o.stoppedAt = json::integerValue(*t);
  if (const Json* missing = json::find(j, "missing"); missing && missing->is_array()) {
    for (const Json& m : *missing) {
      // Sessions stopped before steps were paired by tag listed missing steps at their
      // baseline position, which was also their place after the session's steps.
      const Json* position = json::find(m, "position");
      const Json* inBaseline = json::find(m, "baselinePosition");
      const std::int64_t at = position ? json::integerValue(*position) : 0;
      o.missing.push_back({at, stringAt(m, "tag"), stringAt(m, "image"), {}});
      o.baselinePositions.push_back(inBaseline ? json::integerValue(*inBaseline) : at);
    }
  }
  return o;
}

constexpr const char* kSessionColumns =
    "SELECT id, token, info, baseline_key, baseline_id, is_new, started_at, batch_id, outcome, "
    "baseline_version, baseline_branch, last_active_at FROM sessions";

SessionRecord readSession(const Statement& s) {
  SessionRecord r;
  r.id = s.text(0);
  r.token = s.text(1);
  readSessionInfo(json::parse(s.text(2)).value_or(Json::object()), r);
  r.baselineKey = s.text(3);
  if (!s.isNull(4)) r.baselineId = s.integer(4);
  r.isNew = s.integer(5) != 0;
  r.startedAt = s.integer(6);
  r.batchId = s.text(7);
  if (!s.isNull(8)) r.outcome = readOutcome(json::parse(s.text(8)).value_or(Json::object()));
  if (!s.isNull(9)) r.baselineVersion = s.integer(9);
  r.baselineBranch = s.text(10);
  r.lastActiveAt = s.isNull(11) ? r.startedAt : s.integer(11);
  return r;
}

}  // namespace

bool isImageId(const std::string& id) {
  return id.size() == 64 && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// Stored image files, flushed to disk in the order they were stored, then their folders (which
// hold their names) and the folders above those (which may have gained the folders). A file
// whose flush failed stays a failure for every later flushImages(): a disk that loses writes is
// not trusted with a baseline.
class Store::Flusher {
 public:
  Flusher() : thread_([this] { run(); }) {}
  ~Flusher() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    added_.notify_all();
    thread_.join();
  }
  Flusher(const Flusher&) = delete;
  Flusher& operator=(const Flusher&) = delete;

  void add(fs::path file) {
    {
      std::lock_guard lock(mutex_);
      queue_.push_back(std::move(file));
      ++count_;
    }
    added_.notify_one();
  }

  void flush() {
    std::unique_lock lock(mutex_);
    const std::uint64_t target = count_;
    flushed_.wait(lock, [&] { return done_ >= target; });
    if (!failure_.empty()) throw StoreError("cannot flush " + failure_);
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      added_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;  // stopping, and all is flushed
      std::vector<fs::path> files = std::exchange(queue_, {});
      const std::uint64_t upTo = count_;
      lock.unlock();
      std::string failure;
      std::vector<fs::path> folders;
      const auto addFolder = [&](const fs::path& folder) {
        if (std::find(folders.begin(), folders.end(), folder) == folders.end()) {
          folders.push_back(folder);
        }
      };
      for (const fs::path& file : files) {
        if (std::string why = flushToDisk(file, O_RDONLY); !why.empty()) failure = why;
        addFolder(file.parent_path());
        addFolder(file.parent_path().parent_path());  // which may have gained the folder
      }
      for (const fs::path& folder : folders) {
        if (std::string why = flushToDisk(folder, O_RDONLY | O_DIRECTORY); !why.empty()) {
          failure = why;
        }
      }
      lock.lock();
      if (failure_.empty()) failure_ = failure;
      done_ = upTo;
      flushed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable added_, flushed_;
  std::vector<fs::path> queue_;
  std::uint64_t count_ = 0;  // files added so far
  std::uint64_t done_ = 0;   // of those, the ones flushed (or given up on)
  std::string failure_;
  bool stopping_ = false;
  std::thread thread_;
};

namespace {

/// Device and inode of the data folder, its image folder and its database file; zeros for one
/// that is missing.
std::array<std::pair<std::uint64_t, std::uint64_t>, 3> folderIdentity(const fs::path& folder) {
  std::array<std::pair<std::uint64_t, std::uint64_t>, 3> identity{};
  const fs::path paths[] = {folder, folder / "images", folder / "saffra.db"};
  for (std::size_t i = 0; i < identity.size(); ++i) {
    struct stat info {};
    if (::stat(paths[i].c_str(), &info) == 0) identity[i] = {info.st_dev, info.st_ino};
  }
  return identity;
}

}  // namespace

Store::Store(const fs::path& folder) : folder_(folder), imageFolder_(folder / "images") {
  std::error_code error;
  fs::create_directories(imageFolder_, error);
  if (error) throw StoreError("cannot create " + imageFolder_.string() + ": " + error.message());
  flusher_ = std::make_unique<Flusher>();
  fs::path database = folder_ / "saffra.db";
  int rc =
      sqlite3_open_v2(database.c_str(), &db_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    std::string message = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
    sqlite3_close(db_);
    db_ = nullptr;
    throw StoreError("cannot open " + database.string() + ": " + message);
  }
  try {
    statements_ = std::make_unique<StatementCache>(db_);
    sqlite3_busy_timeout(db_, 10000);
    exec(db_, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;");
    migrate();
    identity_ = folderIdentity(folder_);
  } catch (...) {
    statements_.reset();
    sqlite3_close(db_);
    db_ = nullptr;
    throw;
  }
}

void Store::requireOwnFolder() const {
  if (!lost_ && folderIdentity(folder_) == identity_) return;
  if (!lost_.exchange(true)) {
    Logger::logWithFormat(
        "the data folder %@ or its database was removed or replaced; writes "
        "are refused until the service restarts",
        folder_.string());
  }
  throw StoreUnavailable("the data folder " + folder_.string() + " was removed or replaced");
}

Store::~Store() {
  statements_.reset();
  sqlite3_close(db_);
}

void Store::migrate() {
  exec(db_, "CREATE TABLE IF NOT EXISTS schema_version(version INTEGER NOT NULL)");
  std::optional<std::int64_t> version;
  {
    Statement s(*statements_, "SELECT max(version) FROM schema_version");
    if (s.step() && !s.isNull(0)) version = s.integer(0);
  }
  if (!version) {
    // A new database, or one of the first release (which kept no version): the first schema,
    // with the columns added during its life.
    exec(db_, kSchema);
    migrateFirstSchema();
    exec(db_, "INSERT INTO schema_version(version) VALUES(1)");
    version = 1;
  }
  if (*version > kSchemaVersion) {
    throw StoreError("the database has schema version " + std::to_string(*version) +
                     ", newer than this service's " + std::to_string(kSchemaVersion));
  }
  for (const SchemaStep& step : kSchemaSteps) {
    if (step.version <= *version) continue;
    Transaction transaction(db_);
    exec(db_, step.sql);
    Statement s(*statements_, "UPDATE schema_version SET version = ?");
    s.bind(1, step.version);
    s.run();
    transaction.commit();
  }
}

std::int64_t Store::schemaVersion() {
  std::lock_guard lock(mutex_);
  Statement s(*statements_, "SELECT max(version) FROM schema_version");
  s.step();
  return s.integer(0);
}

void Store::migrateFirstSchema() {
  for (const AddedColumn& added : kAddedColumns) {
    bool present = false;
    {
      Statement s(*statements_, std::string("PRAGMA table_info(") + added.table + ")");
      while (s.step()) present = present || s.text(1) == added.column;
    }
    if (!present) {
      exec(db_,
           (std::string("ALTER TABLE ") + added.table + " ADD COLUMN " + added.definition).c_str());
    }
  }
}

void Store::flushImages() {
  flusher_->flush();
}

fs::path Store::imagePath(const std::string& id) const {
  return imageFolder_ / id.substr(0, 2) / (id + ".png");
}

std::string Store::imageIdOf(std::span<const std::uint8_t> png) {
  return sha256Hex(png);
}

std::string Store::putImage(std::span<const std::uint8_t> png) {
  return putImage(png, sha256Hex(png));
}

std::string Store::putImage(std::span<const std::uint8_t> png, const std::string& id) {
  {
    // A file found present is touched, so retention, which leaves recently used files alone,
    // does not remove it before the row that refers to it is written.
    std::lock_guard use(imageUseMutex_);
    if (hasImage(id, png.size()) && ::utimensat(AT_FDCWD, imagePath(id).c_str(), nullptr, 0) == 0) {
      return id;
    }
  }
  return writeImage(png, id)->keep();
}

Store::PendingImage::PendingImage(Store& store, fs::path temporary, fs::path path, std::string id)
    : store_(store), temporary_(std::move(temporary)), path_(std::move(path)), id_(std::move(id)) {}

Store::PendingImage::~PendingImage() {
  if (!kept_) ::unlink(temporary_.c_str());
}

std::string Store::PendingImage::keep() {
  if (kept_) return id_;
  kept_ = true;
  // One rename, so readers see the whole file or none; the file is new, so retention leaves
  // it alone until the row that refers to it is written.
  std::lock_guard use(store_.imageUseMutex_);
  if (::rename(temporary_.c_str(), path_.c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary_.c_str());
    throw StoreError("cannot write " + path_.string() + ": " + std::strerror(error));
  }
  store_.flusher_->add(path_);
  return id_;
}

std::unique_ptr<Store::PendingImage> Store::writeImage(std::span<const std::uint8_t> png,
                                                       const std::string& id) {
  requireOwnFolder();
  if (!isImageId(id)) throw StoreError("not an image id: " + id);
  const fs::path path = imagePath(id);
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  if (error)
    throw StoreError("cannot create " + path.parent_path().string() + ": " + error.message());
  fs::path temporary = path.parent_path() / (".tmp-" + newUUIDString());
  writeFile(temporary, png);
  return std::unique_ptr<PendingImage>(new PendingImage(*this, std::move(temporary), path, id));
}

bool Store::hasImage(const std::string& id, std::uint64_t size) const {
  return imageSize(id) == size;
}

std::optional<std::uint64_t> Store::imageSize(const std::string& id) const {
  if (!isImageId(id)) return std::nullopt;
  std::error_code error;
  const std::uintmax_t size = fs::file_size(imagePath(id), error);
  if (error) return std::nullopt;
  return size;
}

std::optional<std::vector<std::uint8_t>> Store::readImage(const std::string& id) const {
  if (!isImageId(id)) return std::nullopt;
  std::ifstream in(imagePath(id), std::ios::binary);
  if (!in) return std::nullopt;
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::optional<BatchRecord> Store::batch(const std::string& id) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_,
              "SELECT id, name, started_at, sequence_name, is_closed FROM batches WHERE id = ?");
  s.bind(1, id);
  if (!s.step()) return std::nullopt;
  return BatchRecord{s.text(0), s.optText(1), s.optText(2), s.optText(3), s.integer(4) != 0};
}

bool Store::closeBatch(const std::string& id) {
  requireOwnFolder();
  std::lock_guard lock(mutex_);
  Statement s(*statements_, "UPDATE batches SET is_closed = 1, closed_at = ? WHERE id = ?");
  s.bind(1, now()).bind(2, id);
  s.run();
  return sqlite3_changes(db_) > 0;
}

std::optional<SessionRecord> Store::session(const std::string& id) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_, std::string(kSessionColumns) + " WHERE id = ?");
  s.bind(1, id);
  if (!s.step()) return std::nullopt;
  return readSession(s);
}

std::vector<SessionRecord> Store::sessionsInBatch(const std::string& batchId) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_,
              std::string(kSessionColumns) + " WHERE batch_id = ? ORDER BY started_at, rowid");
  s.bind(1, batchId);
  std::vector<SessionRecord> sessions;
  while (s.step()) sessions.push_back(readSession(s));
  return sessions;
}

std::vector<BatchRecord> Store::batches() {
  std::lock_guard lock(mutex_);
  Statement s(*statements_,
              "SELECT b.id, b.name, b.started_at, b.sequence_name, b.is_closed FROM batches b "
              "ORDER BY (SELECT max(started_at) FROM sessions WHERE batch_id = b.id) DESC, "
              "b.rowid DESC");
  std::vector<BatchRecord> list;
  while (s.step()) {
    list.push_back({s.text(0), s.optText(1), s.optText(2), s.optText(3), s.integer(4) != 0});
  }
  return list;
}

void Store::insertSession(const SessionRecord& session, const BatchRecord& batch) {
  requireOwnFolder();
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  {
    Statement s(*statements_,
                "INSERT INTO batches(id, name, started_at, sequence_name) VALUES(?, ?, ?, ?) "
                "ON CONFLICT(id) DO UPDATE SET name = coalesce(excluded.name, name), "
                "sequence_name = coalesce(excluded.sequence_name, sequence_name)");
    s.bind(1, batch.id).bind(2, batch.name).bind(3, batch.startedAt).bind(4, batch.sequenceName);
    s.run();
  }
  Statement s(*statements_,
              "INSERT INTO sessions(id, token, info, baseline_key, baseline_id, is_new, "
              "started_at, batch_id, baseline_version, baseline_branch, last_active_at) "
              "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  s.bind(1, session.id)
      .bind(2, session.token)
      .bind(3, json::write(sessionInfoJson(session)))
      .bind(4, session.baselineKey)
      .bind(5, session.baselineId)
      .bind(6, std::int64_t{session.isNew})
      .bind(7, session.startedAt)
      .bind(8, session.batchId)
      .bind(9, session.baselineVersion)
      .bind(10, session.baselineBranch)
      .bind(11, session.startedAt);
  s.run();
  transaction.commit();
}

void Store::touchSession(const std::string& sessionId, std::int64_t at) {
  requireOwnFolder();
  std::lock_guard lock(mutex_);
  Statement s(*statements_, "UPDATE sessions SET last_active_at = ? WHERE id = ?");
  s.bind(1, at).bind(2, sessionId);
  s.run();
}

std::vector<std::string> Store::idleSessions(std::int64_t before) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_,
              "SELECT id FROM sessions WHERE outcome IS NULL AND last_active_at < ? "
              "ORDER BY last_active_at");
  s.bind(1, before);
  std::vector<std::string> ids;
  while (s.step()) ids.push_back(s.text(0));
  return ids;
}

std::optional<BaselineRef> Store::findBaseline(const std::string& key) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_, "SELECT id, current_version FROM baselines WHERE key = ?");
  s.bind(1, key);
  if (!s.step()) return std::nullopt;
  return BaselineRef{s.integer(0), s.integer(1), ""};
}

namespace {

// The alternatives of the steps of one version, by position.
std::map<std::int64_t, std::vector<std::string>> alternativesOf(Store::StatementCache& statements,
                                                                std::int64_t baselineId,
                                                                std::int64_t version) {
  Statement s(statements,
              "SELECT position, image FROM baseline_alternatives "
              "WHERE baseline_id = ? AND version = ? ORDER BY position, image");
  s.bind(1, baselineId).bind(2, version);
  std::map<std::int64_t, std::vector<std::string>> found;
  while (s.step()) found[s.integer(0)].push_back(s.text(1));
  return found;
}

// The position of the `occurrence`-th step with `tag` of a version.
std::optional<std::int64_t> positionOfTag(Store::StatementCache& statements,
                                          std::int64_t baselineId, std::int64_t version,
                                          const std::string& tag, std::int64_t occurrence) {
  Statement s(statements,
              "SELECT position FROM baseline_version_steps "
              "WHERE baseline_id = ? AND version = ? AND tag = ? ORDER BY position "
              "LIMIT 1 OFFSET ?");
  s.bind(1, baselineId).bind(2, version).bind(3, tag).bind(4, occurrence);
  if (!s.step()) return std::nullopt;
  return s.integer(0);
}

}  // namespace

std::vector<BaselineStep> Store::baselineSteps(std::int64_t baselineId, std::int64_t version) {
  std::lock_guard lock(mutex_);
  std::map<std::int64_t, std::vector<std::string>> alternatives =
      alternativesOf(*statements_, baselineId, version);
  Statement s(*statements_,
              "SELECT position, tag, image FROM baseline_version_steps "
              "WHERE baseline_id = ? AND version = ? ORDER BY position");
  s.bind(1, baselineId).bind(2, version);
  std::vector<BaselineStep> steps;
  while (s.step()) {
    BaselineStep step{s.integer(0), s.text(1), s.text(2), {}};
    if (auto found = alternatives.find(step.position); found != alternatives.end()) {
      step.alternatives = std::move(found->second);
    }
    steps.push_back(std::move(step));
  }
  return steps;
}

std::optional<BaselineStep> Store::baselineStepByTag(std::int64_t baselineId, std::int64_t version,
                                                     const std::string& tag,
                                                     std::int64_t occurrence) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_,
              "SELECT position, tag, image FROM baseline_version_steps "
              "WHERE baseline_id = ? AND version = ? AND tag = ? ORDER BY position "
              "LIMIT 1 OFFSET ?");
  s.bind(1, baselineId).bind(2, version).bind(3, tag).bind(4, occurrence);
  if (!s.step()) return std::nullopt;
  BaselineStep step{s.integer(0), s.text(1), s.text(2), {}};
  Statement a(*statements_,
              "SELECT image FROM baseline_alternatives "
              "WHERE baseline_id = ? AND version = ? AND position = ? ORDER BY image");
  a.bind(1, baselineId).bind(2, version).bind(3, step.position);
  while (a.step()) step.alternatives.push_back(a.text(0));
  return step;
}

std::optional<BaselineHistory> Store::baselineHistory(std::int64_t baselineId) {
  std::lock_guard lock(mutex_);
  BaselineHistory history;
  {
    Statement s(*statements_, "SELECT id, key, current_version FROM baselines WHERE id = ?");
    s.bind(1, baselineId);
    if (!s.step()) return std::nullopt;
    history = {s.integer(0), s.text(1), s.integer(2), {}};
  }
  Statement s(*statements_,
              "SELECT v.version, v.created_at, v.kind, v.session_id, v.from_version, "
              "(SELECT count(*) FROM baseline_version_steps t "
              "WHERE t.baseline_id = v.baseline_id AND t.version = v.version) "
              "FROM baseline_versions v WHERE v.baseline_id = ? ORDER BY v.version DESC");
  s.bind(1, baselineId);
  while (s.step()) {
    BaselineVersion v;
    v.version = s.integer(0);
    v.createdAt = s.integer(1);
    v.kind = s.text(2);
    v.sessionId = s.optText(3);
    if (!s.isNull(4)) v.fromVersion = s.integer(4);
    v.steps = s.integer(5);
    history.versions.push_back(std::move(v));
  }
  return history;
}

std::int64_t Store::newVersion(std::int64_t toId,
                               std::optional<std::pair<std::int64_t, std::int64_t>> from,
                               const std::string& kind, const OptString& sessionId,
                               std::optional<std::int64_t> fromVersion) {
  std::int64_t version = 0;
  {
    Statement s(*statements_, "SELECT latest_version FROM baselines WHERE id = ?");
    s.bind(1, toId);
    if (!s.step()) throw StoreError("unknown baseline " + std::to_string(toId));
    version = s.integer(0) + 1;
  }
  const std::int64_t at = now();
  {
    Statement s(*statements_,
                "INSERT INTO baseline_versions(baseline_id, version, created_at, kind, session_id, "
                "from_version) VALUES(?, ?, ?, ?, ?, ?)");
    s.bind(1, toId)
        .bind(2, version)
        .bind(3, at)
        .bind(4, kind)
        .bind(5, sessionId)
        .bind(6, fromVersion);
    s.run();
  }
  if (from) {
    Statement steps(
        *statements_,
        "INSERT INTO baseline_version_steps(baseline_id, version, position, tag, image) "
        "SELECT ?, ?, position, tag, image FROM baseline_version_steps "
        "WHERE baseline_id = ? AND version = ?");
    steps.bind(1, toId).bind(2, version).bind(3, from->first).bind(4, from->second);
    steps.run();
    Statement alternatives(
        *statements_,
        "INSERT INTO baseline_alternatives(baseline_id, version, position, image) "
        "SELECT ?, ?, position, image FROM baseline_alternatives "
        "WHERE baseline_id = ? AND version = ?");
    alternatives.bind(1, toId).bind(2, version).bind(3, from->first).bind(4, from->second);
    alternatives.run();
  }
  Statement s(*statements_,
              "UPDATE baselines SET current_version = ?, latest_version = ?, updated_at = ? "
              "WHERE id = ?");
  s.bind(1, version).bind(2, version).bind(3, at).bind(4, toId);
  s.run();
  return version;
}

std::optional<std::pair<std::int64_t, std::int64_t>> Store::requireFreshBaseline(
    const std::string& sessionId, bool confirmed) {
  std::string key;
  std::optional<std::int64_t> comparedId, comparedVersion;
  {
    Statement s(*statements_,
                "SELECT baseline_key, baseline_id, baseline_version FROM sessions WHERE id = ?");
    s.bind(1, sessionId);
    if (!s.step()) throw StoreError("unknown session " + sessionId);
    key = s.text(0);
    if (!s.isNull(1)) comparedId = s.integer(1);
    if (!s.isNull(2)) comparedVersion = s.integer(2);
  }
  std::optional<std::pair<std::int64_t, std::int64_t>> target;
  {
    Statement s(*statements_, "SELECT id, current_version FROM baselines WHERE key = ?");
    s.bind(1, key);
    if (s.step()) target = std::make_pair(s.integer(0), s.integer(1));
  }
  if (!target || confirmed) return target;
  // Versions made by the session's own reviews since do not count; any other one does.
  const bool sameBaseline = comparedId == target->first;
  Statement s(*statements_,
              "SELECT count(*) FROM baseline_versions WHERE baseline_id = ? AND version > ? "
              "AND (session_id IS NULL OR session_id <> ?)");
  s.bind(1, target->first)
      .bind(2, sameBaseline ? comparedVersion.value_or(0) : std::int64_t{0})
      .bind(3, sessionId);
  s.step();
  if (s.integer(0) > 0) {
    const std::int64_t compared = sameBaseline ? comparedVersion.value_or(0) : 0;
    throw StaleBaselineError(
        compared > 0
            ? "the session was compared with version " + std::to_string(compared) +
                  " of the baseline, which is now at version " + std::to_string(target->second)
            : "a baseline was saved after the session started (now at version " +
                  std::to_string(target->second) + ")",
        compared, target->second);
  }
  return target;
}

std::map<std::int64_t, Verdict> Store::reviews(const std::string& sessionId) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_,
              "SELECT position, accepted, as_alternative FROM reviews WHERE session_id = ?");
  s.bind(1, sessionId);
  std::map<std::int64_t, Verdict> verdicts;
  while (s.step()) verdicts[s.integer(0)] = {s.integer(1) != 0, s.integer(2) != 0};
  return verdicts;
}

void Store::reviewSteps(const std::string& sessionId, const std::vector<StepReview>& reviews,
                        const Outcome& outcome, bool confirmed) {
  requireOwnFolder();
  flushImages();  // accepted steps' images become baseline images
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  applyReview(sessionId, reviews, outcome, confirmed);
  transaction.commit();
}

Store::AppliedReview Store::applyReview(const std::string& sessionId,
                                        const std::vector<StepReview>& reviews,
                                        const Outcome& outcome, bool confirmed) {
  AppliedReview applied;
  const bool changesBaseline = std::any_of(
      reviews.begin(), reviews.end(), [](const StepReview& r) { return r.change.has_value(); });
  if (changesBaseline) {
    std::optional<std::pair<std::int64_t, std::int64_t>> target =
        requireFreshBaseline(sessionId, confirmed);
    std::int64_t baselineId = 0;
    std::optional<std::pair<std::int64_t, std::int64_t>> base = target;
    if (target) {
      baselineId = target->first;
    } else {
      // The first baseline under the session's key starts from the one it was compared with.
      std::string key;
      {
        Statement s(
            *statements_,
            "SELECT baseline_key, baseline_id, baseline_version FROM sessions WHERE id = ?");
        s.bind(1, sessionId);
        if (!s.step()) throw StoreError("unknown session " + sessionId);
        key = s.text(0);
        if (!s.isNull(1) && !s.isNull(2)) base = std::make_pair(s.integer(1), s.integer(2));
      }
      Statement s(*statements_,
                  "INSERT INTO baselines(key, updated_at, current_version, latest_version) "
                  "VALUES(?, ?, 0, 0) RETURNING id");
      s.bind(1, key).bind(2, now());
      if (!s.step()) throw StoreError("cannot create baseline");
      baselineId = s.integer(0);
      s.run();
    }
    const std::int64_t version = newVersion(baselineId, base, "accepted", sessionId, std::nullopt);
    applied.baselineId = baselineId;
    if (target) applied.previousVersion = target->second;
    applied.madeVersion = version;
    auto append = [&](const std::string& tag, const std::string& image) {
      Statement s(*statements_,
                  "INSERT INTO baseline_version_steps(baseline_id, version, position, tag, image) "
                  "SELECT ?, ?, coalesce(max(position) + 1, 0), ?, ? FROM baseline_version_steps "
                  "WHERE baseline_id = ? AND version = ?");
      s.bind(1, baselineId)
          .bind(2, version)
          .bind(3, tag)
          .bind(4, image)
          .bind(5, baselineId)
          .bind(6, version);
      s.run();
    };
    auto dropAlternatives = [&](std::int64_t position) {
      Statement s(*statements_,
                  "DELETE FROM baseline_alternatives "
                  "WHERE baseline_id = ? AND version = ? AND position = ?");
      s.bind(1, baselineId).bind(2, version).bind(3, position);
      s.run();
    };
    for (const StepReview& review : reviews) {
      if (!review.change) continue;
      const BaselineChange& change = *review.change;
      std::optional<std::int64_t> position =
          positionOfTag(*statements_, baselineId, version, change.tag, change.occurrence);
      switch (change.kind) {
        case BaselineChange::Kind::Replace:
          if (!position) {
            append(change.tag, change.image);
          } else {
            dropAlternatives(*position);
            Statement s(*statements_,
                        "UPDATE baseline_version_steps SET image = ? "
                        "WHERE baseline_id = ? AND version = ? AND position = ?");
            s.bind(1, change.image).bind(2, baselineId).bind(3, version).bind(4, *position);
            s.run();
          }
          break;
        case BaselineChange::Kind::AddAlternative:
          if (!position) {
            append(change.tag, change.image);
          } else {
            Statement s(*statements_,
                        "INSERT INTO baseline_alternatives(baseline_id, version, position, image) "
                        "SELECT ?, ?, ?, ? WHERE NOT EXISTS (SELECT 1 FROM baseline_version_steps "
                        "WHERE baseline_id = ? AND version = ? AND position = ? AND image = ?) "
                        "ON CONFLICT DO NOTHING");
            s.bind(1, baselineId).bind(2, version).bind(3, *position).bind(4, change.image);
            s.bind(5, baselineId).bind(6, version).bind(7, *position).bind(8, change.image);
            s.run();
          }
          break;
        case BaselineChange::Kind::Drop:
          if (position) {
            dropAlternatives(*position);
            Statement s(*statements_,
                        "DELETE FROM baseline_version_steps "
                        "WHERE baseline_id = ? AND version = ? AND position = ?");
            s.bind(1, baselineId).bind(2, version).bind(3, *position);
            s.run();
          }
          break;
      }
    }
  }
  for (const StepReview& review : reviews) {
    Statement s(*statements_,
                "INSERT INTO reviews(session_id, position, accepted, as_alternative) "
                "VALUES(?, ?, ?, ?) ON CONFLICT(session_id, position) DO UPDATE SET "
                "accepted = excluded.accepted, as_alternative = excluded.as_alternative");
    s.bind(1, sessionId)
        .bind(2, review.position)
        .bind(3, std::int64_t{review.accepted})
        .bind(4, std::int64_t{review.accepted && review.asAlternative});
    s.run();
  }
  {
    Statement s(*statements_, "UPDATE sessions SET outcome = ? WHERE id = ?");
    s.bind(1, json::write(outcomeJson(outcome))).bind(2, sessionId);
    s.run();
  }
  return applied;
}

std::int64_t Store::rollBack(std::int64_t baselineId, std::int64_t version) {
  requireOwnFolder();
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  std::int64_t latest = 0;
  {
    Statement s(*statements_, "SELECT latest_version FROM baselines WHERE id = ?");
    s.bind(1, baselineId);
    if (!s.step()) throw UnknownVersionError("unknown baseline", false);
    latest = s.integer(0);
  }
  {
    Statement s(*statements_,
                "SELECT count(*) FROM baseline_versions WHERE baseline_id = ? AND version = ?");
    s.bind(1, baselineId).bind(2, version);
    s.step();
    if (s.integer(0) == 0) {
      const bool removed = version >= 1 && version <= latest;
      throw UnknownVersionError(removed ? "version " + std::to_string(version) +
                                              " of the baseline was removed by retention"
                                        : "the baseline has no version " + std::to_string(version),
                                removed);
    }
  }
  const std::int64_t made = newVersion(baselineId, std::make_pair(baselineId, version), "rollback",
                                       std::nullopt, version);
  transaction.commit();
  return made;
}

std::vector<StepRecord> Store::steps(const std::string& sessionId) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_,
              "SELECT position, tag, current_image, baseline_image, diff_image, as_expected, "
              "match_level, accessibility, settings, baseline_position, matched_alternative "
              "FROM steps WHERE session_id = ? ORDER BY position");
  s.bind(1, sessionId);
  std::vector<StepRecord> steps;
  while (s.step()) {
    StepRecord r;
    r.position = s.integer(0);
    r.tag = s.text(1);
    r.currentImage = s.text(2);
    r.baselineImage = s.optText(3);
    r.diffImage = s.optText(4);
    r.asExpected = s.integer(5) != 0;
    r.matchLevel = s.text(6);
    if (!s.isNull(7)) {
      Json a = json::parse(s.text(7)).value_or(Json::object());
      r.accessibilityPassed = boolAt(a, "passed");
      r.accessibilityLevel = stringAt(a, "level");
    }
    if (!s.isNull(8)) {
      std::optional<Json> settings = json::parse(s.text(8));
      if (settings && settings->is_object()) r.settings = std::move(*settings);
    }
    if (!s.isNull(9)) r.baselinePosition = s.integer(9);
    r.matchedAlternative = s.integer(10) != 0;
    steps.push_back(std::move(r));
  }
  return steps;
}

std::int64_t Store::stepCount(const std::string& sessionId) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_, "SELECT count(*) FROM steps WHERE session_id = ?");
  s.bind(1, sessionId);
  s.step();
  return s.integer(0);
}

std::int64_t Store::stepCountWithTag(const std::string& sessionId, const std::string& tag) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_, "SELECT count(*) FROM steps WHERE session_id = ? AND tag = ?");
  s.bind(1, sessionId).bind(2, tag);
  s.step();
  return s.integer(0);
}

void Store::insertStep(const std::string& sessionId, const StepRecord& step) {
  requireOwnFolder();
  std::lock_guard lock(mutex_);
  Statement s(*statements_,
              "INSERT INTO steps(session_id, position, tag, current_image, baseline_image, "
              "diff_image, as_expected, match_level, accessibility, settings, baseline_position, "
              "matched_alternative) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  s.bind(1, sessionId)
      .bind(2, step.position)
      .bind(3, step.tag)
      .bind(4, step.currentImage)
      .bind(5, step.baselineImage)
      .bind(6, step.diffImage)
      .bind(7, std::int64_t{step.asExpected})
      .bind(8, step.matchLevel);
  if (step.accessibilityPassed) {
    s.bind(9, json::write(
                  Json{{"passed", *step.accessibilityPassed}, {"level", step.accessibilityLevel}}));
  } else {
    s.bindNull(9);
  }
  s.bind(10, json::write(step.settings));
  s.bind(11, step.baselinePosition);
  s.bind(12, std::int64_t{step.matchedAlternative});
  s.run();
}

void Store::finishSession(const std::string& sessionId, const Outcome& outcome,
                          const std::vector<BaselineStep>* newBaseline) {
  requireOwnFolder();
  if (newBaseline) flushImages();
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  if (newBaseline) {
    std::optional<std::pair<std::int64_t, std::int64_t>> target =
        requireFreshBaseline(sessionId, false);
    std::int64_t baselineId = 0;
    if (target) {
      baselineId = target->first;
    } else {
      std::string key;
      {
        Statement s(*statements_, "SELECT baseline_key FROM sessions WHERE id = ?");
        s.bind(1, sessionId);
        if (!s.step()) throw StoreError("unknown session " + sessionId);
        key = s.text(0);
      }
      Statement s(*statements_,
                  "INSERT INTO baselines(key, updated_at, current_version, latest_version) "
                  "VALUES(?, ?, 0, 0) RETURNING id");
      s.bind(1, key).bind(2, now());
      if (!s.step()) throw StoreError("cannot save baseline");
      baselineId = s.integer(0);
      s.run();
    }
    const std::int64_t version = newVersion(baselineId, std::nullopt, "saved", sessionId, {});
    std::int64_t position = 0;
    for (const BaselineStep& step : *newBaseline) {
      {
        Statement s(*statements_,
                    "INSERT INTO baseline_version_steps(baseline_id, version, position, tag, "
                    "image) VALUES(?, ?, ?, ?, ?)");
        s.bind(1, baselineId)
            .bind(2, version)
            .bind(3, position)
            .bind(4, step.tag)
            .bind(5, step.image);
        s.run();
      }
      for (const std::string& alternative : step.alternatives) {
        if (alternative == step.image) continue;
        Statement s(*statements_,
                    "INSERT INTO baseline_alternatives(baseline_id, version, position, image) "
                    "VALUES(?, ?, ?, ?) ON CONFLICT DO NOTHING");
        s.bind(1, baselineId).bind(2, version).bind(3, position).bind(4, alternative);
        s.run();
      }
      ++position;
    }
  }
  {
    Statement s(*statements_, "UPDATE sessions SET outcome = ? WHERE id = ?");
    s.bind(1, json::write(outcomeJson(outcome))).bind(2, sessionId);
    s.run();
  }
  transaction.commit();
}

std::int64_t Store::removeSessions(std::int64_t before, std::int64_t limit) {
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  std::vector<std::pair<std::string, std::string>> sessions;  // id and batch
  {
    Statement s(*statements_,
                "SELECT id, batch_id FROM sessions WHERE outcome IS NOT NULL AND started_at < ? "
                "ORDER BY started_at LIMIT ?");
    s.bind(1, before).bind(2, limit);
    while (s.step()) sessions.emplace_back(s.text(0), s.text(1));
  }
  for (const auto& [id, batch] : sessions) {
    for (const char* sql :
         {"DELETE FROM steps WHERE session_id = ?", "DELETE FROM reviews WHERE session_id = ?",
          "DELETE FROM step_changes WHERE session_id = ?", "DELETE FROM sessions WHERE id = ?"}) {
      Statement s(*statements_, sql);
      s.bind(1, id);
      s.run();
    }
    // A batch goes with its last session; a session starting in it adds the batch again in
    // the transaction that adds the session.
    Statement s(*statements_,
                "DELETE FROM batches WHERE id = ? AND NOT EXISTS "
                "(SELECT 1 FROM sessions WHERE batch_id = ?)");
    s.bind(1, batch).bind(2, batch);
    s.run();
  }
  transaction.commit();
  return static_cast<std::int64_t>(sessions.size());
}

std::int64_t Store::removeVersions(std::int64_t before, std::int64_t keep) {
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  std::vector<std::pair<std::int64_t, std::int64_t>> versions;
  {
    Statement s(*statements_,
                "SELECT v.baseline_id, v.version FROM baseline_versions v "
                "JOIN baselines b ON b.id = v.baseline_id "
                "WHERE v.version <> b.current_version "
                "AND NOT EXISTS (SELECT 1 FROM sessions s WHERE s.baseline_id = v.baseline_id "
                "AND s.baseline_version = v.version) "
                "AND (v.created_at < ? OR (? > 0 AND v.version <= b.latest_version - ?)) "
                "LIMIT 50");
    s.bind(1, before).bind(2, keep).bind(3, keep);
    while (s.step()) versions.emplace_back(s.integer(0), s.integer(1));
  }
  for (const auto& [baseline, version] : versions) {
    for (const char* sql :
         {"DELETE FROM baseline_alternatives WHERE baseline_id = ? AND version = ?",
          "DELETE FROM baseline_version_steps WHERE baseline_id = ? AND version = ?",
          "DELETE FROM baseline_versions WHERE baseline_id = ? AND version = ?"}) {
      Statement s(*statements_, sql);
      s.bind(1, baseline).bind(2, version);
      s.run();
    }
  }
  transaction.commit();
  return static_cast<std::int64_t>(versions.size());
}

std::int64_t Store::removeUnusedImages(const std::string& prefix, std::int64_t before) {
  if (prefix.size() != 2 || prefix.find_first_not_of("0123456789abcdef") != std::string::npos) {
    return 0;
  }
  const fs::path folder = imageFolder_ / prefix;
  std::error_code error;
  std::vector<fs::path> files;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    files.push_back(it->path());
  }
  auto lastUse = [](const fs::path& path) -> std::optional<std::int64_t> {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return static_cast<std::int64_t>(info.st_mtime);
  };
  std::int64_t removed = 0;
  for (const fs::path& file : files) {
    const std::string name = file.filename().string();
    if (name.rfind(".tmp-", 0) == 0) {
      // Left by a crash between writing an upload and keeping it.
      std::optional<std::int64_t> at = lastUse(file);
      if (at && *at < before) ::unlink(file.c_str());
      continue;
    }
    if (name.size() != 68 || name.substr(64) != ".png") continue;
    const std::string id = name.substr(0, 64);
    if (!isImageId(id)) continue;
    std::lock_guard use(imageUseMutex_);
    std::optional<std::int64_t> at = lastUse(file);
    if (!at || *at >= before) continue;
    bool used = false;
    {
      std::lock_guard lock(mutex_);
      Statement s(*statements_,
                  "SELECT (SELECT count(*) FROM (SELECT 1 FROM steps WHERE current_image = ?1 "
                  "LIMIT 1) a) + (SELECT count(*) FROM (SELECT 1 FROM steps WHERE "
                  "baseline_image = ?1 LIMIT 1) b) + (SELECT count(*) FROM (SELECT 1 FROM steps "
                  "WHERE diff_image = ?1 LIMIT 1) c) + (SELECT count(*) FROM (SELECT 1 FROM "
                  "baseline_version_steps WHERE image = ?1 LIMIT 1) d) + (SELECT count(*) FROM "
                  "(SELECT 1 FROM baseline_alternatives WHERE image = ?1 LIMIT 1) e)");
      s.bind(1, id);
      s.step();
      used = s.integer(0) > 0;
    }
    if (!used && ::unlink(file.c_str()) == 0) ++removed;
  }
  return removed;
}

namespace {

/// `text` for a LIKE pattern that finds it anywhere, with its own % _ and \ taken literally.
std::string containsPattern(const std::string& text) {
  std::string pattern = "%";
  for (char c : text) {
    if (c == '%' || c == '_' || c == '\\') pattern += '\\';
    pattern += c;
  }
  return pattern + "%";
}

/// The distinct texts of a JSON array of strings (nulls and empty texts left out), sorted.
std::vector<std::string> distinctTexts(const std::string& jsonArray) {
  std::vector<std::string> texts;
  std::optional<Json> list = json::parse(jsonArray);
  if (!list || !list->is_array()) return texts;
  for (const Json& item : *list) {
    if (item.is_string() && !item.get_ref<const std::string&>().empty()) {
      texts.push_back(item.get<std::string>());
    }
  }
  std::sort(texts.begin(), texts.end());
  texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
  return texts;
}

// The sessions of each batch as the batch list needs them, and the batches a search finds.
constexpr const char* kBatchSessions = R"sql(
WITH s AS (
  SELECT batch_id, json_extract(info, '$.appName') AS app,
         json_extract(info, '$.branchName') AS branch,
         CASE WHEN outcome IS NULL THEN 'Running' ELSE json_extract(outcome, '$.status') END
           AS status,
         started_at, json_extract(outcome, '$.stoppedAt') AS stopped
  FROM sessions),
found AS (
  SELECT b.* , b.rowid AS r FROM batches b
  WHERE ?1 = '%%' OR b.name LIKE ?1 ESCAPE '\' OR b.id LIKE ?1 ESCAPE '\'
     OR EXISTS(SELECT 1 FROM s WHERE s.batch_id = b.id
               AND (s.app LIKE ?1 ESCAPE '\' OR s.branch LIKE ?1 ESCAPE '\')))
)sql";

}  // namespace

BatchPage Store::batchSummaries(const std::string& search, std::int64_t offset,
                                std::int64_t limit) {
  std::string pattern = containsPattern(search);
  BatchPage page;
  std::lock_guard lock(mutex_);
  {
    Statement s(*statements_, std::string(kBatchSessions) + "SELECT count(*) FROM found");
    s.bind(1, pattern);
    if (s.step()) page.total = s.integer(0);
  }
  Statement s(*statements_,
              std::string(kBatchSessions) +
                  "SELECT f.id, f.name, f.started_at, f.sequence_name, f.is_closed, f.closed_at, "
                  "count(s.batch_id), total(s.status = 'Running'), total(s.status = 'Passed'), "
                  "total(s.status = 'Unresolved'), total(s.status = 'Failed'), "
                  "min(s.started_at), max(s.stopped), json_group_array(DISTINCT s.app), "
                  "json_group_array(DISTINCT s.branch) "
                  "FROM found f LEFT JOIN s ON s.batch_id = f.id GROUP BY f.id "
                  "ORDER BY max(s.started_at) DESC, f.r DESC LIMIT ?2 OFFSET ?3");
  s.bind(1, pattern)
      .bind(2, std::max<std::int64_t>(limit, 0))
      .bind(3, std::max<std::int64_t>(offset, 0));
  while (s.step()) {
    BatchSummary row;
    row.batch = {s.text(0), s.optText(1), s.optText(2), s.optText(3), s.integer(4) != 0};
    row.tests = s.integer(6);
    row.running = s.integer(7);
    row.passed = s.integer(8);
    row.unresolved = s.integer(9);
    row.failed = s.integer(10);
    row.startedAt = s.integer(11);
    if (row.tests > 0 && row.running == 0 && !s.isNull(12)) {
      row.finishedAt = s.integer(12);
    } else if (row.batch.isClosed && !s.isNull(5)) {
      row.finishedAt = s.integer(5);
    }
    row.apps = distinctTexts(s.text(13));
    row.branches = distinctTexts(s.text(14));
    page.rows.push_back(std::move(row));
  }
  return page;
}

std::optional<std::vector<std::uint8_t>> Store::imageHead(const std::string& id,
                                                          std::size_t count) const {
  if (!isImageId(id)) return std::nullopt;
  std::ifstream in(imagePath(id), std::ios::binary);
  if (!in) return std::nullopt;
  std::vector<std::uint8_t> head(count);
  in.read(reinterpret_cast<char*>(head.data()), static_cast<std::streamsize>(count));
  head.resize(static_cast<std::size_t>(in.gcount()));
  return head;
}

void Store::putStepChanges(const std::string& sessionId, std::int64_t position,
                           const Json& changes) {
  requireOwnFolder();
  std::lock_guard lock(mutex_);
  Statement s(*statements_,
              "INSERT INTO step_changes(session_id, position, changes) VALUES(?, ?, ?) "
              "ON CONFLICT(session_id, position) DO UPDATE SET changes = excluded.changes");
  s.bind(1, sessionId).bind(2, position).bind(3, json::write(changes));
  s.run();
}

std::map<std::int64_t, Json> Store::stepChanges(const std::string& sessionId) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_, "SELECT position, changes FROM step_changes WHERE session_id = ?");
  s.bind(1, sessionId);
  std::map<std::int64_t, Json> found;
  while (s.step()) {
    std::optional<Json> changes = json::parse(s.text(1));
    if (changes && changes->is_object()) found[s.integer(0)] = std::move(*changes);
  }
  return found;
}

std::int64_t Store::decide(const std::string& reviewer, const std::string& scope,
                           const std::vector<SessionDecision>& sessions, bool confirmed) {
  requireOwnFolder();
  flushImages();  // accepted steps' images become baseline images
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  auto changesBaseline = [](const SessionDecision& d) {
    return std::any_of(d.reviews.begin(), d.reviews.end(),
                       [](const StepReview& r) { return r.change.has_value(); });
  };
  if (!confirmed) {
    // Every stale session is named, not only the first.
    std::vector<StaleSession> stale;
    for (const SessionDecision& d : sessions) {
      if (!changesBaseline(d)) continue;
      try {
        requireFreshBaseline(d.sessionId, false);
      } catch (const StaleBaselineError& e) {
        stale.push_back({d.sessionId, e.what(), e.comparedVersion(), e.currentVersion()});
      }
    }
    if (!stale.empty()) throw StaleSessionsError(std::move(stale));
  }
  std::int64_t decision = 0;
  {
    Statement s(*statements_,
                "INSERT INTO decisions(reviewer, scope, made_at) VALUES(?, ?, ?) RETURNING id");
    s.bind(1, reviewer).bind(2, scope).bind(3, now());
    if (!s.step()) throw StoreError("cannot record the decision");
    decision = s.integer(0);
    s.run();
  }
  for (const SessionDecision& d : sessions) {
    // What the decision replaces: the outcome and the verdicts on the steps it decides
    // (accepted -1 for a step without one).
    OptString before;
    {
      Statement s(*statements_, "SELECT outcome FROM sessions WHERE id = ?");
      s.bind(1, d.sessionId);
      if (!s.step()) throw StoreError("unknown session " + d.sessionId);
      before = s.optText(0);
    }
    std::map<std::int64_t, std::pair<std::int64_t, std::int64_t>> verdicts;
    {
      Statement s(*statements_,
                  "SELECT position, accepted, as_alternative FROM reviews WHERE session_id = ?");
      s.bind(1, d.sessionId);
      while (s.step()) verdicts[s.integer(0)] = {s.integer(1), s.integer(2)};
    }
    Json previous = Json::array();
    for (const StepReview& r : d.reviews) {
      auto found = verdicts.find(r.position);
      previous.push_back(found == verdicts.end() ? Json::array({r.position, -1, 0})
                                                 : Json::array({r.position, found->second.first,
                                                                found->second.second}));
    }
    {
      Statement s(*statements_,
                  "INSERT INTO decision_sessions(decision_id, session_id, outcome, reviews) "
                  "VALUES(?, ?, ?, ?)");
      s.bind(1, decision).bind(2, d.sessionId).bind(3, before).bind(4, json::write(previous));
      s.run();
    }
    AppliedReview applied;
    try {
      applied = applyReview(d.sessionId, d.reviews, d.outcome, confirmed);
    } catch (const StaleSessionsError&) {
      throw;
    } catch (const StaleBaselineError& e) {
      // Two sessions of the decision accept into one baseline: the second would replace what
      // the first accepted.
      throw StaleSessionsError({{d.sessionId, e.what(), e.comparedVersion(), e.currentVersion()}});
    }
    if (applied.baselineId) {
      Statement s(*statements_,
                  "INSERT INTO decision_baselines(decision_id, baseline_id, session_id, "
                  "previous_version, made_version) VALUES(?, ?, ?, ?, ?) "
                  "ON CONFLICT(decision_id, baseline_id) DO UPDATE SET "
                  "made_version = excluded.made_version");
      s.bind(1, decision)
          .bind(2, *applied.baselineId)
          .bind(3, d.sessionId)
          .bind(4, applied.previousVersion)
          .bind(5, applied.madeVersion);
      s.run();
    }
  }
  transaction.commit();
  return decision;
}

std::optional<std::int64_t> Store::lastDecision(const std::string& reviewer) {
  std::lock_guard lock(mutex_);
  Statement s(*statements_, "SELECT max(id) FROM decisions WHERE reviewer = ? AND undone = 0");
  s.bind(1, reviewer);
  if (!s.step() || s.isNull(0)) return std::nullopt;
  return s.integer(0);
}

std::optional<UndoneDecision> Store::decisionToUndo(const std::string& reviewer) {
  std::lock_guard lock(mutex_);
  UndoneDecision decision;
  {
    Statement s(*statements_,
                "SELECT id, scope FROM decisions WHERE reviewer = ? AND undone = 0 "
                "ORDER BY id DESC LIMIT 1");
    s.bind(1, reviewer);
    if (!s.step()) return std::nullopt;
    decision.id = s.integer(0);
    decision.scope = s.text(1);
  }
  Statement s(*statements_, "SELECT session_id FROM decision_sessions WHERE decision_id = ?");
  s.bind(1, decision.id);
  while (s.step()) decision.sessions.push_back(s.text(0));
  return decision;
}

std::optional<UndoneDecision> Store::undoLastDecision(const std::string& reviewer,
                                                      std::optional<std::int64_t> expected) {
  requireOwnFolder();
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  UndoneDecision undone;
  {
    Statement s(*statements_,
                "SELECT id, scope FROM decisions WHERE reviewer = ? AND undone = 0 "
                "ORDER BY id DESC LIMIT 1");
    s.bind(1, reviewer);
    if (!s.step()) {
      if (expected) throw UndoRefused("that decision was undone already");
      return std::nullopt;
    }
    undone.id = s.integer(0);
    undone.scope = s.text(1);
  }
  if (expected && *expected != undone.id) {
    throw UndoRefused(*expected > undone.id
                          ? "that decision was undone already"
                          : "you made another decision since; reload the page to undo that one");
  }
  auto testName = [&](const std::string& sessionId) {
    Statement s(*statements_, "SELECT info FROM sessions WHERE id = ?");
    s.bind(1, sessionId);
    SessionRecord r;
    if (s.step()) readSessionInfo(json::parse(s.text(0)).value_or(Json::object()), r);
    return r.testName.empty() ? sessionId : r.testName;
  };
  struct Restore {
    std::string sessionId;
    OptString outcome;
    std::string reviews;
  };
  std::vector<Restore> restores;
  {
    Statement s(*statements_,
                "SELECT session_id, outcome, reviews FROM decision_sessions WHERE decision_id = ? "
                "ORDER BY rowid");
    s.bind(1, undone.id);
    while (s.step()) restores.push_back({s.text(0), s.optText(1), s.text(2)});
  }
  for (const Restore& r : restores) {
    {
      Statement s(*statements_, "SELECT count(*) FROM sessions WHERE id = ?");
      s.bind(1, r.sessionId);
      s.step();
      if (s.integer(0) == 0) {
        throw UndoRefused("session " + r.sessionId + " of that decision was removed since");
      }
    }
    Statement s(*statements_,
                "SELECT count(*) FROM decision_sessions ds JOIN decisions d ON d.id = "
                "ds.decision_id WHERE ds.session_id = ? AND ds.decision_id > ? AND d.undone = 0");
    s.bind(1, r.sessionId).bind(2, undone.id);
    s.step();
    if (s.integer(0) > 0) {
      throw UndoRefused("the test \"" + testName(r.sessionId) +
                        "\" was decided again since; that later decision must be undone first");
    }
  }
  struct Made {
    std::int64_t baselineId;
    std::string sessionId;
    std::optional<std::int64_t> previous;
    std::int64_t made;
  };
  std::vector<Made> made;
  {
    Statement s(*statements_,
                "SELECT baseline_id, session_id, previous_version, made_version "
                "FROM decision_baselines WHERE decision_id = ? ORDER BY baseline_id");
    s.bind(1, undone.id);
    while (s.step()) {
      made.push_back({s.integer(0), s.text(1),
                      s.isNull(2) ? std::nullopt : std::optional<std::int64_t>(s.integer(2)),
                      s.integer(3)});
    }
  }
  for (const Made& m : made) {
    {
      // The baseline still has what the decision made: that version, or a version that undid
      // later decisions and so holds its steps again.
      Statement s(*statements_,
                  "SELECT b.current_version, v.kind, v.from_version FROM baselines b "
                  "LEFT JOIN baseline_versions v ON v.baseline_id = b.id "
                  "AND v.version = b.current_version WHERE b.id = ?");
      s.bind(1, m.baselineId);
      if (!s.step()) throw UndoRefused("the baseline of that decision was removed since");
      const bool same =
          s.integer(0) == m.made || (s.text(1) == "undo" && !s.isNull(2) && s.integer(2) == m.made);
      if (!same) {
        throw UndoRefused("the baseline of \"" + testName(m.sessionId) +
                          "\" moved on since (now at version " + std::to_string(s.integer(0)) +
                          "); roll it back on its page instead");
      }
    }
    if (m.previous) {
      Statement s(*statements_,
                  "SELECT count(*) FROM baseline_versions WHERE baseline_id = ? AND version = ?");
      s.bind(1, m.baselineId).bind(2, *m.previous);
      s.step();
      if (s.integer(0) == 0) {
        throw UndoRefused("version " + std::to_string(*m.previous) +
                          " of the baseline was removed by retention");
      }
    }
  }
  // Everything checked: restore.
  for (const Made& m : made) {
    if (m.previous) {
      newVersion(m.baselineId, std::make_pair(m.baselineId, *m.previous), "undo", m.sessionId,
                 *m.previous);
      continue;
    }
    Statement s(*statements_, "SELECT count(*) FROM sessions WHERE baseline_id = ?");
    s.bind(1, m.baselineId);
    s.step();
    if (s.integer(0) > 0) {  // sessions were compared with it since: it stays, empty
      newVersion(m.baselineId, std::nullopt, "undo", m.sessionId, std::nullopt);
      continue;
    }
    for (const char* sql : {"DELETE FROM baseline_alternatives WHERE baseline_id = ?",
                            "DELETE FROM baseline_version_steps WHERE baseline_id = ?",
                            "DELETE FROM baseline_versions WHERE baseline_id = ?",
                            "DELETE FROM baselines WHERE id = ?"}) {
      Statement d(*statements_, sql);
      d.bind(1, m.baselineId);
      d.run();
    }
  }
  for (const Restore& r : restores) {
    {
      Statement s(*statements_, "UPDATE sessions SET outcome = ? WHERE id = ?");
      s.bind(1, r.outcome).bind(2, r.sessionId);
      s.run();
    }
    const Json verdicts = json::parse(r.reviews).value_or(Json::array());
    for (const Json& v : verdicts) {
      if (!v.is_array() || v.size() != 3) continue;
      const std::int64_t position = json::integerValue(v[0]);
      const std::int64_t accepted = json::integerValue(v[1]);
      if (accepted < 0) {
        Statement s(*statements_, "DELETE FROM reviews WHERE session_id = ? AND position = ?");
        s.bind(1, r.sessionId).bind(2, position);
        s.run();
        continue;
      }
      Statement s(*statements_,
                  "INSERT INTO reviews(session_id, position, accepted, as_alternative) "
                  "VALUES(?, ?, ?, ?) ON CONFLICT(session_id, position) DO UPDATE SET "
                  "accepted = excluded.accepted, as_alternative = excluded.as_alternative");
      s.bind(1, r.sessionId).bind(2, position).bind(3, accepted).bind(4, json::integerValue(v[2]));
      s.run();
    }
    undone.sessions.push_back(r.sessionId);
  }
  {
    Statement s(*statements_, "UPDATE decisions SET undone = 1 WHERE id = ?");
    s.bind(1, undone.id);
    s.run();
  }
  transaction.commit();
  return undone;
}

}  // namespace saffra::server
