#include "server/compare/task_pool.h"

#include <algorithm>
#include <system_error>

#if defined(__linux__)
#include <sched.h>
#endif

namespace saffra::compare {

namespace {

// The processor the calling thread runs on, or -1 where that cannot be told.
int currentProcessor() {
#if defined(__linux__)
  return sched_getcpu();
#else
  return -1;
#endif
}

// Runs `work` on another processor than `avoid` where the thread may run elsewhere. A thread
// woken by a busy one is often placed on the waker's processor while another one sits idle
// (the scheduler expects the waker to sleep soon), and the two then share one core for
// milliseconds; moving off it at once wakes the idle processor instead.
template <class Work>
void runAwayFrom(int avoid, Work&& work) {
#if defined(__linux__)
  cpu_set_t allowed;
  if (avoid >= 0 && avoid < CPU_SETSIZE && currentProcessor() == avoid &&
      sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) > 1 &&
      CPU_ISSET(avoid, &allowed)) {
    cpu_set_t elsewhere = allowed;
    CPU_CLR(avoid, &elsewhere);
    if (sched_setaffinity(0, sizeof elsewhere, &elsewhere) == 0) {
      struct Restore {
        const cpu_set_t& allowed;
        ~Restore() { sched_setaffinity(0, sizeof allowed, &allowed); }
      } restore{allowed};
      work();
      return;
    }
  }
#else
  (void)avoid;
#endif
  work();
}

}  // namespace

bool TaskPool::Task::finish() {
  std::unique_lock lock(mutex_);
  if (state_ == State::Queued) {
    state_ = State::Withdrawn;
    return false;
  }
  done_.wait(lock, [&] { return state_ == State::Done; });
  if (failure_) std::rethrow_exception(failure_);
  return true;
}

TaskPool::TaskPool(std::size_t threads) {
  for (std::size_t i = 0; i < threads; ++i) {
    try {
      threads_.emplace_back([this] { serve(); });
    } catch (const std::system_error&) {
      break;  // fewer threads; post refuses when there are none
    }
  }
}

TaskPool::~TaskPool() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  posted_.notify_all();
  for (std::thread& t : threads_) t.join();
}

std::shared_ptr<TaskPool::Task> TaskPool::post(std::function<void()> work) {
  if (threads_.empty()) {
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                            "no pool thread");
  }
  auto task = std::make_shared<Task>();
  task->work_ = std::move(work);
  task->poster_ = currentProcessor();
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(task);
  }
  posted_.notify_one();
  return task;
}

void TaskPool::serve() {
  for (;;) {
    std::shared_ptr<Task> task;
    {
      std::unique_lock lock(mutex_);
      posted_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;  // stopping, nothing left
      task = std::move(queue_.front());
      queue_.pop_front();
    }
    {
      std::lock_guard lock(task->mutex_);
      if (task->state_ == Task::State::Withdrawn) continue;
      task->state_ = Task::State::Running;
    }
    try {
      runAwayFrom(task->poster_, task->work_);
    } catch (...) {
      task->failure_ = std::current_exception();
    }
    {
      std::lock_guard lock(task->mutex_);
      task->state_ = Task::State::Done;
      task->work_ = nullptr;
    }
    task->done_.notify_all();
  }
}

TaskPool& TaskPool::shared() {
  static TaskPool pool(std::clamp<std::size_t>(std::thread::hardware_concurrency(), 4, 8));
  return pool;
}

}  // namespace saffra::compare
