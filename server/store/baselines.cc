// Baselines, their versions and the reviews that make new versions; rolling back.
#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/clock.h"
#include "server/store.h"
#include "server/store/session_rows.h"
#include "server/store/sql_store.h"

namespace saffra::server {

using storage::Lease;
using storage::outcomeJson;
using storage::Statement;
using storage::Transaction;

std::optional<BaselineRef> SqlStore::findBaseline(const std::string& key) {
  Lease db = lease();
  Statement s(*db, "SELECT id, current_version FROM baselines WHERE key = ?");
  s.bind(1, key);
  if (!s.step()) return std::nullopt;
  return BaselineRef{s.integer(0), s.integer(1), ""};
}

namespace {

// The alternatives of the steps of one version, by position.
std::map<std::int64_t, std::vector<std::string>> alternativesOf(storage::Link& statements,
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
std::optional<std::int64_t> positionOfTag(storage::Link& statements, std::int64_t baselineId,
                                          std::int64_t version, const std::string& tag,
                                          std::int64_t occurrence) {
  Statement s(statements,
              "SELECT position FROM baseline_version_steps "
              "WHERE baseline_id = ? AND version = ? AND tag = ? ORDER BY position "
              "LIMIT 1 OFFSET ?");
  s.bind(1, baselineId).bind(2, version).bind(3, tag).bind(4, occurrence);
  if (!s.step()) return std::nullopt;
  return s.integer(0);
}

}  // namespace

std::vector<BaselineStep> SqlStore::baselineSteps(std::int64_t baselineId, std::int64_t version) {
  Lease db = lease();
  std::map<std::int64_t, std::vector<std::string>> alternatives =
      alternativesOf(*db, baselineId, version);
  Statement s(*db,
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

std::optional<BaselineStep> SqlStore::baselineStepByTag(std::int64_t baselineId,
                                                        std::int64_t version,
                                                        const std::string& tag,
                                                        std::int64_t occurrence) {
  Lease db = lease();
  Statement s(*db,
              "SELECT position, tag, image FROM baseline_version_steps "
              "WHERE baseline_id = ? AND version = ? AND tag = ? ORDER BY position "
              "LIMIT 1 OFFSET ?");
  s.bind(1, baselineId).bind(2, version).bind(3, tag).bind(4, occurrence);
  if (!s.step()) return std::nullopt;
  BaselineStep step{s.integer(0), s.text(1), s.text(2), {}};
  Statement a(*db,
              "SELECT image FROM baseline_alternatives "
              "WHERE baseline_id = ? AND version = ? AND position = ? ORDER BY image");
  a.bind(1, baselineId).bind(2, version).bind(3, step.position);
  while (a.step()) step.alternatives.push_back(a.text(0));
  return step;
}

std::optional<BaselineHistory> SqlStore::baselineHistory(std::int64_t baselineId) {
  Lease db = lease();
  BaselineHistory history;
  {
    Statement s(*db, "SELECT id, key, current_version FROM baselines WHERE id = ?");
    s.bind(1, baselineId);
    if (!s.step()) return std::nullopt;
    history = {s.integer(0), s.text(1), s.integer(2), {}};
  }
  Statement s(*db,
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

std::int64_t SqlStore::newVersion(Lease& db, std::int64_t toId,
                                  std::optional<std::pair<std::int64_t, std::int64_t>> from,
                                  const std::string& kind, const OptString& sessionId,
                                  std::optional<std::int64_t> fromVersion) {
  std::int64_t version = 0;
  {
    Statement s(*db, "SELECT latest_version FROM baselines WHERE id = ?");
    s.bind(1, toId);
    if (!s.step()) throw StoreError("unknown baseline " + std::to_string(toId));
    version = s.integer(0) + 1;
  }
  const std::int64_t at = now();
  {
    Statement s(*db,
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
        *db,
        "INSERT INTO baseline_version_steps(baseline_id, version, position, tag, image) "
        "SELECT ?, ?, position, tag, image FROM baseline_version_steps "
        "WHERE baseline_id = ? AND version = ?");
    steps.bind(1, toId).bind(2, version).bind(3, from->first).bind(4, from->second);
    steps.run();
    Statement alternatives(
        *db,
        "INSERT INTO baseline_alternatives(baseline_id, version, position, image) "
        "SELECT ?, ?, position, image FROM baseline_alternatives "
        "WHERE baseline_id = ? AND version = ?");
    alternatives.bind(1, toId).bind(2, version).bind(3, from->first).bind(4, from->second);
    alternatives.run();
  }
  Statement s(*db,
              "UPDATE baselines SET current_version = ?, latest_version = ?, updated_at = ? "
              "WHERE id = ?");
  s.bind(1, version).bind(2, version).bind(3, at).bind(4, toId);
  s.run();
  return version;
}

std::optional<std::pair<std::int64_t, std::int64_t>> SqlStore::requireFreshBaseline(
    Lease& db, const std::string& sessionId, bool confirmed) {
  std::string key;
  std::optional<std::int64_t> comparedId, comparedVersion;
  {
    Statement s(*db,
                "SELECT baseline_key, baseline_id, baseline_version FROM sessions WHERE id = ?");
    s.bind(1, sessionId);
    if (!s.step()) throw StoreError("unknown session " + sessionId);
    key = s.text(0);
    if (!s.isNull(1)) comparedId = s.integer(1);
    if (!s.isNull(2)) comparedVersion = s.integer(2);
  }
  std::optional<std::pair<std::int64_t, std::int64_t>> target;
  {
    Statement s(*db, "SELECT id, current_version FROM baselines WHERE key = ?");
    s.bind(1, key);
    if (s.step()) target = std::make_pair(s.integer(0), s.integer(1));
  }
  if (!target || confirmed) return target;
  // Versions made by the session's own reviews since do not count; any other one does.
  const bool sameBaseline = comparedId == target->first;
  Statement s(*db,
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

std::map<std::int64_t, Verdict> SqlStore::reviews(const std::string& sessionId) {
  Lease db = lease();
  Statement s(*db, "SELECT position, accepted, as_alternative FROM reviews WHERE session_id = ?");
  s.bind(1, sessionId);
  std::map<std::int64_t, Verdict> verdicts;
  while (s.step()) verdicts[s.integer(0)] = {s.integer(1) != 0, s.integer(2) != 0};
  return verdicts;
}

void SqlStore::reviewSteps(const std::string& sessionId, const std::vector<StepReview>& reviews,
                           const Outcome& outcome, bool confirmed) {
  requireWritable();
  flushImages();  // accepted steps' images become baseline images
  Lease db = lease();
  Transaction transaction(*db);
  applyReview(db, sessionId, reviews, outcome, confirmed);
  transaction.commit();
}

SqlStore::AppliedReview SqlStore::applyReview(Lease& db, const std::string& sessionId,
                                              const std::vector<StepReview>& reviews,
                                              const Outcome& outcome, bool confirmed) {
  AppliedReview applied;
  const bool changesBaseline = std::any_of(
      reviews.begin(), reviews.end(), [](const StepReview& r) { return r.change.has_value(); });
  if (changesBaseline) {
    std::optional<std::pair<std::int64_t, std::int64_t>> target =
        requireFreshBaseline(db, sessionId, confirmed);
    std::int64_t baselineId = 0;
    std::optional<std::pair<std::int64_t, std::int64_t>> base = target;
    if (target) {
      baselineId = target->first;
    } else {
      // The first baseline under the session's key starts from the one it was compared with.
      std::string key;
      {
        Statement s(
            *db, "SELECT baseline_key, baseline_id, baseline_version FROM sessions WHERE id = ?");
        s.bind(1, sessionId);
        if (!s.step()) throw StoreError("unknown session " + sessionId);
        key = s.text(0);
        if (!s.isNull(1) && !s.isNull(2)) base = std::make_pair(s.integer(1), s.integer(2));
      }
      Statement s(*db,
                  "INSERT INTO baselines(key, updated_at, current_version, latest_version) "
                  "VALUES(?, ?, 0, 0) RETURNING id");
      s.bind(1, key).bind(2, now());
      if (!s.step()) throw StoreError("cannot create baseline");
      baselineId = s.integer(0);
      s.run();
    }
    const std::int64_t version =
        newVersion(db, baselineId, base, "accepted", sessionId, std::nullopt);
    applied.baselineId = baselineId;
    if (target) applied.previousVersion = target->second;
    applied.madeVersion = version;
    auto append = [&](const std::string& tag, const std::string& image) {
      Statement s(*db,
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
      Statement s(*db,
                  "DELETE FROM baseline_alternatives "
                  "WHERE baseline_id = ? AND version = ? AND position = ?");
      s.bind(1, baselineId).bind(2, version).bind(3, position);
      s.run();
    };
    for (const StepReview& review : reviews) {
      if (!review.change) continue;
      const BaselineChange& change = *review.change;
      std::optional<std::int64_t> position =
          positionOfTag(*db, baselineId, version, change.tag, change.occurrence);
      switch (change.kind) {
        case BaselineChange::Kind::Replace:
          if (!position) {
            append(change.tag, change.image);
          } else {
            dropAlternatives(*position);
            Statement s(*db,
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
            Statement s(*db,
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
            Statement s(*db,
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
    Statement s(*db,
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
    Statement s(*db, "UPDATE sessions SET outcome = ? WHERE id = ?");
    s.bind(1, json::write(outcomeJson(outcome))).bind(2, sessionId);
    s.run();
  }
  return applied;
}

std::int64_t SqlStore::rollBack(std::int64_t baselineId, std::int64_t version) {
  requireWritable();
  Lease db = lease();
  Transaction transaction(*db);
  std::int64_t latest = 0;
  {
    Statement s(*db, "SELECT latest_version FROM baselines WHERE id = ?");
    s.bind(1, baselineId);
    if (!s.step()) throw UnknownVersionError("unknown baseline", false);
    latest = s.integer(0);
  }
  {
    Statement s(*db,
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
  const std::int64_t made = newVersion(db, baselineId, std::make_pair(baselineId, version),
                                       "rollback", std::nullopt, version);
  transaction.commit();
  return made;
}

}  // namespace saffra::server
