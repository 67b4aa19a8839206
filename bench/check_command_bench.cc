// `saffra check` over many files: its peak memory and its checks per second, against the
// library's own checks in the same process run (the baseline measured in this run).
//
// The images are 500 small screenshots: the top-left 420x315 of a corpus dialog screenshot
// (529,200 bytes of raw RGBA each), one pixel nudged per file so that every file differs. The
// service runs in this process; the command runs as a child process whose peak resident size
// the kernel reports (wait4). The test's baseline exists before anything is measured, so every
// check is a comparison.
//
//   LibraryCheck      Saffra::checkImage of an image already decoded, one session: the baseline
//   CommandStream500  one `saffra check` of the folder of 500 files
//   CommandOneImage   one `saffra check` of one file (process, session start, one check, close)
//   CommandTinyImage  one `saffra check` of one 8x8 file: the command's constant memory
// Counters: ms_per_check, vs_library (ms_per_check / LibraryCheck's), peak_MB, raw_MB (one
// image), and for CommandStream500 raw_multiple = (peak - CommandTinyImage's peak) / raw.
//
//   cmake --build build -j2 --target check_command_bench saffra
//   build/check_command_bench
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "saffra/platform/uuid.h"
#include "saffra/saffra.h"
#include "server/service.h"

namespace saffra::bench {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kFiles = 500;
constexpr int kWidth = 420;
constexpr int kHeight = 315;
const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";
const std::string kScreenshot =
    std::string(SAFFRA_SOURCE_DIR) + "/tests/data/corpus/app-screenshot-dialog-841x631.png";

void writeFile(const fs::path& path, const std::shared_ptr<Image>& image) {
  std::vector<std::uint8_t> bytes = image->pngData();
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

// The service, the files and the baseline, made once for all benchmarks.
struct Setup {
  fs::path folder = fs::temp_directory_path() / ("saffra-check-bench-" + newUUIDString());
  std::unique_ptr<server::Service> service;
  std::vector<std::shared_ptr<Image>> images;
  double libraryMsPerCheck = 0;
  double tinyPeakMB = 0;

  Setup() {
    fs::create_directories(folder / "shots");
    service = std::make_unique<server::Service>(
        server::ServiceOptions{.dataFolder = folder / "data", .apiKeys = {"key"}});
    service->start();
    auto screenshot = Image::fromPNGFile(kScreenshot);
    for (int i = 0; i < kFiles; ++i) {
      auto image = std::make_shared<Image>(kWidth, kHeight);
      for (int y = 0; y < kHeight; ++y) {
        std::copy_n(screenshot->data() + y * screenshot->stride(), kWidth * 4,
                    image->mutableData() + y * kWidth * 4);
      }
      image->mutableData()[4 * (i % kWidth)] ^= 1;  // one pixel, a shade off
      char name[32];
      std::snprintf(name, sizeof name, "shot-%03d.png", i);
      writeFile(folder / "shots" / name, image);
      images.push_back(std::move(image));
    }
    auto tiny = std::make_shared<Image>(8, 8);
    writeFile(folder / "tiny.png", tiny);
    // The baselines of the two tests the command runs.
    run({"--test", "Folder", (folder / "shots").string()});
    run({"--test", "Single", (folder / "shots" / "shot-000.png").string()});
    run({"--test", "Tiny", (folder / "tiny.png").string()});
  }
  ~Setup() {
    service->stop();
    fs::remove_all(folder);
  }

  struct Run {
    int exitCode = -1;
    double seconds = 0;
    double peakMB = 0;
  };
  // One `saffra check` with its output thrown away; its time and peak resident size.
  Run run(std::vector<std::string> args) const {
    args.insert(args.begin(), {kCommand, "check", "--app", "Bench", "--timeout", "60"});
    const std::string key = "QUORVANT_API_KEY=key";
    const std::string server = "QUORVANT_SERVER_URL=" + service->url();
    const auto start = Clock::now();
    pid_t pid = fork();
    if (pid == 0) {
      int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      char* envp[] = {const_cast<char*>(key.c_str()), const_cast<char*>(server.c_str()), nullptr};
      execve(kCommand.c_str(), argv.data(), envp);
      _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    Run r;
    r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.peakMB = static_cast<double>(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
    return r;
  }
};

Setup& setup() {
  static Setup s;
  return s;
}

constexpr double kRawMB = kWidth * kHeight * 4 / (1024.0 * 1024.0);

void LibraryCheck(benchmark::State& state) {
  Setup& s = setup();
  LogCapture quiet;
  Saffra saffra;
  saffra.setServerURL(s.service->url());
  saffra.setApiKey("key");
  saffra.setMatchTimeout(0);
  saffra.openWithApplicationName("Bench", "Library", Size(1, 1));
  std::size_t i = 0;
  std::int64_t checks = 0;
  const auto start = Clock::now();
  for (auto _ : state) {
    saffra.checkImage(s.images[i++ % s.images.size()], "shot");
    ++checks;
  }
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  saffra.abortIfNotClosed();
  s.libraryMsPerCheck = ms / static_cast<double>(checks);
  state.counters["ms_per_check"] = s.libraryMsPerCheck;
}

void report(benchmark::State& state, const Setup::Run& r, int checks) {
  if (r.exitCode != 0) state.SkipWithError("saffra check did not pass");
  const double ms = r.seconds * 1000.0 / checks;
  state.counters["ms_per_check"] = ms;
  if (setup().libraryMsPerCheck > 0) state.counters["vs_library"] = ms / setup().libraryMsPerCheck;
  state.counters["peak_MB"] = r.peakMB;
  state.counters["raw_MB"] = kRawMB;
}

void CommandTinyImage(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) {
    Setup::Run r = s.run({"--test", "Tiny", (s.folder / "tiny.png").string()});
    report(state, r, 1);
    s.tinyPeakMB = r.peakMB;
  }
}

void CommandOneImage(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) {
    report(state, s.run({"--test", "Single", (s.folder / "shots" / "shot-000.png").string()}), 1);
  }
}

void CommandStream500(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) {
    Setup::Run r = s.run({"--test", "Folder", (s.folder / "shots").string()});
    report(state, r, kFiles);
    if (s.tinyPeakMB > 0) state.counters["raw_multiple"] = (r.peakMB - s.tinyPeakMB) / kRawMB;
  }
}

BENCHMARK(LibraryCheck)->Unit(benchmark::kMillisecond)->MinTime(3);
BENCHMARK(CommandTinyImage)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(CommandOneImage)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(CommandStream500)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace
}  // namespace saffra::bench

BENCHMARK_MAIN();
