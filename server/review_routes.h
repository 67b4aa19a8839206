// Reviews of stopped sessions (accepting, accepting as an alternative, rejecting) from the
// pages and the API, and the baselines' pages and rollbacks.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "saffra/platform/json.h"
#include "server/http/request.h"
#include "server/request_access.h"
#include "server/session_locks.h"
#include "server/store.h"
#include "server/webhook_events.h"

namespace saffra::server {

/// The handlers that change baselines: reviews and rollbacks, and the baselines' history.
class ReviewRoutes {
 public:
  ReviewRoutes(Store* store, RequestAccess& access, SessionLocks& locks, WebhookEvents& events)
      : store(store), access(access), locks(locks), events(events) {}

  // POST /app/sessions/{id}/steps/{n}/{accept|alternative|reject} and
  // POST /app/sessions/{id}/accept, from the pages.
  void review(const http::Request& req, http::Response& res);

  // POST /api/sessions/{id}/steps/{n}/{accept|alternative|reject} and
  // POST /api/sessions/{id}/accept, with the API key.
  void reviewApi(const http::Request& req, http::Response& res);

  // GET of a review address.
  void reviewNeedsPost(const http::Request&, http::Response& res);

  // GET /api/baselines/{id} and /app/baselines/{id}
  void baselineApi(const http::Request& req, http::Response& res);

  void baselinePage(const http::Request& req, http::Response& res);

  // POST /api/baselines/{id}/rollback?version=N (API key) and
  // POST /app/baselines/{id}/versions/{n}/rollback (page form)
  void rollbackApi(const http::Request& req, http::Response& res);

  void rollbackForm(const http::Request& req, http::Response& res);

 private:
  void reviewSession(const http::Request& req, http::Response& res, const std::string& id,
                     bool confirmed, bool replyWithJson);

  /// The identity of a baseline as its key holds it, for its page.
  static std::vector<std::pair<std::string, std::string>> baselineIdentity(const std::string& key);

  static std::int64_t baselineIdFrom(const std::string& text);

  static Json historyJson(const BaselineHistory& h);

  void baselineResults(const http::Request& req, http::Response& res, bool api);

  void rollback(const http::Request&, http::Response& res, std::int64_t id,
                const std::string& versionText, bool replyWithJson);

  Store* store;
  RequestAccess& access;
  SessionLocks& locks;
  WebhookEvents& events;
};

}  // namespace saffra::server
