// Decisions at the scale of a batch, and their undo: a batch-wide accept (its confirmation,
// the page's form and the API) and the undo of a reviewer's last decision.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/http/request.h"
#include "server/request_access.h"
#include "server/session_locks.h"
#include "server/store.h"
#include "server/web_pages.h"
#include "server/webhook_events.h"

namespace saffra::server {

/// The handlers of batch-wide accepts and of undo. A decision holds the locks of all the
/// sessions it changes, so no review of one of them runs meanwhile.
class DecisionRoutes {
 public:
  DecisionRoutes(Store* store, RequestAccess& access, SessionLocks& locks, WebhookEvents& events)
      : store(store), access(access), locks(locks), events(events) {}

  // GET /app/batches/{id}?accept=1: what a batch-wide accept would do, and its button.
  void batchAcceptPage(const http::Request& req, http::Response& res);
  // POST /app/batches/{id}/accept (page form: csrf, state, confirm) and
  // POST /api/batches/{id}/accept?confirm=..&state=.. (API key): accepts every changed, new or
  // missing step without a verdict in every stopped, not aborted session of the batch, as one
  // decision in one transaction.
  void batchAcceptForm(const http::Request& req, http::Response& res);
  void batchAcceptApi(const http::Request& req, http::Response& res);
  // POST /app/undo (page form: csrf, decision, next) and POST /api/undo?decision=N (API key):
  // undoes the reviewer's last decision. `decision` is the one the page offered to undo, so an
  // undo sent twice undoes once.
  void undoForm(const http::Request& req, http::Response& res);
  void undoApi(const http::Request& req, http::Response& res);

 private:
  /// What a batch-wide accept would do: for every stopped session of the batch that was not
  /// aborted and did not pass, its changed, new and missing steps without a verdict, accepted.
  struct BatchPlan {
    std::vector<SessionDecision> decisions;
    /// The sessions accepted, with their names and the number of steps.
    std::vector<std::pair<SessionRecord, std::int64_t>> tests;
    std::int64_t steps = 0;
    std::int64_t leftOut = 0;  // running and aborted sessions
    std::string state;         // changes when any session or step of the batch does
  };
  BatchPlan planBatchAccept(const std::vector<SessionRecord>& sessions);
  std::vector<std::unique_lock<std::mutex>> lockSessions(
      const std::vector<SessionRecord>& sessions);
  void batchAcceptConfirmation(http::Response& res, const BatchRecord& batch,
                               const std::string& csrf);
  static BatchAcceptView batchAcceptView(const BatchRecord& batch, const BatchPlan& plan,
                                         const std::string& csrf,
                                         const std::vector<StaleSession>& stale);
  void acceptBatch(const http::Request& req, http::Response& res, const std::string& id,
                   bool confirmed, const std::string& shownState, bool replyWithJson);
  void undo(const http::Request& req, http::Response& res, const std::string& reviewer,
            const std::string& decisionText, bool replyWithJson, const std::string& next);

  Store* store;
  RequestAccess& access;
  SessionLocks& locks;
  WebhookEvents& events;
};

}  // namespace saffra::server
