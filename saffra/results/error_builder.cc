#include "saffra/results/error_builder.h"

#include "saffra/platform/format.h"
#include "saffra/service/session_start_info.h"
#include "saffra/service/test_results.h"

namespace saffra {

namespace {

// The message of each error type; both argument forms share it.
std::string message(std::int64_t errorType, const OptString& scenario, const OptString& app,
                    const OptString& url) {
  switch (errorType) {
    case ErrorTypeDiffsFound:
      return format("Test %@ of %@ detected differences! See details at: %@", scenario, app, url);
    case ErrorTypeTestFailed:
      return format("%@ of %@. See details at %@", scenario, app, url);
    case ErrorTypeNewTest:
      return format("%@ of %@. Please approve the new baseline at %@", scenario, app, url);
    default:
      return "";
  }
}

OptString urlOf(const std::shared_ptr<TestResults>& results) {
  return results ? results->url() : std::nullopt;
}

}  // namespace

Error ErrorBuilder::errorWithDescription(const OptString& description) {
  return Error{kDomain, kCode, description.value_or("")};
}

Error ErrorBuilder::errorWithTestResults(const std::shared_ptr<TestResults>& testResults,
                                         const OptString& scenarioIdOrName,
                                         const OptString& appIdOrName, std::int64_t errorType) {
  return errorWithDescription(
      message(errorType, scenarioIdOrName, appIdOrName, urlOf(testResults)));
}

Error ErrorBuilder::errorWithTestResults(const std::shared_ptr<TestResults>& testResults,
                                         const std::shared_ptr<SessionStartInfo>& sessionStartInfo,
                                         std::int64_t errorType) {
  return errorWithDescription(
      message(errorType, sessionStartInfo ? sessionStartInfo->testName() : std::nullopt,
              sessionStartInfo ? sessionStartInfo->appName() : std::nullopt, urlOf(testResults)));
}

}  // namespace saffra
