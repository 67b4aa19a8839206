// Opening the SQLite engine: its folder and database, the schema and its migrations, and the
// check that the folder is still the one opened.
#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>

#include <sqlite3.h>

#include "saffra/base/logger.h"
#include "server/store.h"
#include "server/store/sqlite/connection.h"
#include "server/store/sqlite/image_files.h"

namespace saffra::server {

using storage::Statement;
using storage::Transaction;

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
    // API keys (kept by digest only) and the secrets every instance on this store shares.
    {5, R"sql(
CREATE TABLE api_keys(
  digest TEXT PRIMARY KEY,
  name TEXT NOT NULL,
  created_at INTEGER NOT NULL,
  revoked_at INTEGER);
CREATE UNIQUE INDEX api_keys_in_use_by_name ON api_keys(name) WHERE revoked_at IS NULL;
CREATE TABLE shared_secrets(
  name TEXT PRIMARY KEY,
  value TEXT NOT NULL);
)sql"},
};
constexpr std::int64_t kSchemaVersion = 5;

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

SqliteStore::SqliteStore(const fs::path& folder)
    : folder_(folder), imageFolder_(folder / "images") {
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
    connection_ = std::make_unique<Connection>(db_);
    sqlite3_busy_timeout(db_, 10000);
    connection_->exec(
        "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;");
    migrate();
    identity_ = folderIdentity(folder_);
  } catch (...) {
    connection_.reset();
    sqlite3_close(db_);
    db_ = nullptr;
    throw;
  }
}

void SqliteStore::requireWritable() const {
  if (!lost_ && folderIdentity(folder_) == identity_) return;
  if (!lost_.exchange(true)) {
    Logger::logWithFormat(
        "the data folder %@ or its database was removed or replaced; writes "
        "are refused until the service restarts",
        folder_.string());
  }
  throw StoreUnavailable("the data folder " + folder_.string() + " was removed or replaced");
}

SqliteStore::~SqliteStore() {
  connection_.reset();
  sqlite3_close(db_);
}

void SqliteStore::migrate() {
  connection_->exec("CREATE TABLE IF NOT EXISTS schema_version(version INTEGER NOT NULL)");
  std::optional<std::int64_t> version;
  {
    Statement s(*connection_, "SELECT max(version) FROM schema_version");
    if (s.step() && !s.isNull(0)) version = s.integer(0);
  }
  if (!version) {
    // A new database, or one of the first release (which kept no version): the first schema,
    // with the columns added during its life.
    connection_->exec(kSchema);
    migrateFirstSchema();
    connection_->exec("INSERT INTO schema_version(version) VALUES(1)");
    version = 1;
  }
  if (*version > kSchemaVersion) {
    throw StoreError("the database has schema version " + std::to_string(*version) +
                     ", newer than this service's " + std::to_string(kSchemaVersion));
  }
  for (const SchemaStep& step : kSchemaSteps) {
    if (step.version <= *version) continue;
    Transaction transaction(*connection_);
    connection_->exec(step.sql);
    Statement s(*connection_, "UPDATE schema_version SET version = ?");
    s.bind(1, step.version);
    s.run();
    transaction.commit();
  }
}

storage::Lease SqliteStore::lease() {
  mutex_.lock();
  return storage::Lease(*connection_, [this] { mutex_.unlock(); });
}

void SqliteStore::migrateFirstSchema() {
  for (const AddedColumn& added : kAddedColumns) {
    bool present = false;
    {
      Statement s(*connection_, std::string("PRAGMA table_info(") + added.table + ")");
      while (s.step()) present = present || s.text(1) == added.column;
    }
    if (!present) {
      connection_->exec(
          (std::string("ALTER TABLE ") + added.table + " ADD COLUMN " + added.definition).c_str());
    }
  }
}

}  // namespace saffra::server
