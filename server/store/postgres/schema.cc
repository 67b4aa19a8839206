// The PostgreSQL engine's schema and its versions: created in an empty database, brought up to
// date at start-up under an advisory lock (so that instances starting at once do not both
// migrate), and refused, untouched, when it is newer than this program or the database holds
// tables of another program.
#include <cstdint>
#include <string>

#include "server/store/postgres/connection.h"
#include "server/store/postgres/postgres_store.h"

namespace saffra::server {

namespace {

// The schema's versions, numbered as the SQLite engine's: the first version PostgreSQL knew is
// the fourth. Each step runs once, in the transaction that checks the version; integers are
// BIGINT throughout, and `rowid` keeps the order rows were added in where queries need it.
struct SchemaStep {
  std::int64_t version;
  const char* sql;
};
constexpr SchemaStep kSchemaSteps[] = {
    {4, R"sql(
CREATE TABLE saffra_schema(version BIGINT NOT NULL);
CREATE TABLE batches(
  rowid BIGSERIAL NOT NULL,
  id TEXT PRIMARY KEY,
  name TEXT,
  started_at TEXT,
  sequence_name TEXT,
  is_closed BIGINT NOT NULL DEFAULT 0,
  closed_at BIGINT);
CREATE TABLE baselines(
  id BIGSERIAL PRIMARY KEY,
  key TEXT NOT NULL UNIQUE,
  updated_at BIGINT NOT NULL,
  current_version BIGINT NOT NULL DEFAULT 1,
  latest_version BIGINT NOT NULL DEFAULT 1);
CREATE TABLE baseline_versions(
  baseline_id BIGINT NOT NULL REFERENCES baselines(id),
  version BIGINT NOT NULL,
  created_at BIGINT NOT NULL,
  kind TEXT NOT NULL,
  session_id TEXT,
  from_version BIGINT,
  PRIMARY KEY(baseline_id, version));
CREATE TABLE baseline_version_steps(
  baseline_id BIGINT NOT NULL,
  version BIGINT NOT NULL,
  position BIGINT NOT NULL,
  tag TEXT NOT NULL,
  image TEXT NOT NULL,
  PRIMARY KEY(baseline_id, version, position),
  FOREIGN KEY(baseline_id, version) REFERENCES baseline_versions(baseline_id, version));
CREATE INDEX baseline_version_steps_by_tag
  ON baseline_version_steps(baseline_id, version, tag, position);
CREATE INDEX baseline_version_steps_by_image ON baseline_version_steps(image);
CREATE TABLE baseline_alternatives(
  baseline_id BIGINT NOT NULL,
  version BIGINT NOT NULL,
  position BIGINT NOT NULL,
  image TEXT NOT NULL,
  PRIMARY KEY(baseline_id, version, position, image),
  FOREIGN KEY(baseline_id, version) REFERENCES baseline_versions(baseline_id, version));
CREATE INDEX baseline_alternatives_by_image ON baseline_alternatives(image);
CREATE TABLE sessions(
  rowid BIGSERIAL NOT NULL,
  id TEXT PRIMARY KEY,
  token TEXT NOT NULL,
  info TEXT NOT NULL,
  baseline_key TEXT NOT NULL,
  baseline_id BIGINT,
  is_new BIGINT NOT NULL,
  started_at BIGINT NOT NULL,
  batch_id TEXT NOT NULL,
  outcome TEXT,
  baseline_version BIGINT,
  baseline_branch TEXT,
  last_active_at BIGINT);
CREATE INDEX sessions_by_batch ON sessions(batch_id);
CREATE INDEX sessions_by_start ON sessions(started_at);
CREATE INDEX sessions_by_baseline ON sessions(baseline_id, baseline_version);
CREATE INDEX sessions_running ON sessions(last_active_at) WHERE outcome IS NULL;
CREATE TABLE steps(
  session_id TEXT NOT NULL REFERENCES sessions(id),
  position BIGINT NOT NULL,
  tag TEXT NOT NULL,
  current_image TEXT NOT NULL,
  baseline_image TEXT,
  diff_image TEXT,
  as_expected BIGINT NOT NULL,
  match_level TEXT NOT NULL,
  accessibility TEXT,
  settings TEXT,
  baseline_position BIGINT,
  matched_alternative BIGINT NOT NULL DEFAULT 0,
  PRIMARY KEY(session_id, position));
CREATE INDEX steps_by_tag ON steps(session_id, tag);
CREATE INDEX steps_by_current_image ON steps(current_image);
CREATE INDEX steps_by_baseline_image ON steps(baseline_image);
CREATE INDEX steps_by_diff_image ON steps(diff_image);
CREATE TABLE reviews(
  session_id TEXT NOT NULL REFERENCES sessions(id),
  position BIGINT NOT NULL,
  accepted BIGINT NOT NULL,
  as_alternative BIGINT NOT NULL DEFAULT 0,
  PRIMARY KEY(session_id, position));
CREATE TABLE step_changes(
  session_id TEXT NOT NULL,
  position BIGINT NOT NULL,
  changes TEXT NOT NULL,
  PRIMARY KEY(session_id, position));
CREATE TABLE decisions(
  id BIGSERIAL PRIMARY KEY,
  reviewer TEXT NOT NULL,
  scope TEXT NOT NULL,
  made_at BIGINT NOT NULL,
  undone BIGINT NOT NULL DEFAULT 0);
CREATE INDEX decisions_by_reviewer ON decisions(reviewer, undone, id);
CREATE TABLE decision_sessions(
  rowid BIGSERIAL NOT NULL,
  decision_id BIGINT NOT NULL,
  session_id TEXT NOT NULL,
  outcome TEXT,
  reviews TEXT NOT NULL,
  PRIMARY KEY(decision_id, session_id));
CREATE INDEX decision_sessions_by_session ON decision_sessions(session_id, decision_id);
CREATE TABLE decision_baselines(
  decision_id BIGINT NOT NULL,
  baseline_id BIGINT NOT NULL,
  session_id TEXT NOT NULL,
  previous_version BIGINT,
  made_version BIGINT NOT NULL,
  PRIMARY KEY(decision_id, baseline_id));
CREATE TABLE images(
  id TEXT PRIMARY KEY,
  bytes BYTEA NOT NULL,
  size BIGINT NOT NULL,
  used_at BIGINT NOT NULL);
INSERT INTO saffra_schema(version) VALUES(0);
)sql"},
    // API keys (kept by digest only) and the secrets every instance on this store shares.
    {5, R"sql(
CREATE TABLE api_keys(
  digest TEXT PRIMARY KEY,
  name TEXT NOT NULL,
  created_at BIGINT NOT NULL,
  revoked_at BIGINT);
CREATE UNIQUE INDEX api_keys_in_use_by_name ON api_keys(name) WHERE revoked_at IS NULL;
CREATE TABLE shared_secrets(
  name TEXT PRIMARY KEY,
  value TEXT NOT NULL);
)sql"},
};
constexpr std::int64_t kSchemaVersion = 5;

}  // namespace

void PostgresStore::migrate() {
  storage::Lease db = lease();
  auto& c = static_cast<Connection&>(*db);
  storage::Transaction transaction(c);
  c.run("SELECT pg_advisory_xact_lock($1)",
        {postgres::Param{std::to_string(postgres::kSchemaLock), 20, false}});
  std::int64_t version = 0;
  postgres::Result ours = c.run("SELECT to_regclass('saffra_schema') IS NOT NULL", {});
  if (std::string(PQgetvalue(ours.get(), 0, 0)) == "t") {
    postgres::Result r = c.run("SELECT max(version) FROM saffra_schema", {});
    version = std::strtoll(PQgetvalue(r.get(), 0, 0), nullptr, 10);
  } else {
    postgres::Result r = c.run(
        "SELECT count(*) FROM pg_catalog.pg_class k JOIN pg_catalog.pg_namespace n "
        "ON n.oid = k.relnamespace WHERE n.nspname = current_schema() "
        "AND k.relkind IN ('r', 'p', 'v', 'm', 'f')",
        {});
    if (std::strtoll(PQgetvalue(r.get(), 0, 0), nullptr, 10) > 0) {
      throw StoreError("the database at " + where_ +
                       " holds tables of another program; saffra needs an empty database or one "
                       "of its own");
    }
  }
  if (version > kSchemaVersion) {
    throw StoreError("the database at " + where_ + " has schema version " +
                     std::to_string(version) + ", newer than this program's " +
                     std::to_string(kSchemaVersion) + "; run a newer saffra");
  }
  for (const SchemaStep& step : kSchemaSteps) {
    if (step.version <= version) continue;
    c.exec(step.sql);
    c.run("UPDATE saffra_schema SET version = $1",
          {postgres::Param{std::to_string(step.version), 20, false}});
  }
  transaction.commit();
}

}  // namespace saffra::server
