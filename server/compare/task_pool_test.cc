#include "server/compare/task_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>

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

}  // namespace
}  // namespace saffra::compare
