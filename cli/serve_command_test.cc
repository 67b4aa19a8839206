// `saffra serve` as scripts use it: the built command in a child process.
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <httplib.h>

#include "saffra/platform/uuid.h"

extern char** environ;

namespace {

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";

/// A `saffra` child process with its standard output (and error) on a pipe.
class Child {
 public:
  Child(std::vector<std::string> args, std::vector<std::string> environment) {
    int fds[2];
    if (pipe(fds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    args.insert(args.begin(), kCommand);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);
    if (posix_spawn(&pid_, kCommand.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) {
      pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out_ = fds[0];
  }
  ~Child() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) close(out_);
  }

  /// The output up to the first line break, or all of it when the process ends first; gives up
  /// after 20 seconds without output so that a broken build cannot hang the test.
  std::string firstLine() {
    std::string line;
    char c;
    pollfd p{out_, POLLIN, 0};
    while (poll(&p, 1, 20000) > 0 && read(out_, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }
  /// Sends the signal and returns the exit code (-1 when it did not exit normally).
  int stop(int signal) {
    kill(pid_, signal);
    return wait();
  }
  int wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
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
