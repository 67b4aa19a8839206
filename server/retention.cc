#include "server/retention.h"

#include <algorithm>
#include <exception>

#include "saffra/base/logger.h"

namespace saffra::server {

PeriodicTask::PeriodicTask(std::chrono::milliseconds interval, std::function<void()> task,
                           bool runAtOnce)
    : interval_(interval), task_(std::move(task)), runAtOnce_(runAtOnce) {
  thread_ = std::thread([this] { run(); });
}

PeriodicTask::~PeriodicTask() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void PeriodicTask::run() {
  std::unique_lock lock(mutex_);
  bool first = true;
  for (;;) {
    if (!(first && runAtOnce_)) {
      if (wake_.wait_for(lock, interval_, [&] { return stopping_; })) return;
    }
    first = false;
    if (stopping_) return;
    lock.unlock();
    try {
      task_();
    } catch (const std::exception& e) {
      Logger::logWithFormat("background task failed: %@", std::string(e.what()));
    }
    lock.lock();
  }
}

namespace {

// Runs one small piece of retention's work, then rests nine times as long as it took (at least
// a few milliseconds), so that retention holds the store (and a processor) for at most a tenth
// of the time and checks made meanwhile keep their pace; the round takes longer, which nobody
// waits for.
template <class Work>
auto paced(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  auto result = work();
  const auto spent = std::chrono::steady_clock::now() - start;
  std::this_thread::sleep_for(
      std::max<std::chrono::steady_clock::duration>(9 * spent, std::chrono::milliseconds(5)));
  return result;
}

}  // namespace

RetentionReport runRetention(Store& store, const RetentionPolicy& policy, std::int64_t now,
                             const std::function<bool()>& stopping) {
  RetentionReport report;
  constexpr std::int64_t kDay = 24 * 60 * 60;
  if (policy.keepDays > 0) {
    const std::int64_t before = now - policy.keepDays * kDay;
    // Ten sessions per transaction: a check waits for one such piece at most.
    for (std::int64_t removed = 1; removed > 0 && !stopping();) {
      removed = paced([&] { return store.removeSessions(before, 10); });
      report.sessions += removed;
    }
  }
  if (policy.keepDays > 0 || policy.keepVersions > 0) {
    const std::int64_t before = policy.keepDays > 0 ? now - policy.keepDays * kDay : 0;
    for (std::int64_t removed = 1; removed > 0 && !stopping();) {
      removed = paced([&] { return store.removeVersions(before, policy.keepVersions); });
      report.versions += removed;
    }
  }
  if (policy.keepDays > 0 || policy.keepVersions > 0) {
    // Every round, since files freed by an earlier round may have been within their grace.
    static constexpr char kHex[] = "0123456789abcdef";
    const std::int64_t before = now - policy.imageGrace.count();
    for (int i = 0; i < 256 && !stopping(); ++i) {
      report.images += paced([&] {
        return store.removeUnusedImages({kHex[i >> 4], kHex[i & 15]}, before);
      });
    }
  }
  if (report.sessions > 0 || report.versions > 0 || report.images > 0) {
    Logger::logWithFormat("retention removed %li sessions, %li baseline versions, %li images",
                          report.sessions, report.versions, report.images);
  }
  return report;
}

}  // namespace saffra::server
