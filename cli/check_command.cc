// `saffra check`: one visual test from PNG files, run through the library's Saffra session
// against a service. Every image becomes one check whose tag is its file name; the command
// prints a progress line per image, then the test's results and the address of its page.
//
// Exit codes: 0 passed (a new test whose baseline was saved counts as passed), 1 unresolved or
// failed, 2 usage errors (bad options, unreadable images), 3 the service could not be used (no
// answer, connection refused, time-out, or it refused to start a session, e.g. a wrong key),
// 4 the test ran but its --junit report could not be written.
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/commands.h"
#include "cli/junit_report.h"
#include "saffra/base/configurable.h"
#include "saffra/platform/system_info.h"
#include "saffra/saffra.h"

namespace saffra::cli {

namespace {

constexpr int kPassed = 0;
constexpr int kNotPassed = 1;
constexpr int kUsageError = 2;
constexpr int kServiceUnavailable = 3;
constexpr int kReportNotWritten = 4;

struct CheckOptions {
  std::string app;
  std::string test;
  std::string server;
  std::string apiKey;
  std::string batch;
  std::string branch;
  std::string matchLevel;
  std::vector<std::string> ignore;
  double timeout = 0;  // 0: the library's default wait
  bool verbose = false;
  std::string junit;
  std::vector<std::string> images;
};

const std::map<std::string, std::int64_t> kMatchLevels = {{"none", MatchLevelNone},
                                                          {"layout", MatchLevelLayout},
                                                          {"content", MatchLevelContent},
                                                          {"strict", MatchLevelStrict},
                                                          {"exact", MatchLevelExact}};

// "x,y,w,h" with non-negative width and height, or nothing.
std::optional<Region> parseRegion(const std::string& text) {
  static const std::regex pattern(R"(\s*(-?\d+)\s*,\s*(-?\d+)\s*,\s*(\d+)\s*,\s*(\d+)\s*)");
  std::smatch m;
  if (!std::regex_match(text, m, pattern)) return std::nullopt;
  try {
    return Region(std::stoll(m[1]), std::stoll(m[2]), std::stoll(m[3]), std::stoll(m[4]));
  } catch (const std::out_of_range&) {
    return std::nullopt;
  }
}

// Routes the library's log lines away from the terminal unless asked for them; the lines are
// kept so that a failure can show what the library reported.
class LogRouting {
 public:
  explicit LogRouting(bool verbose) : verbose_(verbose) {
    if (!verbose_) capture_.emplace();
  }
  void printTo(std::ostream& out) const {
    if (!capture_) return;
    for (const auto& line : capture_->lines()) out << "  " << line << "\n";
  }

 private:
  bool verbose_;
  std::optional<LogCapture> capture_;
};

struct LoadedImage {
  std::string tag;
  std::shared_ptr<Image> image;
};

// How a run that reached the service ended, for the report.
struct RunRecord {
  bool reachedService = false;
  std::shared_ptr<TestResults> results;
  std::string error;
  std::string errorType;
  std::chrono::system_clock::time_point startedAt;
  std::chrono::steady_clock::time_point started;
};

int runCheck(const CheckOptions& options, RunRecord& record) {
  std::vector<std::shared_ptr<Region>> ignored;
  for (const auto& text : options.ignore) {
    auto region = parseRegion(text);
    if (!region) {
      std::cerr << "saffra check: --ignore wants x,y,width,height, got \"" << text << "\"\n";
      return kUsageError;
    }
    ignored.push_back(std::make_shared<Region>(*region));
  }

  // Every image is read before the service is contacted, so that a typo costs no session.
  std::vector<LoadedImage> images;
  for (const auto& path : options.images) {
    try {
      images.push_back({std::filesystem::path(path).filename().string(), Image::fromPNGFile(path)});
    } catch (const std::exception& e) {  // decoding failures, and I/O errors such as a folder
      std::cerr << "saffra check: cannot read " << path << ": " << e.what() << "\n";
      return kUsageError;
    }
  }

  LogRouting logs(options.verbose);
  Saffra saffra;
  if (!options.server.empty()) saffra.setServerURL(options.server);
  if (!options.apiKey.empty()) saffra.setApiKey(options.apiKey);
  if (!Configurable::isNotEmpty(saffra.apiKey())) {
    std::cerr << "saffra check: no API key; pass --api-key KEY or set QUORVANT_API_KEY\n";
    return kUsageError;
  }
  if (!options.batch.empty()) saffra.setBatch(std::make_shared<BatchInfo>(options.batch));
  if (!options.branch.empty()) saffra.setBranchName(options.branch);
  if (!options.matchLevel.empty()) saffra.setMatchLevel(kMatchLevels.at(options.matchLevel));
  if (options.timeout > 0) saffra.setWaitTimeoutForTesting(options.timeout);
  // Files do not change while a check retries, so one attempt per image is enough.
  saffra.setMatchTimeout(0);

  auto unavailable = [&](const std::string& why) {
    record.error =
        "the service at " + saffra.serverURL().value_or("(null)") + " cannot be used: " + why;
    record.errorType = "ServiceUnavailable";
    std::cerr << "saffra check: the service at " << saffra.serverURL().value_or("(null)")
              << " cannot be used: " << why << "\n";
    logs.printTo(std::cerr);
    saffra.abortIfNotClosed();
    return kServiceUnavailable;
  };

  record.reachedService = true;
  record.startedAt = std::chrono::system_clock::now();
  record.started = std::chrono::steady_clock::now();
  try {
    const Size viewport = images.front().image->size();
    saffra.openWithApplicationName(options.app, options.test, viewport);
    // Start the session before the first check so that an unreachable service is told apart
    // from a failed check; without a session there is nothing to check against.
    saffra.ensureRunningSession();
    auto session = saffra.runningSession();
    if (!session || !session->sessionId() || session->sessionId()->is_null()) {
      return unavailable(session ? "it did not start a session (is the API key right?)"
                                 : "no session could be started");
    }
    const bool isNew = session->isNewSession();

    const std::size_t count = images.size();
    for (std::size_t i = 0; i < count; ++i) {
      std::cout << "[" << (i + 1) << "/" << count << "] " << images[i].tag << " ... " << std::flush;
      auto settings = Target::image(images[i].image);
      if (!ignored.empty()) settings->ignore(ignored);
      bool matched = saffra.checkWithTag(images[i].tag, settings);
      std::cout << (isNew ? "new" : matched ? "matched" : "differences") << std::endl;
    }

    std::optional<Error> error;
    auto results = saffra.closeWithThrow(false, &error);
    if (!results) return unavailable("it did not answer the close of the test");
    record.results = results;
    std::cout << "Status: " << statusName(results->status())
              << (results->isNew() ? " (new test, baseline saved)" : "") << "\n"
              << "Steps: " << results->steps() << ", matches: " << results->matches()
              << ", mismatches: " << results->mismatches() << ", missing: " << results->missing()
              << "\n";
    if (results->url()) std::cout << "Results: " << *results->url() << "\n";
    std::cout << std::flush;
    return results->status() == TestResultsStatusPassed ? kPassed : kNotPassed;
  } catch (const TestFailedException& e) {
    std::cout << std::endl;
    return unavailable(e.reason());
  } catch (const Exception& e) {
    std::cout << std::endl;
    std::cerr << "saffra check: " << e.name() << ": " << e.reason() << "\n";
    record.error = e.reason();
    record.errorType = e.name();
    logs.printTo(std::cerr);
    saffra.abortIfNotClosed();
    return kNotPassed;
  }
}

// Runs the check and, when asked, writes its report. Usage errors found before the service is
// contacted write no report: there is no test run to report on.
int runCheckWithReport(const CheckOptions& options) {
  RunRecord record;
  const int code = runCheck(options, record);
  if (options.junit.empty() || !record.reachedService) return code;

  JunitRun run;
  run.appName = options.app;
  run.testName = options.test;
  run.results = record.results;
  run.error = record.error;
  run.errorType = record.errorType;
  if (!options.matchLevel.empty()) run.matchLevel = options.matchLevel;
  run.startedAt = record.startedAt;
  run.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - record.started).count();
  run.hostname = system_info::hostName();
  try {
    writeReportFile(options.junit, junitReport(run));
  } catch (const std::exception& e) {
    std::cerr << "saffra check: --junit: " << e.what() << "\n";
    return kReportNotWritten;
  }
  return code;
}

}  // namespace

void addCheckCommand(CLI::App& app, int& exitCode) {
  auto options = std::make_shared<CheckOptions>();
  CLI::App* check = app.add_subcommand("check", "Check PNG images against the test's baseline");
  check->add_option("--app", options->app, "Application name")->required();
  check->add_option("--test", options->test, "Test name")->required();
  check->add_option("--server", options->server,
                    "Service address (default: QUORVANT_SERVER_URL or the public service)");
  check->add_option("--api-key", options->apiKey, "API key (default: QUORVANT_API_KEY)");
  check->add_option("--batch", options->batch, "Batch name (default: QUORVANT_BATCH_NAME)");
  check->add_option("--branch", options->branch, "Branch name (default: QUORVANT_BRANCH)");
  check->add_option("--match-level", options->matchLevel, "How strictly images must match")
      ->check(CLI::IsMember({"none", "layout", "content", "strict", "exact"}));
  check
      ->add_option("--ignore", options->ignore,
                   "Region x,y,width,height to ignore in every image (repeatable)")
      ->allow_extra_args(false);
  check
      ->add_option("--timeout", options->timeout,
                   "Seconds to wait for each answer of the service (default 300)")
      ->check(CLI::PositiveNumber);
  check->add_flag("--verbose,-v", options->verbose, "Show the library's log lines");
  check
      ->add_option("--junit", options->junit,
                   "Write a JUnit XML report of the test to FILE (also when the service cannot "
                   "be reached); exit code 4 if it cannot be written")
      ->option_text("FILE");
  check->add_option("images", options->images, "PNG files, one check each")->required();
  check->footer(
      "Exit codes: 0 passed (also a new test whose baseline was saved), 1 unresolved or failed, "
      "2 usage error, 3 the service cannot be used, 4 the --junit report could not be written.\n"
      "The --junit report has one test case with a <failure> per differing or missing step, or "
      "an <error> when the service cannot be used; a new test is a passing case. Usage errors "
      "write no report.\n");
  check->callback([options, &exitCode] { exitCode = runCheckWithReport(*options); });
}

}  // namespace saffra::cli
