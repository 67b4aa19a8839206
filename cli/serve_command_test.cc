// `saffra serve` as scripts use it: the built command in a child process.
#include <signal.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <httplib.h>

#include "saffra/platform/uuid.h"
#include "testing/child_process.h"

namespace {

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";

/// A `saffra` child process with its standard output (and error) on a pipe.
class Child : public saffra::testing::ChildProcess {
 public:
  Child(std::vector<std::string> args, std::vector<std::string> environment)
      : ChildProcess(kCommand, std::move(args), std::move(environment)) {}
  std::string firstLine() { return readLine(); }
};

class ServeCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kCommand)) GTEST_SKIP() << kCommand << " is not built";
    std::filesystem::create_directories(data_);
  }
  void TearDown() override { std::filesystem::remove_all(data_); }

  std::filesystem::path data_ =
      std::filesystem::temp_directory_path() / ("saffra-serve-test-" + saffra::newUUIDString());
};

TEST_F(ServeCommandTest, PrintsItsAddressServesAndStopsOnSigterm) {
  Child serve({"serve", "--port", "0", "--data", data_.string(), "--api-key", "k1"},
              {"QUORVANT_API_KEY=k2"});
  std::smatch m;
  std::string line = serve.firstLine();
  ASSERT_TRUE(std::regex_match(line, m, std::regex("listening on http://127\\.0\\.0\\.1:(\\d+)")))
      << line;
  httplib::Client client("127.0.0.1", std::stoi(m[1]));
  std::string body = R"({"startInfo": {"appIdOrName": "a", "scenarioIdOrName": "t"}})";
  for (const char* key : {"k1", "k2"}) {
    auto reply = client.Post((std::string("/api/sessions/running?apiKey=") + key).c_str(), body,
                             "application/json");
    ASSERT_TRUE(reply) << key;
    EXPECT_EQ(reply->status, 201) << key;
  }
  EXPECT_EQ(client.Post("/api/sessions/running?apiKey=k3", body, "application/json")->status, 401);
  EXPECT_EQ(serve.stop(SIGTERM), 0);
  EXPECT_TRUE(std::filesystem::exists(data_ / "saffra.db"));
}

TEST_F(ServeCommandTest, RefusesToRunWithoutAnApiKey) {
  Child serve({"serve", "--port", "0", "--data", data_.string()}, {});
  EXPECT_NE(serve.firstLine().find("no API key"), std::string::npos);
  EXPECT_EQ(serve.wait(), 2);
}

}  // namespace
