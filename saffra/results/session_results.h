// Turning the results of a closed test into a log line, an error and, when asked, an exception.
// Sessions run it when they close; the runner runs it again for every result of a suite.
#pragma once

#include <memory>

#include "saffra/platform/error.h"

namespace saffra {

class TestResults;

/// Logs the outcome with the results' address. A new test (Unresolved and new), a test with
/// differences (Unresolved) and a failed test write an error of type 3, 1 or 2 into the slot and,
/// with `throwException`, then raise NewTestException, DiffsFoundException or
/// TestFailedException. Passed (and any other status) only logs. Absent results do nothing.
void logSessionResults(const std::shared_ptr<TestResults>& results, bool throwException,
                       ErrorSlot error);

}  // namespace saffra
