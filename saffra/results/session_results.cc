#include "saffra/results/session_results.h"

#include "saffra/base/logger.h"
#include "saffra/results/error_builder.h"
#include "saffra/results/exceptions.h"
#include "saffra/service/test_results.h"

namespace saffra {

void logSessionResults(const std::shared_ptr<TestResults>& results, bool throwException,
                       ErrorSlot error) {
  if (!results) return;
  const OptString& url = results->url();
  const OptString& name = results->name();
  const OptString& appName = results->appName();
  switch (results->status()) {
    case TestResultsStatusUnresolved:
      if (results->isNew()) {
        Logger::logWithFormat("--- New test ended. Please approve the new baseline at %@", url);
        writeError(error,
                   ErrorBuilder::errorWithTestResults(results, name, appName, ErrorTypeNewTest));
        if (throwException) throw NewTestException(results, name, appName);
      } else {
        Logger::logWithFormat("--- Failed test ended. See details at %@", url);
        writeError(error,
                   ErrorBuilder::errorWithTestResults(results, name, appName, ErrorTypeDiffsFound));
        if (throwException) throw DiffsFoundException(results, name, appName);
      }
      break;
    case TestResultsStatusFailed:
      Logger::logWithFormat("--- Failed test ended. See details at %@", url);
      writeError(error,
                 ErrorBuilder::errorWithTestResults(results, name, appName, ErrorTypeTestFailed));
      if (throwException) throw TestFailedException(results, name, appName);
      break;
    default:
      Logger::logWithFormat("--- Test passed. See details at %@", url);
      break;
  }
}

}  // namespace saffra
