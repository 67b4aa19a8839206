// A JUnit XML report of one `saffra check` run, as CI systems read test reports: one suite
// named after the application, holding one test case named after the test. Building the text is
// pure (results in, text out); writing it to disk is a separate step.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "saffra/platform/nullable.h"
#include "saffra/service/test_results.h"

namespace saffra {
class TestResults;
}

namespace saffra::cli {

/// What the report tells about one run.
struct JunitRun {
  std::string appName;
  std::string testName;
  /// The test's results; absent when the run ended without any (then `error` says why).
  std::shared_ptr<TestResults> results;
  /// Why there are no results, e.g. the service could not be reached.
  std::string error;
  /// The `type` of the error element: what kind of problem stopped the run.
  std::string errorType = "ServiceUnavailable";
  /// The match level the checks asked for; the report prefers the level the service reports.
  OptString matchLevel;
  /// The run was asked to fail a new test: a new test is then a failure, not a passing case.
  bool failOnNew = false;
  std::chrono::system_clock::time_point startedAt;
  double seconds = 0;
  std::string hostname;
};

/// The report as a UTF-8 XML document.
///
/// Each step that differs from the baseline, each baseline step the run did not reach and each
/// step without a baseline in an existing test is one `<failure>`. A run with no results is one
/// `<error>`. A new test is a passing case (a `<failure type="NewTest">` when the run was asked
/// to fail on new tests): its `<system-out>` says whether its images were saved as the baseline
/// or await approval.
std::string junitReport(const JunitRun& run);

/// `text` made safe as an XML attribute value or, with `forAttribute` false, as character data:
/// the five markup characters become entities, characters XML 1.0 forbids (control characters
/// other than tab, line feed and carriage return; U+FFFE, U+FFFF) and malformed UTF-8 become
/// U+FFFD. Carriage returns, and in attributes tabs and line feeds too, become character
/// references, because parsers would otherwise normalise them away.
std::string xmlEscape(std::string_view text, bool forAttribute = true);

/// A duration in seconds as XML wants it: "1.250", three decimals, '.' as the separator
/// whatever the locale; negative or non-finite values give "0.000".
std::string xmlSeconds(double seconds);

/// "Passed", "Unresolved" or "Failed", as the report and the command print a status.
const char* statusName(TestResultsStatus status);

/// Writes `text` to `path`: creates missing parent folders, writes a temporary file in the
/// same folder and renames it over `path`, so a reader never sees a partial report. Throws
/// std::runtime_error with a message naming the path and the cause.
void writeReportFile(const std::filesystem::path& path, std::string_view text);

}  // namespace saffra::cli
