// `saffra serve` as scripts use it: the built command in a child process.
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <httplib.h>

#include "saffra/platform/json.h"
#include "saffra/platform/uuid.h"
#include "server/webhook_sender.h"
#include "testing/child_process.h"
#include "testing/postgres_server.h"
#include "testing/test_server.h"

namespace {

namespace fs = std::filesystem;
using saffra::testing::ChildProcess;

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";

// Keys from the settings file and from the environment are both accepted, others refused; the
// command line overrides the file; webhooks get the secrets in the order given; SIGTERM stops
// the service cleanly with its data saved and its events delivered. Without any key, or with
// settings out of range or a bad settings file, it refuses to start.
TEST(ServeCommandTest, ServesWithItsKeysAndRefusesToRunWithoutOne) {
  const fs::path data =
      fs::temp_directory_path() / ("saffra-serve-test-" + saffra::newUUIDString());
  fs::create_directories(data);
  const fs::path settings = data / "saffra.conf";
  std::ofstream(settings) << "# test\nport = 1\ndata = " << data.string() << "\napi-key = k1\n";
  saffra::testing::TestServer receiver;
  receiver.route("POST", "/*", saffra::testing::Reply::json(204, ""));
  {
    ChildProcess serve(
        kCommand,
        {"serve", "--config", settings.string(), "--port", "0", "--webhook", receiver.url("/a"),
         "--webhook", receiver.url("/b"), "--webhook-secret", "s1", "--webhook-secret", "s2"},
        {"QUORVANT_API_KEY=k2", "SAFFRA_WEBHOOK_SECRET=overridden"});
    std::smatch m;
    std::string line = serve.readLine();
    ASSERT_TRUE(std::regex_match(line, m, std::regex("listening on http://127\\.0\\.0\\.1:(\\d+)")))
        << line;
    httplib::Client client("127.0.0.1", std::stoi(m[1]));
    std::string body = R"({"startInfo": {"appIdOrName": "a", "scenarioIdOrName": "t"}})";
    std::string id;
    for (const auto& [key, status] : {std::pair{"k1", 201}, {"k2", 201}, {"k3", 401}}) {
      auto reply = client.Post((std::string("/api/sessions/running?apiKey=") + key).c_str(), body,
                               "application/json");
      ASSERT_TRUE(reply) << key;
      EXPECT_EQ(reply->status, status) << key;
      if (id.empty()) id = saffra::json::parse(reply->body).value_or(saffra::Json())["id"];
    }
    ASSERT_TRUE(client.Delete(("/api/sessions/running/" + id + "?apiKey=k1").c_str()));
    EXPECT_EQ(serve.stop(SIGTERM), 0);
    EXPECT_TRUE(fs::exists(data / "saffra.db"));
    const auto requests = receiver.requests();
    ASSERT_EQ(requests.size(), 2u);
    for (const auto& r : requests) {
      EXPECT_EQ(r.header("X-Saffra-Signature"),
                saffra::server::WebhookSender::signature(r.path == "/a" ? "s1" : "s2", r.body));
    }
  }
  ChildProcess keyless(kCommand, {"serve", "--port", "0", "--data", data.string()}, {});
  EXPECT_NE(keyless.readLine().find("no API key"), std::string::npos);
  EXPECT_EQ(keyless.wait(), 2);

  // Settings out of range and webhooks that could not be sent or signed are usage errors,
  // before anything starts; the message names the option.
  const std::string hook = receiver.url("/a");
  const std::vector<std::vector<std::string>> refusals = {
      {"--idle-timeout", "-1"},
      {"--idle-timeout", "soon"},
      {"--keep-days", "-3"},
      {"--keep-versions", "1.5"},
      {"--webhook", hook},  // no secret
      {"--webhook-secret", "s"},
      {"--webhook", "ftp://127.0.0.1/x", "--webhook-secret", "s"},
      {"--webhook", hook, "--webhook", hook, "--webhook-secret", "1", "--webhook-secret", "2",
       "--webhook-secret", "3"}};
  for (const std::vector<std::string>& options : refusals) {
    std::vector<std::string> args = {"serve", "--port", "0", "--data", data.string()};
    args.insert(args.end(), options.begin(), options.end());
    ChildProcess refused(kCommand, args, {"QUORVANT_API_KEY=k"});
    const std::string output = refused.readAll();
    EXPECT_EQ(refused.wait(), 2) << options[0] << " " << options[1] << ": " << output;
    EXPECT_NE(output.find(options[0]), std::string::npos) << output;
  }
  std::ofstream(settings, std::ios::app) << "keep-days = -3\n";
  ChildProcess misconfigured(kCommand, {"serve", "--config", settings.string()}, {});
  const std::string output = misconfigured.readAll();
  EXPECT_EQ(misconfigured.wait(), 2) << output;
  EXPECT_NE(output.find(settings.string() + ":5: bad value for \"keep-days\""), std::string::npos)
      << output;
  fs::remove_all(data);
}

int portOf(ChildProcess& serve) {
  std::smatch m;
  std::string line = serve.readLine();
  return std::regex_match(line, m, std::regex("listening on http://127\\.0\\.0\\.1:(\\d+)"))
             ? std::stoi(m[1])
             : 0;
}

// Keys made with `saffra keys` are kept in the store: two services on it accept them without
// --api-key, and a login made on one is known to the other. A revoked key is refused, and with
// no key left in use the service refuses to start.
TEST(ServeCommandTest, KeysInTheStoreServeEveryServiceOnIt) {
  const fs::path data = fs::temp_directory_path() / ("saffra-keys-test-" + saffra::newUUIDString());
  const std::vector<std::string> store = {"--data", data.string()};
  auto keys = [&](std::vector<std::string> args, std::string* out = nullptr) {
    args.insert(args.begin(), "keys");
    args.insert(args.end(), store.begin(), store.end());
    ChildProcess command(kCommand, args, {});
    const std::string output = command.readAll();
    if (out) *out = output;
    return command.wait();
  };
  std::string key;
  ASSERT_EQ(keys({"add", "ci"}, &key), 0);
  std::smatch shown;
  ASSERT_TRUE(std::regex_search(key, shown, std::regex("(^|\n)([0-9a-f]{64})\n"))) << key;
  key = shown[2];
  EXPECT_EQ(keys({"add", "ci"}), 1);  // the name is in use
  EXPECT_EQ(keys({"add", "laptop"}), 0);
  {
    ChildProcess a(kCommand, {"serve", "--port", "0", "--data", data.string()}, {});
    ChildProcess b(kCommand, {"serve", "--port", "0", "--data", data.string()}, {});
    const int portA = portOf(a), portB = portOf(b);
    ASSERT_GT(portA, 0);
    ASSERT_GT(portB, 0);
    httplib::Client clientA("127.0.0.1", portA), clientB("127.0.0.1", portB);
    std::string body = R"({"startInfo": {"appIdOrName": "a", "scenarioIdOrName": "t"}})";
    for (const auto& [client, k, status] :
         {std::tuple{&clientA, key, 201}, {&clientB, key, 201}, {&clientB, "k1", 401}}) {
      auto reply = client->Post("/api/sessions/running?apiKey=" + k, body, "application/json");
      ASSERT_TRUE(reply);
      EXPECT_EQ(reply->status, status) << k;
    }
    auto login =
        clientA.Post("/app/login", {{"Origin", "http://127.0.0.1:" + std::to_string(portA)}},
                     "apiKey=" + key + "&next=/app/batches", "application/x-www-form-urlencoded");
    ASSERT_TRUE(login);
    ASSERT_EQ(login->status, 303) << login->body;
    const std::string cookie = login->get_header_value("Set-Cookie");
    auto page = clientB.Get("/app/batches", {{"Cookie", cookie.substr(0, cookie.find(';'))}});
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_EQ(a.stop(SIGTERM), 0);
    EXPECT_EQ(b.stop(SIGTERM), 0);
  }
  std::string listed;
  EXPECT_EQ(keys({"revoke", "ci"}), 0);
  EXPECT_EQ(keys({"revoke", "ci"}), 1);
  EXPECT_EQ(keys({"list"}, &listed), 0);
  EXPECT_NE(listed.find("ci\tmade "), std::string::npos) << listed;
  EXPECT_NE(listed.find("\trevoked "), std::string::npos) << listed;
  EXPECT_EQ(listed.find(key), std::string::npos);  // only digests are kept
  {
    ChildProcess serve(kCommand, {"serve", "--port", "0", "--data", data.string()}, {});
    httplib::Client client("127.0.0.1", portOf(serve));
    auto reply = client.Get("/api/sessions/none?apiKey=" + key);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 401);
    EXPECT_EQ(serve.stop(SIGTERM), 0);
  }
  EXPECT_EQ(keys({"revoke", "laptop"}), 0);
  ChildProcess keyless(kCommand, {"serve", "--port", "0", "--data", data.string()}, {});
  EXPECT_NE(keyless.readAll().find("no API key"), std::string::npos);
  EXPECT_EQ(keyless.wait(), 2);
  fs::remove_all(data);
}

// A database address that is malformed, unreachable or refuses the login stops the start with
// one sentence on stderr and exit code 2 (bad address) or 3 (cannot reach or log in); the
// address may come from SAFFRA_DATABASE as well.
TEST(ServeCommandTest, RefusesDatabasesItCannotUseWithOneSentence) {
  saffra::testing::PostgresServer* server = nullptr;
  try {
    server = &saffra::testing::PostgresServer::shared();
  } catch (const std::exception& e) {
    GTEST_FAIL() << e.what();
  }
  const std::string fresh = server->createDatabase();
  const std::string name =
      fresh.substr(fresh.find(":///") + 4, fresh.find('?') - fresh.find(":///") - 4);
  int closedPort = server->port() + 1;  // nothing listens there in this test's world
  struct Case {
    std::vector<std::string> args;
    std::vector<std::string> environment;
    int code;
    std::string says;
  };
  const std::string wrong = server->tcpAddress(name, "not-the-password");
  for (const Case& c : std::vector<Case>{
           {{"--database", "postgresql://h:port/x"}, {}, 2, "malformed"},
           {{"--database", "mysql://127.0.0.1/x"}, {}, 2, "postgresql://"},
           {{}, {"SAFFRA_DATABASE=postgresql://127.0.0.1/x?bogus=1"}, 2, "malformed"},
           {{"--database", "postgresql://saffra@127.0.0.1:" + std::to_string(closedPort) + "/x"},
            {},
            3,
            "cannot connect to the database at 127.0.0.1:" + std::to_string(closedPort)},
           {{"--database", wrong}, {}, 3, "refused the login"}}) {
    std::vector<std::string> args = {"serve", "--port", "0", "--api-key", "k"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    ChildProcess serve(kCommand, args, c.environment);
    const std::string output = serve.readAll();
    EXPECT_EQ(serve.wait(), c.code) << output;
    EXPECT_EQ(output.rfind("saffra serve: ", 0), 0u) << output;
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
    EXPECT_NE(output.find(c.says), std::string::npos) << output;
    EXPECT_EQ(output.find("not-the-password"), std::string::npos) << output;
  }
}

}  // namespace
