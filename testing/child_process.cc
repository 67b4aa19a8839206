#include "testing/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <stdexcept>

namespace saffra::testing {

ChildProcess::ChildProcess(const std::string& program, std::vector<std::string> args,
                           std::vector<std::string> environment) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;  // kept out of other children
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  args.insert(args.begin(), program);
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) {
    pid_ = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  out_ = fds[0];
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_ >= 0) close(out_);
}

std::string ChildProcess::readLine(int seconds) {
  std::string line;
  char c;
  pollfd p{out_, POLLIN, 0};
  while (poll(&p, 1, seconds * 1000) > 0 && read(out_, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

std::string ChildProcess::readAll(int seconds) {
  std::string all;
  char buffer[4096];
  pollfd p{out_, POLLIN, 0};
  while (poll(&p, 1, seconds * 1000) > 0) {
    ssize_t n = read(out_, buffer, sizeof buffer);
    if (n <= 0) break;
    all.append(buffer, static_cast<std::size_t>(n));
  }
  return all;
}

int ChildProcess::stop(int signal) {
  if (pid_ > 0) kill(pid_, signal);
  return wait();
}

int ChildProcess::wait() {
  if (pid_ <= 0) return -1;
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ServeProcess startServe(const std::string& command, const std::filesystem::path& dataFolder,
                        const std::vector<std::string>& extraArguments) {
  std::vector<std::string> args{"serve", "--port", "0", "--data", dataFolder.string()};
  args.insert(args.end(), extraArguments.begin(), extraArguments.end());
  ServeProcess serve;
  serve.process = std::make_unique<ChildProcess>(command, std::move(args),
                                                 std::vector<std::string>{"QUORVANT_API_KEY=key"});
  const std::string line = serve.process->readLine();
  std::smatch address;
  if (!std::regex_match(line, address,
                        std::regex("listening on (http://127\\.0\\.0\\.1:([0-9]+))"))) {
    throw std::runtime_error("saffra serve did not start: " + line);
  }
  serve.url = address[1].str();
  serve.port = std::stoi(address[2].str());
  return serve;
}

}  // namespace saffra::testing
