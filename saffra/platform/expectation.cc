#include "saffra/platform/expectation.h"

#include <chrono>

namespace saffra {

void Expectation::fulfill() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    fulfilled_ = true;
  }
  changed_.notify_all();
}

bool Expectation::isFulfilled() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fulfilled_;
}

WaiterResult Waiter::waitForExpectations(const std::vector<std::shared_ptr<Expectation>>& expectations,
                                         double timeoutSeconds) {
  using Clock = std::chrono::steady_clock;
  auto duration = std::chrono::duration<double>(timeoutSeconds < 0 ? 0 : timeoutSeconds);
  auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(duration);
  for (const auto& expectation : expectations) {
    if (!expectation) continue;
    std::unique_lock<std::mutex> lock(expectation->mutex_);
    if (!expectation->changed_.wait_until(lock, deadline, [&] { return expectation->fulfilled_; })) {
      return WaiterResult::TimedOut;
    }
  }
  return WaiterResult::Completed;
}

}  // namespace saffra
