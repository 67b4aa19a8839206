// What retention removes: old sessions, old baseline versions, and image files nothing
// refers to.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "server/store.h"
#include "server/store/statement.h"

namespace saffra::server {

namespace fs = std::filesystem;

using storage::Statement;
using storage::Transaction;

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
  // The deletions fill the write-ahead log; folding it into the database here, in retention's
  // paced piece, keeps the automatic checkpoint out of the next check's commit.
  sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
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

}  // namespace saffra::server
