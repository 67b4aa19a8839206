// `saffra check`: one visual test from PNG files, run through the library's Saffra session
// against a service. Every image becomes one check whose tag is its file name; the command
// prints a progress line per image, then the test's results and the address of its page.
//
// Images are read, decoded and sent one at a time, so memory stays near the size of one image
// whatever the number of files. Before the service is contacted every file is only opened and
// its PNG header read, so that a typo costs no session.
//
// The baseline a run is compared with is keyed on the application, the test, the branch and
// the viewport, which is --viewport or else a fixed value: never the size of whichever file
// comes first, so adding a file of another size never starts a new baseline.
//
// Exit codes: 0 passed (a new test whose baseline was saved counts as passed, unless
// --fail-on-new), 1 unresolved or failed, 2 usage errors (bad options, unreadable images),
// 3 the service could not be used (no answer, connection refused or lost, time-out, or it
// refused to start a session, e.g. a wrong key), 4 the test ran but its --junit report could
// not be written.
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "cli/commands.h"
#include "cli/junit_report.h"
#include "saffra/base/configurable.h"
#include "saffra/base/environment_helper.h"
#include "saffra/platform/http_transport.h"
#include "saffra/platform/json.h"
#include "saffra/platform/system_info.h"
#include "saffra/saffra.h"

namespace saffra::cli {

namespace {

namespace fs = std::filesystem;

constexpr int kPassed = 0;
constexpr int kNotPassed = 1;
constexpr int kUsageError = 2;
constexpr int kServiceUnavailable = 3;
constexpr int kReportNotWritten = 4;

// The viewport a run is keyed on when --viewport is not given. Any fixed non-empty size would
// do (an empty one makes the library take the first image's size); 1x1 is plainly not a screen.
constexpr double kDefaultViewport = 1;
// Bounds of the numbers the options take: larger values are typing mistakes.
constexpr double kMaxTimeoutSeconds = 86400;
constexpr long long kMaxCoordinate = 1 << 20;
// Long runs print how far they got at most this often.
constexpr std::chrono::seconds kElapsedLineEvery{10};

struct CheckOptions {
  std::string app;
  std::string test;
  std::string server;
  std::string apiKey;
  std::string batch;
  std::string batchId;
  std::string branch;
  std::string matchLevel;
  std::vector<std::string> ignore;
  std::string timeout;
  std::string viewport;
  bool failOnNew = false;
  bool verbose = false;
  std::string junit;
  std::vector<std::string> inputs;
};

const std::map<std::string, std::int64_t> kMatchLevels = {{"none", MatchLevelNone},
                                                          {"layout", MatchLevelLayout},
                                                          {"content", MatchLevelContent},
                                                          {"strict", MatchLevelStrict},
                                                          {"exact", MatchLevelExact}};

// A usage error: the message is printed after "saffra check: " and the command exits with 2.
struct UsageError {
  std::string message;
};

// A whole decimal number from `min` to `max`, or nothing.
std::optional<long long> wholeNumber(const std::string& text, long long min, long long max) {
  long long value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < min || value > max) {
    return std::nullopt;
  }
  return value;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts(1);
  for (char c : text) {
    if (c == separator) {
      parts.emplace_back();
    } else if (c != ' ') {
      parts.back() += c;
    }
  }
  return parts;
}

// "x,y,width,height": four whole numbers, none negative, width and height above 0.
Region parseRegion(const std::string& text) {
  const std::vector<std::string> parts = split(text, ',');
  const std::string wanted = "--ignore wants four whole numbers x,y,width,height";
  if (parts.size() != 4) {
    throw UsageError{wanted + ", got " + std::to_string(parts.size()) + " in \"" + text + "\""};
  }
  std::array<long long, 4> n{};
  for (std::size_t i = 0; i < 4; ++i) {
    auto value = wholeNumber(parts[i], i < 2 ? 0 : 1, kMaxCoordinate);
    if (!value) {
      throw UsageError{wanted + " (x and y from 0, width and height from 1, at most " +
                       std::to_string(kMaxCoordinate) + "), got \"" + text + "\""};
    }
    n[i] = *value;
  }
  return Region(n[0], n[1], n[2], n[3]);
}

// Seconds above 0 and at most a day.
double parseTimeout(const std::string& text) {
  double value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value) ||
      value <= 0 || value > kMaxTimeoutSeconds) {
    throw UsageError{"--timeout wants seconds above 0 and at most 86400, got \"" + text + "\""};
  }
  return value;
}

// The SAFFRA_FAIL_ON_NEW variable: unset or empty is off; otherwise it must read as a switch.
bool failOnNewFromEnvironment() {
  const std::string value =
      EnvironmentHelper::environmentVariableForKey("SAFFRA_FAIL_ON_NEW").value_or("");
  std::string lower = value;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const char* on : {"1", "true", "yes", "on"}) {
    if (lower == on) return true;
  }
  for (const char* off : {"", "0", "false", "no", "off"}) {
    if (lower == off) return false;
  }
  throw UsageError{"SAFFRA_FAIL_ON_NEW wants true or false, got \"" + value + "\""};
}

// "WIDTHxHEIGHT" in whole points, e.g. 1280x800.
Size parseViewport(const std::string& text) {
  const std::size_t x = text.find_first_of("xX");
  std::optional<long long> w, h;
  if (x != std::string::npos) {
    w = wholeNumber(text.substr(0, x), 1, Image::kMaxDimension);
    h = wholeNumber(text.substr(x + 1), 1, Image::kMaxDimension);
  }
  if (!w || !h) {
    throw UsageError{"--viewport wants WIDTHxHEIGHT in whole numbers from 1 to " +
                     std::to_string(Image::kMaxDimension) + ", e.g. 1280x800, got \"" + text +
                     "\""};
  }
  return Size(static_cast<double>(*w), static_cast<double>(*h));
}

bool hasPngExtension(const fs::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension == ".png";
}

// Opens the file and reads its PNG header, without decoding: a missing, unreadable or non-PNG
// file is a usage error before any session is started.
void checkPngHeader(const fs::path& path) {
  static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  std::ifstream in(path, std::ios::binary);
  if (!in) throw UsageError{"cannot read " + path.string() + ": " + std::strerror(errno)};
  std::array<std::uint8_t, 24> header{};
  in.read(reinterpret_cast<char*>(header.data()), header.size());
  if (in.gcount() != static_cast<std::streamsize>(header.size()) ||
      !std::equal(kSignature, kSignature + 8, header.begin()) ||
      std::memcmp(&header[12], "IHDR", 4) != 0) {
    throw UsageError{"cannot read " + path.string() + ": not a PNG file"};
  }
}

struct ImageFile {
  std::string tag;
  fs::path path;
};

// The files to check in order: each file argument as given, and each folder's PNG files
// sorted by path. Every one is a readable PNG as far as its header tells.
std::vector<ImageFile> listImages(const std::vector<std::string>& inputs) {
  std::vector<ImageFile> files;
  for (const std::string& input : inputs) {
    std::error_code ec;
    const fs::path path(input);
    if (fs::is_directory(path, ec)) {
      std::vector<fs::path> found;
      for (const auto& entry : fs::directory_iterator(path, ec)) {
        std::error_code typeError;
        if (entry.is_regular_file(typeError) && hasPngExtension(entry.path())) {
          found.push_back(entry.path());
        }
      }
      if (ec) throw UsageError{"cannot read the folder " + input + ": " + ec.message()};
      if (found.empty()) throw UsageError{"the folder " + input + " holds no .png files"};
      std::sort(found.begin(), found.end());
      for (const fs::path& file : found) files.push_back({file.filename().string(), file});
    } else {
      files.push_back({path.filename().string(), path});
    }
  }
  for (const ImageFile& file : files) checkPngHeader(file.path);
  return files;
}

// Routes the library's log lines: to standard error with --verbose, otherwise nowhere. Either
// way it keeps the description of the last failed request, which the command's one-sentence
// failure message names.
class LogRouting {
 public:
  explicit LogRouting(bool verbose) : state_(std::make_shared<State>()) {
    state_->verbose = verbose;
    auto state = state_;
    previous_ = Logger::setSink([state](const std::string& line) { state->receive(line, true); });
    previousSystem_ =
        Logger::setSystemLogSink([state](const std::string& line) { state->receive(line, false); });
  }
  ~LogRouting() {
    Logger::setSink(previous_);
    Logger::setSystemLogSink(previousSystem_);
  }
  LogRouting(const LogRouting&) = delete;
  LogRouting& operator=(const LogRouting&) = delete;

  // The transport's description of the last failed start or check, or "".
  std::string lastFailure() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->lastFailure;
  }

 private:
  struct State {
    std::mutex mutex;
    bool verbose = false;
    std::string lastFailure;
    void receive(const std::string& line, bool prefixed) {
      static const std::string kPrefix = "[QuorvantSaffra] ";
      std::lock_guard<std::mutex> lock(mutex);
      for (const char* failed : {"Failed to check: ", "Failed to start session: "}) {
        const std::string marker = kPrefix + failed;
        if (line.rfind(marker, 0) == 0) lastFailure = line.substr(marker.size());
      }
      if (verbose) {
        std::cerr << (prefixed ? Logger::header() : std::string()) << line << "\n" << std::flush;
      }
    }
  };
  std::shared_ptr<State> state_;
  Logger::Sink previous_;
  Logger::Sink previousSystem_;
};

// The baseline a run was compared with, as far as the service reports it in the results
// document: its version and the branch it came from (the test's branch, or the parent or
// default branch it fell back to). Absent parts are empty.
struct BaselineUsed {
  std::string version;
  std::string branch;
};

// Reads the baseline the results document names ("baselineVersion", "baselineBranchName"); a
// document without them (a new test, another service) gives nothing.
BaselineUsed baselineFromDocument(const Json& document) {
  BaselineUsed used;
  if (const Json* version = json::find(document, "baselineVersion");
      version && version->is_number_integer()) {
    used.version = std::to_string(version->get<std::int64_t>());
  }
  if (const Json* branch = json::find(document, "baselineBranchName");
      branch && branch->is_string()) {
    used.branch = branch->get<std::string>();
  }
  return used;
}

// Asks the service for the results document of a finished run (the stop reply goes through the
// library's results record, which keeps only the fields it knows). Gives nothing when it does
// not answer in time or the answer is not a JSON object.
std::optional<Json> fetchResultsDocument(const std::string& resultsUrl, const std::string& apiKey,
                                         double timeoutSeconds) {
  HttpRequest request;
  request.url =
      resultsUrl + (resultsUrl.find('?') == std::string::npos ? "?" : "&") + "apiKey=" + apiKey;
  request.setValueForHTTPHeaderField("application/json", "Accept");
  request.timeoutSeconds = std::min(timeoutSeconds, 30.0);
  auto promise = std::make_shared<std::promise<HttpResponse>>();
  auto reply = promise->get_future();
  HttpTransport transport;
  transport.send(std::move(request),
                 [promise](HttpResponse response) { promise->set_value(std::move(response)); });
  HttpResponse response = reply.get();
  if (response.error || response.statusCode != 200) return std::nullopt;
  std::optional<Json> document = json::parse(response.body);
  if (!document || !document->is_object()) return std::nullopt;
  return document;
}

// Tunes the C library's allocator for a run that streams one large buffer after another through
// two threads (this one and the transport's). By default glibc raises its mmap threshold to the
// size of each large block freed, so from the second image on, decoded images and encoder
// buffers come from the heap and their pages stay resident after use; and the transport's
// thread gets an arena of its own, which holds its peak apart from this thread's. A fixed
// threshold returns every block above it to the system when freed, and one arena shares the
// free memory of both threads: the command's peak stays near one image's working set however
// many files it checks.
void tuneAllocatorForStreaming() {
#if defined(__GLIBC__)
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  mallopt(M_ARENA_MAX, 1);
#endif
}

// "Shop" / "Cart" / branch "main" / viewport 1280x800: how a run's baseline is identified.
std::string baselineKey(const CheckOptions& options, const std::string& branch) {
  return "app \"" + options.app + "\", test \"" + options.test + "\", branch \"" + branch +
         "\", viewport " + (options.viewport.empty() ? "not set" : options.viewport);
}

// How a run that reached the service ended, for the report.
struct RunRecord {
  bool reachedService = false;
  bool failOnNew = false;
  std::shared_ptr<TestResults> results;
  std::string error;
  std::string errorType;
  std::chrono::system_clock::time_point startedAt;
  std::chrono::steady_clock::time_point started;
};

// Step counts from the results' steps: a step without a baseline image is new (the service may
// count it among the matches), one without a current image is missing.
struct StepCounts {
  std::int64_t matches = 0, added = 0, mismatches = 0, missing = 0;
};
StepCounts countSteps(const TestResults& results) {
  StepCounts counts;
  if (!results.stepsInfo()) {
    counts.matches = results.matches();
    counts.mismatches = results.mismatches();
    counts.missing = results.missing();
    if (results.isNew()) std::swap(counts.matches, counts.added);
    return counts;
  }
  for (const auto& step : *results.stepsInfo()) {
    if (!step) continue;
    if (!step->hasCurrentImage()) {
      ++counts.missing;
    } else if (!step->hasBaselineImage()) {
      ++counts.added;
    } else if (step->isDifferent()) {
      ++counts.mismatches;
    } else {
      ++counts.matches;
    }
  }
  return counts;
}

int runCheck(const CheckOptions& options, RunRecord& record) {
  std::vector<std::shared_ptr<Region>> ignored;
  std::vector<ImageFile> files;
  double timeout = 0;
  Size viewport(kDefaultViewport, kDefaultViewport);
  bool failOnNew = options.failOnNew;
  try {
    if (!failOnNew) failOnNew = failOnNewFromEnvironment();
    for (const auto& text : options.ignore) {
      ignored.push_back(std::make_shared<Region>(parseRegion(text)));
    }
    if (!options.timeout.empty()) timeout = parseTimeout(options.timeout);
    if (!options.viewport.empty()) viewport = parseViewport(options.viewport);
    files = listImages(options.inputs);
  } catch (const UsageError& e) {
    std::cerr << "saffra check: " << e.message << "\n";
    return kUsageError;
  }

  tuneAllocatorForStreaming();
  LogRouting logs(options.verbose);
  Saffra saffra;
  if (!options.server.empty()) saffra.setServerURL(options.server);
  if (!options.apiKey.empty()) saffra.setApiKey(options.apiKey);
  if (!Configurable::isNotEmpty(saffra.apiKey())) {
    std::cerr << "saffra check: no API key; pass --api-key KEY or set QUORVANT_API_KEY\n";
    return kUsageError;
  }
  if (!options.batch.empty() || !options.batchId.empty()) {
    auto batch =
        std::make_shared<BatchInfo>(options.batch.empty() ? OptString() : OptString(options.batch));
    if (!options.batchId.empty()) batch->setBatchId(options.batchId);
    saffra.setBatch(batch);
  }
  if (!options.branch.empty()) saffra.setBranchName(options.branch);
  if (!options.matchLevel.empty()) saffra.setMatchLevel(kMatchLevels.at(options.matchLevel));
  if (timeout > 0) saffra.setWaitTimeoutForTesting(timeout);
  // Files do not change while a check retries, so one attempt per image is enough.
  saffra.setMatchTimeout(0);
  // A CI job that must never record quietly leaves a new test's images to a reviewer.
  if (failOnNew) saffra.setSaveNewTests(false);
  record.failOnNew = failOnNew;

  const std::string server = saffra.serverURL().value_or("(null)");
  // Stops the run at its first failure to use the service: one sentence, the session aborted
  // (without waiting), exit code 3.
  bool lineOpen = false;  // a progress line waits for its verdict
  auto endLine = [&] {
    if (lineOpen) std::cout << std::endl;
    lineOpen = false;
  };
  auto unavailable = [&](const std::string& sentence) {
    record.error = sentence;
    record.errorType = "ServiceUnavailable";
    endLine();
    std::cerr << "saffra check: " << sentence << "\n";
    saffra.abortIfNotClosed();
    return kServiceUnavailable;
  };
  auto failure = [&](const std::string& fallback) {
    const std::string why = logs.lastFailure();
    return why.empty() ? fallback : why;
  };
  const std::string waited =
      "no answer within " + (options.timeout.empty() ? std::string("300") : options.timeout) + " s";

  record.reachedService = true;
  record.startedAt = std::chrono::system_clock::now();
  record.started = std::chrono::steady_clock::now();
  const std::size_t count = files.size();
  std::size_t done = 0;
  std::string phase = "starting a session";  // what the run waits for, for a time-out message
  try {
    saffra.openWithApplicationName(options.app, options.test, viewport);
    // Start the session before the first check so that an unreachable service is told apart
    // from a failed check; without a session there is nothing to check against.
    saffra.ensureRunningSession();
    auto session = saffra.runningSession();
    if (!session || !session->sessionId() || session->sessionId()->is_null()) {
      return unavailable("could not start a session at " + server + ": " +
                         (session ? std::string("it refused to start one (a wrong API key, or the "
                                                "service could not serve: its log says which)")
                                  : failure("no answer")) +
                         ".");
    }
    const bool isNew = session->isNewSession();
    if (isNew) {
      std::string branch = saffra.branchName().value_or("");
      if (branch.empty()) {
        branch = EnvironmentHelper::environmentVariableForKey("QUORVANT_BRANCH").value_or("");
      }
      std::cout << "NEW BASELINE: nothing to compare with for "
                << baselineKey(options, branch.empty() ? "default" : branch) << ".\n"
                << (failOnNew ? "NEW BASELINE: --fail-on-new: the images are not saved; they await "
                                "approval on the results page, and the run fails.\n"
                              : "NEW BASELINE: this run's images become the baseline.\n")
                << std::flush;
    }

    auto lastElapsedLine = record.started;
    for (const ImageFile& file : files) {
      std::cout << "[" << (done + 1) << "/" << count << "] " << file.tag << " ... " << std::flush;
      lineOpen = true;
      std::shared_ptr<Image> image;
      try {
        image = Image::fromPNGFile(file.path.string());
      } catch (const std::exception& e) {
        record.error = "cannot read " + file.path.string() + ": " + e.what();
        record.errorType = "UnreadableImage";
        endLine();
        std::cerr << "saffra check: " << record.error << "\n";
        saffra.abortIfNotClosed();
        return kUsageError;
      }
      phase = "checking " + file.path.string();
      auto settings = Target::image(std::move(image));
      if (!ignored.empty()) settings->ignore(ignored);
      const bool matched = saffra.checkWithTag(file.tag, settings);
      // A check that completed without a result never reached the service's comparison.
      if (!saffra.matchResult()) {
        return unavailable("lost the service at " + server + " while checking " +
                           file.path.string() + " (" + std::to_string(done + 1) + " of " +
                           std::to_string(count) + "): " + failure("its answer was not a result") +
                           ".");
      }
      ++done;
      std::cout << (isNew ? "new" : matched ? "matched" : "differences") << "\n";
      lineOpen = false;
      const auto now = std::chrono::steady_clock::now();
      if (now - lastElapsedLine >= kElapsedLineEvery) {
        const double seconds = std::chrono::duration<double>(now - record.started).count();
        std::cout << "  " << done << " of " << count << " images checked in "
                  << static_cast<long long>(seconds) << " s\n";
        lastElapsedLine = now;
      }
      std::cout << std::flush;
    }

    std::optional<Error> error;
    phase = "ending the test";
    // The base close reports a missing answer as absent results, where the runner of the
    // session object would raise on them.
    auto results = saffra.SaffraBase::closeWithThrow(false, &error);
    if (!results) {
      return unavailable("lost the service at " + server +
                         " when ending the test: it gave no results.");
    }
    record.results = results;
    const StepCounts steps = countSteps(*results);
    std::cout << "Status: " << statusName(results->status());
    if (results->isNew()) {
      std::cout << (results->isPassed() ? " (new test, baseline saved)"
                                        : " (new test, baseline awaits approval)");
    }
    std::cout << "\n"
              << "Steps: " << results->steps() << ", matches: " << steps.matches
              << ", new: " << steps.added << ", mismatches: " << steps.mismatches
              << ", missing: " << steps.missing << "\n";
    if (results->isNew()) {
      std::cout << "NEW BASELINE: " << (results->isPassed() ? "saved for " : "not saved for ")
                << baselineKey(options, results->branchName().value_or("default")) << ".\n";
    } else if (results->url()) {
      std::optional<Json> document = fetchResultsDocument(
          *results->url(), saffra.apiKey().value_or(""), timeout > 0 ? timeout : 300);
      const BaselineUsed used = document ? baselineFromDocument(*document) : BaselineUsed{};
      if (!used.version.empty() || !used.branch.empty()) {
        std::cout << "Baseline: "
                  << (used.version.empty() ? std::string() : "version " + used.version)
                  << (used.version.empty() || used.branch.empty() ? "" : " ")
                  << (used.branch.empty() ? std::string() : "from branch \"" + used.branch + "\"")
                  << "\n";
      }
    }
    if (results->url()) std::cout << "Results: " << *results->url() << "\n";
    std::cout << std::flush;
    if (results->isNew() && failOnNew) return kNotPassed;
    return results->status() == TestResultsStatusPassed ? kPassed : kNotPassed;
  } catch (const TestFailedException&) {
    // The library's waits end in a time-out exception.
    return unavailable("the service at " + server + " gave " + waited + " when " + phase + ".");
  } catch (const Exception& e) {
    endLine();
    std::cerr << "saffra check: the run stopped: " << e.reason() << "\n";
    record.error = e.reason();
    record.errorType = "CheckFailed";
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
  run.failOnNew = record.failOnNew;
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
  check->add_option("--batch-id", options->batchId,
                    "Batch id: runs with the same id, from any process, form one batch "
                    "(default: QUORVANT_BATCH_ID, else a new batch per run)");
  check->add_option("--branch", options->branch, "Branch name (default: QUORVANT_BRANCH)");
  check->add_option("--viewport", options->viewport,
                    "WIDTHxHEIGHT the baseline is keyed on, e.g. 1280x800 (default: a fixed "
                    "value, whatever the images' sizes)");
  check->add_option("--match-level", options->matchLevel, "How strictly images must match")
      ->check(CLI::IsMember({"none", "layout", "content", "strict", "exact"}));
  check
      ->add_option("--ignore", options->ignore,
                   "Region x,y,width,height to ignore in every image (repeatable)")
      ->allow_extra_args(false);
  check->add_option("--timeout", options->timeout,
                    "Seconds to wait for each answer of the service (default 300)");
  check->add_flag("--fail-on-new", options->failOnNew,
                  "A test without a baseline fails (exit 1) and its images await approval "
                  "instead of becoming the baseline (also SAFFRA_FAIL_ON_NEW=true)");
  check->add_flag("--verbose,-v", options->verbose, "Show the library's log lines");
  check
      ->add_option("--junit", options->junit,
                   "Write a JUnit XML report of the test to FILE (also when the service cannot "
                   "be reached); exit code 4 if it cannot be written")
      ->option_text("FILE");
  check->add_option("images", options->inputs, "PNG files and folders of PNG files, one check each")
      ->required();
  check->footer(
      "Folders contribute their .png files sorted by path; each image's tag is its file name.\n"
      "Exit codes: 0 passed (also a new test whose baseline was saved), 1 unresolved or failed "
      "(also a new test with --fail-on-new), 2 usage error, 3 the service cannot be used, "
      "4 the --junit report could not be written.\n"
      "The --junit report has one test case with a <failure> per differing or missing step, or "
      "an <error> when the service cannot be used; a new test is a passing case. Usage errors "
      "write no report.\n");
  check->callback([options, &exitCode] { exitCode = runCheckWithReport(*options); });
}

}  // namespace saffra::cli
