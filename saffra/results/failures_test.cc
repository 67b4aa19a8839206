#include <gtest/gtest.h>

#include <functional>

#include "saffra/images/region.h"
#include "saffra/results/error_builder.h"
#include "saffra/results/exceptions.h"
#include "saffra/service/session_start_info.h"
#include "saffra/service/test_results.h"

namespace saffra {
namespace {

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
    std::function<Exception()> make;
    const char* name;
    std::string reason;
    std::shared_ptr<TestResults> results;
  };
  const Case cases[] = {
      {[&] { return TestFailedException(results, "login", "shop"); }, "TestFailedException",
       "'login' of 'shop'. See details at U", results},
      {[&] { return TestFailedException(results, info); }, "TestFailedException",
       "login of shop. See details at U", results},
      {[&] { return DiffsFoundException(results, "login", "shop"); }, "DiffsFoundException",
       "Test 'login' of 'shop' detected differences! See details at: U", results},
      {[&] { return DiffsFoundException(results, info); }, "DiffsFoundException",
       "Test login of shop detected differences! See details at: U", results},
      {[&] { return NewTestException(results, "login", "shop"); }, "NewTestException",
       "'login' of 'shop'. Please approve the new baseline at U", results},
      {[&] { return NewTestException(results, info); }, "NewTestException",
       "login of shop. Please approve the new baseline at U", results},
      // Missing pieces of a message read "(null)".
      {[&] { return DiffsFoundException(nullptr, std::nullopt, "shop"); }, "DiffsFoundException",
       "Test '(null)' of 'shop' detected differences! See details at: (null)", nullptr},
      {[&] {
         return NewTestException(std::make_shared<TestResults>(),
                                 std::shared_ptr<SessionStartInfo>());
       },
       "NewTestException", "(null) of (null). Please approve the new baseline at (null)", nullptr},
      {[&] { return TestFailedException("--- Time-out exception"); }, "TestFailedException",
       "--- Time-out exception", nullptr},
      {[&] { return DiffsFoundException(results, OptString("own reason")); }, "DiffsFoundException",
       "own reason", results},
      {[&] { return SaffraException(""); }, "SaffraException", "", nullptr},
      {[&] { return SaffraException(std::nullopt); }, "SaffraException", "", nullptr},
      {[&] { return SaffraException("A test is already running"); }, "SaffraException",
       "A test is already running", nullptr},
      {[&] {
         return OutOfBoundsException(std::make_shared<Region>(150, 10, 10, 10),
                                     std::make_shared<Region>(0, 0, 100, 200));
       },
       "OutOfBoundsException",
       "Region [{{150, 10}, {10, 10}}] is out of screenshot bounds [{{0, 0}, {100, 200}}]",
       nullptr},
  };
  for (const auto& c : cases) {
    Exception e = c.make();
    EXPECT_EQ(e.name(), c.name) << c.reason;
    EXPECT_EQ(e.reason(), c.reason);
    EXPECT_STREQ(e.what(), c.reason.c_str());
    EXPECT_TRUE(e.userInfo().empty());
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
