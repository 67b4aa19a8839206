// A child process for tests that run the built `saffra` command: its standard output and error
// come back on one pipe, and it is killed when the object goes away.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace saffra::testing {

/// One spawned program. Reads give up after a bound so that a broken program cannot hang a test.
class ChildProcess {
 public:
  /// Runs `program` with the arguments and exactly the given environment ("NAME=value").
  ChildProcess(const std::string& program, std::vector<std::string> args,
               std::vector<std::string> environment);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// The output up to the next line break, or the rest when the process ends first; gives up
  /// after `seconds` without output.
  std::string readLine(int seconds = 20);
  /// All output until the process closes it (or `seconds` pass without output).
  std::string readAll(int seconds = 60);
  /// Sends the signal and returns the exit code (see wait()).
  int stop(int signal);
  /// Waits for the end; the exit code, or -1 when the process did not exit normally.
  int wait();

 private:
  pid_t pid_ = -1;
  int out_ = -1;
};

/// A `saffra serve` process on a free loopback port, with the API key "key".
struct ServeProcess {
  std::unique_ptr<ChildProcess> process;
  /// "http://127.0.0.1:PORT".
  std::string url;
  int port = 0;
};

/// Starts `command serve --port 0 --data dataFolder` with the extra arguments and reads the line
/// that names its address; throws std::runtime_error with that line when it names none.
ServeProcess startServe(const std::string& command, const std::filesystem::path& dataFolder,
                        const std::vector<std::string>& extraArguments = {});

}  // namespace saffra::testing
