// A PostgreSQL server of a test binary's own: Debian's initdb and pg_ctl run in a temporary
// folder (as the unprivileged "postgres" user when the tests run as root, since PostgreSQL
// refuses root), listening on a Unix socket in that folder and on a free loopback port. It is
// stopped and removed when the binary ends, whether its tests passed or not: a watchdog process
// does that even when the binary is killed or crashes.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace saffra::testing {

class PostgresServer {
 public:
  /// How the server treats its disk. Fast skips fsync and waits for no flush at commit, which
  /// suits tests; Durable is PostgreSQL's own default, which benchmarks compare with.
  enum class Durability { Fast, Durable };

  /// The server of this test binary, started on first use (Fast). Throws std::runtime_error
  /// saying why when PostgreSQL is not installed or does not start.
  static PostgresServer& shared();

  /// A server of the caller's own; throws as shared() does.
  explicit PostgresServer(Durability durability);

  ~PostgresServer();
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  /// A new empty database (CREATE DATABASE); its address, over the Unix socket.
  std::string createDatabase();
  /// The address of a database over the loopback port, logging in with `password` (the
  /// right one is password()).
  std::string tcpAddress(const std::string& database, const std::string& password) const;
  static std::string password() { return "saffra-test-password"; }
  int port() const { return port_; }
  /// Runs `sql` in the database of `address`, for tests that set a database up by hand.
  static void run(const std::string& address, const std::string& sql);
  /// Stops the server (its connections are dropped), and starts it again on the same port.
  void stop();
  void start();

 private:
  /// Starts the process that stops the server and removes its folder once this process's end
  /// of a pipe closes: in the destructor, or by the kernel when this process dies any way.
  void startWatchdog();
  /// Closes the pipe and waits until the watchdog has stopped the server and removed the folder.
  void stopWatchdog();
  /// Runs a PostgreSQL program of the installed version as the server's user; its output
  /// goes to `log` in the folder. Throws std::runtime_error when it fails.
  void runProgram(const std::string& arguments, const std::string& log) const;
  std::string serverOptions() const;

  std::filesystem::path folder_;
  std::filesystem::path bin_;
  Durability durability_;
  int port_ = 0;
  int databases_ = 0;
  int watchdogPipe_ = -1;
  pid_t watchdog_ = -1;
};

}  // namespace saffra::testing
