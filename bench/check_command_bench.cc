// `saffra check` over many files: its peak memory and its checks per second, against the
// library's own checks in the same process run (the baseline measured in this run).
//
// The images are 500 small screenshots: the top-left 420x315 of a corpus dialog screenshot
// (529,200 bytes of raw RGBA each), one pixel nudged per file so that every file differs. The
// service runs in this process; the command runs as a child process whose peak resident size
// the kernel reports (wait4). The test's baseline exists before anything is measured, so every
// check is a comparison.
//
//   LibraryCheck          Saffra::checkImage of the 500 images already decoded, in one session
//                         of the same test and baseline as CommandStream500: the baseline
//   CommandTinyImage      one `saffra check` of one 8x8 file: the command's constant memory
//                         (binary, libcurl, TLS, threads, the encoder's fixed tables)
//   CommandOneImage       one `saffra check` of one file (process, session, one check, close)
//   CommandStream500Tiny  one `saffra check` of 500 8x8 files: what 500 steps cost besides
//                         their images (the results record of 500 steps, its document)
//   CommandStream50       one `saffra check` of the first 50 of the 500 files
//   CommandStream500      one `saffra check` of the folder of 500 files
// Counters: ms_per_check, vs_library (ms_per_check / LibraryCheck's), peak_MB, raw_MB (one
// image). For the runs of 50 and 500 files: raw_multiple = (peak - CommandTinyImage's peak) /
// raw, the figure held against the target of 3; vs_one_image = checks per second against
// one-image runs (CommandOneImage's time per run / ms_per_check); and for 500 files
// growth_raw = (peak - CommandStream50's peak) / raw, what 450 more files add.
//
//   cmake --build build -j2 --target check_command_bench saffra
//   build/check_command_bench
//
// Figures of this machine: docs/performance.md.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
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
constexpr int kFewFiles = 50;
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

// Runs programs from a small process forked before the benchmark allocates anything: a child's
// peak resident size as the kernel reports it includes the process it was forked from, so the
// command must not be forked from this large one.
class Spawner {
 public:
  struct Result {
    int exitCode = -1;
    double seconds = 0;
    double peakMB = 0;
  };

  Spawner() {
    int requests[2], replies[2];
    if (pipe(requests) != 0 || pipe(replies) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      close(requests[1]);
      close(replies[0]);
      serve(requests[0], replies[1]);
      _exit(0);
    }
    close(requests[0]);
    close(replies[1]);
    out_ = requests[1];
    in_ = replies[0];
  }
  ~Spawner() {
    close(out_);
    close(in_);
    waitpid(pid_, nullptr, 0);
  }

  /// Runs `args` (the program first) with exactly `environment`, output thrown away.
  Result run(const std::vector<std::string>& args, const std::vector<std::string>& environment) {
    std::string message = std::to_string(args.size()) + '\0';
    for (const auto& a : args) message += a + '\0';
    for (const auto& e : environment) message += e + '\0';
    const std::uint32_t size = static_cast<std::uint32_t>(message.size());
    const auto start = Clock::now();
    if (!writeAll(out_, &size, sizeof size) || !writeAll(out_, message.data(), size)) std::abort();
    long reply[2] = {-1, 0};
    if (!readAll(in_, reply, sizeof reply)) std::abort();
    Result r;
    r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    r.exitCode = static_cast<int>(reply[0]);
    r.peakMB = static_cast<double>(reply[1]) / 1024.0;  // kilobytes on Linux
    return r;
  }

 private:
  static bool writeAll(int fd, const void* data, std::size_t size) {
    auto p = static_cast<const char*>(data);
    while (size > 0) {
      ssize_t n = write(fd, p, size);
      if (n <= 0) return false;
      p += n, size -= static_cast<std::size_t>(n);
    }
    return true;
  }
  static bool readAll(int fd, void* data, std::size_t size) {
    auto p = static_cast<char*>(data);
    while (size > 0) {
      ssize_t n = read(fd, p, size);
      if (n <= 0) return false;
      p += n, size -= static_cast<std::size_t>(n);
    }
    return true;
  }
  // The spawner's loop: one request, one child, its exit code and peak resident size.
  static void serve(int in, int out) {
    std::uint32_t size = 0;
    while (readAll(in, &size, sizeof size)) {
      std::string message(size, '\0');
      if (!readAll(in, message.data(), size)) return;
      std::vector<char*> strings;
      for (std::size_t at = 0; at < message.size(); at = message.find('\0', at) + 1) {
        strings.push_back(message.data() + at);
      }
      const std::size_t count = std::stoul(strings[0]);
      std::vector<char*> argv(strings.begin() + 1, strings.begin() + 1 + count);
      std::vector<char*> envp(strings.begin() + 1 + count, strings.end());
      argv.push_back(nullptr);
      envp.push_back(nullptr);
      pid_t child = fork();
      if (child == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
      }
      int status = 0;
      rusage usage{};
      wait4(child, &status, 0, &usage);
      long reply[2] = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, usage.ru_maxrss};
      if (!writeAll(out, reply, sizeof reply)) return;
    }
  }

  pid_t pid_ = -1;
  int out_ = -1;
  int in_ = -1;
};

// The service, the files and the baselines, made once for all benchmarks.
struct Setup {
  std::unique_ptr<Spawner> spawner = std::make_unique<Spawner>();
  Logger::Sink previousSink = Logger::setSink([](const std::string&) {});
  fs::path folder = fs::temp_directory_path() / ("saffra-check-bench-" + newUUIDString());
  std::unique_ptr<server::Service> service;
  std::vector<std::shared_ptr<Image>> images;
  double libraryMsPerCheck = 0;
  double tinyPeakMB = 0;
  double tinyFolderPeakMB = 0;
  double oneImageMs = 0;
  double peak50MB = 0;

  Setup() {
    fs::create_directories(folder / "shots");
    fs::create_directories(folder / "few");
    server::ServiceOptions options;
    options.dataFolder = folder / "data";
    options.apiKeys = {"key"};
    service = std::make_unique<server::Service>(options);
    service->start();
    auto screenshot = Image::fromPNGFile(kScreenshot);
    for (int i = 0; i < kFiles; ++i) {
      auto image = std::make_shared<Image>(kWidth, kHeight);
      for (int y = 0; y < kHeight; ++y) {
        std::copy_n(screenshot->data() + y * screenshot->stride(), kWidth * 4,
                    image->mutableData() + y * kWidth * 4);
      }
      image->mutableData()[4 * (i % kWidth)] ^= 1;  // one pixel, a shade off
      writeFile(folder / "shots" / tag(i), image);
      if (i < kFewFiles) fs::copy_file(folder / "shots" / tag(i), folder / "few" / tag(i));
      images.push_back(std::move(image));
    }
    auto tiny = std::make_shared<Image>(8, 8);
    writeFile(folder / "tiny.png", tiny);
    fs::create_directories(folder / "tinies");
    for (int i = 0; i < kFiles; ++i) writeFile(folder / "tinies" / tag(i), tiny);
    // The baselines of the two tests the command runs.
    run({"--test", "Folder", (folder / "shots").string()});
    run({"--test", "Few", (folder / "few").string()});
    run({"--test", "Single", (folder / "shots" / "shot-000.png").string()});
    run({"--test", "Tiny", (folder / "tiny.png").string()});
    run({"--test", "TinyFolder", (folder / "tinies").string()});
  }
  ~Setup() {
    service->stop();
    fs::remove_all(folder);
    Logger::setSink(previousSink);
  }
  void configure(Saffra& saffra) const {
    saffra.setServerURL(service->url());
    saffra.setApiKey("key");
    saffra.setMatchTimeout(0);
  }
  static std::string tag(int i) {
    char name[32];
    std::snprintf(name, sizeof name, "shot-%03d.png", i);
    return name;
  }

  Spawner::Result run(std::vector<std::string> args) const {
    args.insert(args.begin(), {kCommand, "check", "--app", "Bench", "--timeout", "60"});
    return spawner->run(args, {"QUORVANT_API_KEY=key", "QUORVANT_SERVER_URL=" + service->url()});
  }
};

Setup& setup() {
  static Setup s;
  return s;
}

constexpr double kRawMB = kWidth * kHeight * 4 / (1024.0 * 1024.0);

void LibraryCheck(benchmark::State& state) {
  Setup& s = setup();
  Saffra saffra;
  s.configure(saffra);
  saffra.openWithApplicationName("Bench", "Folder", Size(1, 1));
  int i = 0;
  std::int64_t checks = 0;
  const auto start = Clock::now();
  for (auto _ : state) {
    if (i == kFiles) state.SkipWithError("more checks than baseline steps");
    saffra.checkImage(s.images[i], Setup::tag(i));
    ++i;
    ++checks;
  }
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  saffra.abortIfNotClosed();
  s.libraryMsPerCheck = ms / static_cast<double>(checks);
  state.counters["ms_per_check"] = s.libraryMsPerCheck;
}

void report(benchmark::State& state, const Spawner::Result& r, int checks) {
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
    Spawner::Result r = s.run({"--test", "Tiny", (s.folder / "tiny.png").string()});
    report(state, r, 1);
    s.tinyPeakMB = r.peakMB;
  }
}

void CommandOneImage(benchmark::State& state) {
  Setup& s = setup();
  double seconds = 0;
  int runs = 0;
  for (auto _ : state) {
    Spawner::Result r = s.run({"--test", "Single", (s.folder / "shots" / "shot-000.png").string()});
    report(state, r, 1);
    seconds += r.seconds;
    ++runs;
  }
  s.oneImageMs = seconds * 1000.0 / runs;
}

void CommandStream500Tiny(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) {
    Spawner::Result r = s.run({"--test", "TinyFolder", (s.folder / "tinies").string()});
    report(state, r, kFiles);
    s.tinyFolderPeakMB = r.peakMB;
  }
}

// The counters of a run over screenshots: its peak above the constant, in images, and its
// checks per second against one-image runs.
void reportStream(benchmark::State& state, const Spawner::Result& r, int checks) {
  const Setup& s = setup();
  report(state, r, checks);
  if (s.tinyPeakMB > 0) state.counters["raw_multiple"] = (r.peakMB - s.tinyPeakMB) / kRawMB;
  if (s.oneImageMs > 0) state.counters["vs_one_image"] = s.oneImageMs / (r.seconds * 1000 / checks);
}

void CommandStream50(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) {
    Spawner::Result r = s.run({"--test", "Few", (s.folder / "few").string()});
    reportStream(state, r, kFewFiles);
    s.peak50MB = r.peakMB;
  }
}

void CommandStream500(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) {
    Spawner::Result r = s.run({"--test", "Folder", (s.folder / "shots").string()});
    reportStream(state, r, kFiles);
    if (s.peak50MB > 0) state.counters["growth_raw"] = (r.peakMB - s.peak50MB) / kRawMB;
  }
}

BENCHMARK(LibraryCheck)->Unit(benchmark::kMillisecond)->Iterations(kFiles);
BENCHMARK(CommandTinyImage)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(CommandOneImage)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(CommandStream500Tiny)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(CommandStream50)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(CommandStream500)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace
}  // namespace saffra::bench

BENCHMARK_MAIN();
