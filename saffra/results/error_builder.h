// The error values handed back beside results to callers that asked not to throw: domain
// "com.quorvant.saffra", code 1 and a message.
#pragma once

#include <cstdint>
#include <memory>

#include "saffra/platform/error.h"
#include "saffra/platform/nullable.h"

namespace saffra {

class SessionStartInfo;
class TestResults;

/// The kinds of test outcome an error can describe; any other value gives an empty message.
enum ErrorType : std::int64_t {
  ErrorTypeDiffsFound = 1,
  ErrorTypeTestFailed = 2,
  ErrorTypeNewTest = 3,
};

/// Makes the library's error values.
class ErrorBuilder {
 public:
  static constexpr const char* kDomain = "com.quorvant.saffra";
  static constexpr long kCode = 1;

  /// An error with the given message (absent gives "").
  static Error errorWithDescription(const OptString& description);
  /// An error describing a test outcome with the given scenario and application names and the
  /// results' address, for example "Test login of shop detected differences! See details at: U".
  static Error errorWithTestResults(const std::shared_ptr<TestResults>& testResults,
                                    const OptString& scenarioIdOrName, const OptString& appIdOrName,
                                    std::int64_t errorType);
  /// The same with the test and application names of a start record.
  static Error errorWithTestResults(const std::shared_ptr<TestResults>& testResults,
                                    const std::shared_ptr<SessionStartInfo>& sessionStartInfo,
                                    std::int64_t errorType);
};

}  // namespace saffra
