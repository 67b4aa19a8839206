#include "saffra/results/exceptions.h"

#include "saffra/base/configurable.h"
#include "saffra/base/region.h"
#include "saffra/platform/format.h"
#include "saffra/service/session_start_info.h"
#include "saffra/service/test_results.h"

namespace saffra {

namespace {

OptString urlOf(const std::shared_ptr<TestResults>& results) {
  return results ? results->url() : std::nullopt;
}

// Fills a reason of the form "<test> of <app> ... <url>" from a start record.
std::string startInfoReason(std::string_view fmt, const std::shared_ptr<TestResults>& results,
                            const std::shared_ptr<SessionStartInfo>& info) {
  return format(fmt, info ? info->testName() : std::nullopt, info ? info->appName() : std::nullopt,
                urlOf(results));
}

}  // namespace

SaffraException::SaffraException(const OptString& reason)
    : Exception("SaffraException", Configurable::isNotEmpty(reason) ? *reason : std::string()) {}

OutOfBoundsException::OutOfBoundsException(const std::shared_ptr<Region>& region,
                                           const std::shared_ptr<Region>& bounds)
    : SaffraException("OutOfBoundsException",
                      format("Region [%@] is out of screenshot bounds [%@]", region, bounds)) {}

TestFailedException::TestFailedException(const OptString& reason)
    : TestFailedException("TestFailedException", nullptr, reason) {}

TestFailedException::TestFailedException(std::shared_ptr<TestResults> testResults,
                                         const OptString& reason)
    : TestFailedException("TestFailedException", std::move(testResults), reason) {}

TestFailedException::TestFailedException(std::string name, std::shared_ptr<TestResults> testResults,
                                         const OptString& reason)
    : Exception(std::move(name), reason.value_or("")), testResults_(std::move(testResults)) {}

// The forms below pass the results on by copy: the reason reads them in the same call, and the
// order in which arguments are initialised is unspecified.
TestFailedException::TestFailedException(std::shared_ptr<TestResults> testResults,
                                         const OptString& scenarioIdOrName,
                                         const OptString& appIdOrName)
    : TestFailedException(testResults, format("'%@' of '%@'. See details at %@", scenarioIdOrName,
                                              appIdOrName, urlOf(testResults))) {}

TestFailedException::TestFailedException(std::shared_ptr<TestResults> testResults,
                                         const std::shared_ptr<SessionStartInfo>& sessionStartInfo)
    : TestFailedException(testResults, startInfoReason("%@ of %@. See details at %@", testResults,
                                                       sessionStartInfo)) {}

DiffsFoundException::DiffsFoundException(std::shared_ptr<TestResults> testResults,
                                         const OptString& scenarioIdOrName,
                                         const OptString& appIdOrName)
    : DiffsFoundException(testResults,
                          format("Test '%@' of '%@' detected differences! See details at: %@",
                                 scenarioIdOrName, appIdOrName, urlOf(testResults))) {}

DiffsFoundException::DiffsFoundException(std::shared_ptr<TestResults> testResults,
                                         const std::shared_ptr<SessionStartInfo>& sessionStartInfo)
    : DiffsFoundException(testResults,
                          startInfoReason("Test %@ of %@ detected differences! See details at: %@",
                                          testResults, sessionStartInfo)) {}

NewTestException::NewTestException(std::shared_ptr<TestResults> testResults,
                                   const OptString& scenarioIdOrName, const OptString& appIdOrName)
    : NewTestException(testResults, format("'%@' of '%@'. Please approve the new baseline at %@",
                                           scenarioIdOrName, appIdOrName, urlOf(testResults))) {}

NewTestException::NewTestException(std::shared_ptr<TestResults> testResults,
                                   const std::shared_ptr<SessionStartInfo>& sessionStartInfo)
    : NewTestException(testResults,
                       startInfoReason("%@ of %@. Please approve the new baseline at %@",
                                       testResults, sessionStartInfo)) {}

ApplicationIsNotRunningException::ApplicationIsNotRunningException()
    : TestFailedException(
          "ApplicationIsNotRunningException", nullptr,
          std::string("The target application is not running. Please make sure you passed your "
                      "XCUIApplication instance to the 'testedApplication' parameter (if "
                      "necessary), and that you invoked the 'launch' method for this instance.")) {}

}  // namespace saffra
