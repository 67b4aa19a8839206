#include "testing/tinyproxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace saffra::testing {
namespace {

using namespace std::chrono_literals;

int freeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

bool accepts(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

bool Tinyproxy::available() {
  return ::access(kBinary, X_OK) == 0;
}

Tinyproxy::Tinyproxy(std::optional<std::string> username, std::optional<std::string> password)
    : username_(std::move(username)), password_(std::move(password)) {
  if (!available()) throw std::runtime_error(std::string(kBinary) + " is not installed");
  std::string pattern =
      (std::filesystem::temp_directory_path() / "saffra-tinyproxy-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("tinyproxy: no temporary folder");
  directory_ = pattern;
  // Another process may take the port between probing and binding; try a few.
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (start()) return;
  }
  std::string output = log();
  std::filesystem::remove_all(directory_);
  throw std::runtime_error("tinyproxy did not start: " + output);
}

Tinyproxy::~Tinyproxy() {
  stop();
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

bool Tinyproxy::start() {
  port_ = freeLoopbackPort();
  if (port_ == 0) return false;
  std::string config = directory_ + "/tinyproxy.conf";
  {
    std::ofstream out(config);
    out << "Port " << port_ << "\n"
        << "Listen 127.0.0.1\n"
        << "Timeout 30\n"
        << "MaxClients 50\n"
        << "Allow 127.0.0.1\n"
        << "LogLevel Connect\n"
        << "LogFile \"" << directory_ << "/tinyproxy.log\"\n";
    if (username_) out << "BasicAuth " << *username_ << " " << password_.value_or("") << "\n";
  }
  std::string output = directory_ + "/output.txt";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  std::string binary = kBinary;
  std::string foreground = "-d";
  std::string configFlag = "-c";
  char* argv[] = {binary.data(), foreground.data(), configFlag.data(), config.data(), nullptr};
  int rc = posix_spawn(&pid_, kBinary, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    pid_ = -1;
    return false;
  }
  auto deadline = std::chrono::steady_clock::now() + 5s;
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;  // it exited, most likely because the port was taken
      return false;
    }
    if (accepts(port_)) return true;
    std::this_thread::sleep_for(10ms);
  }
  stop();
  return false;
}

void Tinyproxy::stop() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  auto deadline = std::chrono::steady_clock::now() + 3s;
  int status = 0;
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(10ms);
  }
  pid_ = -1;
}

ProxyConfig Tinyproxy::config() const {
  ProxyConfig proxy;
  proxy.host = "127.0.0.1";
  proxy.port = port_;
  proxy.username = username_;
  proxy.password = password_;
  return proxy;
}

std::string Tinyproxy::log() const {
  std::string text;
  for (const char* name : {"/output.txt", "/tinyproxy.log"}) {
    std::ifstream in(directory_ + name);
    text.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return text;
}

}  // namespace saffra::testing
