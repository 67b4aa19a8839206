// What retention removes of the rows: old sessions and old baseline versions. (Which images
// nothing refers to any more is the engine's part.)
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "server/store.h"
#include "server/store/sql_store.h"

namespace saffra::server {

using storage::Lease;
using storage::Statement;
using storage::Transaction;

std::int64_t SqlStore::removeSessions(std::int64_t before, std::int64_t limit) {
  Lease db = lease();
  Transaction transaction(*db);
  std::vector<std::pair<std::string, std::string>> sessions;  // id and batch
  {
    Statement s(*db,
                "SELECT id, batch_id FROM sessions WHERE outcome IS NOT NULL AND started_at < ? "
                "ORDER BY started_at LIMIT ?");
    s.bind(1, before).bind(2, limit);
    while (s.step()) sessions.emplace_back(s.text(0), s.text(1));
  }
  for (const auto& [id, batch] : sessions) {
    for (const char* sql :
         {"DELETE FROM steps WHERE session_id = ?", "DELETE FROM reviews WHERE session_id = ?",
          "DELETE FROM step_changes WHERE session_id = ?", "DELETE FROM sessions WHERE id = ?"}) {
      Statement s(*db, sql);
      s.bind(1, id);
      s.run();
    }
    // A batch goes with its last session; a session starting in it adds the batch again in
    // the transaction that adds the session.
    Statement s(*db,
                "DELETE FROM batches WHERE id = ? AND NOT EXISTS "
                "(SELECT 1 FROM sessions WHERE batch_id = ?)");
    s.bind(1, batch).bind(2, batch);
    s.run();
  }
  transaction.commit();
  // The deletions may leave the engine work to do; doing it here, in retention's paced piece,
  // keeps it out of the next check's commit.
  db->tidy();
  return static_cast<std::int64_t>(sessions.size());
}

std::int64_t SqlStore::removeVersions(std::int64_t before, std::int64_t keep) {
  Lease db = lease();
  Transaction transaction(*db);
  std::vector<std::pair<std::int64_t, std::int64_t>> versions;
  {
    Statement s(*db,
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
      Statement s(*db, sql);
      s.bind(1, baseline).bind(2, version);
      s.run();
    }
  }
  transaction.commit();
  return static_cast<std::int64_t>(versions.size());
}

}  // namespace saffra::server
