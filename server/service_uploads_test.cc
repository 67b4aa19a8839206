// Uploads of a check as a regression run sends them: byte for byte the baseline's image, the
// same pixels in other bytes, or other pixels, also from several clients at once.
#include <fstream>
#include <iterator>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "server/service_test_support.h"
#include "server/store.h"

namespace saffra::server::testing {
namespace {

const std::vector<std::uint8_t> kPlain = solidPng(40, 30, kWhite);
const std::vector<std::uint8_t> kMarked = solidPng(40, 30, kWhite, PixelRect{5, 5, 4, 4});

/// The steps a session recorded, read from the store the service writes.
std::vector<StepRecord> storedSteps(const std::filesystem::path& folder, const std::string& id) {
  return Store(folder).steps(id);
}

TEST(ServiceUploads, UploadOfTheBaselinesBytesMatchesAndKeepsItsImageId) {
  TempFolder folder;
  Harness harness(folder.path());
  SessionSpec test;
  harness.runTest(test, {kMarked}, true);
  const std::string imageId = Store::imageIdOf(kMarked);
  struct Case {
    const char* level;
    bool forceMismatch;
    bool expected;
  };
  for (const Case& c : {Case{"Exact", false, true}, Case{"Strict", false, true},
                        Case{"Layout", false, true}, Case{"Strict", true, false}}) {
    std::string id = harness.start(test).body["id"];
    Json body = matchBody(kMarked, "home", false, wireSettings(c.level));
    body["options"]["forceMismatch"] = c.forceMismatch;
    Reply matched = harness.match(id, body);
    ASSERT_EQ(matched.status, 200) << matched.raw;
    EXPECT_EQ(matched.body["asExpected"], c.expected) << c.level;
    harness.stop(id, false, false);
    std::vector<StepRecord> steps = storedSteps(folder.path(), id);
    ASSERT_EQ(steps.size(), 1u) << c.level;
    EXPECT_EQ(steps[0].currentImage, imageId) << c.level;
    EXPECT_EQ(steps[0].baselineImage, imageId) << c.level;
    EXPECT_EQ(steps[0].asExpected, c.expected) << c.level;
    EXPECT_EQ(steps[0].matchLevel, c.level) << c.level;
  }
}

// The verdict on accessibility regions is the same whether the upload's pixels were decoded
// (the first run), taken from a restarted service's files or from its decoded baselines.
TEST(ServiceUploads, UploadOfTheBaselinesBytesGetsTheSameAccessibilityVerdict) {
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
  auto check = [&](const Harness& harness, const Case& c, std::size_t n, bool save) {
    SessionSpec test;
    test.name = "contrast " + std::to_string(n);
    Json regions = Json::array(
        {Json{{"left", 0}, {"top", 0}, {"width", 20}, {"height", 20}, {"type", "RegularText"}}});
    std::string id = harness.start(test).body["id"];
    Reply matched = harness.match(
        id, matchBody(c.png, "a", false, wireSettings("Strict", Json::array(), regions, c.level)));
    EXPECT_EQ(matched.body["asExpected"], true) << c.level;
    Json status = harness.stop(id, false, save).body["accessibilityStatus"];
    EXPECT_EQ(status["status"], c.expectedStatus) << c.level;
    EXPECT_EQ(status["level"], c.expectedLevel) << c.level;
  };
  {
    Harness first(folder.path());
    for (std::size_t n = 0; n < cases.size(); ++n) check(first, cases[n], n, true);
  }
  Harness second(folder.path());
  for (int run = 0; run < 2; ++run) {
    for (std::size_t n = 0; n < cases.size(); ++n) check(second, cases[n], n, false);
  }
}

TEST(ServiceUploads, SamePixelsInOtherBytesMatch) {
  TempFolder folder;
  Harness harness(folder.path());
  std::ifstream in(SAFFRA_CORPUS_DIR "/small-help-topic-320x480.png", std::ios::binary);
  const std::vector<std::uint8_t> original(std::istreambuf_iterator<char>(in), {});
  const std::vector<std::uint8_t> reencoded = Image::fromPNGData(original)->pngData();
  ASSERT_NE(original, reencoded);
  SessionSpec test;
  harness.runTest(test, {original, kPlain}, true);
  for (const char* level : {"Exact", "Strict"}) {
    std::string id = harness.start(test).body["id"];
    EXPECT_EQ(
        harness.match(id, matchBody(reencoded, "a", false, wireSettings(level))).body["asExpected"],
        true)
        << level;
    EXPECT_EQ(harness.match(id, matchBody(withTextChunk(kPlain), "b", false, wireSettings(level)))
                  .body["asExpected"],
              true)
        << level;
    Json results = harness.stop(id, false, false).body;
    EXPECT_EQ(results["status"], "Passed") << level;
    // The new file is complete by the time its step is recorded.
    Reply stored = harness.fetch(results["stepsInfo"][0]["apiUrls"]["currentImage"]);
    EXPECT_EQ(std::vector<std::uint8_t>(stored.raw.begin(), stored.raw.end()), reencoded);
    std::vector<StepRecord> steps = storedSteps(folder.path(), id);
    ASSERT_EQ(steps.size(), 2u);
    EXPECT_EQ(steps[0].currentImage, Store::imageIdOf(reencoded));
    EXPECT_EQ(steps[0].baselineImage, Store::imageIdOf(original));
  }
}

// Clients with screenshots of different sizes decode into the same spare buffers; every
// verdict is still the one of its own pixels.
TEST(ServiceUploads, ClientsCheckingAtOnceGetTheirOwnVerdicts) {
  TempFolder folder;
  Harness harness(folder.path());
  constexpr int kClients = 4, kRounds = 3;
  std::vector<std::vector<std::string>> failures(kClients);
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      const std::size_t width = 40 + 23 * c, height = 30 + 11 * c;
      const auto a = solidPng(width, height, kWhite, PixelRect{c, c, 4, 4});
      const auto b = solidPng(width, height, kWhite, PixelRect{c + 10, c + 3, 5, 5});
      SessionSpec test;
      test.name = "client " + std::to_string(c);
      harness.runTest(test, {a, b}, true);
      for (int round = 0; round < kRounds; ++round) {
        std::vector<bool> verdicts;
        harness.runTest(test, {withTextChunk(a), a, b}, false, &verdicts);
        harness.runTest(test, {b, withTextChunk(b)}, false, &verdicts);
        if (verdicts != std::vector<bool>({true, false, false, false, true})) {
          failures[c].push_back("round " + std::to_string(round));
        }
      }
    });
  }
  for (auto& client : clients) client.join();
  for (int c = 0; c < kClients; ++c) EXPECT_TRUE(failures[c].empty()) << "client " << c;
}

}  // namespace
}  // namespace saffra::server::testing
