// `saffra serve` as scripts use it: the built command in a child process.
#include <signal.h>

#include <filesystem>
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

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";

// Keys from --api-key and from the environment are both accepted, others refused; webhooks get
// the secrets in the order given; SIGTERM stops the service cleanly with its data saved and its
// events delivered. Without any key, or with settings out of range, it refuses to start.
TEST(ServeCommandTest, ServesWithItsKeysAndRefusesToRunWithoutOne) {
  const fs::path data =
      fs::temp_directory_path() / ("saffra-serve-test-" + saffra::newUUIDString());
  fs::create_directories(data);
  saffra::testing::TestServer receiver;
  receiver.route("POST", "/*", saffra::testing::Reply::json(204, ""));
  {
    ChildProcess serve(kCommand,
                       {"serve", "--port", "0", "--data", data.string(), "--api-key", "k1",
                        "--webhook", receiver.url("/a"), "--webhook", receiver.url("/b"),
                        "--webhook-secret", "s1", "--webhook-secret", "s2"},
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
  fs::remove_all(data);
}

}  // namespace
