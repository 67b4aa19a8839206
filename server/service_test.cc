// The protocol end to end against an in-process service on a loopback port, and uploads as a
// regression run sends them: the baseline's own bytes, the same pixels in other bytes, or other
// pixels, also from several clients at once.
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
#include "server/store.h"
#include "testing/png_files.h"

namespace saffra::server::testing {
namespace {

class ServiceTest : public ::testing::Test {
 protected:
  TempFolder folder_;
  Harness harness_{folder_.path()};
};

TEST_F(ServiceTest, NewTestIsProposedThenSavedAndARerunPasses) {
  SessionSpec test;
  // Not saved, a new test stays new and unresolved.
  Json unsaved = harness_.runTest(test, {kPlain}, false);
  EXPECT_EQ(unsaved["status"], "Unresolved");
  EXPECT_EQ(unsaved["isNew"], true);
  EXPECT_EQ(unsaved["isDifferent"], false);

  Reply started = harness_.start(test);
  ASSERT_EQ(started.status, 201);
  EXPECT_TRUE(started.body.value("isNew", false));
  std::string id = started.body.value("id", "");
  ASSERT_FALSE(id.empty());
  EXPECT_EQ(harness_.fetch(started.body.value("url", "")).status, 200);

  for (const auto& [png, tag] : {std::pair{kPlain, "step 1"}, std::pair{kMarked, "step 2"}}) {
    Reply matched = harness_.match(id, matchBody(png, tag));
    ASSERT_EQ(matched.status, 200) << matched.raw;
    EXPECT_EQ(matched.body, Json({{"asExpected", true}}));
  }
  Json first = harness_.stop(id, false, true).body;
  EXPECT_EQ(differences(first, R"({"/status": "Passed", "/isNew": true, "/isDifferent": false,
      "/steps": 2, "/matches": 0, "/mismatches": 0, "/strictMatches": 0, "/name": "month view",
      "/appName": "Calendar", "/hostOS": "Linux 6.1", "/hostApp": "Unit tests",
      "/hostDisplaySize": {"width": 375.0, "height": 667.0}, "/batchId": "BATCH-1",
      "/batchName": "nightly", "/branchName": "default", "/defaultMatchSettings/matchLevel": "Strict",
      "/defaultMatchSettings/remainder": false, "/stepsInfo/0/hasBaselineImage": false})"),
            "");
  EXPECT_EQ(first["id"], id);
  EXPECT_FALSE(first.contains("accessibilityStatus"));
  ASSERT_EQ(first["stepsInfo"].size(), 2u);

  // The images and the page the document points at are served; the current image is the
  // uploaded PNG byte for byte.
  Reply image = harness_.fetch(first["stepsInfo"][1]["apiUrls"]["currentImage"]);
  EXPECT_EQ(image.status, 200);
  EXPECT_EQ(image.contentType, "image/png");
  EXPECT_EQ(image.bytes(), kMarked);
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

TEST_F(ServiceTest, StartFindsTheBaselineOfTheSameIdentityAndBranch) {
  SessionSpec test;
  harness_.runTest(test, {kPlain}, true);
  EXPECT_EQ(harness_.start(test).status, 200);

  for (auto [label, change, status] :
       std::vector<std::tuple<const char*, void (*)(SessionSpec&), int>>{
           {"app", [](SessionSpec& t) { t.app = "Mail"; }, 201},
           {"test", [](SessionSpec& t) { t.name = "week view"; }, 201},
           {"os", [](SessionSpec& t) { t.os = "Linux 6.2"; }, 201},
           {"hosting app", [](SessionSpec& t) { t.hostApp = "Other"; }, 201},
           {"display size", [](SessionSpec& t) { t.width = 390; }, 201},
           {"batch, not part of the identity", [](SessionSpec& t) { t.batchId = "BATCH-2"; }, 200},
       }) {
    SessionSpec other = test;
    change(other);
    EXPECT_EQ(harness_.start(other).status, status) << label;
  }

  // A branch without a baseline of its own starts from the default branch's and saves to its
  // own.
  SessionSpec feature = test;
  feature.branch = "feature/login";
  EXPECT_EQ(harness_.start(feature).status, 200);
  Json changed = harness_.runTest(feature, {kMarked}, true);
  EXPECT_EQ(changed["branchName"], "feature/login");
  EXPECT_EQ(changed["status"], "Unresolved");
  EXPECT_EQ(harness_.runTest(feature, {kMarked}, false)["status"], "Passed");
  EXPECT_EQ(harness_.runTest(test, {kPlain}, false)["status"], "Passed");
}

TEST_F(ServiceTest, ChangedMissingAndExtraStepsAreUnresolvedUntilSaved) {
  SessionSpec test;
  harness_.runTest(test, {kPlain, kMarked, kOther}, true);

  std::vector<bool> verdicts;
  Json changed = harness_.runTest(test, {kPlain, kOther, kOther}, false, &verdicts);
  EXPECT_EQ(verdicts, std::vector<bool>({true, false, true}));
  EXPECT_EQ(differences(changed, R"({"/status": "Unresolved", "/isDifferent": true,
      "/matches": 2, "/mismatches": 1, "/stepsInfo/1/isDifferent": true})"),
            "");
  const Json& step = changed["stepsInfo"][1];
  for (const char* kind : {"baselineImage", "currentImage", "diffImage"}) {
    ASSERT_TRUE(step["apiUrls"].contains(kind)) << kind;
    Reply image = harness_.fetch(step["apiUrls"][kind]);
    EXPECT_EQ(image.status, 200) << kind;
    EXPECT_NO_THROW(Image::fromPNGData(image.bytes()));
  }

  Json shorter = harness_.runTest(test, {kPlain}, false);
  EXPECT_EQ(differences(shorter, R"({"/status": "Unresolved", "/steps": 1, "/missing": 2,
      "/stepsInfo/2/name": "step 3", "/stepsInfo/2/hasCurrentImage": false})"),
            "");
  ASSERT_EQ(shorter["stepsInfo"].size(), 3u);
  EXPECT_EQ(harness_.fetch(shorter["stepsInfo"][2]["apiUrls"]["baselineImage"]).bytes(), kOther);

  verdicts.clear();
  Json longer = harness_.runTest(test, {kPlain, kMarked, kOther, kPlain}, false, &verdicts);
  EXPECT_EQ(verdicts, std::vector<bool>({true, true, true, false}));
  EXPECT_EQ(longer["status"], "Unresolved");
  EXPECT_EQ(longer["missing"], 0);

  // Not saved, the old baseline still holds. Saved, the run becomes the baseline: the changed
  // step, and none of the steps it did not reach.
  EXPECT_EQ(harness_.runTest(test, {kPlain, kMarked, kOther}, false)["status"], "Passed");
  EXPECT_EQ(harness_.runTest(test, {kPlain, kOther}, true)["status"], "Unresolved");
  EXPECT_EQ(harness_.runTest(test, {kPlain, kOther}, false)["status"], "Passed");
  EXPECT_EQ(harness_.runTest(test, {kPlain, kMarked}, false)["status"], "Unresolved");
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
TEST_F(ServiceTest, RetriesAreNotRecordedAndEveryMatchRequestIsTimed) {
  EXPECT_EQ(harness_.service().matchWindowTime().requests, 0u);
  SessionSpec test;
  harness_.runTest(test, {kPlain, kMarked}, true);
  std::string id = harness_.start(test).body["id"];
  EXPECT_EQ(harness_.match(id, Json{{"tag", "no image"}}).status, 400);

  // Step 1: two retries that mismatch, then a retry that matches.
  EXPECT_EQ(harness_.match(id, matchBody(kOther, "step 1", true)).body["asExpected"], false);
  EXPECT_EQ(harness_.match(id, matchBody(kOther, "step 1", true)).body["asExpected"], false);
  EXPECT_EQ(harness_.match(id, matchBody(kPlain, "step 1", true)).body["asExpected"], true);
  // Step 2: a retry that mismatches, then the last attempt, which is recorded as it is.
  EXPECT_EQ(harness_.match(id, matchBody(kOther, "step 2", true)).body["asExpected"], false);
  EXPECT_EQ(harness_.match(id, matchBody(kOther, "step 2", false)).body["asExpected"], false);

  EXPECT_EQ(differences(harness_.stop(id, false, false).body,
                        R"({"/steps": 2, "/matches": 1, "/mismatches": 1, "/missing": 0,
                            "/stepsInfo/0/name": "step 1", "/stepsInfo/1/name": "step 2"})"),
            "");
  const HandlerTime counted = harness_.service().matchWindowTime();
  EXPECT_EQ(counted.requests, 8u);
  EXPECT_GT(counted.total.count(), 0);
}

TEST_F(ServiceTest, StepSettingsDecideTheMatch) {
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
  SessionSpec test;
  harness_.runTest(test, std::vector(cases.size(), kPlain), true);
  std::string id = harness_.start(test).body["id"];
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    Reply matched =
        harness_.match(id, matchBody(kMarked, "step " + std::to_string(i + 1), false, c.settings));
    EXPECT_EQ(matched.body["asExpected"], c.expected) << c.label;
  }
  EXPECT_EQ(harness_.stop(id, false, false).body["noneMatches"], 1);
}

// The baseline's own bytes match at every level but a forced mismatch and keep its image id;
// the same pixels in other bytes (another encoder, an extra chunk) match and are stored whole,
// as new files, by the time their step is recorded.
TEST_F(ServiceTest, UploadsAreJudgedByTheirPixelsAndStoredByTheirBytes) {
  const std::vector<std::uint8_t> original =
      saffra::testing::readFile(SAFFRA_CORPUS_DIR "/small-help-topic-320x480.png");
  const std::vector<std::uint8_t> reencoded = Image::fromPNGData(original)->pngData();
  const std::vector<std::uint8_t> chunked = withTextChunk(kPlain);
  ASSERT_NE(original, reencoded);
  struct Case {
    const std::vector<std::uint8_t>& baseline;
    const std::vector<std::uint8_t>& upload;
    const char* level;
    bool forceMismatch, expected;
  };
  const std::vector<Case> cases = {
      {kMarked, kMarked, "Exact", false, true},      {kMarked, kMarked, "Strict", false, true},
      {kMarked, kMarked, "Layout", false, true},     {kMarked, kMarked, "Strict", true, false},
      {reencoded, reencoded, "Strict", false, true}, {original, reencoded, "Exact", false, true},
      {original, reencoded, "Strict", false, true},  {kPlain, chunked, "Exact", false, true},
      {kPlain, chunked, "Strict", false, true}};
  SessionSpec test;
  std::vector<std::vector<std::uint8_t>> baselines;
  for (const Case& c : cases) baselines.push_back(c.baseline);
  harness_.runTest(test, baselines, true);
  std::string id = harness_.start(test).body["id"];
  for (std::size_t i = 0; i < cases.size(); ++i) {
    Json body = matchBody(cases[i].upload, "step " + std::to_string(i + 1), false,
                          wireSettings(cases[i].level));
    body["options"]["forceMismatch"] = cases[i].forceMismatch;
    Reply matched = harness_.match(id, body);
    ASSERT_EQ(matched.status, 200) << matched.raw;
    EXPECT_EQ(matched.body["asExpected"], cases[i].expected) << i;
  }
  Json results = harness_.stop(id, false, false).body;
  std::vector<StepRecord> steps = openStore(folder_.path().string())->steps(id);
  ASSERT_EQ(steps.size(), cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(steps[i].currentImage, Store::imageIdOf(cases[i].upload)) << i;
    EXPECT_EQ(steps[i].baselineImage, Store::imageIdOf(cases[i].baseline)) << i;
    EXPECT_EQ(steps[i].asExpected, cases[i].expected) << i;
    EXPECT_EQ(steps[i].matchLevel, cases[i].level) << i;
    Reply stored = harness_.fetch(results["stepsInfo"][i]["apiUrls"]["currentImage"]);
    EXPECT_EQ(stored.bytes(), cases[i].upload) << i;
  }
}

// Saved tests and earlier results survive a restart. The verdict on accessibility regions is
// the same whether the upload's pixels were decoded (a new test), taken from a restarted
// service's files or from its decoded baselines.
TEST(ServiceRestart, DataAndVerdictsSurviveARestart) {
  TempFolder folder;
  const auto grey =
      solidPng(40, 30, {200, 200, 200, 255}, PixelRect{5, 5, 10, 10}, {170, 170, 170, 255});
  struct Case {
    std::vector<std::uint8_t> png;
    const char* level;
    const char* expectedStatus;
    const char* expectedLevel;
  };
  const std::vector<Case> cases = {Case{kMarked, "AA", "Passed", "AA"},
                                   Case{grey, "AAA", "Failed", "AAA"},
                                   Case{grey, "None", "Failed", "AA"}};
  auto checkContrast = [&](const Harness& harness, bool save) {
    for (std::size_t n = 0; n < cases.size(); ++n) {
      const Case& c = cases[n];
      SessionSpec test;
      test.name = "contrast " + std::to_string(n);
      Json regions = Json::array(
          {Json{{"left", 0}, {"top", 0}, {"width", 20}, {"height", 20}, {"type", "RegularText"}}});
      std::string id = harness.start(test).body["id"];
      Json settings = wireSettings("Strict", Json::array(), regions, c.level);
      EXPECT_EQ(harness.match(id, matchBody(c.png, "a", false, settings)).body["asExpected"], true)
          << c.level;
      Json status = harness.stop(id, false, save).body["accessibilityStatus"];
      EXPECT_EQ(status["status"], c.expectedStatus) << c.level;
      EXPECT_EQ(status["level"], c.expectedLevel) << c.level;
    }
  };
  SessionSpec test;
  std::string image;
  {
    Harness first(folder.path());
    std::string url =
        first.runTest(test, {kPlain, kMarked}, true)["stepsInfo"][1]["apiUrls"]["currentImage"];
    image = url.substr(url.find("/api/"));
    checkContrast(first, true);
  }
  Harness second(folder.path());
  std::vector<bool> verdicts;
  EXPECT_EQ(second.runTest(test, {kPlain, kOther}, false, &verdicts)["isNew"], false);
  EXPECT_EQ(verdicts, std::vector<bool>({true, false}));
  EXPECT_EQ(second.send("GET", image + "?apiKey=" + kApiKey).bytes(), kMarked);
  checkContrast(second, false);
  checkContrast(second, false);
}

// The service's end of a kept-alive connection sends at once: with Nagle's algorithm a reply's
// body, written after its headers, waits for the client's delayed acknowledgement (40 ms per
// request).
TEST_F(ServiceTest, AcceptedConnectionsSendWithoutDelay) {
  httplib::Client client("127.0.0.1", harness_.port());
  client.set_keep_alive(true);
  ASSERT_TRUE(client.Get("/api/sessions/running/none?apiKey=" + std::string(kApiKey)));
  int checked = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int fd = std::atoi(entry.path().filename().c_str());
    sockaddr_in local{};
    socklen_t size = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) != 0 ||
        local.sin_family != AF_INET || ntohs(local.sin_port) != harness_.port()) {
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

// Clients with screenshots of different sizes run whole tests at once and decode into the same
// spare buffers; every verdict and document is still the one of its own pixels.
TEST_F(ServiceTest, ClientsRunTestsAtOnceAndGetTheirOwnVerdicts) {
  std::vector<std::thread> clients;
  for (int c = 0; c < 4; ++c) {
    clients.emplace_back([&, c] {
      const std::size_t width = 40 + 23 * c, height = 30 + 11 * c;
      const auto a = solidPng(width, height, kWhite, PixelRect{c, c, 4, 4});
      const auto b = solidPng(width, height, kWhite, PixelRect{c + 10, c + 3, 5, 5});
      SessionSpec test;
      test.name = "client " + std::to_string(c);
      EXPECT_EQ(harness_.runTest(test, {a, b}, true)["status"], "Passed") << c;
      for (int round = 0; round < 3; ++round) {
        std::vector<bool> verdicts;
        harness_.runTest(test, {withTextChunk(a), a, b}, false, &verdicts);
        Json changed = harness_.runTest(test, {b, withTextChunk(b)}, false, &verdicts);
        EXPECT_EQ(verdicts, std::vector<bool>({true, false, false, false, true})) << c;
        EXPECT_EQ(changed["status"], "Unresolved") << c;
        EXPECT_EQ(changed["mismatches"], 1) << c;
      }
    });
  }
  for (auto& client : clients) client.join();
}

TEST_F(ServiceTest, StepsSentAtOnceToOneSessionGetTheirOwnPlaces) {
  std::string id = harness_.start(SessionSpec{}).body["id"];
  constexpr int kClients = 4, kSteps = 3;
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      for (int s = 0; s < kSteps; ++s) {
        harness_.match(id, matchBody(kPlain, std::to_string(c) + "." + std::to_string(s)));
      }
    });
  }
  for (auto& t : clients) t.join();
  Json results = harness_.stop(id, false, true).body;
  EXPECT_EQ(results["steps"], kClients * kSteps);
  std::set<std::string> names;
  for (const Json& step : results["stepsInfo"]) names.insert(step["name"].get<std::string>());
  EXPECT_EQ(names.size(), static_cast<std::size_t>(kClients * kSteps));
}

}  // namespace
// Two services on one PostgreSQL database act as one: a session started on A is checked and
// stopped through B, its results are read on A, and the baseline B saved is what A's next
// session is compared with.
TEST(ServicesOnOneDatabase, ShareSessionsAndBaselines) {
  // (A PostgreSQL server that cannot start fails the test with its reason.)
  const std::string database = saffra::testing::PostgresServer::shared().createDatabase();
  TempFolder folderA, folderB;
  Harness a(folderA.path(), 100u << 20, database);
  Harness b(folderB.path(), 100u << 20, database);
  SessionSpec test;
  const std::string id = a.start(test).body["id"];
  EXPECT_EQ(b.match(id, matchBody(kPlain, "step 1")).status, 200);
  EXPECT_EQ(b.stop(id, false, true).body["status"], "Passed");
  Reply results = a.send("GET", "/api/sessions/" + id + "?apiKey=" + kApiKey);
  ASSERT_EQ(results.status, 200) << results.raw;
  EXPECT_EQ(a.runTest(test, {kPlain}, false)["status"], "Passed");
  EXPECT_EQ(b.runTest(test, {kMarked}, false)["status"], "Unresolved");
}

}  // namespace saffra::server::testing
