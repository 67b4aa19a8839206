// One-shot signals and a bounded wait for them: how every asynchronous service call is made
// synchronous for the caller. A completion handler fulfils its expectation on the transport's
// thread; the caller blocks in Waiter::waitForExpectations until all are fulfilled or time runs out.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace saffra {

/// The outcome of a wait, with the platform's codes.
enum class WaiterResult : long { Completed = 1, TimedOut = 2 };

/// A one-shot signal with a description; fulfilling it more than once is harmless.
class Expectation {
 public:
  explicit Expectation(std::string description) : description_(std::move(description)) {}

  /// Marks the expectation fulfilled and wakes any waiter.
  void fulfill();
  bool isFulfilled() const;
  const std::string& description() const { return description_; }

 private:
  friend class Waiter;
  std::string description_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool fulfilled_ = false;
};

/// Blocks the caller until expectations are fulfilled.
class Waiter {
 public:
  /// Waits until every expectation is fulfilled (Completed) or `timeoutSeconds` pass (TimedOut).
  static WaiterResult waitForExpectations(const std::vector<std::shared_ptr<Expectation>>& expectations,
                                          double timeoutSeconds);
};

}  // namespace saffra
