// `saffra check` as CI scripts use it: the built command in a child process, against an
// in-process service and against a `saffra serve` process, judged by exit code and output.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "saffra/images/logger.h"
#include "saffra/platform/png.h"
#include "saffra/platform/uuid.h"
#include "server/service.h"
#include "testing/child_process.h"
#include "testing/xml_document.h"

namespace saffra {
namespace {

namespace fs = std::filesystem;
using testing::ChildProcess;

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";
const std::string kJunitSchema = std::string(SAFFRA_SOURCE_DIR) + "/tests/data/junit.xsd";

// The JUnit report at `path`, parsed; the test fails unless it is well-formed and valid.
testing::XmlDocument validReport(const fs::path& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  testing::XmlDocument doc(text.str());
  EXPECT_TRUE(doc.ok()) << path << ": " << doc.parseError() << "\n" << text.str();
  auto problems = doc.validate(kJunitSchema);
  EXPECT_TRUE(problems.empty()) << ::testing::PrintToString(problems) << "\n" << text.str();
  return doc;
}

struct Outcome {
  int exitCode;
  std::string output;
};

class CheckCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fs::exists(kCommand)) GTEST_SKIP() << kCommand << " is not built";
    fs::create_directories(folder_ / "changed");
    writeImage("button.png", 40, 24, {30, 60, 200});
    writeImage("page.png", 64, 48, {240, 240, 240});
    writeImage("changed/button.png", 40, 24, {200, 30, 30});
  }
  void TearDown() override { fs::remove_all(folder_); }

  // A flat image with a darker square in its middle.
  void writeImage(const std::string& name, int w, int h, std::array<std::uint8_t, 3> colour) {
    std::vector<std::uint8_t> rgba(static_cast<std::size_t>(w * h * 4), 255);
    for (int y = h / 4; y < h * 3 / 4; ++y) {
      for (int x = w / 4; x < w * 3 / 4; ++x) {
        std::uint8_t* p = &rgba[static_cast<std::size_t>((y * w + x) * 4)];
        p[0] = colour[0], p[1] = colour[1], p[2] = colour[2];
      }
    }
    auto bytes = png::encode(rgba.data(), w, h, static_cast<std::size_t>(w * 4));
    std::ofstream(folder_ / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }
  std::string image(const std::string& name) const { return (folder_ / name).string(); }

  Outcome check(std::vector<std::string> args, std::vector<std::string> environment = {}) {
    args.insert(args.begin(), {"check", "--app", "Shop", "--test", "Cart", "--timeout", "20"});
    ChildProcess child(kCommand, args, environment);
    std::string output = child.readAll();
    return {child.wait(), output};
  }

  fs::path folder_ = fs::temp_directory_path() / ("saffra-check-test-" + newUUIDString());
};

// A service in this process, for the runs whose outcome depends on stored baselines.
class CheckCommandWithServiceTest : public CheckCommandTest {
 protected:
  void SetUp() override {
    CheckCommandTest::SetUp();
    if (IsSkipped()) return;
    server::ServiceOptions options;
    options.dataFolder = folder_ / "data";
    options.apiKeys = {"key"};
    service_ = std::make_unique<server::Service>(options);
    service_->start();
  }
  void TearDown() override {
    service_.reset();
    CheckCommandTest::TearDown();
  }
  std::vector<std::string> environment() const {
    return {"QUORVANT_API_KEY=key", "QUORVANT_SERVER_URL=" + service_->url()};
  }

  std::unique_ptr<server::Service> service_;
  LogCapture quiet_;
};

TEST_F(CheckCommandWithServiceTest, NewThenPassingThenChangedRun) {
  Outcome first = check({image("page.png"), image("button.png")}, environment());
  EXPECT_EQ(first.exitCode, 0) << first.output;
  EXPECT_NE(first.output.find("[1/2] page.png ... new"), std::string::npos) << first.output;
  EXPECT_NE(first.output.find("Status: Passed (new test, baseline saved)"), std::string::npos);

  Outcome second = check({image("page.png"), image("button.png")}, environment());
  EXPECT_EQ(second.exitCode, 0) << second.output;
  EXPECT_NE(second.output.find("[2/2] button.png ... matched"), std::string::npos) << second.output;
  EXPECT_NE(second.output.find("Steps: 2, matches: 2, mismatches: 0, missing: 0"),
            std::string::npos);

  Outcome changed = check({image("page.png"), image("changed/button.png")}, environment());
  EXPECT_EQ(changed.exitCode, 1) << changed.output;
  EXPECT_NE(changed.output.find("[2/2] button.png ... differences"), std::string::npos);
  EXPECT_NE(changed.output.find("Status: Unresolved"), std::string::npos);
  std::smatch url;
  ASSERT_TRUE(std::regex_search(changed.output, url, std::regex("Results: (http://\\S+)")))
      << changed.output;
  EXPECT_EQ(url[1].str().rfind(service_->url(), 0), 0u);

  // Ignoring the whole changed area makes the same image pass.
  Outcome ignored = check({"--ignore", "0,0,40,24", image("page.png"), image("changed/button.png")},
                          environment());
  EXPECT_EQ(ignored.exitCode, 0) << ignored.output;
}

TEST_F(CheckCommandWithServiceTest, JunitReportOfAChangedImage) {
  ASSERT_EQ(check({image("page.png"), image("button.png")}, environment()).exitCode, 0);
  const fs::path report = folder_ / "reports" / "ci" / "junit.xml";  // folders do not exist yet
  Outcome changed = check(
      {"--junit", report.string(), image("page.png"), image("changed/button.png")}, environment());
  EXPECT_EQ(changed.exitCode, 1) << changed.output;
  std::smatch url;
  ASSERT_TRUE(std::regex_search(changed.output, url, std::regex("Results: (http://\\S+)")))
      << changed.output;

  testing::XmlDocument doc = validReport(report);
  EXPECT_EQ(doc.value("//testsuite/@name"), "Shop");
  EXPECT_EQ(doc.value("//testcase/@name"), "Cart");
  EXPECT_EQ(doc.value("//testsuite/@failures"), "1");
  auto failures = doc.values("//testcase/failure/@message");
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_NE(failures[0].find("Step 2 \"button.png\""), std::string::npos) << failures[0];
  EXPECT_NE(failures[0].find(url[1].str()), std::string::npos) << failures[0];
  EXPECT_NE(doc.value("//testcase/system-out").find("Results: " + url[1].str()), std::string::npos);
}

TEST_F(CheckCommandWithServiceTest, OptionsOverrideTheEnvironment) {
  // The key from the command line wins over a wrong one in the environment.
  Outcome run = check({"--server", service_->url(), "--api-key", "key", "--match-level", "layout",
                       "--branch", "feature", "--batch", "Nightly", image("page.png")},
                      {"QUORVANT_API_KEY=wrong"});
  EXPECT_EQ(run.exitCode, 0) << run.output;
}

TEST_F(CheckCommandWithServiceTest, WrongApiKeyIsAnUnusableService) {
  Outcome run = check({"--api-key", "wrong", image("page.png")}, environment());
  EXPECT_EQ(run.exitCode, 3) << run.output;
  EXPECT_NE(run.output.find("did not start a session"), std::string::npos) << run.output;
}

TEST_F(CheckCommandTest, UsageErrorsExitWithTwo) {
  const std::vector<std::vector<std::string>> cases = {
      {"--match-level", "fuzzy", image("page.png")},
      {"--ignore", "1,2,3", image("page.png")},
      {"--timeout", "-1", image("page.png")},
      {},                                // no images
      {image("missing.png")},            // unreadable
      {(folder_ / "changed").string()},  // a folder, not a PNG
  };
  for (const auto& args : cases) {
    Outcome run = check(args, {"QUORVANT_API_KEY=key", "QUORVANT_SERVER_URL=http://127.0.0.1:1"});
    EXPECT_EQ(run.exitCode, 2) << ::testing::PrintToString(args) << "\n" << run.output;
  }
  Outcome noKey = check({image("page.png")}, {"QUORVANT_SERVER_URL=http://127.0.0.1:1"});
  EXPECT_EQ(noKey.exitCode, 2) << noKey.output;
}

TEST_F(CheckCommandTest, UnreachableServiceExitsWithThree) {
  // Connection refused: a port that was just free.
  int port = 0;
  {
    server::ServiceOptions options;
    options.dataFolder = folder_ / "gone";
    options.apiKeys = {"key"};
    server::Service gone(options);
    gone.start();
    port = gone.port();
  }
  Outcome refused = check({"--server", "http://127.0.0.1:" + std::to_string(port), "--api-key",
                           "key", image("page.png")});
  EXPECT_EQ(refused.exitCode, 3) << refused.output;
  EXPECT_NE(refused.output.find("cannot be used"), std::string::npos) << refused.output;

  // The report of an unreachable service is one test case with an error.
  const std::string server = "http://127.0.0.1:" + std::to_string(port);
  const fs::path report = folder_ / "junit.xml";
  Outcome reported = check(
      {"--junit", report.string(), "--server", server, "--api-key", "key", image("page.png")});
  EXPECT_EQ(reported.exitCode, 3) << reported.output;
  testing::XmlDocument doc = validReport(report);
  EXPECT_EQ(doc.value("//testsuite/@errors"), "1");
  EXPECT_NE(doc.value("//testcase/error/@message").find("cannot be used"), std::string::npos);
  EXPECT_TRUE(doc.values("//failure").empty());

  // A report that cannot be written has its own exit code.
  Outcome unwritable = check({"--junit", (folder_ / "page.png" / "junit.xml").string(), "--server",
                              server, "--api-key", "key", image("page.png")});
  EXPECT_EQ(unwritable.exitCode, 4) << unwritable.output;
  EXPECT_NE(unwritable.output.find("--junit: cannot write"), std::string::npos)
      << unwritable.output;
}

TEST_F(CheckCommandTest, SilentServiceExitsWithThreeAfterTheTimeout) {
  // A socket that listens but never accepts: connections succeed, answers never come.
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(listen(listener, 8), 0);
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::string server = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));

  ChildProcess child(kCommand,
                     {"check", "--app", "Shop", "--test", "Cart", "--timeout", "1", "--server",
                      server, "--api-key", "key", image("page.png")},
                     {});
  std::string output = child.readAll();
  EXPECT_EQ(child.wait(), 3) << output;
  close(listener);
}

// The command against the service as a separate `saffra serve` process, as the demo runs it.
TEST_F(CheckCommandTest, AgainstAServeProcess) {
  ChildProcess serve(kCommand, {"serve", "--port", "0", "--data", (folder_ / "served").string()},
                     {"QUORVANT_API_KEY=served-key"});
  std::smatch m;
  std::string line = serve.readLine();
  ASSERT_TRUE(std::regex_match(line, m, std::regex("listening on (http://\\S+)"))) << line;
  std::vector<std::string> environment = {"QUORVANT_API_KEY=served-key",
                                          "QUORVANT_SERVER_URL=" + m[1].str()};
  EXPECT_EQ(check({image("button.png")}, environment).exitCode, 0);
  EXPECT_EQ(check({image("button.png")}, environment).exitCode, 0);
  EXPECT_EQ(check({image("changed/button.png")}, environment).exitCode, 1);
  EXPECT_EQ(serve.stop(SIGTERM), 0);
}

}  // namespace
}  // namespace saffra
