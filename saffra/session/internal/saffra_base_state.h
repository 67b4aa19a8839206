// The part of a session object that completion handlers write. It lives in its own shared record
// so that handlers can hold it weakly and find it gone once the session object is destroyed, and
// its fields are locked because an abort's handler writes them while nobody waits for it.
// (Internal header, not installed for users' own code to include.)
#pragma once

#include <memory>
#include <mutex>

#include "saffra/session/saffra_base.h"

namespace saffra {

struct SaffraBase::State {
  mutable std::mutex mutex;
  std::shared_ptr<RunningSession> runningSession;
  std::shared_ptr<TestResults> testResult;
  std::shared_ptr<SaffraScreenshot> lastScreenshot;
  std::shared_ptr<MatchResult> matchResult;
  bool shouldMatchWindowRunOnceOnTimeout = false;

  /// A result that is not as expected turns the run-once flag on and, unless the session is
  /// new, logs the mismatch.
  void validateResult(const std::shared_ptr<MatchResult>& result, const OptString& tag);
};

}  // namespace saffra
