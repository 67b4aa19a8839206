// `saffra serve` as scripts use it: the built command in a child process.
#include <signal.h>

#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <httplib.h>

#include "saffra/platform/json.h"
#include "saffra/platform/uuid.h"
#include "server/webhook_sender.h"
#include "testing/child_process.h"
#include "testing/test_server.h"

namespace {

namespace fs = std::filesystem;
using saffra::testing::ChildProcess;
using saffra::testing::TestServer;

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

// Webhooks take one secret for all (--webhook-secret once, or SAFFRA_WEBHOOK_SECRET) or one
// each, in order; a webhook that could not be sent or signed is a usage error.
TEST(ServeCommandTest, WebhooksPairWithTheirSecrets) {
  const fs::path data =
      fs::temp_directory_path() / ("saffra-serve-test-" + saffra::newUUIDString());
  TestServer receiver;
  receiver.route("POST", "/*", saffra::testing::Reply::json(204, ""));
  struct Case {
    std::vector<std::string> args;
    std::vector<std::string> environment;
    std::map<std::string, std::string> secretOfPath;  // empty: refused with `refusal`
    std::string refusal;
  };
  const std::string a = receiver.url("/a"), b = receiver.url("/b");
  const std::vector<Case> cases = {
      {{"--webhook", a, "--webhook", b, "--webhook-secret", "s1", "--webhook-secret", "s2"},
       {"SAFFRA_WEBHOOK_SECRET=unused"},
       {{"/a", "s1"}, {"/b", "s2"}},
       ""},
      {{"--webhook", a, "--webhook", b},
       {"SAFFRA_WEBHOOK_SECRET=e"},
       {{"/a", "e"}, {"/b", "e"}},
       ""},
      {{"--webhook", a}, {}, {}, "needs a secret"},
      {{"--webhook", a, "--webhook", b, "--webhook-secret", "1", "--webhook-secret", "2",
        "--webhook-secret", "3"},
       {},
       {},
       "(2 webhooks, 3 secrets)"},
      {{"--webhook-secret", "s"}, {}, {}, "without --webhook"},
      {{"--webhook", "ftp://127.0.0.1/x", "--webhook-secret", "s"}, {}, {}, "not an http://"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[1]);
    receiver.clearRequests();
    std::vector<std::string> args = {"serve", "--port", "0", "--data", data.string()};
    args.insert(args.end(), c.args.begin(), c.args.end());
    std::vector<std::string> environment = c.environment;
    environment.push_back("QUORVANT_API_KEY=k");
    ChildProcess serve(kCommand, args, environment);
    if (c.secretOfPath.empty()) {
      const std::string output = serve.readAll();
      EXPECT_EQ(serve.wait(), 2) << output;
      EXPECT_NE(output.find(c.refusal), std::string::npos) << output;
      continue;
    }
    std::smatch m;
    std::string line = serve.readLine();
    ASSERT_TRUE(std::regex_match(line, m, std::regex("listening on http://127\\.0\\.0\\.1:(\\d+)")))
        << line;
    httplib::Client client("127.0.0.1", std::stoi(m[1]));
    auto started = client.Post("/api/sessions/running?apiKey=k",
                               R"({"startInfo": {"appIdOrName": "a", "scenarioIdOrName": "t"}})",
                               "application/json");
    ASSERT_TRUE(started);
    const std::string id = saffra::json::parse(started->body).value_or(saffra::Json())["id"];
    ASSERT_TRUE(client.Delete(("/api/sessions/running/" + id + "?apiKey=k").c_str()));
    EXPECT_EQ(serve.stop(SIGTERM), 0);  // sends what is queued before it ends
    const auto requests = receiver.requests();
    ASSERT_EQ(requests.size(), c.secretOfPath.size());
    for (const auto& r : requests) {
      EXPECT_EQ(r.header("X-Saffra-Signature"),
                saffra::server::WebhookSender::signature(c.secretOfPath.at(r.path), r.body))
          << r.path;
    }
  }
  fs::remove_all(data);
}

}  // namespace
