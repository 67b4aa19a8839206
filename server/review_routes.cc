#include "server/review_routes.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>

#include "saffra/base/logger.h"
#include "server/results_document.h"
#include "server/review_state.h"
#include "server/web_access.h"
#include "server/web_pages.h"

namespace saffra::server {

using http::Params;
using http::Request;
using http::Response;

namespace {

/// A decision may carry the state its page showed (form field or query "state": the step's
/// state, or the token of the whole test). When the test changed since, the decision is
/// refused and changes nothing: it was sent twice, or someone decided in between.
void requireShownState(const Request& req, bool all, std::int64_t number,
                       const std::vector<std::pair<std::int64_t, std::string>>& states) {
  const std::string shown =
      req.has_param("state") ? req.get_param_value("state") : fieldAt(formFields(req), "state");
  if (shown.empty()) return;
  std::string current;
  if (all) {
    current = stateToken(states);
  } else {
    for (const auto& [n, state] : states) {
      if (n == number) current = state;
    }
  }
  if (current.empty() || shown == current) return;  // an unknown step is refused as such
  throw RequestError(
      409, all ? "The test was decided since this page was shown (or this decision was sent "
                 "twice); nothing was changed. Reload the page to see it."
               : "Step " + std::to_string(number) + " was decided since this page was shown " +
                     "(it is " + (current == "mismatched" ? "changed" : current) +
                     " now), or this decision was sent twice; nothing was changed. Reload the "
                     "page to see it.");
}

}  // namespace

// POST /app/sessions/{id}/steps/{n}/{accept|alternative|reject} and
// POST /app/sessions/{id}/accept, from the pages.
void ReviewRoutes::review(const Request& req, Response& res) {
  std::string id = sessionIdFrom(req.matches[1]);
  access.requireReviewForm(req, id);
  const bool confirmed = fieldAt(formFields(req), "confirm") == "1";
  reviewSession(req, res, id, confirmed, accepts(req, "application/json"));
}

// POST /api/sessions/{id}/steps/{n}/{accept|alternative|reject} and
// POST /api/sessions/{id}/accept, with the API key.
void ReviewRoutes::reviewApi(const Request& req, Response& res) {
  access.requireApiKey(req);
  std::string id = sessionIdFrom(req.matches[1]);
  reviewSession(req, res, id, queryFlag(req, "confirm"), true);
}

void ReviewRoutes::reviewSession(const Request& req, Response& res, const std::string& id,
                                 bool confirmed, bool replyWithJson) {
  bool all = req.matches.size() < 4;
  std::int64_t number = 0;
  std::string action = "accept";
  if (!all) {
    number = std::stoll(req.matches[2]);
    action = req.matches[3];
  }

  std::lock_guard lock(locks.lockFor(id));
  std::optional<SessionRecord> session = store->session(id);
  if (!session) throw RequestError(404, "unknown session");
  if (!session->outcome) throw RequestError(409, "the session is still running");
  std::vector<StepRecord> steps = store->steps(id);
  std::map<std::int64_t, bool> reviews;
  const std::map<std::int64_t, Verdict> verdicts = store->reviews(id);
  for (const auto& [position, verdict] : verdicts) reviews[position] = verdict.accepted;
  const Outcome& stopped = *session->outcome;
  requireShownState(req, all, number, stepStatesOf(steps, stopped, reviews));

  // Accepted images go to the baseline step of their own tag: the n-th step with a tag in
  // the session to the n-th baseline step with that tag.
  auto occurrenceOf = [&](const StepRecord& step) {
    return static_cast<std::int64_t>(std::count_if(steps.begin(), steps.end(), [&](auto& s) {
      return s.tag == step.tag && s.position < step.position;
    }));
  };
  std::optional<std::vector<BaselineStep>> compared;
  auto occurrenceOfMissing = [&](std::size_t i) -> std::int64_t {
    if (!compared) {
      compared = session->baselineId && session->baselineVersion
                     ? store->baselineSteps(*session->baselineId, *session->baselineVersion)
                     : std::vector<BaselineStep>{};
    }
    const std::int64_t at = i < stopped.baselinePositions.size() ? stopped.baselinePositions[i]
                                                                 : stopped.missing[i].position;
    return static_cast<std::int64_t>(
        std::count_if(compared->begin(), compared->end(),
                      [&](auto& b) { return b.tag == stopped.missing[i].tag && b.position < at; }));
  };
  std::vector<StepReview> changes;
  auto verdictOn = [&](std::int64_t position, const std::string& verdict) {
    const bool accepted = verdict != "reject";
    for (const StepRecord& s : steps) {
      if (s.position != position) continue;
      StepReview r{position, accepted, false, std::nullopt};
      if (accepted) {
        // Beside the baseline's image only where there is one to keep.
        r.asAlternative = verdict == "alternative" && s.baselineImage.has_value();
        r.change = BaselineChange{
            r.asAlternative ? BaselineChange::Kind::AddAlternative : BaselineChange::Kind::Replace,
            s.tag, occurrenceOf(s), s.currentImage};
      }
      changes.push_back(std::move(r));
      return true;
    }
    for (std::size_t i = 0; i < stopped.missing.size(); ++i) {
      const BaselineStep& m = stopped.missing[i];
      if (m.position != position) continue;
      if (verdict == "alternative") {
        throw RequestError(400, "a missing step has no image to accept as an alternative");
      }
      StepReview r{position, accepted, false, std::nullopt};
      if (accepted) {
        r.change = BaselineChange{BaselineChange::Kind::Drop, m.tag, occurrenceOfMissing(i), ""};
      }
      changes.push_back(std::move(r));
      return true;
    }
    return false;
  };
  if (all) {
    // Everything that keeps the test from passing: changed, new and missing steps.
    // Steps accepted already are left as they are.
    auto acceptedAlready = [&](std::int64_t position) {
      auto found = reviews.find(position);
      return found != reviews.end() && found->second;
    };
    for (const StepRecord& s : steps) {
      if (stepState(s, std::nullopt) != "matched" && !acceptedAlready(s.position)) {
        verdictOn(s.position, "accept");
      }
    }
    for (const BaselineStep& m : stopped.missing) {
      if (!acceptedAlready(m.position)) verdictOn(m.position, "accept");
    }
    if (changes.empty()) {
      throw RequestError(409,
                         "Nothing to accept: every changed, new or missing step of the "
                         "test is accepted already.");
    }
  } else if (number < 1 || !verdictOn(number - 1, action)) {
    throw RequestError(404, "unknown step");
  } else if (auto found = verdicts.find(number - 1);
             found != verdicts.end() && found->second.accepted == changes[0].accepted &&
             found->second.asAlternative == changes[0].asAlternative) {
    // The same decision again (a double click, a repeated request): nothing changes.
    throw RequestError(409, "Step " + std::to_string(number) + " is " +
                                (changes[0].accepted ? "accepted" : "rejected") +
                                " already; nothing was changed.");
  }
  for (const StepReview& r : changes) reviews[r.position] = r.accepted;
  Outcome outcome = stopped;
  outcome.status = reviewedStatus(outcome, steps, reviews);
  std::int64_t decision = 0;
  const std::string reviewer = access.reviewerOf(req);
  try {
    decision = store->decide(reviewer, all ? "test" : "step", {{id, changes, outcome}}, confirmed);
  } catch (const StaleBaselineError& e) {
    const std::string message = std::string(e.what()) + "; accepting would replace it";
    if (!replyWithJson && accepts(req, "text/html")) {
      std::optional<Logins::Login> login = access.loginOf(req);
      replyHtml(res, 409,
                renderConfirmAcceptPage(e.what(), req.path, login ? login->csrf : "",
                                        "/app/sessions/" + id));
      return;
    }
    replyJson(res, 409,
              Json{{"error", message + " (confirm to accept anyway)"},
                   {"comparedVersion", e.comparedVersion()},
                   {"currentVersion", e.currentVersion()}});
    return;
  }
  Logger::logWithFormat("session %@ reviewed: %@", id, outcome.status);
  if (events.enabled()) {
    SessionRecord decided = *session;
    decided.outcome = outcome;
    events.decided(req, decision, action, all ? "test" : "step", reviewer,
                   all ? std::nullopt : std::optional<std::int64_t>(number), std::nullopt,
                   {decided});
  }

  if (!replyWithJson) {
    redirect(res, "/app/sessions/" + id + (all ? "" : "#step-" + std::to_string(number)));
    return;
  }
  Json stepStates = Json::array();
  for (const StepRecord& s : steps) {
    auto found = reviews.find(s.position);
    stepStates.push_back(
        {{"step", s.position + 1},
         {"status", stepState(s, found == reviews.end() ? std::nullopt
                                                        : std::optional<bool>(found->second))}});
  }
  for (const BaselineStep& m : stopped.missing) {
    auto found = reviews.find(m.position);
    std::string state = found == reviews.end() ? "missing"
                        : found->second        ? "accepted"
                                               : "rejected";
    stepStates.push_back({{"step", m.position + 1}, {"status", state}});
  }
  Json reply{{"id", id},
             {"status", outcome.status},
             {"state", stateToken(stepStatesOf(steps, stopped, reviews))},
             {"decision", decision}};
  if (!all) {
    for (const Json& s : stepStates) {
      if (s["step"] == number) reply["step"] = s;
    }
  }
  reply["steps"] = std::move(stepStates);
  replyJson(res, 200, reply);
}

// GET of a review address.
void ReviewRoutes::reviewNeedsPost(const Request&, Response& res) {
  res.set_header("Allow", "POST");
  throw RequestError(405, "use POST");
}

std::vector<std::pair<std::string, std::string>> ReviewRoutes::baselineIdentity(
    const std::string& key) {
  static const char* const kLabels[] = {"Application", "Test",          "OS",
                                        "Hosting app", "Display width", "Display height",
                                        "Environment", "Branch"};
  std::vector<std::pair<std::string, std::string>> identity;
  std::optional<Json> parts = json::parse(key);
  if (!parts || !parts->is_array()) return identity;
  for (std::size_t i = 0; i < parts->size() && i < std::size(kLabels); ++i) {
    const Json& part = (*parts)[i];
    identity.emplace_back(kLabels[i], part.is_string() ? part.get<std::string>()
                                                       : formatNumber(json::doubleValue(part)));
  }
  return identity;
}

std::int64_t ReviewRoutes::baselineIdFrom(const std::string& text) {
  try {
    std::size_t used = 0;
    const std::int64_t id = std::stoll(text, &used);
    if (used == text.size() && id > 0) return id;
  } catch (const std::exception&) {
  }
  throw RequestError(404, "unknown baseline");
}

Json ReviewRoutes::historyJson(const BaselineHistory& h) {
  Json versions = Json::array();
  for (const BaselineVersion& v : h.versions) {
    Json entry{{"version", v.version},
               {"createdAt", isoTime(v.createdAt)},
               {"kind", v.kind},
               {"steps", v.steps}};
    if (v.sessionId) entry["sessionId"] = *v.sessionId;
    if (v.fromVersion) entry["fromVersion"] = *v.fromVersion;
    versions.push_back(std::move(entry));
  }
  return Json{
      {"id", h.id}, {"currentVersion", h.currentVersion}, {"versions", std::move(versions)}};
}

// GET /api/baselines/{id} and /app/baselines/{id}
void ReviewRoutes::baselineApi(const Request& req, Response& res) {
  baselineResults(req, res, true);
}

void ReviewRoutes::baselinePage(const Request& req, Response& res) {
  baselineResults(req, res, false);
}

void ReviewRoutes::baselineResults(const Request& req, Response& res, bool api) {
  access.requireReader(req);
  std::optional<BaselineHistory> history = store->baselineHistory(baselineIdFrom(req.matches[1]));
  if (!history) throw RequestError(404, "unknown baseline");
  if (api) {
    replyJson(res, 200, historyJson(*history));
    return;
  }
  Logins::Login login = access.pageLogin(req, res);
  replyHtml(res, 200, renderBaselinePage({*history, baselineIdentity(history->key), login.csrf}));
}

// POST /api/baselines/{id}/rollback?version=N (API key) and
// POST /app/baselines/{id}/versions/{n}/rollback (page form)
void ReviewRoutes::rollbackApi(const Request& req, Response& res) {
  access.requireApiKey(req);
  rollback(req, res, baselineIdFrom(req.matches[1]), req.get_param_value("version"), true);
}

void ReviewRoutes::rollbackForm(const Request& req, Response& res) {
  const std::int64_t id = baselineIdFrom(req.matches[1]);
  access.requireReviewForm(req, "/app/baselines/" + std::to_string(id));
  rollback(req, res, id, req.matches[2], accepts(req, "application/json"));
}

void ReviewRoutes::rollback(const Request&, Response& res, std::int64_t id,
                            const std::string& versionText, bool replyWithJson) {
  std::int64_t version = 0;
  try {
    std::size_t used = 0;
    version = std::stoll(versionText, &used);
    if (used != versionText.size()) throw RequestError(400, "version must be a number");
  } catch (const std::logic_error&) {
    throw RequestError(400, "version must be a number");
  }
  std::int64_t made = 0;
  try {
    made = store->rollBack(id, version);
  } catch (const UnknownVersionError& e) {
    throw RequestError(e.removed() ? 410 : 404, e.what());
  }
  Logger::logWithFormat("baseline %li rolled back to version %li as version %li", id, version,
                        made);
  if (!replyWithJson) {
    redirect(res, "/app/baselines/" + std::to_string(id));
    return;
  }
  std::optional<BaselineHistory> history = store->baselineHistory(id);
  replyJson(res, 200, history ? historyJson(*history) : Json{{"id", id}});
}

}  // namespace saffra::server
