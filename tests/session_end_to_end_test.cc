// A Saffra session driven against the scripted loopback server: what goes on the wire, what is
// logged, and what the caller gets back, for good runs and for a service that misbehaves.
#include <gtest/gtest.h>

#include <algorithm>

#include "saffra/saffra.h"
#include "testing/png_files.h"
#include "testing/scoped_environment.h"
#include "testing/test_server.h"

namespace saffra {
namespace {

using namespace std::chrono_literals;
using testing::RecordedRequest;
using testing::Reply;
using testing::TestServer;

constexpr const char* kStartPath = "/api/sessions/running";
constexpr const char* kSessionPath = "/api/sessions/running/s1";

// A 40 x 30 image whose pixels all differ, at the given scale.
std::shared_ptr<Image> testImage(double scale = 1) {
  auto image = std::make_shared<Image>(40, 30, scale);
  for (std::size_t i = 0; i < image->pixels().size(); ++i) {
    image->mutableData()[i] = static_cast<std::uint8_t>(i * 31 % 256);
  }
  return image;
}

std::string resultsReply(const std::string& status, bool isNew) {
  return R"({"status":")" + status + R"(","isNew":)" + (isNew ? "true" : "false") +
         R"(,"name":"Login","appName":"Shop","steps":1,"matches":)" +
         (status == "Passed" ? "1" : "0") + R"(,"apiUrls":{"session":"https://results.test/s1"},)" +
         R"("appUrls":{"session":"https://app.test/s1"}})";
}

class SessionEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override { connect(saffra, 3); }
  void connect(Saffra& session, int waitSeconds) {
    session.setServerURL(server.baseURL());
    session.setApiKey("key");
    session.setWaitTimeoutForTesting(waitSeconds);
  }

  void scriptSession(int startStatus, const std::string& matchReply,
                     const std::string& status = "Passed", bool isNew = false) {
    server.route("POST", kStartPath,
                 Reply::json(startStatus, R"({"id":"s1","url":"https://app.test/s1"})"));
    server.route("POST", kSessionPath, Reply::json(200, matchReply));
    server.route("DELETE", kSessionPath, Reply::json(200, resultsReply(status, isNew)));
  }

  std::vector<RecordedRequest> requestsTo(const std::string& method,
                                          const std::string& path) const {
    std::vector<RecordedRequest> found;
    for (auto& request : server.requests()) {
      if (request.method == method && request.path == path) found.push_back(request);
    }
    return found;
  }
  Json startBody() const { return *json::parse(requestsTo("POST", kStartPath).at(0).body); }
  std::vector<Json> matchBodies() const {
    std::vector<Json> bodies;
    for (auto& r : requestsTo("POST", kSessionPath)) bodies.push_back(*json::parse(r.body));
    return bodies;
  }
  static std::shared_ptr<Image> uploadedImage(const Json& matchBody) {
    auto bytes = testing::decodeBase64(matchBody["appOutput"]["screenshot64"].get<std::string>());
    return bytes ? Image::fromPNGData(*bytes) : nullptr;
  }

  ScopedEnvironment env;
  TestServer& server = TestServer::shared();
  LogCapture log;
  std::shared_ptr<SaffraRunner> runner = std::make_shared<SaffraRunner>();
  Saffra saffra{runner};
};

TEST_F(SessionEndToEndTest, StartRecordDescribesTheTest) {
  env.set("QUORVANT_PARENT_BRANCH", "");
  env.set("bamboo_QUORVANT_PARENT_BRANCH", "parent-from-bamboo");
  env.set("QUORVANT_BASELINE_BRANCH", "baseline-from-env");
  scriptSession(200, R"({"asExpected":true})");
  auto batch = std::make_shared<BatchInfo>("Nightly");
  batch->setBatchId("batch-7");
  saffra.setBatch(batch);
  saffra.setBranchName("feature");
  saffra.setBaselineBranchName("ignored-without-env-name");  // the crossed rule
  saffra.configuration()->setAgentId("suite");
  saffra.addProperty("device", "emulator");
  saffra.setMatchLevel(MatchLevelContent);

  saffra.openWithApplicationName("Shop", "Login");
  EXPECT_TRUE(server.requests().empty());  // nothing is sent before the first check
  EXPECT_TRUE(saffra.checkImage(testImage(2), "first"));

  Json info = startBody().at("startInfo");
  EXPECT_EQ(info["appIdOrName"], "Shop");
  EXPECT_EQ(info["scenarioIdOrName"], "Login");
  EXPECT_EQ(info["agentId"], std::string("suite [saffra-xctest-images/") + libraryVersion() + "]");
  EXPECT_EQ(info["batchInfo"]["id"], "batch-7");
  EXPECT_EQ(info["batchInfo"]["name"], "Nightly");
  EXPECT_EQ(info["branchName"], "feature");
  EXPECT_EQ(info["environment"]["displaySize"], (Json{{"width", 20}, {"height", 15}}));
  EXPECT_EQ(info["environment"]["hostingApp"], "Test app");
  EXPECT_EQ(info["defaultMatchSettings"]["matchLevel"], "Content");
  EXPECT_EQ(info["properties"], (Json::array({{{"name", "device"}, {"value", "emulator"}}})));
  EXPECT_FALSE(log.contains("No batch set"));
  EXPECT_TRUE(log.contains("--- Test started - 'Login' of 'Shop' " +
                           saffra.appEnvironment()->description()));

  // The parent and baseline branches come from the environment.
  auto sent = saffra.sessionStartInfo();
  EXPECT_EQ(sent->parentBranchName(), "parent-from-bamboo");
  EXPECT_EQ(sent->baselineBranchName(), "baseline-from-env");
  saffra.close(nullptr);
}

TEST_F(SessionEndToEndTest, MatchRecordCarriesSettingsRegionsAndTheImage) {
  scriptSession(200, R"({"asExpected":true})");
  saffra.openWithApplicationName("Shop", "Login", Size(100, 200));
  auto image = testImage();
  auto settings = Target::image(image)
                      ->ignore({std::make_shared<Region>(1, 2, 3, 4)})
                      ->floating(std::make_shared<Region>(5, 6, 7, 8), 1, 2, 3, 4)
                      ->matchLevel(MatchLevelNone)
                      ->ignoreDisplacements();
  EXPECT_TRUE(saffra.checkWithTag("home", settings));
  saffra.checkRegion(std::make_shared<Region>(10, 5, 8, 6), image, "part");
  saffra.checkRegion(Region::emptyRegion(), image);

  auto bodies = matchBodies();
  ASSERT_EQ(bodies.size(), 3u);
  const Json& first = bodies[0];
  EXPECT_EQ(first["tag"], "home");
  EXPECT_EQ(first["options"]["name"], "home");
  EXPECT_EQ(first["options"]["ignoreMismatch"], false);
  EXPECT_EQ(first["appOutput"]["title"], "Base title");
  const Json& ims = first["options"]["imageMatchSettings"];
  EXPECT_EQ(ims["matchLevel"], "Strict");  // "None" means the session default
  EXPECT_EQ(ims["ignoreCaret"], true);     // the configuration's default
  EXPECT_EQ(ims["Ignore"], (Json::array({{{"left", 1}, {"top", 2}, {"width", 3}, {"height", 4}}})));
  EXPECT_EQ(ims["Floating"][0]["maxRightOffset"], 3);
  EXPECT_EQ(ims["Floating"][0]["maxLeftOffset"], 4);
  EXPECT_EQ(uploadedImage(first)->pixels(), image->pixels());
  EXPECT_EQ(first["appOutput"]["screenshot64"].get<std::string>().find("\r\n"), 64u);

  auto part = uploadedImage(bodies[1]);
  ASSERT_TRUE(part);
  EXPECT_EQ(part->width(), 8u);
  EXPECT_EQ(part->height(), 6u);
  EXPECT_EQ(0, std::memcmp(part->pixel(0, 0), image->pixel(10, 5), 4));
  EXPECT_EQ(bodies[2]["tag"], "");
  EXPECT_EQ(uploadedImage(bodies[2])->pixels(), image->pixels());
  EXPECT_EQ(saffra.viewportSize(), Size(100, 200));  // given at open, kept
  EXPECT_TRUE(log.contains(std::string("Match window URL: ") + server.baseURL() + kSessionPath +
                           "?apiKey=key"));
  saffra.close(nullptr);
}

TEST_F(SessionEndToEndTest, CloseOutcomes) {
  struct Case {
    std::string status;
    bool newSession;
    bool isNew;
    std::string updateBaseline;
    std::string exception;
    std::string log;
  };
  const Case cases[] = {
      {"Passed", false, false, "false", "",
       "--- Test passed. See details at https://results.test/s1"},
      {"Unresolved", true, true, "true", "NewTestException",
       "--- New test ended. Please approve the new baseline at https://results.test/s1"},
      {"Unresolved", false, false, "false", "DiffsFoundException",
       "--- Failed test ended. See details at https://results.test/s1"},
      {"Failed", false, false, "false", "TestFailedException",
       "--- Failed test ended. See details at https://results.test/s1"},
  };
  for (const auto& c : cases) {
    for (bool shouldThrow : {false, true}) {
      SCOPED_TRACE(c.status + (shouldThrow ? " throwing" : " quiet"));
      server.reset();
      LogCapture caseLog;
      scriptSession(c.newSession ? 201 : 200, R"({"asExpected":true})", c.status, c.isNew);
      const std::size_t before = runner->allResults()->size();
      saffra.openWithApplicationName("Shop", "Login");
      saffra.checkImage(testImage());
      std::optional<Error> error;
      std::string thrown;
      std::shared_ptr<TestResults> results;
      try {
        results = saffra.closeWithThrow(shouldThrow, &error);
      } catch (const TestFailedException& e) {
        thrown = e.name();
      }
      EXPECT_EQ(thrown, shouldThrow ? c.exception : "");
      EXPECT_EQ(error.has_value(), !c.exception.empty());  // written before any raise
      EXPECT_TRUE(caseLog.contains(c.log));
      EXPECT_FALSE(saffra.isOpen());
      EXPECT_EQ(saffra.runningSession(), nullptr);
      const bool reported = thrown.empty();
      EXPECT_EQ(runner->allResults()->size(), before + (reported ? 1 : 0));
      if (reported) {
        EXPECT_EQ(results->statusString(), c.status);
      }
      auto stop = requestsTo("DELETE", kSessionPath).at(0);
      EXPECT_EQ(stop.query, "apiKey=key&aborted=false&updateBaseline=" + c.updateBaseline);
    }
  }
  auto summary = runner->allTestResultsShouldThrowException(false);
  EXPECT_EQ(summary->passed(), 2u);
  EXPECT_EQ(summary->unresolved(), 2u);
  EXPECT_EQ(summary->failed(), 1u);
}

// A step with a timeout retries until a match; after a mismatch, later such steps wait the
// timeout out and try once, keeping the caller's flag.
TEST_F(SessionEndToEndTest, RetriesUntilAMatchAndRunOnceAfterAMismatch) {
  scriptSession(200, "", "Unresolved");
  server.route("POST", kSessionPath,
               std::vector<Reply>{Reply::json(200, R"({"asExpected":false})"),
                                  Reply::json(200, R"({"asExpected":true})")});
  saffra.openWithApplicationName("Shop", "Login");
  EXPECT_TRUE(saffra.checkWithTag("t", Target::image(testImage())->timeoutInSeconds(10)));
  auto bodies = matchBodies();
  ASSERT_EQ(bodies.size(), 2u);
  for (const auto& body : bodies) EXPECT_EQ(body["options"]["ignoreMismatch"], true);
  EXPECT_EQ(log.systemLines().size(), 1u);
  EXPECT_FALSE(saffra.shouldMatchWindowRunOnceOnTimeout());

  server.route("POST", kSessionPath, Reply::json(200, R"({"asExpected":false})"));
  EXPECT_FALSE(saffra.checkImage(testImage(), "one"));
  EXPECT_TRUE(log.contains("Mismatch! (one)"));
  EXPECT_TRUE(saffra.shouldMatchWindowRunOnceOnTimeout());
  saffra.checkWithTag("two", Target::image(testImage())->timeoutInSeconds(1));
  bodies = matchBodies();
  ASSERT_EQ(bodies.size(), 4u);
  EXPECT_EQ(bodies[3]["options"]["ignoreMismatch"], false);
  EXPECT_EQ(log.systemLines().size(), 1u);
  std::optional<Error> error;
  saffra.closeWithThrow(false, &error);
  EXPECT_TRUE(error.has_value());
}

TEST_F(SessionEndToEndTest, SilentServiceTimesOut) {
  const std::pair<const char*, const char*> hanging[] = {
      {"POST", kStartPath}, {"POST", kSessionPath}, {"DELETE", kSessionPath}};
  for (const auto& [method, path] : hanging) {
    SCOPED_TRACE(std::string(method) + " " + path);
    server.reset();
    scriptSession(200, R"({"asExpected":true})");
    server.route(method, path, Reply::hang());
    Saffra session(runner);
    connect(session, 1);
    session.openWithApplicationName("Shop", "Login");
    std::string reason;
    try {
      session.checkImage(testImage());
      session.close(nullptr);
    } catch (const TestFailedException& e) {
      reason = e.reason();
    }
    EXPECT_EQ(reason, "--- Time-out exception");
    server.releaseHangs();
  }
  // The stop still hangs. Without throwing, the failure is dropped and the runner refuses the
  // absent results.
  Saffra quiet(runner);
  connect(quiet, 1);
  quiet.openWithApplicationName("Shop", "Login");
  quiet.checkImage(testImage());
  try {
    quiet.closeWithThrow(false, nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), "NSInvalidArgumentException");
  }
  server.releaseHangs();
}

TEST_F(SessionEndToEndTest, GarbageAndDroppedReplies) {
  // A start reply that is not JSON gives no session and no error: the test is closed, and the
  // check waits in vain.
  server.route("POST", kStartPath, Reply::text(200, "<html>proxy error</html>"));
  // Long enough for the start's reply to arrive first on a loaded machine under a sanitizer.
  saffra.setWaitTimeoutForTesting(10);
  saffra.openWithApplicationName("Shop", "Login");
  EXPECT_THROW(saffra.checkImage(testImage()), TestFailedException);
  EXPECT_TRUE(log.contains("Server session was not started"));
  EXPECT_TRUE(log.contains("--- Empty test ended."));
  EXPECT_FALSE(saffra.isOpen());
  EXPECT_EQ(runner->allResults()->size(), 1u);  // the empty results

  // A dropped start connection is logged as a failed start.
  server.route("POST", kStartPath, Reply::drop());
  saffra.openWithApplicationName("Shop", "Login");
  EXPECT_THROW(saffra.checkImage(testImage()), TestFailedException);
  auto lines = log.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("Failed to start session: ") != std::string::npos;
  }));

  // Match replies that are garbage or cut off read as mismatches.
  Saffra other(runner);
  connect(other, 3);
  scriptSession(200, "");
  server.route("POST", kSessionPath,
               std::vector<Reply>{Reply::text(200, "not json"),
                                  Reply::cutBody(200, "{\"asExpected\":true}")});
  other.openWithApplicationName("Shop", "Login");
  EXPECT_FALSE(other.checkImage(testImage(), "garbage"));
  EXPECT_FALSE(other.checkImage(testImage(), "cut"));
  EXPECT_TRUE(log.contains("Mismatch! (garbage)"));
  EXPECT_TRUE(log.contains("Mismatch! (cut)"));
  other.close(nullptr);
}

TEST_F(SessionEndToEndTest, SecondOpenAfterACheckAbortsAndDestroyingAfterAnAbortIsSafe) {
  scriptSession(200, R"({"asExpected":true})");
  saffra.openWithApplicationName("Shop", "Login");
  saffra.checkImage(testImage());
  EXPECT_THROW(saffra.openWithApplicationName("Shop", "Again"), SaffraException);
  EXPECT_FALSE(saffra.isOpen());
  ASSERT_TRUE(server.waitForRequests(3));
  auto stop = requestsTo("DELETE", kSessionPath);
  ASSERT_EQ(stop.size(), 1u);
  EXPECT_EQ(stop[0].query, "apiKey=key&aborted=true&updateBaseline=false");

  // Objects on the heap and on the stack go away while a slow abort is in flight.
  server.route("DELETE", kSessionPath,
               Reply::json(200, resultsReply("Passed", false)).after(200ms));
  auto openAndAbort = [&](Saffra& session) {
    connect(session, 3);
    session.openWithApplicationName("Shop", "Login");
    session.checkImage(testImage());
    session.abortIfNotClosed();
  };
  for (int i = 0; i < 3; ++i) openAndAbort(*std::make_shared<Saffra>(runner));
  Saffra onStack(runner);
  openAndAbort(onStack);
}

}  // namespace
}  // namespace saffra
