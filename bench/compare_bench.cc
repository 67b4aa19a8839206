// Time per comparison at Strict, PNG files read and decoded included, of the local service's
// comparison engine against pixelmatch (with pngjs, on Node.js) and odiff (its native binary,
// with anti-aliasing detection), all pinned to the same single core. Times are CPU time per
// comparison (the machine may be shared): ours from the benchmark, pixelmatch from Node's
// process CPU usage, odiff from the resource usage of its process (start-up included, as a
// caller of the odiff command pays it).
//
// Pairs: the public comparison pairs, and pairs this program makes from the screenshot corpus
// (a block moved by 9 px, a rectangle recoloured). Prints every tool's verdict beside its time
// and the ratios; exits non-zero when our verdicts are wrong (word/shift/color and made pairs
// must differ, aa pairs must match).
//
//   build/compare_bench [--benchmark_filter=...]   (SAFFRA_BENCH_ITERATIONS=5 by default;
//   SAFFRA_BENCH_OURS_ONLY=1 skips the other tools, SAFFRA_BASELINE_KERNELS=1 turns off the
//   kernels for newer processors)
//
// The Node.js tools are installed on first use by bench/tools/install-compare-tools.sh into
// $HOME/.cache/saffra-bench; without node or npm only our engine is timed.
//
// Last measured (Release, SAFFRA_BENCH_ITERATIONS=5, --benchmark_min_time=1, 2 cores, AMD EPYC
// with AVX-512): 1170x2532 pairs 16.2x faster than pixelmatch and 6.7x faster than odiff
// (geometric means), each of them 11.8x or more, 6.5-13.8 ms per pair; of the smaller pairs only
// the 750x1334 shift pair is under 10x (9.4x); verdicts 0 wrong of 20. The two files are inflated
// by the codec's own inflater and rebuilt together piece by piece (shared rows once, Paeth rows as
// stretches side by side); inflating, Paeth rows and the Strict kernel's anti-aliasing tests on
// differing rows are most of what is left.
#include <sched.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "saffra/platform/image.h"
#include "saffra/platform/json.h"
#include "server/compare/compare.h"

namespace {

namespace fs = std::filesystem;
using saffra::Image;
using namespace saffra::compare;

struct Pair {
  std::string name;
  std::string base;
  std::string other;
  bool expectDifferent;
  std::size_t width = 0, height = 0;
};

// The whole file in one read, as the Node.js tools read theirs.
std::vector<std::uint8_t> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  std::vector<std::uint8_t> bytes(in ? static_cast<std::size_t>(in.tellg()) : 0);
  in.seekg(0);
  in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

// The pairs of the public set, from its manifest.
std::vector<Pair> corpusPairs(const fs::path& dir) {
  std::vector<Pair> pairs;
  std::ifstream manifest(dir / "MANIFEST.tsv");
  std::string line;
  std::getline(manifest, line);
  while (std::getline(manifest, line)) {
    std::vector<std::string> cols;
    for (std::size_t start = 0;;) {
      const std::size_t tab = line.find('\t', start);
      cols.push_back(line.substr(start, tab - start));
      if (tab == std::string::npos) break;
      start = tab + 1;
    }
    if (cols.size() < 6 || cols[1] == "-") continue;
    Pair p{cols[0], (dir / cols[1]).string(), (dir / cols[0]).string(), cols[5] == "different"};
    p.width = std::stoul(cols[3]), p.height = std::stoul(cols[4]);
    pairs.push_back(p);
  }
  return pairs;
}

// Variants of whole screenshots: a block moved by 9 px (3 CSS px at 3x) and a rectangle whose
// colours are rotated, written next to copies of their bases in `out`.
std::vector<Pair> madePairs(const fs::path& corpus, const fs::path& out) {
  std::vector<Pair> pairs;
  fs::create_directories(out);
  for (const char* name : {"phone-docs-index-1170x2532", "phone-help-cards-1170x2532"}) {
    const std::string basePath = (corpus / (std::string(name) + ".png")).string();
    const auto base = Image::fromPNGFile(basePath);
    const std::size_t w = base->width();
    {
      Image moved(w, base->height(), base->pixels());
      const std::size_t x0 = 60, y0 = 600, bw = 700, bh = 400, dx = 9;
      for (std::size_t y = y0; y < y0 + bh; ++y) {
        std::copy_n(base->pixel(x0, y), bw * 4, moved.mutableData() + (y * w + x0 + dx) * 4);
      }
      const std::string path = (out / (std::string(name) + "--block-moved.png")).string();
      const std::vector<std::uint8_t> png = moved.pngData();
      std::ofstream(path, std::ios::binary)
          .write(reinterpret_cast<const char*>(png.data()),
                 static_cast<std::streamsize>(png.size()));
      pairs.push_back(
          {std::string(name) + "--block-moved", basePath, path, true, w, base->height()});
    }
    {
      Image recoloured(w, base->height(), base->pixels());
      for (std::size_t y = 1200; y < 1500; ++y) {
        for (std::size_t x = 100; x < 1000; ++x) {
          std::uint8_t* p = recoloured.mutableData() + (y * w + x) * 4;
          std::rotate(p, p + 1, p + 3);
        }
      }
      const std::string path = (out / (std::string(name) + "--recoloured.png")).string();
      const std::vector<std::uint8_t> png = recoloured.pngData();
      std::ofstream(path, std::ios::binary)
          .write(reinterpret_cast<const char*>(png.data()),
                 static_cast<std::streamsize>(png.size()));
      pairs.push_back(
          {std::string(name) + "--recoloured", basePath, path, true, w, base->height()});
    }
  }
  return pairs;
}

struct ToolRun {
  double ms = 0;
  long differentPixels = -1;
};

// Runs the odiff binary `iterations` times on a pair (after one warm-up run) and returns its
// mean CPU time; the child inherits this process's single-core affinity.
ToolRun runOdiff(const std::string& binary, const Pair& p, int iterations) {
  ToolRun run;
  double total = 0;
  for (int k = 0; k <= iterations; ++k) {
    const char* argv[] = {binary.c_str(), p.base.c_str(), p.other.c_str(), "--aa",
                          "--threshold",  "0.1",          nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    if (posix_spawn(&pid, binary.c_str(), &actions, nullptr, const_cast<char* const*>(argv),
                    environ) != 0) {
      posix_spawn_file_actions_destroy(&actions);
      return {};
    }
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.differentPixels = code == 0 ? 0 : code == 22 ? 1 : -1;
    if (k == 0) continue;  // warm-up
    total += (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
             (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
  }
  run.ms = total / iterations;
  return run;
}

// Runs pixelmatch and odiff over every pair on `cpu`; results by tool and pair name.
std::map<std::string, std::map<std::string, ToolRun>> runTools(const std::vector<Pair>& pairs,
                                                               int cpu, int iterations) {
  std::map<std::string, std::map<std::string, ToolRun>> runs;
  const std::string tools = std::string(SAFFRA_SOURCE_DIR) + "/bench/tools";
  FILE* install = popen((tools + "/install-compare-tools.sh").c_str(), "r");
  char buffer[4096];
  std::string prefix;
  while (install && fgets(buffer, sizeof buffer, install)) prefix += buffer;
  if (!install || pclose(install) != 0 || prefix.empty()) {
    std::fprintf(stderr, "compare_bench: pixelmatch/odiff not available (need node and npm)\n");
    return runs;
  }
  prefix.erase(prefix.find_last_not_of("\n") + 1);
  for (const auto& entry : fs::directory_iterator(fs::path(prefix) / "node_modules" / "@odiff")) {
    const fs::path binary = entry.path() / "odiff";
    if (access(binary.c_str(), X_OK) != 0) continue;
    for (const Pair& p : pairs) runs["odiff"][p.name] = runOdiff(binary.string(), p, iterations);
    break;
  }
  std::string command = "taskset -c " + std::to_string(cpu) + " node " + tools +
                        "/compare-tools.mjs '" + prefix + "' " + std::to_string(iterations);
  std::map<std::string, std::string> nameOf;
  for (const Pair& p : pairs) {
    command += " '" + p.base + "' '" + p.other + "'";
    nameOf[p.other] = p.name;
  }
  FILE* node = popen(command.c_str(), "r");
  std::string line;
  while (node && fgets(buffer, sizeof buffer, node)) {
    line += buffer;
    if (line.empty() || line.back() != '\n') continue;
    if (const auto record = saffra::json::parse(line)) {
      ToolRun run{saffra::json::doubleValue((*record)["ms"]),
                  static_cast<long>(saffra::json::integerValue((*record)["differentPixels"]))};
      runs[(*record)["tool"].get<std::string>()][nameOf[(*record)["other"].get<std::string>()]] =
          run;
    }
    line.clear();
  }
  if (node) pclose(node);
  return runs;
}

// Keeps the mean real time per iteration of every benchmark, by name.
class Recorder : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        times[run.run_name.function_name] = run.GetAdjustedCPUTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;  // CPU ms (every benchmark uses kMillisecond)
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  // One core for everyone: ours here, the Node.js tools through taskset on the same core.
  cpu_set_t allowed;
  sched_getaffinity(0, sizeof allowed, &allowed);
  int cpu = 0;
  while (cpu < CPU_SETSIZE && !CPU_ISSET(cpu, &allowed)) ++cpu;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(cpu, &one);
  sched_setaffinity(0, sizeof one, &one);

  const fs::path corpus = SAFFRA_CORPUS_DIR;
  std::vector<Pair> pairs = corpusPairs(corpus / "pairs");
  const fs::path made =
      fs::temp_directory_path() / ("saffra-compare-bench-" + std::to_string(getpid()));
  for (Pair& p : madePairs(corpus, made)) pairs.push_back(p);

  std::map<std::string, bool> ourVerdict;  // true = different
  for (const Pair& p : pairs) {
    benchmark::RegisterBenchmark(("Strict/" + p.name).c_str(), [p, &ourVerdict](
                                                                   benchmark::State& state) {
      CompareOptions options;
      options.keepMask = false;
      bool different = false;
      for (auto _ : state) {
        const CompareResult r = comparePNG(readFile(p.base), readFile(p.other), options);
        different = !r.matches;
        benchmark::DoNotOptimize(different);
      }
      ourVerdict[p.name] = different;
    })->Unit(benchmark::kMillisecond);
  }
  Recorder recorder;
  benchmark::RunSpecifiedBenchmarks(&recorder);

  const char* iterationText = std::getenv("SAFFRA_BENCH_ITERATIONS");
  const int iterations = iterationText ? std::max(1, std::atoi(iterationText)) : 5;
  // SAFFRA_BENCH_OURS_ONLY=1 times our engine alone (quicker, while tuning it).
  const char* oursOnly = std::getenv("SAFFRA_BENCH_OURS_ONLY");
  auto tools = oursOnly && *oursOnly && *oursOnly != '0'
                   ? std::map<std::string, std::map<std::string, ToolRun>>{}
                   : runTools(pairs, cpu, iterations);
  fs::remove_all(made);

  std::printf("\nCPU ms per comparison on one core, PNG decoding included\n");
  std::printf("%-46s %9s %9s %9s %8s %8s  verdicts: ours/pixelmatch/odiff (expected)\n", "pair",
              "ours ms", "pixelm ms", "odiff ms", "x pixelm", "x odiff");
  int wrong = 0;
  double logPixelmatch = 0, logOdiff = 0;
  int counted = 0;
  const auto verdict = [](long differing) {
    return differing < 0 ? "-" : differing ? "diff" : "same";
  };
  for (const Pair& p : pairs) {
    const auto ours = recorder.times.find("Strict/" + p.name);
    if (ours == recorder.times.end()) continue;
    const ToolRun pm = tools["pixelmatch"][p.name], od = tools["odiff"][p.name];
    const bool different = ourVerdict[p.name];
    if (different != p.expectDifferent) ++wrong;
    std::printf("%-46s %9.2f %9.2f %9.2f %8.1f %8.1f  %s/%s/%s (%s)%s\n", p.name.c_str(),
                ours->second, pm.ms, od.ms, pm.ms / ours->second, od.ms / ours->second,
                different ? "diff" : "same", verdict(pm.differentPixels),
                verdict(od.differentPixels), p.expectDifferent ? "diff" : "same",
                different != p.expectDifferent ? "  WRONG" : "");
    if (p.width == 1170 && p.height == 2532 && pm.ms > 0 && od.ms > 0) {
      logPixelmatch += std::log(pm.ms / ours->second);
      logOdiff += std::log(od.ms / ours->second);
      ++counted;
    }
  }
  if (counted) {
    std::printf(
        "\n1170x2532 pairs (%d), geometric mean: %.1fx faster than pixelmatch, %.1fx faster "
        "than odiff\n",
        counted, std::exp(logPixelmatch / counted), std::exp(logOdiff / counted));
  }
  std::printf("our verdicts: %d wrong of %zu\n", wrong, pairs.size());
  benchmark::Shutdown();
  return wrong ? 1 : 0;
}
