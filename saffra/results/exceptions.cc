#include "saffra/results/exceptions.h"

#include "saffra/config/configurable.h"
#include "saffra/images/region.h"
#include "saffra/platform/format.h"

namespace saffra {

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

ApplicationIsNotRunningException::ApplicationIsNotRunningException()
    : TestFailedException(
          "ApplicationIsNotRunningException", nullptr,
          std::string("The target application is not running. Please make sure you passed your "
                      "XCUIApplication instance to the 'testedApplication' parameter (if "
                      "necessary), and that you invoked the 'launch' method for this instance.")) {}

}  // namespace saffra
