// The JUnit report writer: every kind of outcome gives a document that a real XML parser reads
// and that the JUnit schema accepts, with the failures CI systems show.
#include "cli/junit_report.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "saffra/platform/json.h"
#include "saffra/platform/uuid.h"
#include "saffra/service/test_results.h"
#include "testing/xml_document.h"

namespace saffra::cli {
namespace {

using saffra::testing::XmlDocument;
namespace fs = std::filesystem;

const std::string kSchema = std::string(SAFFRA_SOURCE_DIR) + "/tests/data/junit.xsd";
const std::string kUrl = "http://svc/app/sessions/7?accessToken=t";

std::shared_ptr<TestResults> resultsFrom(const std::string& reply) {
  return std::make_shared<TestResults>(*json::parse(reply));
}

// A results reply of the local service's shape with the given status, counts and steps.
std::string reply(const std::string& status, bool isNew, int mismatches, int missing,
                  const std::string& stepsInfo) {
  return R"({"apiUrls":{"session":")" + kUrl + R"("},"appUrls":{"session":")" + kUrl +
         R"("},"defaultMatchSettings":{"matchLevel":"Strict"},"isNew":)" +
         (isNew ? "true" : "false") + R"(,"matches":1,"mismatches":)" + std::to_string(mismatches) +
         R"(,"missing":)" + std::to_string(missing) + R"(,"status":")" + status +
         R"(","steps":2,"stepsInfo":[)" + stepsInfo + "]}";
}

std::string step(const std::string& name, bool different, bool baseline, bool current, int number) {
  return R"({"name":")" + name + R"(","isDifferent":)" + (different ? "true" : "false") +
         R"(,"hasBaselineImage":)" + (baseline ? "true" : "false") + R"(,"hasCurrentImage":)" +
         (current ? "true" : "false") + R"(,"appUrls":{"step":")" + kUrl + "#step-" +
         std::to_string(number) + R"("},"apiUrls":{"diffImage":"http://svc/diff.png"}})";
}

JunitRun runWith(std::shared_ptr<TestResults> results) {
  JunitRun run;
  run.appName = "Shop";
  run.testName = "Cart";
  run.results = std::move(results);
  run.startedAt = std::chrono::system_clock::from_time_t(1709647629);  // 2024-03-05 14:07:09 UTC
  run.seconds = 1.25;
  run.hostname = "ci-7";
  return run;
}

// Parses the report and checks it against the schema; failures name the report.
XmlDocument parsedValid(const std::string& xml) {
  XmlDocument doc(xml);
  EXPECT_TRUE(doc.ok()) << doc.parseError() << "\n" << xml;
  auto problems = doc.validate(kSchema);
  EXPECT_TRUE(problems.empty()) << ::testing::PrintToString(problems) << "\n" << xml;
  return doc;
}

TEST(JunitReportTest, OutcomesGiveTheirFailuresAndCounts) {
  struct Case {
    const char* what;
    std::string reply;         // empty: no results (the service could not be reached)
    std::string failureTypes;  // of the <failure> elements, space-separated
    std::string outNote;       // a line expected in <system-out>
  };
  const std::string ok = step("a.png", false, true, true, 1);
  const std::string added = step("a.png", false, false, true, 1);
  const std::string threeKinds = step("a.png", true, true, true, 1) + "," +
                                 step("b.png", true, false, true, 2) + "," +
                                 step("c.png", true, true, false, 3);
  const std::vector<Case> cases = {
      {"passed", reply("Passed", false, 0, 0, ok), "", "Status: Passed"},
      {"new test saved", reply("Passed", true, 0, 0, added), "",
       "New test: its images were saved as the baseline."},
      {"new test awaiting approval is not a failure", reply("Unresolved", true, 0, 0, added), "",
       "New test: its baseline awaits approval."},
      {"mismatch, new step and missing step", reply("Unresolved", false, 2, 1, threeKinds),
       "Mismatch NewStep MissingStep", "Steps: 2, matches: 1, mismatches: 2, missing: 1"},
      {"differences without step details", reply("Unresolved", false, 1, 0, ""), "Mismatch",
       "Status: Unresolved"},
      {"failed without differences", reply("Failed", false, 0, 0, ok), "TestFailed",
       "Status: Failed"},
      {"new test with --fail-on-new", reply("Unresolved", true, 0, 0, added), "NewTest",
       "New test: its baseline awaits approval."},
      {"no results", "", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    JunitRun run = runWith(c.reply.empty() ? nullptr : resultsFrom(c.reply));
    run.failOnNew = std::string(c.what).find("--fail-on-new") != std::string::npos;
    run.error = "the service at http://127.0.0.1:1 cannot be used: Connection refused";
    const std::string xml = junitReport(run);
    XmlDocument doc = parsedValid(xml);

    std::string types;
    for (const auto& type : doc.values("/testsuites/testsuite/testcase/failure/@type")) {
      types += (types.empty() ? "" : " ") + type;
    }
    EXPECT_EQ(types, c.failureTypes);
    const std::string failed = c.failureTypes.empty() ? "0" : "1";
    const std::string errors = c.reply.empty() ? "1" : "0";
    for (const std::string element : {"/testsuites", "/testsuites/testsuite"}) {
      EXPECT_EQ(doc.value(element + "/@tests"), "1");
      EXPECT_EQ(doc.value(element + "/@failures"), failed);
      EXPECT_EQ(doc.value(element + "/@errors"), errors);
      EXPECT_EQ(doc.value(element + "/@time"), "1.250");
    }
    EXPECT_EQ(doc.value("//testcase/@name"), "Cart");
    EXPECT_EQ(doc.value("//testcase/@classname"), "Shop");
    EXPECT_EQ(doc.value("//testsuite/@timestamp"), "2024-03-05T14:07:09Z");
    if (c.reply.empty()) {
      EXPECT_EQ(doc.value("//testcase/error/@message"), run.error);
      EXPECT_EQ(doc.value("//testcase/error/@type"), "ServiceUnavailable");
      EXPECT_TRUE(doc.values("//system-out").empty());
    } else {
      const std::string out = doc.value("//testcase/system-out");
      EXPECT_NE(out.find(c.outNote), std::string::npos) << out;
      EXPECT_NE(out.find("Results: " + kUrl), std::string::npos) << out;
    }
  }
}

TEST(JunitReportTest, FailuresNameStepTagLevelAndAddresses) {
  auto results = resultsFrom(reply("Unresolved", false, 1, 1,
                                   step("ok.png", false, true, true, 1) + "," +
                                       step("b.png", true, true, true, 2) + "," +
                                       step("c.png", true, true, false, 3)));
  XmlDocument doc = parsedValid(junitReport(runWith(results)));
  auto messages = doc.values("//failure/@message");
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0],
            "Step 2 \"b.png\" differs from the baseline (match level Strict): " + kUrl);
  EXPECT_EQ(messages[1], "Step 3 \"c.png\" of the baseline was not checked in this run: " + kUrl);
  const std::string body = doc.values("//failure")[0];
  EXPECT_NE(body.find("Results: " + kUrl + "\n"), std::string::npos) << body;
  EXPECT_NE(body.find("Step: " + kUrl + "#step-2\n"), std::string::npos) << body;
  EXPECT_NE(body.find("Difference image: http://svc/diff.png\n"), std::string::npos) << body;

  // Without a level from the service, the level the run asked for is named.
  auto bare = resultsFrom(R"({"status":"Unresolved","stepsInfo":[)" +
                          step("b.png", true, true, true, 1) + "]}");
  JunitRun run = runWith(bare);
  run.matchLevel = "layout";
  EXPECT_NE(junitReport(run).find("(match level layout)"), std::string::npos);
}

TEST(JunitReportTest, HostileTextStaysWellFormedAndRoundTrips) {
  const std::string nasty = "a\"b'c<d>e&f]]>g";
  const std::string utf8 = "Kasse \xC3\xBC \xE6\x97\xA5 \xF0\x9F\x98\x80";  // ü, 日, emoji
  JunitRun run = runWith(resultsFrom(
      R"({"status":"Unresolved","stepsInfo":[{"name":"tag \u0001\u001b\u0000 \"<&>'\t\r\nx","isDifferent":true,"hasBaselineImage":true,"hasCurrentImage":true}]})"));
  run.appName = nasty;
  run.testName = utf8 + " \xFF\xC3 \xED\xA0\x80 \xC0\xAF \xEF\xBF\xBF end";  // malformed UTF-8
  run.hostname = "host\x7f\x0c";
  XmlDocument doc = parsedValid(junitReport(run));

  EXPECT_EQ(doc.value("//testsuite/@name"), nasty);
  EXPECT_EQ(doc.value("//testcase/@classname"), nasty);
  const std::string fffd = "\xEF\xBF\xBD";
  EXPECT_EQ(doc.value("//testcase/@name"), utf8 + " " + fffd + fffd + " " + fffd + fffd + fffd +
                                               " " + fffd + fffd + " " + fffd + " end");
  EXPECT_EQ(doc.value("//testsuite/@hostname"), "host\x7f" + fffd);
  // Tabs, line feeds and carriage returns survive in attributes; other controls are replaced.
  EXPECT_EQ(doc.value("//failure/@message"),
            "Step 1 \"tag " + fffd + fffd + fffd + " \"<&>'\t\r\nx\" differs from the baseline");
}

TEST(JunitReportFileTest, CreatesFoldersReplacesAndReportsFailures) {
  const fs::path folder = fs::temp_directory_path() / ("saffra-junit-test-" + newUUIDString());
  const fs::path path = folder / "reports" / "nested" / "junit.xml";
  writeReportFile(path, "first");
  writeReportFile(path, "second");
  std::stringstream content;
  content << std::ifstream(path).rdbuf();
  EXPECT_EQ(content.str(), "second");

  // A parent that is a file, and a report path that is a folder: errors naming the path.
  for (const fs::path& bad : {path / "junit.xml", path.parent_path()}) {
    try {
      writeReportFile(bad, "<x/>");
      ADD_FAILURE() << "no error for " << bad;
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(bad.string()), std::string::npos) << e.what();
    }
  }
  // No temporary file is left behind, after success or failure.
  std::vector<fs::path> left(fs::directory_iterator(path.parent_path()), {});
  EXPECT_EQ(left, std::vector<fs::path>{path});
  fs::remove_all(folder);
}

}  // namespace
}  // namespace saffra::cli
