// `saffra check` as CI jobs run it: the built command against a `saffra serve` process on a free
// loopback port. The baseline key does not depend on the files' sizes, a new baseline is
// announced (and refused with --fail-on-new), a service that dies mid-run ends the run at once
// with one sentence and exit code 3, folders and batch ids work, and bad options get plain
// messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <httplib.h>

#include "saffra/platform/image.h"
#include "saffra/platform/json.h"
#include "saffra/platform/uuid.h"
#include "testing/child_process.h"
#include "testing/png_files.h"
#include "testing/xml_document.h"

namespace saffra {
namespace {

namespace fs = std::filesystem;
using testing::ChildProcess;
using testing::ServeProcess;
using testing::startServe;

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";

// A white image with a coloured box at (x, 8), for files whose differences are known.
std::shared_ptr<Image> boxImage(int width, int height, int x, std::uint8_t red) {
  auto image = std::make_shared<Image>(width, height);
  std::uint8_t* p = image->mutableData();
  for (int j = 0; j < height; ++j) {
    for (int i = 0; i < width; ++i, p += 4) {
      const bool box = i >= x && i < x + 16 && j >= 8 && j < 24;
      p[0] = box ? red : 255, p[1] = box ? 40 : 255, p[2] = box ? 40 : 255, p[3] = 255;
    }
  }
  return image;
}

std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++n;
  }
  return n;
}

class CheckCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(folder_ / "shots");
    ServeProcess serve = startServe(kCommand, folder_ / "data");
    service_ = std::move(serve.process);
    url_ = serve.url;
    port_ = serve.port;
  }
  void TearDown() override {
    if (service_) {
      EXPECT_EQ(service_->stop(SIGTERM), 0);
    }
    fs::remove_all(folder_);
  }

  std::string write(const std::string& name, const std::shared_ptr<Image>& image) {
    return testing::writePNGFile(folder_ / name, *image);
  }
  std::vector<std::string> environment(std::vector<std::string> extra = {}) const {
    extra.push_back("QUORVANT_API_KEY=key");
    extra.push_back("QUORVANT_SERVER_URL=" + url_);
    return extra;
  }
  std::vector<std::string> arguments(const std::string& test, std::vector<std::string> args) {
    if (std::find(args.begin(), args.end(), "--timeout") == args.end()) {
      args.insert(args.begin(), {"--timeout", "20"});
    }
    args.insert(args.begin(), {"check", "--app", "Shop", "--test", test});
    return args;
  }
  struct Outcome {
    int exitCode;
    std::string output;
  };
  Outcome check(std::vector<std::string> args, std::vector<std::string> extraEnvironment = {}) {
    ChildProcess child(kCommand, arguments("Cart", std::move(args)),
                       environment(std::move(extraEnvironment)));
    std::string output = child.readAll();
    return {child.wait(), output};
  }
  // The results document of a run whose output names its results address.
  Json resultsDocument(const std::string& output) {
    std::smatch url;
    EXPECT_TRUE(std::regex_search(output, url, std::regex("Results: (http://\\S+)"))) << output;
    httplib::Client client("127.0.0.1", port_);
    const std::string path = url[1].str().substr(url_.size());
    auto reply = client.Get(
        (path + (path.find('?') == std::string::npos ? "?" : "&") + "apiKey=key").c_str(),
        {{"Accept", "application/json"}});
    EXPECT_TRUE(reply && reply->status == 200);
    return reply ? json::parse(reply->body).value_or(Json()) : Json();
  }

  fs::path folder_ = fs::temp_directory_path() / ("saffra-check-" + newUUIDString());
  std::unique_ptr<ChildProcess> service_;
  std::string url_;
  int port_ = 0;
};

// The first run of a folder announces the new baseline and its key; adding a file of another
// size that sorts first and changing one file then gives differences against that baseline,
// not a new one. A viewport is part of the key, and --fail-on-new (option or variable) fails a
// new test without saving its images.
TEST_F(CheckCommandTest, BaselineKeyIgnoresImageSizesAndNewBaselinesAreLoud) {
  const std::string shots = (folder_ / "shots").string();
  write("shots/b.png", boxImage(96, 64, 40, 200));
  write("shots/c.png", boxImage(96, 64, 60, 200));
  write("shots/a.png", boxImage(96, 64, 20, 200));
  Outcome first = check({shots});
  EXPECT_EQ(first.exitCode, 0) << first.output;
  const std::string key = "app \"Shop\", test \"Cart\", branch \"default\", viewport not set";
  EXPECT_NE(first.output.find("NEW BASELINE: nothing to compare with for " + key),
            std::string::npos)
      << first.output;
  EXPECT_NE(first.output.find("NEW BASELINE: saved for " + key), std::string::npos);
  EXPECT_NE(first.output.find("[1/3] a.png ... new\n[2/3] b.png ... new\n[3/3] c.png ... new"),
            std::string::npos);
  EXPECT_NE(first.output.find("Steps: 3, matches: 0, new: 3, mismatches: 0, missing: 0"),
            std::string::npos);

  write("shots/0-wide.png", boxImage(300, 40, 10, 200));
  write("shots/c.png", boxImage(96, 64, 60, 90));
  Outcome changed = check({shots});
  EXPECT_EQ(changed.exitCode, 1) << changed.output;
  EXPECT_EQ(changed.output.find("NEW BASELINE"), std::string::npos) << changed.output;
  EXPECT_NE(changed.output.find("differences"), std::string::npos);
  EXPECT_NE(changed.output.find("Status: Unresolved"), std::string::npos);
  EXPECT_NE(changed.output.find("Baseline: version 1 from branch \"default\""), std::string::npos)
      << changed.output;

  const std::vector<std::vector<std::string>> failOnNew = {{}, {"SAFFRA_FAIL_ON_NEW=true"}};
  for (const auto& variables : failOnNew) {
    std::vector<std::string> args = {"--viewport", "1280x800", shots};
    if (variables.empty()) args.insert(args.begin(), "--fail-on-new");
    Outcome refused = check(args, variables);
    EXPECT_EQ(refused.exitCode, 1) << refused.output;
    EXPECT_NE(refused.output.find("NEW BASELINE: not saved for app \"Shop\", test \"Cart\", "
                                  "branch \"default\", viewport 1280x800"),
              std::string::npos)
        << refused.output;
    EXPECT_NE(refused.output.find("(new test, baseline awaits approval)"), std::string::npos);
  }
}

// A service killed in the middle of a run: the command stops at once with one sentence naming
// the service, no library internals or log lines, exit code 3 and a JUnit error case.
TEST_F(CheckCommandTest, ServiceKilledMidRunEndsTheRunCleanly) {
  const int count = 200;
  for (int i = 0; i < count; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "shots/%03d.png", i);
    write(name, boxImage(96, 64, i % 80, 200));
  }
  const fs::path report = folder_ / "junit.xml";
  ChildProcess run(kCommand,
                   arguments("Cart", {"--junit", report.string(), (folder_ / "shots").string()}),
                   environment());
  std::string output;
  for (std::string line; output.find("[3/200]") == std::string::npos;) {
    line = run.readLine();
    ASSERT_FALSE(line.empty()) << output;
    output += line + "\n";
  }
  service_->stop(SIGKILL);
  service_.reset();
  output += run.readAll();
  EXPECT_EQ(run.wait(), 3) << output;

  EXPECT_EQ(countOf(output, "saffra check:"), 1u) << output;
  std::smatch sentence;
  ASSERT_TRUE(std::regex_search(
      output, sentence,
      std::regex("saffra check: lost the service at " + url_ +
                 " while checking \\S+/shots/[0-9]{3}\\.png \\([0-9]+ of 200\\): [^\n]+\\.\n")))
      << output;
  for (const char* noise : {"Exception", "[QuorvantSaffra]", "differences", "Status:"}) {
    EXPECT_EQ(output.find(noise), std::string::npos) << noise << " in\n" << output;
  }
  EXPECT_LT(countOf(output, "\n"), 200u);

  std::stringstream text;
  text << std::ifstream(report).rdbuf();
  testing::XmlDocument doc(text.str());
  ASSERT_TRUE(doc.ok()) << text.str();
  EXPECT_EQ(doc.value("//testsuite/@errors"), "1");
  EXPECT_EQ(doc.value("//testcase/error/@type"), "ServiceUnavailable");
  EXPECT_EQ("saffra check: " + doc.value("//testcase/error/@message") + "\n", sentence[0].str());
}

// Folders give their PNG files sorted by path (other files are skipped), and runs of two
// processes with one batch id, from the option or the variable, land in one batch.
TEST_F(CheckCommandTest, FoldersAndOneBatchFromTwoProcesses) {
  write("shots/b.png", boxImage(64, 32, 10, 200));
  write("shots/a.png", boxImage(64, 32, 20, 200));
  std::ofstream(folder_ / "shots" / "notes.txt") << "not an image";
  fs::create_directories(folder_ / "more");
  const std::string single = write("more/z.png", boxImage(64, 32, 30, 200));

  const std::string batchId = "nightly-" + newUUIDString();
  ChildProcess cart(
      kCommand, arguments("Cart", {"--batch-id", batchId, (folder_ / "shots").string(), single}),
      environment());
  ChildProcess login(kCommand, arguments("Login", {(folder_ / "shots").string()}),
                     environment({"QUORVANT_BATCH_ID=" + batchId}));
  const std::string cartOutput = cart.readAll(), loginOutput = login.readAll();
  EXPECT_EQ(cart.wait(), 0) << cartOutput;
  EXPECT_EQ(login.wait(), 0) << loginOutput;
  EXPECT_NE(cartOutput.find("[1/3] a.png ... new\n[2/3] b.png ... new\n[3/3] z.png ... new"),
            std::string::npos)
      << cartOutput;
  for (const std::string* output : {&cartOutput, &loginOutput}) {
    EXPECT_EQ(json::stringValue(*json::find(resultsDocument(*output), "batchId")), batchId);
  }
}

// Bad options and inputs: exit code 2 with one plain message each, before any session starts.
TEST_F(CheckCommandTest, BadOptionsAndInputsGetPlainMessages) {
  const std::string page = write("page.png", boxImage(32, 32, 0, 200));
  std::ofstream(folder_ / "text.png") << "not a PNG at all, but long enough for a header";
  fs::create_directories(folder_ / "empty");
  struct Case {
    std::vector<std::string> args;
    std::vector<std::string> environment;
    std::string says;
  };
  const std::vector<Case> cases = {
      {{"--timeout", "0", page},
       {},
       "--timeout wants seconds above 0 and at most 86400, got \"0\""},
      {{"--timeout", "1e400", page}, {}, "--timeout wants seconds above 0"},
      {{"--timeout", "soon", page}, {}, "--timeout wants seconds above 0"},
      {{"--ignore=-5,2,3,4", page}, {}, "--ignore wants four whole numbers x,y,width,height (x"},
      {{"--ignore", "1,2,3", page}, {}, "got 3 in \"1,2,3\""},
      {{"--ignore", "1,2,0,4", page}, {}, "width and height from 1"},
      {{"--viewport", "1280", page}, {}, "--viewport wants WIDTHxHEIGHT"},
      {{"--viewport", "0x800", page}, {}, "--viewport wants WIDTHxHEIGHT"},
      {{"--match-level", "fuzzy", page}, {}, "--match-level: fuzzy not in"},
      {{}, {}, "images is required"},
      {{(folder_ / "missing.png").string()}, {}, "missing.png: No such file or directory"},
      {{(folder_ / "text.png").string()}, {}, "text.png: not a PNG file"},
      {{(folder_ / "empty").string()}, {}, "empty holds no .png files"},
      {{page},
       {"SAFFRA_FAIL_ON_NEW=perhaps"},
       "SAFFRA_FAIL_ON_NEW wants true or false, got \"perhaps\""},
  };
  for (const Case& c : cases) {
    Outcome run = check(c.args, c.environment);
    EXPECT_EQ(run.exitCode, 2) << ::testing::PrintToString(c.args) << "\n" << run.output;
    EXPECT_NE(run.output.find(c.says), std::string::npos) << run.output;
    EXPECT_LT(run.output.size(), 300u) << run.output;
  }
  // No session was started by any of them.
  httplib::Client client("127.0.0.1", port_);
  auto batches = client.Get("/app/batches?apiKey=key", {{"Accept", "text/html"}});
  ASSERT_TRUE(batches);
  EXPECT_EQ(batches->body.find("Cart"), std::string::npos);

  ChildProcess version(kCommand, {"--version"}, {});
  EXPECT_EQ(version.readAll(), "saffra 1.0.0\n");
  EXPECT_EQ(version.wait(), 0);
}

}  // namespace
}  // namespace saffra
