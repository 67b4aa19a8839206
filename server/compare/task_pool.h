// A few threads kept waiting for work. Splitting a few milliseconds of work over cores pays
// only when the helper starts at once; a freshly created thread may wait for a scheduler tick
// (a millisecond or more) before it first runs, a waiting one wakes in tens of microseconds.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace saffra::compare {

/// Threads that run posted work in order. Work that has not started can be withdrawn, so a
/// caller that can do the work itself never waits behind a busy pool. Work runs on another
/// processor than the thread that posted it, where the process may use another (on Linux).
class TaskPool {
 public:
  /// One piece of posted work.
  class Task {
   public:
    /// Waits for the work if it has started and returns true (rethrowing what it threw); when
    /// it has not started, withdraws it and returns false.
    bool finish();

   private:
    friend class TaskPool;
    enum class State { Queued, Running, Done, Withdrawn };
    std::function<void()> work_;
    std::mutex mutex_;
    std::condition_variable done_;
    State state_ = State::Queued;
    std::exception_ptr failure_;
    // The processor of the thread that posted the work (-1 when unknown).
    int poster_ = -1;
  };

  explicit TaskPool(std::size_t threads);
  ~TaskPool();
  TaskPool(const TaskPool&) = delete;
  TaskPool& operator=(const TaskPool&) = delete;

  /// Queues `work`. Throws std::system_error when no pool thread could be started.
  std::shared_ptr<Task> post(std::function<void()> work);

  /// The process's pool: one thread per core, at least four (a comparison's threads wait for
  /// rows while a decoding's helper works beside them) and at most eight, started on first use.
  static TaskPool& shared();

 private:
  void serve();

  std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<std::shared_ptr<Task>> queue_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace saffra::compare
