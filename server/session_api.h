// The protocol of a test run: start a session, match a window, stop it, close a batch; and the
// abort of sessions whose client went away.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "server/http/request.h"
#include "server/request_access.h"
#include "server/service.h"
#include "server/session_locks.h"
#include "server/store.h"
#include "server/upload_pipeline.h"
#include "server/webhook_events.h"

namespace saffra::server {

/// The REST protocol's session handlers.
class SessionApi {
 public:
  /// `boundPort` and `startedAt` are the service's, set when it starts.
  SessionApi(const ServiceOptions& options, Store* store, RequestAccess& access,
             SessionLocks& locks, UploadPipeline& uploads, WebhookEvents& events,
             const std::atomic<int>& boundPort, const std::atomic<std::int64_t>& startedAt)
      : options(options),
        store(store),
        access(access),
        locks(locks),
        uploads(uploads),
        events(events),
        boundPort(boundPort),
        startedAt(startedAt) {}

  // POST /api/sessions/running
  void startSession(const http::Request& req, http::Response& res);

  // POST /api/sessions/running/{id}
  void matchWindow(const http::Request& req, http::Response& res);

  /// Aborts the running sessions whose client has sent nothing for the idle time; sessions of
  /// an earlier run of the service count from its start.
  void abortIdleSessions();

  // DELETE /api/sessions/running/{id}?aborted=..&updateBaseline=..
  void stopSession(const http::Request& req, http::Response& res);

  // DELETE /api/sessions/batches/{id}/close/bypointerid
  void closeBatch(const http::Request& req, http::Response& res);

  /// The match-window requests handled so far, failed ones included, and their time.
  HandlerTime matchWindowTime() const {
    return {matchRequests.load(), std::chrono::nanoseconds(matchNanoseconds.load())};
  }

 private:
  /// Judges and records the end of a running session (under its lock). A save that would undo
  /// what was accepted into the baseline since the session started is not made: the session is
  /// then left for review. Nothing, recording nothing, when the session was stopped meanwhile
  /// through another service sharing the store.
  std::optional<Outcome> finish(const SessionRecord& session, bool aborted, bool save);

  static std::string stoppedMessage(const Outcome& outcome);

  /// Adds the time from its creation to its end to a request counter.
  class HandlerTimer {
   public:
    HandlerTimer(std::atomic<std::uint64_t>& requests, std::atomic<std::int64_t>& nanoseconds)
        : requests_(requests), nanoseconds_(nanoseconds) {}
    ~HandlerTimer() {
      const auto spent = std::chrono::steady_clock::now() - start_;
      nanoseconds_ += std::chrono::duration_cast<std::chrono::nanoseconds>(spent).count();
      ++requests_;
    }
    HandlerTimer(const HandlerTimer&) = delete;
    HandlerTimer& operator=(const HandlerTimer&) = delete;

   private:
    std::atomic<std::uint64_t>& requests_;
    std::atomic<std::int64_t>& nanoseconds_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  };

  const ServiceOptions& options;
  Store* store;
  RequestAccess& access;
  SessionLocks& locks;
  UploadPipeline& uploads;
  WebhookEvents& events;
  const std::atomic<int>& boundPort;
  /// When this run of the service started (seconds since the epoch).
  const std::atomic<std::int64_t>& startedAt;
  /// Match-window requests handled and the nanoseconds spent in their handler.
  std::atomic<std::uint64_t> matchRequests{0};
  std::atomic<std::int64_t> matchNanoseconds{0};
};

}  // namespace saffra::server
