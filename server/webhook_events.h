// The events the service tells its webhooks about, and their fields:
//
//   session.ended   {"session": {id, test, app, branch, batchId, status, endedBy ("client",
//                    "client-abort" or "idle"), isAborted, isNew, savedAsBaseline, steps,
//                    matches, mismatches, missing, url}}
//   batch.closed    {"batch": {id, name, tests, passed, unresolved, failed, running, url}}
//   review.decided  {"decision": {id, action ("accept", "alternative", "reject" or "undo"),
//                    scope ("step", "test" or "batch"), reviewer, step (step scope), batchId
//                    (batch scope)}, "sessions": [{id, test, app, batchId, status, url}]}
//
// Statuses are the sessions' statuses after the event ("Passed", "Unresolved", "Failed").
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "saffra/platform/json.h"
#include "server/http/request.h"
#include "server/results_document.h"
#include "server/store.h"
#include "server/webhook_sender.h"

namespace saffra::server {

/// Builds the events of the handlers and hands them to the sender. Every operation returns at
/// once, and does nothing (not even read the store) when no webhook is configured.
class WebhookEvents {
 public:
  /// `listenHost` and `boundPort` make the addresses of events that no request caused.
  WebhookEvents(WebhookSender& sender, Store* store, std::string listenHost,
                const std::atomic<int>& boundPort)
      : sender_(sender), store_(store), listenHost_(std::move(listenHost)), boundPort_(boundPort) {}

  bool enabled() const { return sender_.enabled(); }

  /// A session was stopped or aborted by its client (`req`, whose results document is
  /// `document`), or aborted for being idle (no request).
  void sessionEnded(const SessionRecord& session, const Json& document, bool byIdleTimeout);
  /// The client closed the batch.
  void batchClosed(const http::Request& req, const BatchRecord& batch);
  /// A reviewer's decision or undo; `sessions` hold their new statuses in their outcome.
  void decided(const http::Request& req, std::int64_t decision, const std::string& action,
               const std::string& scope, const std::string& reviewer,
               std::optional<std::int64_t> step, const std::optional<std::string>& batchId,
               const std::vector<SessionRecord>& sessions);

  /// The addresses of a request's pages (as the client reached the service), or the
  /// service's own without a request.
  Links linksFor(const http::Request* req) const;

 private:
  WebhookSender& sender_;
  Store* store_;
  std::string listenHost_;
  const std::atomic<int>& boundPort_;
};

}  // namespace saffra::server
