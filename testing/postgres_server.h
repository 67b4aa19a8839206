// A PostgreSQL server of a test binary's own: Debian's initdb and pg_ctl run in a temporary
// folder (as the unprivileged "postgres" user when the tests run as root, since PostgreSQL
// refuses root), listening on a Unix socket in that folder and on a free loopback port. It is
// stopped and removed when the binary ends, whether its tests passed or not.
#pragma once

#include <filesystem>
#include <string>

namespace saffra::testing {

class PostgresServer {
 public:
  /// The server of this test binary, started on first use. Throws std::runtime_error saying
  /// why when PostgreSQL is not installed or does not start.
  static PostgresServer& shared();

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
  PostgresServer();
  /// Runs a PostgreSQL program of the installed version as the server's user; its output
  /// goes to `log` in the folder. Throws std::runtime_error when it fails.
  void runProgram(const std::string& arguments, const std::string& log) const;
  std::string serverOptions() const;

  std::filesystem::path folder_;
  std::filesystem::path bin_;
  int port_ = 0;
  int databases_ = 0;
};

}  // namespace saffra::testing
