// `saffra serve` as scripts use it: the built command in a child process.
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <httplib.h>

#include "saffra/platform/uuid.h"
#include "testing/child_process.h"

namespace {

namespace fs = std::filesystem;
using saffra::testing::ChildProcess;

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";

// Keys from the settings file and from the environment are both accepted, others refused; the
// command line overrides the file; SIGTERM stops the service cleanly with its data saved.
// Without any key, or with settings out of range or a bad settings file, it refuses to start.
TEST(ServeCommandTest, ServesWithItsKeysAndRefusesToRunWithoutOne) {
  const fs::path data =
      fs::temp_directory_path() / ("saffra-serve-test-" + saffra::newUUIDString());
  fs::create_directories(data);
  const fs::path settings = data / "saffra.conf";
  std::ofstream(settings) << "# test\nport = 1\ndata = " << data.string() << "\napi-key = k1\n";
  {
    ChildProcess serve(kCommand, {"serve", "--config", settings.string(), "--port", "0"},
                       {"QUORVANT_API_KEY=k2"});
    std::smatch m;
    std::string line = serve.readLine();
    ASSERT_TRUE(std::regex_match(line, m, std::regex("listening on http://127\\.0\\.0\\.1:(\\d+)")))
        << line;
    httplib::Client client("127.0.0.1", std::stoi(m[1]));
    std::string body = R"({"startInfo": {"appIdOrName": "a", "scenarioIdOrName": "t"}})";
    for (const auto& [key, status] : {std::pair{"k1", 201}, {"k2", 201}, {"k3", 401}}) {
      auto reply = client.Post((std::string("/api/sessions/running?apiKey=") + key).c_str(), body,
                               "application/json");
      ASSERT_TRUE(reply) << key;
      EXPECT_EQ(reply->status, status) << key;
    }
    EXPECT_EQ(serve.stop(SIGTERM), 0);
    EXPECT_TRUE(fs::exists(data / "saffra.db"));
  }
  ChildProcess keyless(kCommand, {"serve", "--port", "0", "--data", data.string()}, {});
  EXPECT_NE(keyless.readLine().find("no API key"), std::string::npos);
  EXPECT_EQ(keyless.wait(), 2);

  // Idle time and retention settings out of range are usage errors, before anything starts.
  for (const auto& [option, value] : {std::pair{"--idle-timeout", "-1"},
                                      {"--idle-timeout", "soon"},
                                      {"--keep-days", "-3"},
                                      {"--keep-versions", "1.5"}}) {
    ChildProcess refused(kCommand, {"serve", "--port", "0", "--data", data.string(), option, value},
                         {"QUORVANT_API_KEY=k"});
    const std::string output = refused.readAll();
    EXPECT_EQ(refused.wait(), 2) << option << " " << value << ": " << output;
    EXPECT_NE(output.find(option), std::string::npos) << output;
  }
  std::ofstream(settings, std::ios::app) << "keep-days = -3\n";
  ChildProcess misconfigured(kCommand, {"serve", "--config", settings.string()}, {});
  const std::string output = misconfigured.readAll();
  EXPECT_EQ(misconfigured.wait(), 2) << output;
  EXPECT_NE(output.find(settings.string() + ":5: bad value for \"keep-days\""), std::string::npos)
      << output;
  fs::remove_all(data);
}

}  // namespace
