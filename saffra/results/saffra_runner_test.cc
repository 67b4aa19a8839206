// Test failures (exceptions and errors), the results of one session and the runner's summary.
#include "saffra/results/saffra_runner.h"

#include <gtest/gtest.h>

#include "saffra/base/logger.h"
#include "saffra/base/region.h"
#include "saffra/results/error_builder.h"
#include "saffra/results/exceptions.h"
#include "saffra/results/session_results.h"
#include "saffra/service/session_start_info.h"
#include "saffra/service/test_results.h"

namespace saffra {
namespace {

std::shared_ptr<TestResults> results(const std::string& status, bool isNew = false, int matches = 0,
                                     int mismatches = 0, int missing = 0) {
  return std::make_shared<TestResults>(Json{
      {"status", status},
      {"isNew", isNew},
      {"name", "login"},
      {"appName", "shop"},
      {"matches", matches},
      {"mismatches", mismatches},
      {"missing", missing},
      {"apiUrls", {{"session", "https://r/1"}}},
      {"appUrls", Json::object()},
  });
}

class RecordingCloser : public BatchCloserProtocol {
 public:
  void closeBatchWithId(const OptString&) override { ++calls; }
  int calls = 0;
};

TEST(TestResultsSummaryTest, CountsByStatusSumsStepsAndDescribesThem) {
  SaffraRunner empty;
  EXPECT_EQ(empty.allTestResults()->description(),
            "result summary {\n\tall results=\n\t\t\n\t\t\n\tpassed=0\n\tunresolved=0"
            "\n\tfailed=0\n\tmismatches=0\n\tmissing=0\n\tmatches=0\n}");

  auto list = std::make_shared<TestResultsSummary::ResultList>(TestResultsSummary::ResultList{
      results("Passed", false, 3), results("Failed", false, 1, 2),
      results("Unresolved", false, 0, 1, 4), results("Whatever", false, 2)});
  TestResultsSummary summary(list);
  EXPECT_EQ(summary.allResults(), list);  // the very list, not a copy
  EXPECT_EQ((std::vector<std::size_t>{summary.size(), summary.passed(), summary.unresolved(),
                                      summary.failed(), summary.mismatches(), summary.missing(),
                                      summary.matches()}),
            (std::vector<std::size_t>{4, 1, 2, 1, 3, 4, 6}));
  std::string each;
  for (const auto& r : *list) each += r->description() + "\n";
  EXPECT_EQ(summary.description(), "result summary {\n\tall results=\n\t\t\n" + each +
                                       "\t\t\n\tpassed=1\n\tunresolved=2\n\tfailed=1"
                                       "\n\tmismatches=3\n\tmissing=4\n\tmatches=6\n}");
}

TEST(SaffraRunnerTest, ThrowsForTheFirstUnsuccessfulResultOnlyWhenAsked) {
  SaffraRunner runner;
  runner.aggregateResult(results("Passed"));
  runner.aggregateResult(results("Failed"));
  runner.aggregateResult(results("Unresolved", true));
  {
    LogCapture log;
    auto summary = runner.allTestResultsShouldThrowException(false);
    EXPECT_EQ(summary->size(), 3u);
    EXPECT_EQ(summary->failed(), 1u);
    EXPECT_EQ(log.lines().size(), 3u);  // every result logged
  }
  LogCapture log;
  try {
    runner.allTestResults();
    FAIL() << "no exception";
  } catch (const TestFailedException& e) {
    EXPECT_EQ(e.name(), "TestFailedException");
    EXPECT_EQ(e.reason(), "'login' of 'shop'. See details at https://r/1");
  }
  EXPECT_EQ(log.lines().size(), 2u);           // the new test after the failure is not logged
  EXPECT_EQ(runner.allResults()->size(), 3u);  // asking does not clear
}

TEST(SaffraRunnerTest, RejectsAbsentResultsAndKeepsNoBatchClosers) {
  SaffraRunner runner;
  try {
    runner.aggregateResult(nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "NSInvalidArgumentException");
  }
  EXPECT_TRUE(runner.allResults()->empty());

  auto closer = std::make_shared<RecordingCloser>();
  runner.addBatchCloser(closer, "batch-1");
  runner.deleteAllBatches();
  runner.allTestResults();
  EXPECT_EQ(closer->calls, 0);
  EXPECT_FALSE(runner.batchesServerConnectorsMap().has_value());
}

TEST(SessionResultsTest, OutcomeTable) {
  struct Case {
    std::string status;
    bool isNew;
    std::string log;
    long errorType;  // 0: no error
    std::string exceptionName;
  };
  const Case cases[] = {
      {"Unresolved", true, "--- New test ended. Please approve the new baseline at https://r/1", 3,
       "NewTestException"},
      {"Unresolved", false, "--- Failed test ended. See details at https://r/1", 1,
       "DiffsFoundException"},
      {"Failed", false, "--- Failed test ended. See details at https://r/1", 2,
       "TestFailedException"},
      {"Failed", true, "--- Failed test ended. See details at https://r/1", 2,
       "TestFailedException"},
      {"Passed", true, "--- Test passed. See details at https://r/1", 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status + (c.isNew ? " new" : ""));
    auto r = results(c.status, c.isNew);
    for (bool shouldThrow : {false, true}) {
      LogCapture log;
      std::optional<Error> error;
      std::string thrown;
      try {
        logSessionResults(r, shouldThrow, &error);
      } catch (const TestFailedException& e) {
        thrown = e.name();
        EXPECT_EQ(e.testResults(), r);
      }
      EXPECT_TRUE(log.contains(c.log));
      EXPECT_EQ(thrown, shouldThrow ? c.exceptionName : "");
      if (c.errorType == 0) {
        EXPECT_FALSE(error.has_value());
      } else {
        ASSERT_TRUE(error.has_value());  // written before raising
        // The messages themselves are pinned in ErrorBuilderTest.
        EXPECT_EQ(error, ErrorBuilder::errorWithTestResults(r, "login", "shop", c.errorType));
      }
    }
  }
}

std::shared_ptr<TestResults> resultsWithUrl() {
  return std::make_shared<TestResults>(
      *json::parse(R"({"apiUrls":{"session":"U"},"appUrls":{},"name":"login","appName":"shop"})"));
}

std::shared_ptr<SessionStartInfo> startInfo() {
  auto info = std::make_shared<SessionStartInfo>();
  info->setTestName("login");
  info->setAppName("shop");
  return info;
}

TEST(ExceptionsTest, NamesReasonsAndResults) {
  auto results = resultsWithUrl();
  auto info = startInfo();
  struct Case {
    Exception exception;  // sliced: only the name and reason are compared
    const char* name;
    std::string reason;
  };
  const Case cases[] = {
      {TestFailedException(results, "login", "shop"), "TestFailedException",
       "'login' of 'shop'. See details at U"},
      {TestFailedException(results, info), "TestFailedException",
       "login of shop. See details at U"},
      {DiffsFoundException(results, "login", "shop"), "DiffsFoundException",
       "Test 'login' of 'shop' detected differences! See details at: U"},
      {DiffsFoundException(results, info), "DiffsFoundException",
       "Test login of shop detected differences! See details at: U"},
      {NewTestException(results, "login", "shop"), "NewTestException",
       "'login' of 'shop'. Please approve the new baseline at U"},
      {NewTestException(results, info), "NewTestException",
       "login of shop. Please approve the new baseline at U"},
      // Missing pieces of a message read "(null)".
      {DiffsFoundException(nullptr, std::nullopt, "shop"), "DiffsFoundException",
       "Test '(null)' of 'shop' detected differences! See details at: (null)"},
      {NewTestException(std::make_shared<TestResults>(), std::shared_ptr<SessionStartInfo>()),
       "NewTestException", "(null) of (null). Please approve the new baseline at (null)"},
      {TestFailedException("--- Time-out exception"), "TestFailedException",
       "--- Time-out exception"},
      {DiffsFoundException(results, OptString("own reason")), "DiffsFoundException", "own reason"},
      {SaffraException(""), "SaffraException", ""},
      {SaffraException(std::nullopt), "SaffraException", ""},
      {SaffraException("A test is already running"), "SaffraException",
       "A test is already running"},
      {OutOfBoundsException(std::make_shared<Region>(150, 10, 10, 10),
                            std::make_shared<Region>(0, 0, 100, 200)),
       "OutOfBoundsException",
       "Region [{{150, 10}, {10, 10}}] is out of screenshot bounds [{{0, 0}, {100, 200}}]"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.exception.name(), c.name) << c.reason;
    EXPECT_EQ(c.exception.reason(), c.reason);
  }
  // The results travel with the exception (checked on the objects, not sliced copies).
  EXPECT_EQ(DiffsFoundException(results, "login", "shop").testResults(), results);
  EXPECT_EQ(NewTestException(results, info).testResults(), results);
  EXPECT_EQ(TestFailedException(results, info).testResults(), results);
  EXPECT_EQ(TestFailedException("--- Time-out exception").testResults(), nullptr);
  EXPECT_EQ(results->url(), "U");  // not consumed by the constructors
}

TEST(ExceptionsTest, TreeSeparatesTestFailuresFromLibraryFailures) {
  auto results = resultsWithUrl();
  try {
    throw NewTestException(results, "login", "shop");
  } catch (const SaffraException&) {
    ADD_FAILURE() << "a test failure is not a library failure";
  } catch (const TestFailedException& e) {
    EXPECT_EQ(e.name(), "NewTestException");
    EXPECT_EQ(e.testResults(), results);
  }
  EXPECT_THROW(throw OutOfBoundsException(nullptr, nullptr), SaffraException);
  ApplicationIsNotRunningException notRunning;
  EXPECT_EQ(notRunning.name(), "ApplicationIsNotRunningException");
  EXPECT_EQ(notRunning.reason().rfind("The target application is not running.", 0), 0u);
}

TEST(ErrorBuilderTest, MessagesForEachTypeAndBothForms) {
  auto results = resultsWithUrl();
  auto info = startInfo();
  const std::pair<std::int64_t, const char*> cases[] = {
      {0, ""},
      {ErrorTypeDiffsFound, "Test login of shop detected differences! See details at: U"},
      {ErrorTypeTestFailed, "login of shop. See details at U"},
      {ErrorTypeNewTest, "login of shop. Please approve the new baseline at U"},
      {4, ""},
      {-1, ""},
  };
  for (const auto& [type, message] : cases) {
    for (const Error& error : {ErrorBuilder::errorWithTestResults(results, "login", "shop", type),
                               ErrorBuilder::errorWithTestResults(results, info, type)}) {
      EXPECT_EQ(error.domain, "com.quorvant.saffra");
      EXPECT_EQ(error.code, 1);
      EXPECT_EQ(error.localizedDescription, message) << type;
    }
  }
  EXPECT_EQ(ErrorBuilder::errorWithTestResults(nullptr, nullptr, ErrorTypeTestFailed),
            (Error{"com.quorvant.saffra", 1, "(null) of (null). See details at (null)"}));
  EXPECT_EQ(ErrorBuilder::errorWithDescription("--- Time-out"),
            (Error{"com.quorvant.saffra", 1, "--- Time-out"}));
  EXPECT_EQ(ErrorBuilder::errorWithDescription(std::nullopt).localizedDescription, "");
}

}  // namespace
}  // namespace saffra
