// The exceptions the library raises. Each is named after its own class, carries a fixed reason
// text and an empty user-info dictionary. TestFailedException and its kinds carry the results of
// the test that did not pass; they do not derive from SaffraException. An absent name or address
// in a reason reads "(null)".
#pragma once

#include <memory>
#include <string>

#include "saffra/platform/exception.h"
#include "saffra/platform/nullable.h"

namespace saffra {

class Region;
class SessionStartInfo;
class TestResults;

/// A general library failure.
class SaffraException : public Exception {
 public:
  /// An absent or empty reason becomes "".
  explicit SaffraException(const OptString& reason);

 protected:
  SaffraException(std::string name, std::string reason)
      : Exception(std::move(name), std::move(reason)) {}
};

/// A region that lies wholly outside an image.
class OutOfBoundsException : public SaffraException {
 public:
  /// Reason "Region [%@] is out of screenshot bounds [%@]".
  OutOfBoundsException(const std::shared_ptr<Region>& region,
                       const std::shared_ptr<Region>& bounds);
};

/// A test that did not pass, or a wait that timed out.
class TestFailedException : public Exception {
 public:
  /// Reason as given (absent becomes ""), no results.
  explicit TestFailedException(const OptString& reason);
  TestFailedException(std::shared_ptr<TestResults> testResults, const OptString& reason);
  /// Reason "'<scenario>' of '<app>'. See details at <results url>".
  TestFailedException(std::shared_ptr<TestResults> testResults, const OptString& scenarioIdOrName,
                      const OptString& appIdOrName);
  /// Reason "<testName> of <appName>. See details at <results url>".
  TestFailedException(std::shared_ptr<TestResults> testResults,
                      const std::shared_ptr<SessionStartInfo>& sessionStartInfo);

  /// The results of the test; absent when made from a reason alone.
  const std::shared_ptr<TestResults>& testResults() const { return testResults_; }

 protected:
  TestFailedException(std::string name, std::shared_ptr<TestResults> testResults,
                      const OptString& reason);

 private:
  std::shared_ptr<TestResults> testResults_;
};

/// The service found differences against the baseline.
class DiffsFoundException : public TestFailedException {
 public:
  DiffsFoundException(std::shared_ptr<TestResults> testResults, const OptString& reason)
      : TestFailedException("DiffsFoundException", std::move(testResults), reason) {}
  /// Reason "Test '<scenario>' of '<app>' detected differences! See details at: <url>".
  DiffsFoundException(std::shared_ptr<TestResults> testResults, const OptString& scenarioIdOrName,
                      const OptString& appIdOrName);
  /// Reason "Test <testName> of <appName> detected differences! See details at: <url>".
  DiffsFoundException(std::shared_ptr<TestResults> testResults,
                      const std::shared_ptr<SessionStartInfo>& sessionStartInfo);
};

/// The test had no baseline and one was created.
class NewTestException : public TestFailedException {
 public:
  NewTestException(std::shared_ptr<TestResults> testResults, const OptString& reason)
      : TestFailedException("NewTestException", std::move(testResults), reason) {}
  /// Reason "'<scenario>' of '<app>'. Please approve the new baseline at <url>".
  NewTestException(std::shared_ptr<TestResults> testResults, const OptString& scenarioIdOrName,
                   const OptString& appIdOrName);
  /// Reason "<testName> of <appName>. Please approve the new baseline at <url>".
  NewTestException(std::shared_ptr<TestResults> testResults,
                   const std::shared_ptr<SessionStartInfo>& sessionStartInfo);
};

/// The application under test is not running (kept for the vocabulary; never raised here).
class ApplicationIsNotRunningException : public TestFailedException {
 public:
  ApplicationIsNotRunningException();
};

}  // namespace saffra
