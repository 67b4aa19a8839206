#include "server/results_document.h"

#include <algorithm>
#include <ctime>
#include <set>

#include "server/match_settings.h"
#include "server/web_access.h"

namespace saffra::server {

namespace {

std::string sessionPath(const SessionRecord& session) {
  return "/sessions/" + session.id;
}

}  // namespace

std::string Links::sessionPage(const SessionRecord& session) const {
  return base_ + "/app" + sessionPath(session);
}

std::string Links::batchPage(const std::string& batchId) const {
  return base_ + "/app/batches/" + percentEncode(batchId);
}

std::string Links::sessionApi(const SessionRecord& session) const {
  return base_ + "/api" + sessionPath(session);
}

std::string Links::stepPage(const SessionRecord& session, std::int64_t step) const {
  return sessionPage(session) + "#step-" + std::to_string(step);
}

std::string Links::stepImage(const SessionRecord& session, std::int64_t step,
                             std::string_view kind) const {
  return base_ + "/api" + sessionPath(session) + "/steps/" + std::to_string(step) + "/" +
         std::string(kind) + ".png";
}

Outcome decideOutcome(const std::vector<StepRecord>& steps,
                      const std::vector<BaselineStep>& baseline, bool isNew, bool aborted,
                      bool save, std::int64_t now) {
  Outcome o;
  o.isAborted = aborted;
  o.stoppedAt = now;
  o.savedAsBaseline = save && !aborted;
  std::set<std::int64_t> paired;
  std::int64_t next = 0;  // the first place after the session's steps
  for (const StepRecord& s : steps) {
    if (s.baselinePosition) paired.insert(*s.baselinePosition);
    next = std::max(next, s.position + 1);
  }
  for (const BaselineStep& b : baseline) {
    if (paired.count(b.position)) continue;
    o.missing.push_back({next++, b.tag, b.image, {}});
    o.baselinePositions.push_back(b.position);
  }
  bool mismatched = false;
  for (const StepRecord& s : steps) mismatched = mismatched || !s.asExpected;
  o.isDifferent = !isNew && (mismatched || !o.missing.empty());
  if (aborted) {
    o.status = "Failed";
  } else if (isNew) {
    o.status = o.savedAsBaseline ? "Passed" : "Unresolved";
  } else {
    o.status = o.isDifferent ? "Unresolved" : "Passed";
  }
  o.stoppedStatus = o.status;
  return o;
}

std::vector<BaselineStep> baselineAfterSave(const std::vector<StepRecord>& steps,
                                            const std::vector<BaselineStep>& baseline) {
  std::vector<BaselineStep> saved;
  for (const StepRecord& s : steps) {
    BaselineStep step{s.position, s.tag, s.currentImage, {}};
    if (s.asExpected && s.baselinePosition) {
      for (const BaselineStep& b : baseline) {
        if (b.position == *s.baselinePosition) {
          step.image = b.image;
          step.alternatives = b.alternatives;
        }
      }
    }
    saved.push_back(std::move(step));
  }
  return saved;
}

std::string stepState(const StepRecord& step, std::optional<bool> accepted) {
  if (accepted) return *accepted ? "accepted" : "rejected";
  if (!step.baselineImage) return "new";
  return step.asExpected ? "matched" : "mismatched";
}

std::string reviewedStatus(const Outcome& outcome, const std::vector<StepRecord>& steps,
                           const std::map<std::int64_t, bool>& reviews) {
  bool anyAccepted = false;
  for (const auto& [position, accepted] : reviews) {
    if (!accepted) return "Failed";
    anyAccepted = true;
  }
  auto accepted = [&](std::int64_t position) {
    auto found = reviews.find(position);
    return found != reviews.end() && found->second;
  };
  bool allAccepted = anyAccepted;
  for (const StepRecord& s : steps) {
    bool blocking = !s.asExpected || !s.baselineImage;
    if (blocking && !accepted(s.position)) allAccepted = false;
  }
  for (const BaselineStep& m : outcome.missing) {
    if (!accepted(m.position)) allAccepted = false;
  }
  return allAccepted ? "Passed" : outcome.stoppedStatus;
}

std::string isoTime(std::int64_t secondsSinceEpoch) {
  std::time_t t = static_cast<std::time_t>(secondsSinceEpoch);
  std::tm utc{};
  gmtime_r(&t, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

Json resultsDocument(const SessionRecord& session, const OptString& batchName,
                     const std::vector<StepRecord>& steps, const Links& links) {
  Outcome outcome = session.outcome.value_or(Outcome{});
  std::int64_t matches = 0, mismatches = 0;
  std::int64_t exact = 0, strict = 0, content = 0, layout = 0, none = 0;
  Json stepsInfo = Json::array();
  std::optional<bool> accessibilityPassed;
  std::string accessibilityLevel;

  for (const StepRecord& s : steps) {
    std::int64_t number = s.position + 1;
    if (s.asExpected && !s.baselineImage) {
      // A new step: nothing was compared.
    } else if (s.asExpected) {
      ++matches;
      switch (matchLevelFromName(s.matchLevel)) {
        case MatchLevel::Exact:
          ++exact;
          break;
        case MatchLevel::Strict:
          ++strict;
          break;
        case MatchLevel::Content:
          ++content;
          break;
        case MatchLevel::Layout:
          ++layout;
          break;
        case MatchLevel::None:
          ++none;
          break;
      }
    } else {
      ++mismatches;
    }
    if (s.accessibilityPassed) {
      if (!accessibilityPassed) accessibilityLevel = s.accessibilityLevel;
      accessibilityPassed = accessibilityPassed.value_or(true) && *s.accessibilityPassed;
    }
    Json apiUrls = Json::object();
    if (s.baselineImage) apiUrls["baselineImage"] = links.stepImage(session, number, "baseline");
    apiUrls["currentImage"] = links.stepImage(session, number, "current");
    if (s.diffImage) apiUrls["diffImage"] = links.stepImage(session, number, "diff");
    stepsInfo.push_back({{"name", s.tag},
                         {"isDifferent", !s.asExpected},
                         {"hasBaselineImage", s.baselineImage.has_value()},
                         {"hasCurrentImage", true},
                         {"appUrls", {{"step", links.stepPage(session, number)}}},
                         {"apiUrls", std::move(apiUrls)}});
    if (s.matchedAlternative) stepsInfo.back()["matchedAlternative"] = true;
  }
  for (const BaselineStep& m : outcome.missing) {
    std::int64_t number = m.position + 1;
    stepsInfo.push_back(
        {{"name", m.tag},
         {"isDifferent", true},
         {"hasBaselineImage", true},
         {"hasCurrentImage", false},
         {"appUrls", {{"step", links.stepPage(session, number)}}},
         {"apiUrls", {{"baselineImage", links.stepImage(session, number, "baseline")}}}});
  }

  Json document = Json::object();
  if (accessibilityPassed) {
    document["accessibilityStatus"] = {{"status", *accessibilityPassed ? "Passed" : "Failed"},
                                       {"level", accessibilityLevel},
                                       {"version", "WCAG_2_0"}};
  }
  document["apiUrls"] = {{"session", links.sessionApi(session)}};
  document["appName"] = session.appName;
  document["appUrls"] = {{"session", links.sessionPage(session)}};
  if (session.baselineVersion) document["baselineVersion"] = *session.baselineVersion;
  if (session.baselineId) {
    document["baselineBranchName"] = session.baselineBranch;
    document["baselineId"] = *session.baselineId;
  }
  document["batchId"] = session.batchId;
  if (batchName) document["batchName"] = *batchName;
  document["branchName"] = session.branchName;
  document["contentMatches"] = content;
  document["defaultMatchSettings"] =
      MatchSettings::fromJson(session.defaultMatchSettings).defaultMatchSettingsJson();
  document["duration"] = std::max<std::int64_t>(outcome.stoppedAt - session.startedAt, 0);
  document["exactMatches"] = exact;
  document["hostApp"] = session.hostApp;
  document["hostDisplaySize"] = {{"width", session.displayWidth},
                                 {"height", session.displayHeight}};
  document["hostOS"] = session.hostOS;
  document["id"] = session.id;
  document["isAborted"] = outcome.isAborted;
  document["isDifferent"] = outcome.isDifferent;
  document["isNew"] = session.isNew;
  document["layoutMatches"] = layout;
  document["matches"] = matches;
  document["mismatches"] = mismatches;
  document["missing"] = static_cast<std::int64_t>(outcome.missing.size());
  document["name"] = session.testName;
  document["noneMatches"] = none;
  document["secretToken"] = session.token;
  document["startedAt"] = isoTime(session.startedAt);
  document["status"] = session.outcome ? outcome.status : std::string("Running");
  document["steps"] = static_cast<std::int64_t>(steps.size());
  document["stepsInfo"] = std::move(stepsInfo);
  document["strictMatches"] = strict;
  return document;
}

}  // namespace saffra::server
