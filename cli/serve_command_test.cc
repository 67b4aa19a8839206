// `saffra serve` as scripts use it: the built command in a child process.
#include <signal.h>

#include <filesystem>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <httplib.h>

#include "saffra/platform/uuid.h"
#include "testing/child_process.h"

namespace {

namespace fs = std::filesystem;
using saffra::testing::ChildProcess;

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";

// Keys from --api-key and from the environment are both accepted, others refused; SIGTERM
// stops the service cleanly with its data saved. Without any key, or with settings out of range,
// it refuses to start.
TEST(ServeCommandTest, ServesWithItsKeysAndRefusesToRunWithoutOne) {
  const fs::path data =
      fs::temp_directory_path() / ("saffra-serve-test-" + saffra::newUUIDString());
  fs::create_directories(data);
  {
    ChildProcess serve(kCommand,
                       {"serve", "--port", "0", "--data", data.string(), "--api-key", "k1"},
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

}  // namespace
