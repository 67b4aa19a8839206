#include "cli/junit_report.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "saffra/platform/uuid.h"
#include "saffra/service/test_results.h"

namespace saffra::cli {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// The length of the well-formed UTF-8 sequence at the start of `text` and its code point, or
// 0 when the bytes there are not one (stray continuation byte, overlong form, surrogate, beyond
// U+10FFFF, or cut short).
std::size_t decodeUtf8(std::string_view text, char32_t& codePoint) {
  const auto lead = static_cast<unsigned char>(text[0]);
  std::size_t length = 0;
  char32_t minimum = 0;
  if (lead < 0x80) {
    codePoint = lead;
    return 1;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2, minimum = 0x80, codePoint = lead & 0x1F;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, minimum = 0x800, codePoint = lead & 0x0F;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, minimum = 0x10000, codePoint = lead & 0x07;
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) return 0;
    codePoint = (codePoint << 6) | (next & 0x3F);
  }
  if (codePoint < minimum || codePoint > 0x10FFFF) return 0;
  if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return 0;
  return length;
}

bool allowedInXml(char32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

std::string isoTimestamp(std::chrono::system_clock::time_point time) {
  std::time_t t = std::chrono::system_clock::to_time_t(time);
  std::tm utc{};
  gmtime_r(&t, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

std::string text(const OptString& value) {
  return value.value_or("");
}

struct Failure {
  std::string type;
  std::string message;
  std::string details;
};

// One failure per step that differs, in the order the service lists them.
std::vector<Failure> stepFailures(const TestResults& results, const std::string& levelNote) {
  std::vector<Failure> failures;
  if (!results.stepsInfo()) return failures;
  const std::string resultsUrl = text(results.url());
  std::size_t index = 0;
  for (const auto& step : *results.stepsInfo()) {
    ++index;
    if (!step || !step->isDifferent()) continue;
    const std::string label = "Step " + std::to_string(index) + " \"" + text(step->name()) + "\"";
    Failure f;
    if (!step->hasCurrentImage()) {
      f.type = "MissingStep";
      f.message = label + " of the baseline was not checked in this run";
    } else if (!step->hasBaselineImage()) {
      f.type = "NewStep";
      f.message = label + " has no baseline and awaits approval";
    } else {
      f.type = "Mismatch";
      f.message = label + " differs from the baseline" + levelNote;
    }
    // The message names the same results address that `saffra check` prints; the step's page
    // and images follow in the body.
    if (!resultsUrl.empty()) f.message += ": " + resultsUrl;
    const OptString stepPage = step->appUrls() ? step->appUrls()->step() : OptString();

    f.details = f.message + "\n";
    if (!resultsUrl.empty()) f.details += "Results: " + resultsUrl + "\n";
    if (stepPage) f.details += "Step: " + *stepPage + "\n";
    if (const auto& api = step->apiUrls()) {
      if (api->baselineImage()) f.details += "Baseline image: " + *api->baselineImage() + "\n";
      if (api->currentImage()) f.details += "Current image: " + *api->currentImage() + "\n";
      if (api->diffImage()) f.details += "Difference image: " + *api->diffImage() + "\n";
    }
    failures.push_back(std::move(f));
  }
  return failures;
}

// Why an unpassed test failed when the service named no differing step.
std::optional<Failure> overallFailure(const TestResults& results) {
  if (results.isPassed()) return std::nullopt;
  const std::string where = results.url() ? ": " + *results.url() : "";
  if (results.mismatches() > 0 || results.missing() > 0) {
    std::string message = std::to_string(results.mismatches()) + " step(s) differ and " +
                          std::to_string(results.missing()) + " step(s) are missing" + where;
    return Failure{"Mismatch", message, message};
  }
  if (results.status() == TestResultsStatusFailed) {
    std::string message =
        std::string("The test failed") + (results.isAborted() ? " (aborted)" : "") + where;
    return Failure{"TestFailed", message, message};
  }
  // A new test without differences only awaits approval of its baseline: not a failure.
  if (results.isNew()) return std::nullopt;
  std::string message = "The test is unresolved" + where;
  return Failure{"Unresolved", message, message};
}

std::string systemOut(const TestResults& results) {
  std::string out = std::string("Status: ") + statusName(results.status()) + "\n";
  if (results.isNew()) {
    out += results.isPassed() ? "New test: its images were saved as the baseline.\n"
                              : "New test: its baseline awaits approval.\n";
  }
  out += "Steps: " + std::to_string(results.steps()) +
         ", matches: " + std::to_string(results.matches()) +
         ", mismatches: " + std::to_string(results.mismatches()) +
         ", missing: " + std::to_string(results.missing()) + "\n";
  if (results.url()) out += "Results: " + *results.url() + "\n";
  return out;
}

}  // namespace

const char* statusName(TestResultsStatus status) {
  switch (status) {
    case TestResultsStatusPassed:
      return "Passed";
    case TestResultsStatusUnresolved:
      return "Unresolved";
    case TestResultsStatusFailed:
      return "Failed";
  }
  return "Unknown";
}

std::string xmlEscape(std::string_view text, bool forAttribute) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    char32_t c = 0;
    std::size_t length = decodeUtf8(text, c);
    if (length == 0 || !allowedInXml(c)) {
      out += kReplacement;
      text.remove_prefix(length == 0 ? 1 : length);
      continue;
    }
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      case '\r':
        out += "&#13;";
        break;
      case '\n':
        out += forAttribute ? "&#10;" : "\n";
        break;
      case '\t':
        out += forAttribute ? "&#9;" : "\t";
        break;
      default:
        out.append(text.substr(0, length));
    }
    text.remove_prefix(length);
  }
  return out;
}

std::string xmlSeconds(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) seconds = 0;
  char buffer[64];
  auto [end, ec] =
      std::to_chars(buffer, buffer + sizeof buffer, seconds, std::chars_format::fixed, 3);
  if (ec != std::errc()) return "0.000";
  return std::string(buffer, end);
}

std::string junitReport(const JunitRun& run) {
  std::vector<Failure> failures;
  bool isError = !run.results;
  if (run.results) {
    OptString level;
    if (const auto& defaults = run.results->defaultMatchSettings()) level = defaults->matchLevel();
    if (!level || level->empty()) level = run.matchLevel;
    const std::string levelNote = level && !level->empty() ? " (match level " + *level + ")" : "";
    failures = stepFailures(*run.results, levelNote);
    if (failures.empty()) {
      if (auto overall = overallFailure(*run.results)) failures.push_back(std::move(*overall));
    }
    if (failures.empty() && run.failOnNew && run.results->isNew()) {
      const std::string message =
          std::string("A new test fails with --fail-on-new: its images await approval") +
          (run.results->url() ? ": " + *run.results->url() : "");
      failures.push_back({"NewTest", message, message});
    }
  }

  const std::string time = xmlSeconds(run.seconds);
  const std::string counts = std::string(" tests=\"1\" failures=\"") +
                             (failures.empty() ? "0" : "1") + "\" errors=\"" +
                             (isError ? "1" : "0") + "\" skipped=\"0\" time=\"" + time + "\"";
  const std::string app = xmlEscape(run.appName);

  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  xml += "<testsuites name=\"saffra check\"" + counts + ">\n";
  xml += "  <testsuite name=\"" + app + "\"" + counts + " timestamp=\"" +
         isoTimestamp(run.startedAt) + "\" hostname=\"" + xmlEscape(run.hostname) + "\">\n";
  xml += "    <testcase name=\"" + xmlEscape(run.testName) + "\" classname=\"" + app +
         "\" time=\"" + time + "\">\n";
  if (isError) {
    xml += "      <error message=\"" + xmlEscape(run.error) + "\" type=\"" +
           xmlEscape(run.errorType) + "\">" + xmlEscape(run.error, false) + "</error>\n";
  }
  for (const Failure& f : failures) {
    xml += "      <failure message=\"" + xmlEscape(f.message) + "\" type=\"" + xmlEscape(f.type) +
           "\">" + xmlEscape(f.details, false) + "</failure>\n";
  }
  if (run.results) {
    xml += "      <system-out>" + xmlEscape(systemOut(*run.results), false) + "</system-out>\n";
  }
  xml += "    </testcase>\n  </testsuite>\n</testsuites>\n";
  return xml;
}

void writeReportFile(const std::filesystem::path& path, std::string_view text) {
  namespace fs = std::filesystem;
  auto fail = [&](const std::string& what, int error) {
    throw std::runtime_error("cannot write " + path.string() + ": " + what +
                             (error ? std::string(": ") + std::strerror(error) : ""));
  };
  if (path.empty() || path.filename().empty()) fail("not a file name", 0);
  const fs::path folder = path.parent_path().empty() ? fs::path(".") : path.parent_path();
  std::error_code ec;
  fs::create_directories(folder, ec);
  if (ec) fail("cannot create folder " + folder.string() + ": " + ec.message(), 0);

  const fs::path temporary = folder / ("." + path.filename().string() + ".tmp-" + newUUIDString());
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) fail("cannot create a file in " + folder.string(), errno);
  const char* p = text.data();
  std::size_t left = text.size();
  int error = 0;
  while (left > 0 && error == 0) {
    ssize_t written = ::write(fd, p, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      error = written < 0 ? errno : EIO;
      break;
    }
    p += written;
    left -= static_cast<std::size_t>(written);
  }
  if (error == 0 && ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    fail("write failed", error);
  }
}

}  // namespace saffra::cli
