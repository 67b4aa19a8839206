#include "server/compare/task_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#if defined(__linux__)
#include <sched.h>
#endif

namespace saffra::compare {
namespace {

// Every piece of work is done exactly once: by the pool, or by the caller when it withdrew it.
// What the work threw reaches the caller.
TEST(TaskPoolTest, EachTaskRunsOnceAndHandsBackWhatItThrew) {
  TaskPool pool(2);
  std::atomic<int> sum{0};
  std::vector<std::shared_ptr<TaskPool::Task>> tasks;
  for (int i = 1; i <= 200; ++i) tasks.push_back(pool.post([&sum, i] { sum += i; }));
  for (int i = 1; i <= 200; ++i) {
    if (!tasks[i - 1]->finish()) sum += i;
  }
  EXPECT_EQ(sum, 20100);

  std::promise<void> started;
  auto failing = pool.post([&] {
    started.set_value();
    throw std::runtime_error("broken");
  });
  started.get_future().wait();
  EXPECT_THROW(failing->finish(), std::runtime_error);
}

// Work queued behind a busy pool is withdrawn rather than waited for, and never runs; a pool
// that goes away first runs what is still queued.
TEST(TaskPoolTest, QueuedWorkCanBeWithdrawn) {
  std::atomic<bool> withdrawnRan{false}, lastRan{false};
  {
    TaskPool pool(1);
    std::promise<void> started, release;
    auto blocking = pool.post([&] {
      started.set_value();
      release.get_future().wait();
    });
    started.get_future().wait();
    auto queued = pool.post([&] { withdrawnRan = true; });
    EXPECT_FALSE(queued->finish());
    pool.post([&] { lastRan = true; });
    release.set_value();
    EXPECT_TRUE(blocking->finish());
  }
  EXPECT_FALSE(withdrawnRan);
  EXPECT_TRUE(lastRan);
}

#if defined(__linux__)
// Work runs on another processor than the busy thread that posted it: a helper woken beside
// its poster shares one core with it while another sits idle. The poster goes idle between
// posts, as a service does between checks, which is when the scheduler does that.
TEST(TaskPoolTest, WorkRunsAwayFromItsBusyPoster) {
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
  if (CPU_COUNT(&allowed) < 2) GTEST_SKIP() << "a single processor";
  int pinned = 0;
  while (!CPU_ISSET(pinned, &allowed)) ++pinned;
  TaskPool pool(2);
  std::vector<int> ranOn;
  std::thread poster([&] {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(pinned, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) return;
    for (int i = 0; i < 40; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      std::atomic<int> processor{-1};
      auto task = pool.post([&] { processor = sched_getcpu(); });
      while (processor < 0) {
        // Busy, as a thread decoding beside its helper is.
      }
      task->finish();
      ranOn.push_back(processor);
    }
  });
  poster.join();
  ASSERT_EQ(ranOn.size(), 40u);
  for (int processor : ranOn) EXPECT_NE(processor, pinned);
}
#endif

}  // namespace
}  // namespace saffra::compare
