// The protocol end to end against an in-process service on a loopback port.
#include "server/service.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "server/service_test_support.h"

namespace saffra::server::testing {
namespace {

const std::vector<std::uint8_t> kPlain = solidPng(40, 30, kWhite);
const std::vector<std::uint8_t> kMarked = solidPng(40, 30, kWhite, PixelRect{5, 5, 4, 4});
const std::vector<std::uint8_t> kOther = solidPng(40, 30, kWhite, PixelRect{20, 10, 6, 6});

class ServiceTest : public ::testing::Test {
 protected:
  TempFolder folder_;
  Harness harness_{folder_.path()};
};

TEST_F(ServiceTest, NewTestIsProposedThenSavedAndARerunPasses) {
  SessionSpec test;
  Reply started = harness_.start(test);
  ASSERT_EQ(started.status, 201);
  EXPECT_TRUE(started.body.value("isNew", false));
  std::string id = started.body.value("id", "");
  ASSERT_FALSE(id.empty());
  EXPECT_EQ(harness_.fetch(started.body.value("url", "")).status, 200);

  for (const auto& png : {kPlain, kMarked}) {
    Reply matched = harness_.match(id, matchBody(png, "home"));
    ASSERT_EQ(matched.status, 200) << matched.raw;
    EXPECT_EQ(matched.body, Json({{"asExpected", true}}));
  }
  Json first = harness_.stop(id, false, true).body;
  EXPECT_EQ(first["status"], "Passed");
  EXPECT_EQ(first["isNew"], true);
  EXPECT_EQ(first["isDifferent"], false);
  EXPECT_EQ(first["steps"], 2);
  EXPECT_EQ(first["matches"], 2);
  EXPECT_EQ(first["strictMatches"], 2);
  EXPECT_EQ(first["name"], "month view");
  EXPECT_EQ(first["appName"], "Calendar");
  EXPECT_EQ(first["hostOS"], "Linux 6.1");
  EXPECT_EQ(first["hostApp"], "Unit tests");
  EXPECT_EQ(first["hostDisplaySize"], Json({{"width", 375.0}, {"height", 667.0}}));
  EXPECT_EQ(first["batchId"], "BATCH-1");
  EXPECT_EQ(first["batchName"], "nightly");
  EXPECT_EQ(first["branchName"], "default");
  EXPECT_EQ(first["id"], id);
  EXPECT_EQ(first["defaultMatchSettings"]["matchLevel"], "Strict");
  EXPECT_EQ(first["defaultMatchSettings"]["remainder"], false);
  EXPECT_FALSE(first.contains("accessibilityStatus"));
  ASSERT_EQ(first["stepsInfo"].size(), 2u);
  EXPECT_EQ(first["stepsInfo"][0]["hasBaselineImage"], false);

  // The images and the page the document points at are served; the current image is the
  // uploaded PNG byte for byte.
  Reply image = harness_.fetch(first["stepsInfo"][1]["apiUrls"]["currentImage"]);
  EXPECT_EQ(image.status, 200);
  EXPECT_EQ(image.contentType, "image/png");
  EXPECT_EQ(std::vector<std::uint8_t>(image.raw.begin(), image.raw.end()), kMarked);
  Reply page = harness_.fetch(first["apiUrls"]["session"]);
  EXPECT_EQ(page.status, 200);
  EXPECT_NE(page.raw.find("month view"), std::string::npos);
  EXPECT_NE(page.raw.find("Passed"), std::string::npos);
  Reply json = harness_.fetch(first["apiUrls"]["session"], {{"Accept", "application/json"}});
  EXPECT_EQ(json.body["id"], id);

  std::vector<bool> verdicts;
  Json rerun = harness_.runTest(test, {kPlain, kMarked}, false, &verdicts);
  EXPECT_EQ(verdicts, std::vector<bool>({true, true}));
  EXPECT_EQ(rerun["status"], "Passed");
  EXPECT_EQ(rerun["isNew"], false);
  EXPECT_EQ(rerun["stepsInfo"][0]["hasBaselineImage"], true);
}

TEST_F(ServiceTest, StartAnswers200OnlyForTheSameIdentity) {
  SessionSpec test;
  harness_.runTest(test, {kPlain}, true);
  EXPECT_EQ(harness_.start(test).status, 200);

  for (auto [label, change] : std::vector<std::pair<const char*, void (*)(SessionSpec&)>>{
           {"app", [](SessionSpec& t) { t.app = "Mail"; }},
           {"test", [](SessionSpec& t) { t.name = "week view"; }},
           {"os", [](SessionSpec& t) { t.os = "Linux 6.2"; }},
           {"hosting app", [](SessionSpec& t) { t.hostApp = "Other"; }},
           {"display size", [](SessionSpec& t) { t.width = 390; }},
       }) {
    SessionSpec other = test;
    change(other);
    EXPECT_EQ(harness_.start(other).status, 201) << label;
  }
  // The batch is not part of the identity.
  SessionSpec otherBatch = test;
  otherBatch.batchId = "BATCH-2";
  EXPECT_EQ(harness_.start(otherBatch).status, 200);
}

TEST_F(ServiceTest, ChangedImageIsUnresolvedUntilSaved) {
  SessionSpec test;
  harness_.runTest(test, {kPlain, kMarked}, true);

  std::vector<bool> verdicts;
  Json changed = harness_.runTest(test, {kPlain, kOther}, false, &verdicts);
  EXPECT_EQ(verdicts, std::vector<bool>({true, false}));
  EXPECT_EQ(changed["status"], "Unresolved");
  EXPECT_EQ(changed["isDifferent"], true);
  EXPECT_EQ(changed["matches"], 1);
  EXPECT_EQ(changed["mismatches"], 1);
  const Json& step = changed["stepsInfo"][1];
  EXPECT_EQ(step["isDifferent"], true);
  for (const char* kind : {"baselineImage", "currentImage", "diffImage"}) {
    ASSERT_TRUE(step["apiUrls"].contains(kind)) << kind;
    Reply image = harness_.fetch(step["apiUrls"][kind]);
    EXPECT_EQ(image.status, 200) << kind;
    EXPECT_NO_THROW(Image::fromPNGData(reinterpret_cast<const std::uint8_t*>(image.raw.data()),
                                       image.raw.size()));
  }

  // Not saved: the old baseline still holds. Saved: the change becomes the baseline.
  EXPECT_EQ(harness_.runTest(test, {kPlain, kMarked}, false)["status"], "Passed");
  Json saved = harness_.runTest(test, {kPlain, kOther}, true);
  EXPECT_EQ(saved["status"], "Unresolved");
  EXPECT_EQ(harness_.runTest(test, {kPlain, kOther}, false)["status"], "Passed");
  EXPECT_EQ(harness_.runTest(test, {kPlain, kMarked}, false)["status"], "Unresolved");
}

TEST_F(ServiceTest, NewTestNotSavedStaysNewAndUnresolved) {
  SessionSpec test;
  Json first = harness_.runTest(test, {kPlain}, false);
  EXPECT_EQ(first["status"], "Unresolved");
  EXPECT_EQ(first["isNew"], true);
  EXPECT_EQ(first["isDifferent"], false);
  EXPECT_EQ(harness_.start(test).status, 201);
}

TEST_F(ServiceTest, MissingAndExtraStepsMakeTheTestUnresolved) {
  SessionSpec test;
  harness_.runTest(test, {kPlain, kMarked, kOther}, true);

  Json shorter = harness_.runTest(test, {kPlain}, false);
  EXPECT_EQ(shorter["status"], "Unresolved");
  EXPECT_EQ(shorter["steps"], 1);
  EXPECT_EQ(shorter["missing"], 2);
  ASSERT_EQ(shorter["stepsInfo"].size(), 3u);
  const Json& missing = shorter["stepsInfo"][2];
  EXPECT_EQ(missing["name"], "step 3");
  EXPECT_EQ(missing["hasCurrentImage"], false);
  Reply image = harness_.fetch(missing["apiUrls"]["baselineImage"]);
  EXPECT_EQ(std::vector<std::uint8_t>(image.raw.begin(), image.raw.end()), kOther);

  std::vector<bool> verdicts;
  Json longer = harness_.runTest(test, {kPlain, kMarked, kOther, kPlain}, false, &verdicts);
  EXPECT_EQ(verdicts, std::vector<bool>({true, true, true, false}));
  EXPECT_EQ(longer["status"], "Unresolved");
  EXPECT_EQ(longer["missing"], 0);

  // Saving the shorter run drops the baseline steps it did not reach.
  harness_.runTest(test, {kPlain}, true);
  EXPECT_EQ(harness_.runTest(test, {kPlain}, false)["status"], "Passed");
}

TEST_F(ServiceTest, AbortedSessionFailsAndSavesNothing) {
  SessionSpec test;
  std::string id = harness_.start(test).body["id"];
  harness_.match(id, matchBody(kPlain, "home"));
  Json aborted = harness_.stop(id, true, true).body;
  EXPECT_EQ(aborted["isAborted"], true);
  EXPECT_EQ(aborted["status"], "Failed");
  EXPECT_EQ(harness_.start(test).status, 201);

  // A repeated stop answers with the first results and changes nothing.
  Json again = harness_.stop(id, false, true).body;
  EXPECT_EQ(again["status"], "Failed");
  EXPECT_EQ(again["isAborted"], true);
  EXPECT_EQ(harness_.match(id, matchBody(kPlain, "late")).status, 409);
}

// Every match-window request is counted with its handler's time, refused ones included; other
// requests are not.
TEST_F(ServiceTest, CountsMatchWindowRequestsAndTheirTime) {
  EXPECT_EQ(harness_.service().matchWindowTime().requests, 0u);
  SessionSpec test;
  harness_.runTest(test, {kPlain, kMarked}, true);
  std::string id = harness_.start(test).body["id"];
  EXPECT_EQ(harness_.match(id, Json{{"tag", "no image"}}).status, 400);
  const HandlerTime counted = harness_.service().matchWindowTime();
  EXPECT_EQ(counted.requests, 3u);
  EXPECT_GT(counted.total.count(), 0);
}

TEST_F(ServiceTest, MismatchesSentForRetryAreNotRecorded) {
  SessionSpec test;
  harness_.runTest(test, {kPlain, kMarked}, true);
  std::string id = harness_.start(test).body["id"];

  // Step 1: two retries that mismatch, then a retry that matches.
  EXPECT_EQ(harness_.match(id, matchBody(kOther, "a", true)).body["asExpected"], false);
  EXPECT_EQ(harness_.match(id, matchBody(kOther, "a", true)).body["asExpected"], false);
  EXPECT_EQ(harness_.match(id, matchBody(kPlain, "a", true)).body["asExpected"], true);
  // Step 2: a retry that mismatches, then the last attempt, which is recorded as it is.
  EXPECT_EQ(harness_.match(id, matchBody(kOther, "b", true)).body["asExpected"], false);
  EXPECT_EQ(harness_.match(id, matchBody(kOther, "b", false)).body["asExpected"], false);

  Json results = harness_.stop(id, false, false).body;
  EXPECT_EQ(results["steps"], 2);
  EXPECT_EQ(results["matches"], 1);
  EXPECT_EQ(results["mismatches"], 1);
  EXPECT_EQ(results["missing"], 0);
  EXPECT_EQ(results["stepsInfo"][0]["name"], "a");
  EXPECT_EQ(results["stepsInfo"][1]["name"], "b");
}

TEST_F(ServiceTest, StepSettingsDecideTheMatch) {
  SessionSpec test;
  harness_.runTest(test, {kPlain}, true);
  struct Case {
    const char* label;
    Json settings;
    bool expected;
  };
  std::vector<Case> cases = {
      {"strict sees the change", wireSettings("Strict"), false},
      {"ignore region over the change", wireSettings("Strict", Json::array({region(0, 0, 12, 12)})),
       true},
      {"ignore region elsewhere", wireSettings("Strict", Json::array({region(20, 0, 12, 12)})),
       false},
      {"level None", wireSettings("None"), true},
      {"absurd ignore region",
       wireSettings("Strict", Json::array({region(INT64_MAX - 5, INT64_MIN, INT64_MAX, 1)})),
       false},
  };
  for (const Case& c : cases) {
    std::string id = harness_.start(test).body["id"];
    Reply matched = harness_.match(id, matchBody(kMarked, "home", false, c.settings));
    EXPECT_EQ(matched.body["asExpected"], c.expected) << c.label;
    Json results = harness_.stop(id, false, false).body;
    EXPECT_EQ(results["noneMatches"], c.expected && c.settings["matchLevel"] == "None" ? 1 : 0)
        << c.label;
  }
}

TEST_F(ServiceTest, AccessibilityRegionsGiveAnAccessibilityStatus) {
  SessionSpec test;
  const auto grey =
      solidPng(40, 30, {200, 200, 200, 255}, PixelRect{5, 5, 10, 10}, {170, 170, 170, 255});
  struct Case {
    std::vector<std::uint8_t> png;
    const char* level;
    const char* expectedStatus;
    const char* expectedLevel;
  };
  for (const Case& c : {Case{kMarked, "AA", "Passed", "AA"}, Case{grey, "AAA", "Failed", "AAA"},
                        Case{grey, "None", "Failed", "AA"}}) {
    Json regions = Json::array(
        {Json{{"left", 0}, {"top", 0}, {"width", 20}, {"height", 20}, {"type", "RegularText"}}});
    std::string id = harness_.start(test).body["id"];
    harness_.match(
        id, matchBody(c.png, "a", false, wireSettings("Strict", Json::array(), regions, c.level)));
    Json status = harness_.stop(id, false, false).body["accessibilityStatus"];
    EXPECT_EQ(status["status"], c.expectedStatus) << c.level;
    EXPECT_EQ(status["level"], c.expectedLevel) << c.level;
  }
}

TEST_F(ServiceTest, BranchesFallBackToTheDefaultBranchAndSaveToTheirOwn) {
  SessionSpec main;
  harness_.runTest(main, {kPlain}, true);

  SessionSpec feature = main;
  feature.branch = "feature/login";
  EXPECT_EQ(harness_.start(feature).status, 200);
  Json changed = harness_.runTest(feature, {kMarked}, true);
  EXPECT_EQ(changed["branchName"], "feature/login");
  EXPECT_EQ(changed["status"], "Unresolved");

  EXPECT_EQ(harness_.runTest(feature, {kMarked}, false)["status"], "Passed");
  EXPECT_EQ(harness_.runTest(main, {kPlain}, false)["status"], "Passed");
}

TEST_F(ServiceTest, CloseBatchKnowsOnlyStartedBatches) {
  SessionSpec test;
  test.batchId = "run-42";
  harness_.start(test);
  Reply closed = harness_.closeBatch("run-42");
  EXPECT_EQ(closed.status, 200);
  EXPECT_EQ(closed.body["isClosed"], true);
  Reply unknown = harness_.closeBatch("run-43");
  EXPECT_EQ(unknown.status, 404);
  EXPECT_TRUE(unknown.body.contains("error"));
}

TEST(ServiceRestart, DataSurvivesARestart) {
  TempFolder folder;
  SessionSpec test;
  Json before;
  {
    Harness first(folder.path());
    before = first.runTest(test, {kPlain, kMarked}, true);
  }
  Harness second(folder.path());
  std::vector<bool> verdicts;
  Json after = second.runTest(test, {kPlain, kOther}, false, &verdicts);
  EXPECT_EQ(after["isNew"], false);
  EXPECT_EQ(verdicts, std::vector<bool>({true, false}));

  // The earlier session's results and images are still served.
  std::string prefix = "http://127.0.0.1:";
  std::string url = before["stepsInfo"][1]["apiUrls"]["currentImage"];
  std::string target = url.substr(url.find('/', prefix.size()));
  Reply image = second.send("GET", target + "?apiKey=" + kApiKey);
  EXPECT_EQ(std::vector<std::uint8_t>(image.raw.begin(), image.raw.end()), kMarked);
}

// The service's end of a kept-alive connection sends at once: with Nagle's algorithm a reply's
// body, written after its headers, waits for the client's delayed acknowledgement (40 ms per
// request).
TEST(ServiceConnections, AcceptedConnectionsSendWithoutDelay) {
  TempFolder folder;
  Harness harness(folder.path());
  httplib::Client client("127.0.0.1", harness.port());
  client.set_keep_alive(true);
  ASSERT_TRUE(client.Get("/api/sessions/running/none?apiKey=" + std::string(kApiKey)));
  int checked = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int fd = std::atoi(entry.path().filename().c_str());
    sockaddr_in local{};
    socklen_t size = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) != 0 ||
        local.sin_family != AF_INET || ntohs(local.sin_port) != harness.port()) {
      continue;
    }
    int listening = 0, noDelay = 0;
    socklen_t length = sizeof listening;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length), 0);
    if (listening) continue;
    length = sizeof noDelay;
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length), 0);
    EXPECT_NE(noDelay, 0);
    ++checked;
  }
  EXPECT_EQ(checked, 1);
}

TEST(ServiceConcurrency, ClientsRunSessionsAtOnce) {
  TempFolder folder;
  Harness harness(folder.path());
  constexpr int kClients = 4;
  std::vector<Json> results(kClients * 2);
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      SessionSpec test;
      test.name = "test " + std::to_string(c);
      results[c * 2] = harness.runTest(test, {kPlain, kMarked}, true);
      results[c * 2 + 1] = harness.runTest(test, {kPlain, kOther}, false);
    });
  }
  for (auto& t : clients) t.join();
  for (int c = 0; c < kClients; ++c) {
    EXPECT_EQ(results[c * 2]["status"], "Passed") << c;
    EXPECT_EQ(results[c * 2 + 1]["status"], "Unresolved") << c;
    EXPECT_EQ(results[c * 2 + 1]["mismatches"], 1) << c;
  }
}

TEST(ServiceConcurrency, StepsSentAtOnceToOneSessionGetTheirOwnPlaces) {
  TempFolder folder;
  Harness harness(folder.path());
  std::string id = harness.start(SessionSpec{}).body["id"];
  constexpr int kClients = 4, kSteps = 3;
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      for (int s = 0; s < kSteps; ++s) {
        harness.match(id, matchBody(kPlain, std::to_string(c) + "." + std::to_string(s)));
      }
    });
  }
  for (auto& t : clients) t.join();
  Json results = harness.stop(id, false, true).body;
  EXPECT_EQ(results["steps"], kClients * kSteps);
  std::set<std::string> names;
  for (const Json& step : results["stepsInfo"]) names.insert(step["name"].get<std::string>());
  EXPECT_EQ(names.size(), static_cast<std::size_t>(kClients * kSteps));
}

TEST(ServiceCorpus, RealScreenshotPassesOnRerun) {
  TempFolder folder;
  Harness harness(folder.path());
  auto image = Image::fromPNGFile(SAFFRA_CORPUS_DIR "/small-help-topic-320x480.png");
  std::vector<std::uint8_t> png = image->pngData();
  SessionSpec test;
  test.width = 320;
  test.height = 480;
  EXPECT_EQ(harness.runTest(test, {png}, true)["status"], "Passed");
  std::vector<bool> verdicts;
  EXPECT_EQ(harness.runTest(test, {png}, false, &verdicts)["status"], "Passed");
  EXPECT_EQ(verdicts, std::vector<bool>({true}));
}

}  // namespace
}  // namespace saffra::server::testing
