// Batches, sessions and their steps: starting, recording, finishing, and the batch list.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/clock.h"
#include "server/json_fields.h"
#include "server/store.h"
#include "server/store/session_rows.h"
#include "server/store/sql_store.h"

namespace saffra::server {

using storage::kSessionColumns;
using storage::Lease;
using storage::outcomeJson;
using storage::readSession;
using storage::sessionInfoJson;
using storage::Statement;
using storage::Transaction;

std::optional<BatchRecord> SqlStore::batch(const std::string& id) {
  Lease db = lease();
  Statement s(*db,
              "SELECT id, name, started_at, sequence_name, is_closed FROM batches WHERE id = ?");
  s.bind(1, id);
  if (!s.step()) return std::nullopt;
  return BatchRecord{s.text(0), s.optText(1), s.optText(2), s.optText(3), s.integer(4) != 0};
}

bool SqlStore::closeBatch(const std::string& id) {
  requireWritable();
  Lease db = lease();
  Statement s(*db, "UPDATE batches SET is_closed = 1, closed_at = ? WHERE id = ?");
  s.bind(1, now()).bind(2, id);
  s.run();
  return db->changes() > 0;
}

std::optional<SessionRecord> SqlStore::session(const std::string& id) {
  Lease db = lease();
  Statement s(*db, std::string(kSessionColumns) + " WHERE id = ?");
  s.bind(1, id);
  if (!s.step()) return std::nullopt;
  return readSession(s);
}

std::vector<SessionRecord> SqlStore::sessionsInBatch(const std::string& batchId) {
  Lease db = lease();
  Statement s(*db, std::string(kSessionColumns) + " WHERE batch_id = ? ORDER BY started_at, rowid");
  s.bind(1, batchId);
  std::vector<SessionRecord> sessions;
  while (s.step()) sessions.push_back(readSession(s));
  return sessions;
}

std::vector<BatchRecord> SqlStore::batches() {
  Lease db = lease();
  Statement s(
      *db,
      "SELECT b.id, b.name, b.started_at, b.sequence_name, b.is_closed FROM batches b "
      "ORDER BY (SELECT max(started_at) FROM sessions WHERE batch_id = b.id) DESC NULLS LAST, "
      "b.rowid DESC");
  std::vector<BatchRecord> list;
  while (s.step()) {
    list.push_back({s.text(0), s.optText(1), s.optText(2), s.optText(3), s.integer(4) != 0});
  }
  return list;
}

void SqlStore::insertSession(const SessionRecord& session, const BatchRecord& batch) {
  requireWritable();
  Lease db = lease();
  // Reads nothing: the batch row is merged by its key, and the session is new.
  Transaction transaction(*db, storage::Link::Scope::Rows);
  {
    Statement s(*db,
                "INSERT INTO batches(id, name, started_at, sequence_name) VALUES(?, ?, ?, ?) "
                "ON CONFLICT(id) DO UPDATE SET name = coalesce(excluded.name, batches.name), "
                "sequence_name = coalesce(excluded.sequence_name, batches.sequence_name)");
    s.bind(1, batch.id).bind(2, batch.name).bind(3, batch.startedAt).bind(4, batch.sequenceName);
    s.run();
  }
  Statement s(*db,
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

void SqlStore::touchSession(const std::string& sessionId, std::int64_t at) {
  requireWritable();
  Lease db = lease();
  Statement s(*db, "UPDATE sessions SET last_active_at = ? WHERE id = ?");
  s.bind(1, at).bind(2, sessionId);
  s.run();
}

std::vector<std::string> SqlStore::idleSessions(std::int64_t before) {
  Lease db = lease();
  Statement s(*db,
              "SELECT id FROM sessions WHERE outcome IS NULL AND last_active_at < ? "
              "ORDER BY last_active_at");
  s.bind(1, before);
  std::vector<std::string> ids;
  while (s.step()) ids.push_back(s.text(0));
  return ids;
}

std::vector<StepRecord> SqlStore::steps(const std::string& sessionId) {
  Lease db = lease();
  Statement s(*db,
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
      r.accessibilityPassed = json::boolAt(a, "passed");
      r.accessibilityLevel = textAt(a, "level");
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

std::int64_t SqlStore::stepCount(const std::string& sessionId) {
  Lease db = lease();
  Statement s(*db, "SELECT count(*) FROM steps WHERE session_id = ?");
  s.bind(1, sessionId);
  s.step();
  return s.integer(0);
}

std::int64_t SqlStore::stepCountWithTag(const std::string& sessionId, const std::string& tag) {
  Lease db = lease();
  Statement s(*db, "SELECT count(*) FROM steps WHERE session_id = ? AND tag = ?");
  s.bind(1, sessionId).bind(2, tag);
  s.step();
  return s.integer(0);
}

namespace {

void writeStepChanges(storage::Link& db, const std::string& sessionId, std::int64_t position,
                      const Json& changes) {
  Statement s(db,
              "INSERT INTO step_changes(session_id, position, changes) VALUES(?, ?, ?) "
              "ON CONFLICT(session_id, position) DO UPDATE SET changes = excluded.changes");
  s.bind(1, sessionId).bind(2, position).bind(3, json::write(changes));
  s.run();
}

}  // namespace

void SqlStore::insertStep(const std::string& sessionId, const StepRecord& step,
                          const Json* changes) {
  requireWritable();
  Lease db = lease();
  // Reads nothing: the step's place in its session is kept unique by the table's key.
  Transaction transaction(*db, storage::Link::Scope::Rows);
  {
    Statement s(*db,
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
      s.bind(9, json::write(Json{{"passed", *step.accessibilityPassed},
                                 {"level", step.accessibilityLevel}}));
    } else {
      s.bindNull(9);
    }
    s.bind(10, json::write(step.settings));
    s.bind(11, step.baselinePosition);
    s.bind(12, std::int64_t{step.matchedAlternative});
    s.run();
  }
  if (changes) writeStepChanges(*db, sessionId, step.position, *changes);
  transaction.commit();
}

bool SqlStore::finishSession(const std::string& sessionId, const Outcome& outcome,
                             const std::vector<BaselineStep>* newBaseline) {
  requireWritable();
  if (newBaseline) flushImages();
  Lease db = lease();
  // Only a new baseline version depends on what is read (the baseline's current version); an
  // outcome alone is guarded by its row.
  Transaction transaction(
      *db, newBaseline ? storage::Link::Scope::Database : storage::Link::Scope::Rows);
  if (newBaseline) {
    std::optional<std::pair<std::int64_t, std::int64_t>> target =
        requireFreshBaseline(db, sessionId, false);
    std::int64_t baselineId = 0;
    if (target) {
      baselineId = target->first;
    } else {
      std::string key;
      {
        Statement s(*db, "SELECT baseline_key FROM sessions WHERE id = ?");
        s.bind(1, sessionId);
        if (!s.step()) throw StoreError("unknown session " + sessionId);
        key = s.text(0);
      }
      Statement s(*db,
                  "INSERT INTO baselines(key, updated_at, current_version, latest_version) "
                  "VALUES(?, ?, 0, 0) RETURNING id");
      s.bind(1, key).bind(2, now());
      if (!s.step()) throw StoreError("cannot save baseline");
      baselineId = s.integer(0);
      s.run();
    }
    const std::int64_t version = newVersion(db, baselineId, std::nullopt, "saved", sessionId, {});
    std::int64_t position = 0;
    for (const BaselineStep& step : *newBaseline) {
      {
        Statement s(*db,
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
        Statement s(*db,
                    "INSERT INTO baseline_alternatives(baseline_id, version, position, image) "
                    "VALUES(?, ?, ?, ?) ON CONFLICT DO NOTHING");
        s.bind(1, baselineId).bind(2, version).bind(3, position).bind(4, alternative);
        s.run();
      }
      ++position;
    }
  }
  {
    Statement s(*db, "UPDATE sessions SET outcome = ? WHERE id = ? AND outcome IS NULL");
    s.bind(1, json::write(outcomeJson(outcome))).bind(2, sessionId);
    s.run();
    if (db->changes() == 0) return false;  // rolls the new version back with it
  }
  transaction.commit();
  return true;
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

// The sessions of each batch as the batch list needs them, and the batches a search finds. The
// SQL of JSON members and of matching in any case differs between the engines.
constexpr const char* kBatchSessions[] = {R"sql(
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
)sql",
                                          R"sql(
WITH s AS (
  SELECT batch_id, i ->> 'appName' AS app, i ->> 'branchName' AS branch,
         CASE WHEN outcome IS NULL THEN 'Running' ELSE o ->> 'status' END AS status,
         started_at, (o ->> 'stoppedAt')::bigint AS stopped
  FROM sessions,
       -- text in PostgreSQL holds no NUL: one escaped in the JSON is read as U+FFFD.
       LATERAL (SELECT replace(info, '\u0000', '\ufffd')::json AS i,
                       replace(outcome, '\u0000', '\ufffd')::json AS o) AS parsed),
found AS (
  SELECT b.* , b.rowid AS r FROM batches b
  WHERE ?1 = '%%' OR b.name ILIKE ?1 ESCAPE '\' OR b.id ILIKE ?1 ESCAPE '\'
     OR EXISTS(SELECT 1 FROM s WHERE s.batch_id = b.id
               AND (s.app ILIKE ?1 ESCAPE '\' OR s.branch ILIKE ?1 ESCAPE '\')))
)sql"};

// The distinct texts of a column of a group, as a JSON array.
constexpr const char* kGroupArray[] = {"json_group_array(DISTINCT %s)", "json_agg(DISTINCT %s)"};

// How many sessions of a group have this status (the status is one of ours, not request data).
std::string countOf(const std::string& status) {
  return "sum(CASE WHEN s.status = '" + status + "' THEN 1 ELSE 0 END)";
}

std::string groupArray(storage::Dialect dialect, const std::string& column) {
  std::string text = kGroupArray[static_cast<int>(dialect)];
  return text.replace(text.find("%s"), 2, column);
}

}  // namespace

BatchPage SqlStore::batchSummaries(const std::string& search, std::int64_t offset,
                                   std::int64_t limit) {
  std::string pattern = containsPattern(search);
  BatchPage page;
  Lease db = lease();
  const storage::Dialect dialect = db->dialect();
  const std::string sessionsSql = kBatchSessions[static_cast<int>(dialect)];
  {
    Statement s(*db, sessionsSql + "SELECT count(*) FROM found");
    s.bind(1, pattern);
    if (s.step()) page.total = s.integer(0);
  }
  Statement s(
      *db, sessionsSql +
               "SELECT f.id, f.name, f.started_at, f.sequence_name, f.is_closed, f.closed_at, "
               "count(s.batch_id), " +
               countOf("Running") + ", " + countOf("Passed") + ", " + countOf("Unresolved") + ", " +
               countOf("Failed") + ", min(s.started_at), max(s.stopped), " +
               groupArray(dialect, "s.app") + ", " + groupArray(dialect, "s.branch") +
               " FROM found f LEFT JOIN s ON s.batch_id = f.id "
               "GROUP BY f.id, f.name, f.started_at, f.sequence_name, f.is_closed, "
               "f.closed_at, f.r "
               "ORDER BY max(s.started_at) DESC NULLS LAST, f.r DESC LIMIT ?2 OFFSET ?3");
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

void SqlStore::putStepChanges(const std::string& sessionId, std::int64_t position,
                              const Json& changes) {
  requireWritable();
  Lease db = lease();
  writeStepChanges(*db, sessionId, position, changes);
}

std::map<std::int64_t, Json> SqlStore::stepChanges(const std::string& sessionId) {
  Lease db = lease();
  Statement s(*db, "SELECT position, changes FROM step_changes WHERE session_id = ?");
  s.bind(1, sessionId);
  std::map<std::int64_t, Json> found;
  while (s.step()) {
    std::optional<Json> changes = json::parse(s.text(1));
    if (changes && changes->is_object()) found[s.integer(0)] = std::move(*changes);
  }
  return found;
}

std::int64_t SqlStore::schemaVersion() {
  Lease db = lease();
  Statement s(*db, std::string("SELECT max(version) FROM ") + schemaTable());
  s.step();
  return s.integer(0);
}

}  // namespace saffra::server
