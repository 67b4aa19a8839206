#include "testing/postgres_server.h"

#include <libpq-fe.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

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
      return std::unique_ptr<PostgresServer>(new PostgresServer());
    } catch (const std::exception& e) {
      failure = e.what();
      return std::unique_ptr<PostgresServer>();
    }
  }();
  if (!server) throw std::runtime_error(failure);
  return *server;
}

PostgresServer::PostgresServer() : bin_(findBinFolder()) {
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
    fs::remove_all(folder_);
    throw;
  }
}

PostgresServer::~PostgresServer() {
  try {
    runProgram("pg_ctl -D " + (folder_ / "data").string() + " -m immediate -w stop", "stop.log");
  } catch (...) {
  }
  std::error_code error;
  fs::remove_all(folder_, error);
}

std::string PostgresServer::serverOptions() const {
  return "-k " + folder_.string() + " -p " + std::to_string(port_) +
         " -c listen_addresses=127.0.0.1 -c fsync=off -c full_page_writes=off "
         "-c synchronous_commit=off -c max_connections=200";
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
