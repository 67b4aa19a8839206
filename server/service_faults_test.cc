// Refused requests: every one gets a 4xx reply with a JSON error, and none of them disturbs
// what the service has stored.
#include <gtest/gtest.h>

#include <filesystem>

#include "saffra/base/logger.h"
#include "server/service_test_support.h"

namespace saffra::server::testing {
namespace {

// A PNG signature and header that declare the given size, followed by nothing.
std::vector<std::uint8_t> pngHeaderOnly(std::uint32_t width, std::uint32_t height) {
  std::vector<std::uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n',
                                   0,    0,   0,   13,  'I',  'H',  'D',  'R'};
  for (std::uint32_t v : {width, height}) {
    for (int shift = 24; shift >= 0; shift -= 8)
      png.push_back(static_cast<std::uint8_t>(v >> shift));
  }
  for (std::uint8_t b : {8, 6, 0, 0, 0, 0, 0, 0, 0}) png.push_back(b);  // RGBA8 and a dummy CRC
  return png;
}

Json withScreenshot(std::string text) {
  Json body = matchBody(kPlain, "home");
  body["appOutput"]["screenshot64"] = std::move(text);
  return body;
}

class ServiceFaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    harness_.runTest(test_, {kPlain, kPlain}, true);
    id_ = harness_.start(test_).body["id"];
    ASSERT_EQ(harness_.match(id_, matchBody(kPlain, "step 1")).body["asExpected"], true);
  }

  // The session that the refused requests aimed at still works and kept exactly its step.
  void expectStoredDataIntact() {
    EXPECT_EQ(harness_.match(id_, matchBody(kPlain, "step 2")).body["asExpected"], true);
    Json results = harness_.stop(id_, false, false).body;
    EXPECT_EQ(results["steps"], 2);
    EXPECT_EQ(results["status"], "Passed");
    EXPECT_EQ(harness_.start(test_).status, 200);
  }

  TempFolder folder_;
  Harness harness_{folder_.path(), 1u << 20};
  SessionSpec test_;
  std::string id_;
};

// A broken upload is judged after its session: an unknown session is 404 and a stopped one 409
// whatever the image; a running one refuses the image, also when its bytes begin as the
// baseline's do, and leaves no file behind.
TEST_F(ServiceFaultsTest, BadRequestsGetJsonErrorsAndALogLine) {
  const std::string key = std::string("?apiKey=") + kApiKey;
  const std::string match = "/api/sessions/running/" + id_ + key;
  std::string stopped = harness_.start(test_).body["id"];
  harness_.stop(stopped, false, false);
  std::vector<std::uint8_t> truncated(kPlain.begin(), kPlain.begin() + kPlain.size() / 2);
  std::vector<std::uint8_t> damaged = kPlain;
  damaged[damaged.size() / 2] ^= 0x55;
  std::string tooLarge = json::write(withScreenshot(std::string(1u << 20, 'A')));
  const auto upload = [](const std::vector<std::uint8_t>& png) {
    return json::write(matchBody(png, "x"));
  };
  const std::string start = "/api/sessions/running" + key;
  struct Case {
    const char* label;
    std::string method, target, body;
    int status;
  };
  std::vector<Case> cases = {
      {"start: malformed JSON", "POST", start, "{\"startInfo\": ", 400},
      {"start: not an object", "POST", start, "[1, 2]", 400},
      {"start: no startInfo", "POST", start, "{}", 400},
      {"start: no test name", "POST", start,
       R"({"startInfo": {"appIdOrName": "a", "scenarioIdOrName": ""}})", 400},
      {"match: malformed JSON", "POST", match, "{{", 400},
      {"match: no screenshot", "POST", match, R"({"appOutput": {}, "tag": "x"})", 400},
      {"match: screenshot not text", "POST", match, json::write(withScreenshot("")), 400},
      {"match: not base64", "POST", match, json::write(withScreenshot("iVBOR*w0KGgo=")), 400},
      {"match: not a PNG", "POST", match, upload({'G', 'I', 'F', '8', '9', 'a', 1, 2, 3}), 400},
      {"match: truncated PNG", "POST", match, upload(truncated), 400},
      {"match: damaged PNG", "POST", match, upload(damaged), 400},
      {"match: absurd declared size", "POST", match, upload(pngHeaderOnly(60000, 60000)), 413},
      {"match: size within the decoder's limit but not the service's", "POST", match,
       upload(pngHeaderOnly(16000, 16000)), 413},
      {"match: zero size", "POST", match, upload(pngHeaderOnly(0, 10)), 413},
      {"match: body over the limit", "POST", match, tooLarge, 413},
      {"match: unknown session, truncated PNG", "POST", "/api/sessions/running/ABC-123" + key,
       upload(truncated), 404},
      {"match: stopped session, damaged PNG", "POST", "/api/sessions/running/" + stopped + key,
       upload(damaged), 409},
      {"match: id with a dot", "POST", "/api/sessions/running/.." + key, upload(kPlain), 400},
      {"match: id with encoded slashes", "POST", "/api/sessions/running/..%2F..%2Fetc" + key,
       upload(kPlain), 400},
      {"stop: unknown session", "DELETE", "/api/sessions/running/ABC-123" + key, "", 404},
      {"stop: bad flag", "DELETE", "/api/sessions/running/" + id_ + key + "&aborted=maybe", "",
       400},
      {"image: step out of range", "GET", "/api/sessions/" + id_ + "/steps/9/current.png" + key, "",
       404},
      {"no such route", "GET", "/etc/passwd", "", 404},
  };
  for (const Case& c : cases) {
    LogCapture log;
    Reply reply = harness_.send(c.method, c.target, c.body);
    EXPECT_EQ(reply.status, c.status) << c.label;
    EXPECT_EQ(reply.contentType, "application/json") << c.label;
    EXPECT_TRUE(reply.body.is_object() && reply.body.contains("error")) << c.label << reply.raw;
    auto lines = log.lines();
    bool logged = std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.find("-> " + std::to_string(c.status)) != std::string::npos;
    });
    EXPECT_TRUE(logged) << c.label;
  }
  // Uploads are written while they are checked; a broken one leaves no file behind.
  std::size_t images = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_.path())) {
    if (!entry.is_regular_file()) continue;
    EXPECT_NE(entry.path().filename().string().rfind(".tmp-", 0), 0u) << entry.path();
    if (entry.path().extension() == ".png") ++images;
  }
  EXPECT_EQ(images, 1u);  // the baseline's image
  expectStoredDataIntact();
}

TEST_F(ServiceFaultsTest, RequestsWithoutAValidKeyAreRefused) {
  Json results = harness_.runTest(test_, {kPlain}, false);
  std::string image = results["stepsInfo"][0]["apiUrls"]["currentImage"];
  std::string imagePath = image.substr(image.find("/api/"));
  std::string page = results["appUrls"]["session"];
  std::string pagePath = page.substr(page.find("/app/"));
  std::string ownToken = results["secretToken"];

  struct Case {
    const char* label;
    std::string method, target;
  };
  std::vector<Case> cases = {
      {"start without key", "POST", "/api/sessions/running"},
      {"start with wrong key", "POST", "/api/sessions/running?apiKey=nope"},
      {"start with empty key", "POST", "/api/sessions/running?apiKey="},
      {"key differing in case", "POST", "/api/sessions/running?apiKey=TEST-KEY"},
      {"match", "POST", "/api/sessions/running/" + id_ + "?apiKey=nope"},
      {"stop", "DELETE", "/api/sessions/running/" + id_ + "?apiKey=nope&aborted=true"},
      {"close batch", "DELETE", "/api/sessions/batches/BATCH-1/close/bypointerid?apiKey=nope"},
      {"image without key", "GET", imagePath},
      {"image with the session's own token", "GET", imagePath + "?accessToken=" + ownToken},
      {"page with the session's own token", "GET", pagePath + "?accessToken=" + ownToken},
      {"results with a wrong key", "GET", "/api/sessions/" + id_ + "?apiKey=nope"},
      {"batch list", "GET", "/app/batches"},
  };
  for (const Case& c : cases) {
    Reply reply = harness_.send(c.method, c.target, json::write(startInfo(test_)));
    EXPECT_EQ(reply.status, 401) << c.label;
    EXPECT_TRUE(reply.body.contains("error")) << c.label;
  }
  // The second configured key works, for the protocol and for reading.
  EXPECT_EQ(
      harness_
          .send("POST", "/api/sessions/running?apiKey=second-key", json::write(startInfo(test_)))
          .status,
      200);
  EXPECT_EQ(harness_.send("GET", imagePath + "?apiKey=second-key").status, 200);
  expectStoredDataIntact();
}

TEST(ServiceOptionsTest, StartRefusesUnusableSettings) {
  TempFolder folder;
  ServiceOptions noKey;
  noKey.dataFolder = folder.path();
  EXPECT_THROW(Service(noKey).start(), ServiceError);

  ServiceOptions fileAsFolder = noKey;
  fileAsFolder.apiKeys = {kApiKey};
  fileAsFolder.dataFolder = "/dev/null/saffra";
  EXPECT_THROW(Service(fileAsFolder).start(), ServiceError);

  Harness running(folder.path());
  ServiceOptions samePort = noKey;
  samePort.apiKeys = {kApiKey};
  samePort.port = running.port();
  EXPECT_THROW(Service(samePort).start(), ServiceError);
}

// While the database is down every request gets 503 with a JSON error; once it is back the
// service reconnects by itself, and what it stored before is all there. A restart that no
// request saw costs no request either: connections the server closed are not lent again.
TEST(ServiceOnPostgres, AnswersUnavailableWhileTheDatabaseIsDownThenRecovers) {
  saffra::testing::PostgresServer* server = &saffra::testing::PostgresServer::shared();
  TempFolder folder;
  Harness harness(folder.path(), 100u << 20, server->createDatabase());
  SessionSpec test;
  ASSERT_EQ(harness.runTest(test, {kPlain}, true)["status"], "Passed");
  server->stop();
  for (int i = 0; i < 3; ++i) {
    Reply down = harness.start(test);
    EXPECT_EQ(down.status, 503) << down.raw;
    EXPECT_TRUE(down.body.contains("error")) << down.raw;
  }
  server->start();
  Reply up = harness.start(test);
  ASSERT_EQ(up.status, 200) << up.raw;  // a known test
  const std::string id = up.body["id"];
  EXPECT_EQ(harness.match(id, matchBody(kPlain, "step 1")).body["asExpected"], true);
  EXPECT_EQ(harness.stop(id, false, false).body["status"], "Passed");
  server->stop();
  server->start();
  Reply again = harness.start(test);
  EXPECT_EQ(again.status, 200) << again.raw;
}

}  // namespace
}  // namespace saffra::server::testing
