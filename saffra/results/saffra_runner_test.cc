#include "saffra/results/saffra_runner.h"

#include <gtest/gtest.h>

#include "saffra/images/logger.h"
#include "saffra/results/exceptions.h"
#include "saffra/results/session_results.h"
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

TEST(TestResultsSummaryTest, CountsByStatusAndSumsSteps) {
  auto list = std::make_shared<TestResultsSummary::ResultList>(TestResultsSummary::ResultList{
      results("Passed", false, 3), results("Failed", false, 1, 2),
      results("Unresolved", false, 0, 1, 4), results("Whatever", false, 2)});
  TestResultsSummary summary(list);
  EXPECT_EQ(summary.size(), 4u);
  EXPECT_EQ(summary.passed(), 1u);
  EXPECT_EQ(summary.failed(), 1u);
  EXPECT_EQ(summary.unresolved(), 2u);
  EXPECT_EQ(summary.matches(), 6u);
  EXPECT_EQ(summary.mismatches(), 3u);
  EXPECT_EQ(summary.missing(), 4u);
  EXPECT_EQ(summary.allResults(), list);  // the very list, not a copy
}

TEST(TestResultsSummaryTest, DescriptionLayout) {
  SaffraRunner empty;
  EXPECT_EQ(empty.allTestResults()->description(),
            "result summary {\n\tall results=\n\t\t\n\t\t\n\tpassed=0\n\tunresolved=0"
            "\n\tfailed=0\n\tmismatches=0\n\tmissing=0\n\tmatches=0\n}");

  auto one = results("Passed", false, 2);
  TestResultsSummary summary(
      std::make_shared<TestResultsSummary::ResultList>(TestResultsSummary::ResultList{one, one}));
  EXPECT_EQ(summary.description(),
            "result summary {\n\tall results=\n\t\t\n" + one->description() + "\n" +
                one->description() +
                "\n\t\t\n\tpassed=2\n\tunresolved=0\n\tfailed=0\n\tmismatches=0\n\tmissing=0"
                "\n\tmatches=4\n}");
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

TEST(SaffraRunnerTest, AbsentResultIsRejected) {
  SaffraRunner runner;
  try {
    runner.aggregateResult(nullptr);
    FAIL() << "no exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "NSInvalidArgumentException");
  }
  EXPECT_TRUE(runner.allResults()->empty());
}

TEST(SaffraRunnerTest, BatchClosersAreNeverKept) {
  SaffraRunner runner;
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
  const std::string messages[] = {
      "", "Test login of shop detected differences! See details at: https://r/1",
      "login of shop. See details at https://r/1",
      "login of shop. Please approve the new baseline at https://r/1"};
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
        EXPECT_EQ(error->localizedDescription, messages[c.errorType]);
      }
    }
  }
}

}  // namespace
}  // namespace saffra
