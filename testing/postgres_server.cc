#include "testing/postgres_server.h"

#include <fcntl.h>
#include <libpq-fe.h>
#include <netinet/in.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace saffra::testing {

namespace fs = std::filesystem;

namespace {

/// The bin folder of the newest PostgreSQL installed the Debian way; empty when there is none.
fs::path findBinFolder() {
  fs::path best;
  std::error_code error;
  for (fs::directory_iterator it("/usr/lib/postgresql", error), end; !error && it != end;
       it.increment(error)) {
    const fs::path bin = it->path() / "bin";
    if (fs::exists(bin / "initdb") && fs::exists(bin / "pg_ctl") && bin > best) best = bin;
  }
  return best;
}

int freeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  int port = 0;
  if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  if (fd >= 0) ::close(fd);
  if (port == 0) throw std::runtime_error("no free loopback port for PostgreSQL");
  return port;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

PostgresServer& PostgresServer::shared() {
  // Made once; a failure to start is reported to every test that asks.
  static std::string failure;
  static std::unique_ptr<PostgresServer> server = [] {
    try {
      return std::make_unique<PostgresServer>(Durability::Fast);
    } catch (const std::exception& e) {
      failure = e.what();
      return std::unique_ptr<PostgresServer>();
    }
  }();
  if (!server) throw std::runtime_error(failure);
  return *server;
}

PostgresServer::PostgresServer(Durability durability)
    : bin_(findBinFolder()), durability_(durability) {
  if (bin_.empty()) {
    throw std::runtime_error(
        "PostgreSQL is not installed (no initdb under /usr/lib/postgresql/*/bin); run "
        "scripts/setup, which installs the postgresql package");
  }
  std::string pattern = (fs::temp_directory_path() / "saffra-pg-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot make a folder for PostgreSQL");
  folder_ = pattern;
  if (::geteuid() == 0) {
    const passwd* user = ::getpwnam("postgres");
    if (!user || ::chown(folder_.c_str(), user->pw_uid, user->pw_gid) != 0) {
      fs::remove_all(folder_);
      throw std::runtime_error(
          "the tests run as root and there is no \"postgres\" user to run PostgreSQL as");
    }
  }
  try {
    startWatchdog();
    std::ofstream(folder_ / "password") << password() << "\n";
    fs::permissions(folder_ / "password",
                    fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    runProgram("initdb -D " + (folder_ / "data").string() +
                   " -U saffra -E UTF8 --locale=C --no-sync --auth-local=trust "
                   "--auth-host=scram-sha-256 --pwfile=" +
                   (folder_ / "password").string(),
               "initdb.log");
    port_ = freeLoopbackPort();
    start();
  } catch (...) {
    stopWatchdog();
    fs::remove_all(folder_);
    throw;
  }
}

PostgresServer::~PostgresServer() {
  stopWatchdog();
}

void PostgresServer::stopWatchdog() {
  if (watchdog_ < 0) return;
  ::close(watchdogPipe_);
  int status = 0;
  while (::waitpid(watchdog_, &status, 0) < 0 && errno == EINTR) {
  }
  watchdog_ = -1;
}

void PostgresServer::startWatchdog() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe for PostgreSQL");
  // The shell reads its standard input, the pipe, until every writer is gone; only this
  // process holds the write end (close-on-exec keeps it out of every child).
  std::string stop =
      (bin_ / "pg_ctl").string() + " -D " + (folder_ / "data").string() + " -m immediate -w stop";
  if (::geteuid() == 0) stop = "runuser -u postgres -- " + stop;
  const std::string script =
      "cat > /dev/null; " + stop + " > /dev/null 2>&1; rm -rf '" + folder_.string() + "'";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[0], STDIN_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  // Nothing else of this process (its sockets, other children's pipes) stays open in it.
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  // Its own process group, so that a signal to the test's group (a time-out) spares it.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  const char* argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
  const int failed = ::posix_spawn(&watchdog_, "/bin/sh", &actions, &attributes,
                                   const_cast<char* const*>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(fds[0]);
  if (failed != 0) {
    ::close(fds[1]);
    watchdog_ = -1;
    throw std::runtime_error("cannot start the process that stops PostgreSQL");
  }
  watchdogPipe_ = fds[1];
}

std::string PostgresServer::serverOptions() const {
  std::string options = "-k " + folder_.string() + " -p " + std::to_string(port_) +
                        " -c listen_addresses=127.0.0.1 -c max_connections=200";
  if (durability_ == Durability::Fast) {
    options += " -c fsync=off -c full_page_writes=off -c synchronous_commit=off";
  }
  return options;
}

void PostgresServer::runProgram(const std::string& arguments, const std::string& log) const {
  const fs::path logPath = folder_ / log;
  std::string command = (bin_ / arguments).string() + " > " + logPath.string() + " 2>&1";
  if (::geteuid() == 0) command = "runuser -u postgres -- " + command;
  if (std::system(command.c_str()) != 0) {
    std::string why = readFile(logPath) + readFile(folder_ / "server.log");
    throw std::runtime_error("PostgreSQL's " + arguments.substr(0, arguments.find(' ')) +
                             " failed: " + why);
  }
}

void PostgresServer::stop() {
  runProgram("pg_ctl -D " + (folder_ / "data").string() + " -m fast -w stop", "stop.log");
}

void PostgresServer::start() {
  runProgram("pg_ctl -D " + (folder_ / "data").string() + " -l " +
                 (folder_ / "server.log").string() + " -w -t 60 -o \"" + serverOptions() +
                 "\" start",
             "pg_ctl.log");
}

std::string PostgresServer::createDatabase() {
  const std::string name = "t" + std::to_string(++databases_);
  run("postgresql:///postgres?host=" + folder_.string() + "&port=" + std::to_string(port_) +
          "&user=saffra",
      "CREATE DATABASE " + name);
  return "postgresql:///" + name + "?host=" + folder_.string() + "&port=" + std::to_string(port_) +
         "&user=saffra";
}

std::string PostgresServer::tcpAddress(const std::string& database,
                                       const std::string& password) const {
  return "postgresql://saffra:" + password + "@127.0.0.1:" + std::to_string(port_) + "/" + database;
}

void PostgresServer::run(const std::string& address, const std::string& sql) {
  PGconn* conn = PQconnectdb(address.c_str());
  std::string failure;
  if (PQstatus(conn) != CONNECTION_OK) {
    failure = PQerrorMessage(conn);
  } else {
    PGresult* result = PQexec(conn, sql.c_str());
    const ExecStatusType status = PQresultStatus(result);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
      failure = PQresultErrorMessage(result);
    }
    PQclear(result);
  }
  PQfinish(conn);
  if (!failure.empty()) throw std::runtime_error("PostgreSQL: " + failure);
}

}  // namespace saffra::testing
