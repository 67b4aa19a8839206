// Decisions: a reviewer's accepts of a step, a test or a whole batch, recorded with what each
// replaced, and the undo of the reviewer's last one.
#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "saffra/platform/json.h"
#include "server/clock.h"
#include "server/store.h"
#include "server/store/session_rows.h"
#include "server/store/sql_store.h"

namespace saffra::server {

using namespace storage;

std::int64_t SqlStore::decide(const std::string& reviewer, const std::string& scope,
                              const std::vector<SessionDecision>& sessions, bool confirmed) {
  requireWritable();
  flushImages();  // accepted steps' images become baseline images
  Lease db = lease();
  Transaction transaction(*db);
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
        requireFreshBaseline(db, d.sessionId, false);
      } catch (const StaleBaselineError& e) {
        stale.push_back({d.sessionId, e.what(), e.comparedVersion(), e.currentVersion()});
      }
    }
    if (!stale.empty()) throw StaleSessionsError(std::move(stale));
  }
  std::int64_t decision = 0;
  {
    Statement s(*db,
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
      Statement s(*db, "SELECT outcome FROM sessions WHERE id = ?");
      s.bind(1, d.sessionId);
      if (!s.step()) throw StoreError("unknown session " + d.sessionId);
      before = s.optText(0);
    }
    std::map<std::int64_t, std::pair<std::int64_t, std::int64_t>> verdicts;
    {
      Statement s(*db,
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
      Statement s(*db,
                  "INSERT INTO decision_sessions(decision_id, session_id, outcome, reviews) "
                  "VALUES(?, ?, ?, ?)");
      s.bind(1, decision).bind(2, d.sessionId).bind(3, before).bind(4, json::write(previous));
      s.run();
    }
    AppliedReview applied;
    try {
      applied = applyReview(db, d.sessionId, d.reviews, d.outcome, confirmed);
    } catch (const StaleSessionsError&) {
      throw;
    } catch (const StaleBaselineError& e) {
      // Two sessions of the decision accept into one baseline: the second would replace what
      // the first accepted.
      throw StaleSessionsError({{d.sessionId, e.what(), e.comparedVersion(), e.currentVersion()}});
    }
    if (applied.baselineId) {
      Statement s(*db,
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

std::optional<std::int64_t> SqlStore::lastDecision(const std::string& reviewer) {
  Lease db = lease();
  Statement s(*db, "SELECT max(id) FROM decisions WHERE reviewer = ? AND undone = 0");
  s.bind(1, reviewer);
  if (!s.step() || s.isNull(0)) return std::nullopt;
  return s.integer(0);
}

std::optional<UndoneDecision> SqlStore::lastOpenDecision(Lease& db, const std::string& reviewer) {
  Statement s(*db,
              "SELECT id, scope FROM decisions WHERE reviewer = ? AND undone = 0 "
              "ORDER BY id DESC LIMIT 1");
  s.bind(1, reviewer);
  if (!s.step()) return std::nullopt;
  UndoneDecision decision;
  decision.id = s.integer(0);
  decision.scope = s.text(1);
  return decision;
}

std::optional<UndoneDecision> SqlStore::decisionToUndo(const std::string& reviewer) {
  Lease db = lease();
  std::optional<UndoneDecision> last = lastOpenDecision(db, reviewer);
  if (!last) return std::nullopt;
  UndoneDecision decision = std::move(*last);
  Statement s(*db, "SELECT session_id FROM decision_sessions WHERE decision_id = ?");
  s.bind(1, decision.id);
  while (s.step()) decision.sessions.push_back(s.text(0));
  return decision;
}

std::optional<UndoneDecision> SqlStore::undoLastDecision(const std::string& reviewer,
                                                         std::optional<std::int64_t> expected) {
  requireWritable();
  Lease db = lease();
  Transaction transaction(*db);
  std::optional<UndoneDecision> last = lastOpenDecision(db, reviewer);
  if (!last) {
    if (expected) throw UndoRefused("that decision was undone already");
    return std::nullopt;
  }
  UndoneDecision undone = std::move(*last);
  if (expected && *expected != undone.id) {
    throw UndoRefused(*expected > undone.id
                          ? "that decision was undone already"
                          : "you made another decision since; reload the page to undo that one");
  }
  auto testName = [&](const std::string& sessionId) {
    Statement s(*db, "SELECT info FROM sessions WHERE id = ?");
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
    Statement s(*db,
                "SELECT session_id, outcome, reviews FROM decision_sessions WHERE decision_id = ? "
                "ORDER BY rowid");
    s.bind(1, undone.id);
    while (s.step()) restores.push_back({s.text(0), s.optText(1), s.text(2)});
  }
  for (const Restore& r : restores) {
    {
      Statement s(*db, "SELECT count(*) FROM sessions WHERE id = ?");
      s.bind(1, r.sessionId);
      s.step();
      if (s.integer(0) == 0) {
        throw UndoRefused("session " + r.sessionId + " of that decision was removed since");
      }
    }
    Statement s(*db,
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
    Statement s(*db,
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
      Statement s(*db,
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
      Statement s(*db,
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
      newVersion(db, m.baselineId, std::make_pair(m.baselineId, *m.previous), "undo", m.sessionId,
                 *m.previous);
      continue;
    }
    Statement s(*db, "SELECT count(*) FROM sessions WHERE baseline_id = ?");
    s.bind(1, m.baselineId);
    s.step();
    if (s.integer(0) > 0) {  // sessions were compared with it since: it stays, empty
      newVersion(db, m.baselineId, std::nullopt, "undo", m.sessionId, std::nullopt);
      continue;
    }
    for (const char* sql : {"DELETE FROM baseline_alternatives WHERE baseline_id = ?",
                            "DELETE FROM baseline_version_steps WHERE baseline_id = ?",
                            "DELETE FROM baseline_versions WHERE baseline_id = ?",
                            "DELETE FROM baselines WHERE id = ?"}) {
      Statement d(*db, sql);
      d.bind(1, m.baselineId);
      d.run();
    }
  }
  for (const Restore& r : restores) {
    {
      Statement s(*db, "UPDATE sessions SET outcome = ? WHERE id = ?");
      s.bind(1, r.outcome).bind(2, r.sessionId);
      s.run();
    }
    const Json verdicts = json::parse(r.reviews).value_or(Json::array());
    for (const Json& v : verdicts) {
      if (!v.is_array() || v.size() != 3) continue;
      const std::int64_t position = json::integerValue(v[0]);
      const std::int64_t accepted = json::integerValue(v[1]);
      if (accepted < 0) {
        Statement s(*db, "DELETE FROM reviews WHERE session_id = ? AND position = ?");
        s.bind(1, r.sessionId).bind(2, position);
        s.run();
        continue;
      }
      Statement s(*db,
                  "INSERT INTO reviews(session_id, position, accepted, as_alternative) "
                  "VALUES(?, ?, ?, ?) ON CONFLICT(session_id, position) DO UPDATE SET "
                  "accepted = excluded.accepted, as_alternative = excluded.as_alternative");
      s.bind(1, r.sessionId).bind(2, position).bind(3, accepted).bind(4, json::integerValue(v[2]));
      s.run();
    }
    undone.sessions.push_back(r.sessionId);
  }
  {
    Statement s(*db, "UPDATE decisions SET undone = 1 WHERE id = ?");
    s.bind(1, undone.id);
    s.run();
  }
  transaction.commit();
  return undone;
}

}  // namespace saffra::server
