// Housekeeping of the service's data folder in the background: a thread that runs a task at a
// fixed interval until stopped, and the retention rule that removes old sessions, baseline
// versions and the image files nothing refers to any more. Retention works in small
// transactions, so checks made meanwhile wait for at most one of them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

#include "server/store.h"

namespace saffra::server {

/// Runs `task` on a thread of its own, first after `interval` (or at once), then every
/// `interval`, until destroyed. A task that throws is logged and run again next time.
class PeriodicTask {
 public:
  PeriodicTask(std::chrono::milliseconds interval, std::function<void()> task, bool runAtOnce);
  ~PeriodicTask();
  PeriodicTask(const PeriodicTask&) = delete;
  PeriodicTask& operator=(const PeriodicTask&) = delete;

 private:
  void run();

  std::chrono::milliseconds interval_;
  std::function<void()> task_;
  bool runAtOnce_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

/// What retention keeps. A zero keeps everything of that kind.
struct RetentionPolicy {
  /// Stopped sessions and baseline versions older than this many days are removed.
  std::int64_t keepDays = 0;
  /// Only the newest this many versions of each baseline are kept.
  std::int64_t keepVersions = 0;
  /// Image files used this recently are kept even when nothing refers to them yet (a check
  /// may be about to refer to one).
  std::chrono::seconds imageGrace{3600};
};

/// One round of retention at time `now` (seconds since the epoch). The current version of a
/// baseline, versions a remaining session was compared with, and running sessions are never
/// removed; image files are removed only when no step or version refers to them.
/// `stopping` is asked between small pieces of work and ends the round early when true.
RetentionReport runRetention(
    Store& store, const RetentionPolicy& policy, std::int64_t now,
    const std::function<bool()>& stopping = [] { return false; });

}  // namespace saffra::server
