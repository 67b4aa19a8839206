#include "server/store/session_rows.h"

#include "server/json_fields.h"

namespace saffra::server::storage {

Json sessionInfoJson(const SessionRecord& s) {
  return Json{{"appName", s.appName},
              {"testName", s.testName},
              {"hostOS", s.hostOS},
              {"hostApp", s.hostApp},
              {"displaySize", {{"width", s.displayWidth}, {"height", s.displayHeight}}},
              {"baselineEnvName", s.baselineEnvName},
              {"branchName", s.branchName},
              {"defaultMatchSettings", s.defaultMatchSettings}};
}

void readSessionInfo(const Json& info, SessionRecord& s) {
  s.appName = textAt(info, "appName");
  s.testName = textAt(info, "testName");
  s.hostOS = textAt(info, "hostOS");
  s.hostApp = textAt(info, "hostApp");
  if (const Json* size = json::find(info, "displaySize")) {
    if (const Json* w = json::find(*size, "width")) s.displayWidth = json::doubleValue(*w);
    if (const Json* h = json::find(*size, "height")) s.displayHeight = json::doubleValue(*h);
  }
  s.baselineEnvName = textAt(info, "baselineEnvName");
  s.branchName = textAt(info, "branchName");
  if (const Json* settings = json::find(info, "defaultMatchSettings")) {
    s.defaultMatchSettings = *settings;
  }
}

Json outcomeJson(const Outcome& o) {
  Json missing = Json::array();
  for (std::size_t i = 0; i < o.missing.size(); ++i) {
    const BaselineStep& m = o.missing[i];
    Json entry{{"position", m.position}, {"tag", m.tag}, {"image", m.image}};
    if (i < o.baselinePositions.size()) entry["baselinePosition"] = o.baselinePositions[i];
    missing.push_back(std::move(entry));
  }
  return Json{{"status", o.status},
              {"stoppedStatus", o.stoppedStatus},
              {"isAborted", o.isAborted},
              {"isDifferent", o.isDifferent},
              {"savedAsBaseline", o.savedAsBaseline},
              {"stoppedAt", o.stoppedAt},
              {"missing", std::move(missing)}};
}

Outcome readOutcome(const Json& j) {
  Outcome o;
  o.status = textAt(j, "status");
  o.stoppedStatus = textAt(j, "stoppedStatus");
  if (o.stoppedStatus.empty()) o.stoppedStatus = o.status;
  o.isAborted = json::boolAt(j, "isAborted");
  o.isDifferent = json::boolAt(j, "isDifferent");
  o.savedAsBaseline = json::boolAt(j, "savedAsBaseline");
  if (const Json* t = json::find(j, "stoppedAt")) o.stoppedAt = json::integerValue(*t);
  if (const Json* missing = json::find(j, "missing"); missing && missing->is_array()) {
    for (const Json& m : *missing) {
      // Sessions stopped before steps were paired by tag listed missing steps at their
      // baseline position, which was also their place after the session's steps.
      const Json* position = json::find(m, "position");
      const Json* inBaseline = json::find(m, "baselinePosition");
      const std::int64_t at = position ? json::integerValue(*position) : 0;
      o.missing.push_back({at, textAt(m, "tag"), textAt(m, "image"), {}});
      o.baselinePositions.push_back(inBaseline ? json::integerValue(*inBaseline) : at);
    }
  }
  return o;
}

SessionRecord readSession(const Statement& s) {
  SessionRecord r;
  r.id = s.text(0);
  r.token = s.text(1);
  readSessionInfo(json::parse(s.text(2)).value_or(Json::object()), r);
  r.baselineKey = s.text(3);
  if (!s.isNull(4)) r.baselineId = s.integer(4);
  r.isNew = s.integer(5) != 0;
  r.startedAt = s.integer(6);
  r.batchId = s.text(7);
  if (!s.isNull(8)) r.outcome = readOutcome(json::parse(s.text(8)).value_or(Json::object()));
  if (!s.isNull(9)) r.baselineVersion = s.integer(9);
  r.baselineBranch = s.text(10);
  r.lastActiveAt = s.isNull(11) ? r.startedAt : s.integer(11);
  return r;
}

}  // namespace saffra::server::storage
