#include "server/webhook_events.h"

#include "server/json_fields.h"
#include "server/replies.h"

namespace saffra::server {

namespace {

std::int64_t countAt(const Json& document, const char* key) {
  const Json* value = json::find(document, key);
  return value && value->is_number_integer() ? value->get<std::int64_t>() : 0;
}

}  // namespace

Links WebhookEvents::linksFor(const http::Request* req) const {
  if (req) return server::linksFor(*req, listenHost_, boundPort_.load());
  return Links("http://" + listenHost_ + ":" + std::to_string(boundPort_.load()));
}

void WebhookEvents::sessionEnded(const SessionRecord& session, const Json& document,
                                 bool byIdleTimeout) {
  if (!enabled() || !session.outcome) return;
  const Outcome& outcome = *session.outcome;
  const Json* url = json::find(objectAt(document, "appUrls"), "session");
  sender_.send(
      "session.ended",
      Json{{"session",
            {{"id", session.id},
             {"test", session.testName},
             {"app", session.appName},
             {"branch", session.branchName},
             {"batchId", session.batchId},
             {"status", outcome.status},
             {"endedBy", byIdleTimeout       ? "idle"
                         : outcome.isAborted ? "client-abort"
                                             : "client"},
             {"isAborted", outcome.isAborted},
             {"isNew", session.isNew},
             {"savedAsBaseline", outcome.savedAsBaseline},
             {"steps", countAt(document, "steps")},
             {"matches", countAt(document, "matches")},
             {"mismatches", countAt(document, "mismatches")},
             {"missing", countAt(document, "missing")},
             {"url",
              url && url->is_string() ? *url : Json(linksFor(nullptr).sessionPage(session))}}}});
}

void WebhookEvents::batchClosed(const http::Request& req, const BatchRecord& batch) {
  if (!enabled()) return;
  std::int64_t passed = 0, unresolved = 0, failed = 0, running = 0, tests = 0;
  for (const SessionRecord& s : store_->sessionsInBatch(batch.id)) {
    ++tests;
    if (!s.outcome) {
      ++running;
    } else if (s.outcome->status == "Passed") {
      ++passed;
    } else if (s.outcome->status == "Unresolved") {
      ++unresolved;
    } else {
      ++failed;
    }
  }
  sender_.send("batch.closed", Json{{"batch",
                                     {{"id", batch.id},
                                      {"name", batch.name ? Json(*batch.name) : Json()},
                                      {"tests", tests},
                                      {"passed", passed},
                                      {"unresolved", unresolved},
                                      {"failed", failed},
                                      {"running", running},
                                      {"url", linksFor(&req).batchPage(batch.id)}}}});
}

void WebhookEvents::decided(const http::Request& req, std::int64_t decision,
                            const std::string& action, const std::string& scope,
                            const std::string& reviewer, std::optional<std::int64_t> step,
                            const std::optional<std::string>& batchId,
                            const std::vector<SessionRecord>& sessions) {
  if (!enabled()) return;
  const Links links = linksFor(&req);
  Json about{{"id", decision}, {"action", action}, {"scope", scope}, {"reviewer", reviewer}};
  if (step) about["step"] = *step;
  if (batchId) about["batchId"] = *batchId;
  Json list = Json::array();
  for (const SessionRecord& s : sessions) {
    list.push_back({{"id", s.id},
                    {"test", s.testName},
                    {"app", s.appName},
                    {"batchId", s.batchId},
                    {"status", s.outcome ? s.outcome->status : std::string("Running")},
                    {"url", links.sessionPage(s)}});
  }
  sender_.send("review.decided",
               Json{{"decision", std::move(about)}, {"sessions", std::move(list)}});
}

}  // namespace saffra::server
