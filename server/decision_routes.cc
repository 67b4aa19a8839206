#include "server/decision_routes.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <stdexcept>

#include "saffra/base/logger.h"
#include "server/results_document.h"
#include "server/review_state.h"
#include "server/web_access.h"

namespace saffra::server {

using http::Params;
using http::Request;
using http::Response;

namespace {

std::string batchPath(const std::string& batchId) {
  return "/app/batches/" + percentEncode(batchId);
}

std::string testLabel(const SessionRecord& s) {
  return s.appName + " / " + s.testName;
}

/// Replies a refusal: a page for a browser's form, JSON otherwise.
void refuse(const Request& req, Response& res, bool replyWithJson, int status,
            const std::string& message, const std::string& back) {
  if (!replyWithJson && accepts(req, "text/html")) {
    replyHtml(res, status, renderMessagePage("Nothing was changed", message, back));
    return;
  }
  replyError(res, status, message);
}

}  // namespace

// What a batch-wide accept would do: for every stopped session of the batch that was not
// aborted and did not pass, its changed, new and missing steps without a verdict, accepted.
DecisionRoutes::BatchPlan DecisionRoutes::planBatchAccept(
    const std::vector<SessionRecord>& sessions) {
  BatchPlan plan;
  std::vector<std::pair<std::int64_t, std::string>> tokens;
  for (std::size_t i = 0; i < sessions.size(); ++i) {
    const SessionRecord& session = sessions[i];
    if (!session.outcome || session.outcome->isAborted) {
      ++plan.leftOut;
      tokens.emplace_back(static_cast<std::int64_t>(i), session.id + (session.outcome ? "!" : "?"));
      continue;
    }
    const Outcome& stopped = *session.outcome;
    if (stopped.status == "Passed") {
      // Nothing stands in its way (a new test saved as its baseline passes with new steps).
      tokens.emplace_back(static_cast<std::int64_t>(i), session.id + "=");
      continue;
    }
    std::vector<StepRecord> steps = store->steps(session.id);
    std::map<std::int64_t, bool> reviews;
    for (const auto& [position, verdict] : store->reviews(session.id)) {
      reviews[position] = verdict.accepted;
    }
    std::vector<std::pair<std::int64_t, std::string>> states =
        stepStatesOf(steps, stopped, reviews);
    tokens.emplace_back(static_cast<std::int64_t>(i), session.id + stateToken(states));
    // States are in the order of `steps`, then of the missing steps.
    std::vector<StepReview> changes;
    std::map<std::string, std::int64_t> seen;  // steps of each tag so far, in position order
    for (std::size_t k = 0; k < steps.size(); ++k) {
      const StepRecord& s = steps[k];
      const std::int64_t occurrence = seen[s.tag]++;
      if (!isOpenState(states[k].second)) continue;
      changes.push_back(
          {s.position, true, false,
           BaselineChange{BaselineChange::Kind::Replace, s.tag, occurrence, s.currentImage}});
    }
    std::optional<std::vector<BaselineStep>> compared;
    for (std::size_t k = 0; k < stopped.missing.size(); ++k) {
      if (!isOpenState(states[steps.size() + k].second)) continue;
      if (!compared) {
        compared = session.baselineId && session.baselineVersion
                       ? store->baselineSteps(*session.baselineId, *session.baselineVersion)
                       : std::vector<BaselineStep>{};
      }
      const BaselineStep& m = stopped.missing[k];
      const std::int64_t at =
          k < stopped.baselinePositions.size() ? stopped.baselinePositions[k] : m.position;
      const auto occurrence = static_cast<std::int64_t>(
          std::count_if(compared->begin(), compared->end(),
                        [&](const BaselineStep& b) { return b.tag == m.tag && b.position < at; }));
      changes.push_back({m.position, true, false,
                         BaselineChange{BaselineChange::Kind::Drop, m.tag, occurrence, ""}});
    }
    if (changes.empty()) continue;
    for (const StepReview& r : changes) reviews[r.position] = true;
    Outcome outcome = stopped;
    outcome.status = reviewedStatus(outcome, steps, reviews);
    plan.steps += static_cast<std::int64_t>(changes.size());
    plan.tests.emplace_back(session, static_cast<std::int64_t>(changes.size()));
    plan.decisions.push_back({session.id, std::move(changes), std::move(outcome)});
  }
  plan.state = stateToken(tokens);
  return plan;
}

/// Holds the locks of these sessions (each once, in one order, so that two holders never
/// wait for each other).
std::vector<std::unique_lock<std::mutex>> DecisionRoutes::lockSessions(
    const std::vector<SessionRecord>& sessions) {
  std::vector<std::mutex*> mutexes;
  for (const SessionRecord& s : sessions) mutexes.push_back(&locks.lockFor(s.id));
  std::sort(mutexes.begin(), mutexes.end());
  mutexes.erase(std::unique(mutexes.begin(), mutexes.end()), mutexes.end());
  std::vector<std::unique_lock<std::mutex>> held;
  for (std::mutex* m : mutexes) held.emplace_back(*m);
  return held;
}

// GET /app/batches/{id}?accept=1: what a batch-wide accept would do, and its button.
void DecisionRoutes::batchAcceptPage(const Request& req, Response& res) {
  Logins::Login login = access.pageLogin(req, res);
  std::optional<BatchRecord> batch = store->batch(req.matches[1]);
  if (!batch) throw RequestError(404, "unknown batch");
  batchAcceptConfirmation(res, *batch, login.csrf);
}

void DecisionRoutes::batchAcceptConfirmation(Response& res, const BatchRecord& batch,
                                             const std::string& csrf) {
  std::vector<SessionRecord> sessions = store->sessionsInBatch(batch.id);
  BatchPlan plan;
  {
    auto held = lockSessions(sessions);
    plan = planBatchAccept(sessions);
  }
  replyHtml(res, 200, renderBatchAcceptPage(batchAcceptView(batch, plan, csrf, {})));
}

BatchAcceptView DecisionRoutes::batchAcceptView(const BatchRecord& batch, const BatchPlan& plan,
                                                const std::string& csrf,
                                                const std::vector<StaleSession>& stale) {
  BatchAcceptView view;
  view.batchId = batch.id;
  view.batchName = batch.name && !batch.name->empty() ? *batch.name : batch.id;
  for (const auto& [session, steps] : plan.tests) {
    view.tests.push_back({session.id, testLabel(session), steps});
  }
  view.steps = plan.steps;
  view.leftOut = plan.leftOut;
  view.state = plan.state;
  view.csrf = csrf;
  for (const StaleSession& s : stale) {
    std::string name = s.sessionId;
    for (const auto& [session, steps] : plan.tests) {
      if (session.id == s.sessionId) name = testLabel(session);
    }
    view.stale.push_back(name + ": " + s.message);
  }
  return view;
}

// POST /app/batches/{id}/accept (page form: csrf, state, confirm) and
// POST /api/batches/{id}/accept?confirm=..&state=.. (API key): accepts every changed, new or
// missing step without a verdict in every stopped, not aborted session of the batch, as one
// decision in one transaction.
void DecisionRoutes::batchAcceptForm(const Request& req, Response& res) {
  const std::string id = req.matches[1];
  access.requireReviewForm(req, batchPath(id));
  Params fields = formFields(req);
  acceptBatch(req, res, id, fieldAt(fields, "confirm") == "1", fieldAt(fields, "state"),
              accepts(req, "application/json"));
}
void DecisionRoutes::batchAcceptApi(const Request& req, Response& res) {
  access.requireApiKey(req);
  acceptBatch(req, res, req.matches[1], queryFlag(req, "confirm"), req.get_param_value("state"),
              true);
}
void DecisionRoutes::acceptBatch(const Request& req, Response& res, const std::string& id,
                                 bool confirmed, const std::string& shownState,
                                 bool replyWithJson) {
  std::optional<BatchRecord> batch = store->batch(id);
  if (!batch) throw RequestError(404, "unknown batch");
  std::vector<SessionRecord> sessions = store->sessionsInBatch(id);
  auto held = lockSessions(sessions);
  BatchPlan plan = planBatchAccept(sessions);
  const std::string confirmation = batchPath(id) + "?accept=1";
  if (!shownState.empty() && shownState != plan.state) {
    refuse(req, res, replyWithJson, 409,
           "The batch changed since the confirmation was shown (a test finished or a step was "
           "decided, or this accept was sent twice); nothing was accepted.",
           confirmation);
    return;
  }
  if (plan.decisions.empty()) {
    refuse(req, res, replyWithJson, 409,
           "Nothing to accept: no stopped test of the batch has a changed, new or missing step "
           "without a decision.",
           batchPath(id));
    return;
  }
  std::int64_t decision = 0;
  const std::string reviewer = access.reviewerOf(req);
  try {
    decision = store->decide(reviewer, "batch", plan.decisions, confirmed);
  } catch (const StaleSessionsError& e) {
    if (!replyWithJson && accepts(req, "text/html")) {
      std::optional<Logins::Login> login = access.loginOf(req);
      replyHtml(res, 409,
                renderBatchAcceptPage(
                    batchAcceptView(*batch, plan, login ? login->csrf : "", e.sessions())));
      return;
    }
    Json stale = Json::array();
    for (const StaleSession& s : e.sessions()) {
      stale.push_back({{"id", s.sessionId},
                       {"message", s.message},
                       {"comparedVersion", s.comparedVersion},
                       {"currentVersion", s.currentVersion}});
    }
    replyJson(res, 409,
              Json{{"error", std::to_string(e.sessions().size()) +
                                 " of the tests were compared with a baseline that moved on "
                                 "since; accepting would replace it (confirm to accept anyway)"},
                   {"stale", std::move(stale)}});
    return;
  }
  Logger::logWithFormat("batch %@ accepted: %li steps in %li tests", id, plan.steps,
                        static_cast<std::int64_t>(plan.tests.size()));
  if (events.enabled()) {
    std::vector<SessionRecord> decided;
    for (std::size_t i = 0; i < plan.tests.size(); ++i) {
      decided.push_back(plan.tests[i].first);
      decided.back().outcome = plan.decisions[i].outcome;
    }
    events.decided(req, decision, "accept", "batch", reviewer, std::nullopt, id, decided);
  }
  if (!replyWithJson) {
    redirect(res, batchPath(id));
    return;
  }
  Json tests = Json::array();
  for (std::size_t i = 0; i < plan.tests.size(); ++i) {
    tests.push_back({{"id", plan.tests[i].first.id},
                     {"steps", plan.tests[i].second},
                     {"status", plan.decisions[i].outcome.status}});
  }
  replyJson(res, 200,
            Json{{"batchId", id},
                 {"decision", decision},
                 {"steps", plan.steps},
                 {"tests", std::move(tests)}});
}

// POST /app/undo (page form: csrf, decision, next) and POST /api/undo?decision=N (API key):
// undoes the reviewer's last decision. `decision` is the one the page offered to undo, so an
// undo sent twice undoes once.
void DecisionRoutes::undoForm(const Request& req, Response& res) {
  access.requireReviewForm(req, "/app/batches");
  Params fields = formFields(req);
  undo(req, res, access.reviewerOf(req), fieldAt(fields, "decision"),
       accepts(req, "application/json"), localPathOr(fieldAt(fields, "next"), "/app/batches"));
}
void DecisionRoutes::undoApi(const Request& req, Response& res) {
  access.requireApiKey(req);
  undo(req, res, "api", req.get_param_value("decision"), true, "");
}
void DecisionRoutes::undo(const Request& req, Response& res, const std::string& reviewer,
                          const std::string& decisionText, bool replyWithJson,
                          const std::string& next) {
  std::optional<std::int64_t> expected;
  if (!decisionText.empty()) {
    try {
      std::size_t used = 0;
      expected = std::stoll(decisionText, &used);
      if (used != decisionText.size()) expected.reset();
    } catch (const std::logic_error&) {
    }
    if (!expected) throw RequestError(400, "decision must be a number");
  }
  std::optional<UndoneDecision> undone;
  if (std::optional<UndoneDecision> last = store->decisionToUndo(reviewer)) {
    // No review of its sessions runs meanwhile. Should another decision of the reviewer come
    // first, the store refuses: it is not the one these locks cover.
    std::vector<SessionRecord> sessions(last->sessions.size());
    for (std::size_t i = 0; i < sessions.size(); ++i) sessions[i].id = last->sessions[i];
    auto held = lockSessions(sessions);
    if (!expected) expected = last->id;
    try {
      undone = store->undoLastDecision(reviewer, expected);
    } catch (const UndoRefused& e) {
      std::string message = e.what();
      message[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(message[0])));
      refuse(req, res, replyWithJson, 409, message + "; nothing was undone.", next);
      return;
    }
  }
  if (!undone) {
    refuse(req, res, replyWithJson, 409, "There is no decision of yours to undo.", next);
    return;
  }
  Logger::logWithFormat("decision %li undone (%@ of %li tests)", undone->id, undone->scope,
                        static_cast<std::int64_t>(undone->sessions.size()));
  if (events.enabled()) {
    std::vector<SessionRecord> restored;
    for (const std::string& sessionId : undone->sessions) {
      if (std::optional<SessionRecord> s = store->session(sessionId)) restored.push_back(*s);
    }
    events.decided(req, undone->id, "undo", undone->scope, reviewer, std::nullopt, std::nullopt,
                   restored);
  }
  if (!replyWithJson) {
    redirect(res, next);
    return;
  }
  std::optional<std::int64_t> last = store->lastDecision(reviewer);
  replyJson(res, 200,
            Json{{"undone",
                  {{"id", undone->id}, {"scope", undone->scope}, {"sessions", undone->sessions}}},
                 {"decision", last ? Json(*last) : Json()}});
}

}  // namespace saffra::server
