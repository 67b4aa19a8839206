// Retention beside checks: the latency of checks (one match-window request each, decoded and
// compared with its baseline step) while the service's retention removes 10,000 old sessions,
// their baseline versions and the images nothing refers to any more, against the same checks on
// the same data with retention off, measured in the same run.
//
//   cmake --build build -j2 --target retention_benchmark
//   build/retention_benchmark
//
// The runs come in pairs, one with retention and one without, on fresh copies of the same data
// folder; the order within a pair alternates (without first, then with first) so that a machine
// whose speed drifts during the run weighs on both sides alike. Each pair gives a ratio of the
// p99 latencies (with / without); one pair on a busy machine says little, so the last entry,
// MedianOfPairs, reports the median of the pairs' ratios: the figure to hold against the target
// of at most 1.10.
//
// Counters per run: p50_ms and p99_ms of the checks, checks (those counted: with retention, only
// the checks made while its round ran), retention_s (how long the round took; 0 when it outlasted
// the checks), and on the second run of a pair the pair's p99_ratio and p50_ratio, over as many
// checks on each side.
// MedianOfPairs: p99_ratio and p50_ratio (medians over the pairs), p99_ratio_min and
// p99_ratio_max, pairs.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "saffra/base/logger.h"
#include "server/service_test_support.h"
#include "server/store.h"

namespace {

namespace fs = std::filesystem;
using namespace saffra::server;
using namespace saffra::server::testing;

constexpr int kOldSessions = 10000;
constexpr int kTags = 400;

std::vector<std::uint8_t> shot(int n, bool reencoded) {
  auto png = solidPng(64, 48, kWhite, PixelRect{n % 50, n % 40, 6, 6});
  return reencoded ? withTextChunk(png) : png;
}

// A data folder with 10,000 stopped sessions ten days old (each with a step whose image only it
// refers to, for a fifth of them) and the baseline of the measured test, made once.
// Removed when the program ends.
struct PreparedFolder {
  fs::path path;
  ~PreparedFolder() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
};

const fs::path& preparedFolder() {
  static const PreparedFolder folder{[] {
    fs::path f = fs::temp_directory_path() / ("saffra-retention-bench-" + saffra::newUUIDString());
    {
      Harness harness(f);
      SessionSpec measured;
      measured.name = "measured";
      std::string id = harness.start(measured).body["id"];
      for (int i = 0; i < kTags; ++i)
        harness.match(id, matchBody(shot(i, false), "s" + std::to_string(i)));
      harness.stop(id, false, true);
    }
    std::unique_ptr<Store> opened = openStore(f.string());
    Store& store = *opened;
    const std::int64_t old = static_cast<std::int64_t>(std::time(nullptr)) - 10 * 86400;
    for (int i = 0; i < kOldSessions; ++i) {
      SessionRecord s;
      s.id = "old-" + std::to_string(i);
      s.baselineKey = "old";
      s.batchId = "old-batch-" + std::to_string(i / 50);
      s.startedAt = old;
      store.insertSession(s, BatchRecord{s.batchId, "old", {}, {}, false});
      StepRecord step;
      step.tag = "home";
      step.matchLevel = "Strict";
      step.currentImage =
          store.putImage(solidPng(8, 8, kWhite, PixelRect{i % 8, (i / 8) % 8, 1, 1}));
      if (i % 5 == 0) step.currentImage = store.putImage(solidPng(9 + i % 20, 9, kBlack));
      store.insertStep(s.id, step);
      Outcome o;
      o.status = "Passed";
      store.finishSession(s.id, o, nullptr);
    }
    store.flushImages();
    return f;
  }()};
  return folder.path;
}

std::string copyOfPrepared() {
  fs::path copy = fs::temp_directory_path() / ("saffra-retention-run-" + saffra::newUUIDString());
  fs::copy(preparedFolder(), copy, fs::copy_options::recursive);
  return copy.string();
}

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

constexpr int kPairs = 7;
// Checks per run: enough that the p99 rests on a few dozen of the slowest, not on three or four.
constexpr int kChecks = 2400;

// The latencies of the run of the current pair that came first, and the ratios of the pairs.
struct PairState {
  std::vector<double> first;  // the latencies of the pair's first run, in order
  std::vector<double> p99Ratios, p50Ratios;
};
PairState pairs;

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 != 0 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Set when retention's round has finished.
std::atomic<bool> retentionDone{false};

// Argument 2k and 2k+1 are pair k: in even pairs the run without retention comes first, in odd
// pairs the run with it.
void Checks(benchmark::State& state) {
  const int pair = static_cast<int>(state.range(0) / 2);
  const bool second = state.range(0) % 2 != 0;
  const bool withRetention = second != (pair % 2 != 0);
  const std::string folder = copyOfPrepared();
  retentionDone = false;
  saffra::Logger::setSink([](const std::string& line) {
    // The one line a retention round logs when it is over.
    if (line.find("retention removed") != std::string::npos) retentionDone = true;
  });
  std::vector<double> latencies;
  double retentionSeconds = 0;
  {
    ServiceOptions options;
    options.dataFolder = folder;
    options.apiKeys = {kApiKey};
    if (withRetention) {
      options.keepDays = 3;
      options.imageGrace = std::chrono::seconds(0);
    }
    Service service(options);
    const auto started = std::chrono::steady_clock::now();
    service.start();
    httplib::Client client("127.0.0.1", service.port());
    // Each measured session checks every tag of the baseline once; the next one starts (not
    // timed) when it is through, so every check is compared with its baseline step.
    auto startSession = [&] {
      SessionSpec measured;
      measured.name = "measured";
      auto reply = client.Post(std::string("/api/sessions/running?apiKey=") + kApiKey,
                               saffra::json::write(startInfo(measured)), "application/json");
      auto id =
          saffra::json::parse(reply ? reply->body : "{}").value_or(saffra::Json()).value("id", "");
      return "/api/sessions/running/" + id + "?apiKey=" + kApiKey;
    };
    std::vector<std::string> bodies;
    for (int i = 0; i < kTags; ++i) {
      bodies.push_back(saffra::json::write(matchBody(shot(i, true), "s" + std::to_string(i))));
    }
    std::string target;
    std::size_t n = 0;
    for (auto _ : state) {
      if (n % bodies.size() == 0) {
        if (!target.empty()) client.Delete(target);
        target = startSession();
      }
      const bool during = withRetention && !retentionDone;
      const auto t0 = std::chrono::steady_clock::now();
      auto reply = client.Post(target, bodies[n++ % bodies.size()], "application/json");
      const auto t1 = std::chrono::steady_clock::now();
      if (!reply || reply->status != 200) state.SkipWithError("check failed");
      // With retention, only the checks made while its round ran count.
      if (!withRetention || during) {
        latencies.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
      }
      if (withRetention && retentionDone && retentionSeconds == 0) {
        retentionSeconds = std::chrono::duration<double>(t1 - started).count();
      }
    }
    service.stop();
  }
  saffra::Logger::setSink(nullptr);
  fs::remove_all(folder);
  const double p50 = percentile(latencies, 0.5), p99 = percentile(latencies, 0.99);
  state.counters["p50_ms"] = p50;
  state.counters["p99_ms"] = p99;
  state.counters["checks"] = static_cast<double>(latencies.size());     // the ones counted
  if (withRetention) state.counters["retention_s"] = retentionSeconds;  // 0: outlasted the checks
  if (!second) {
    pairs.first = latencies;
  } else if (!pairs.first.empty() && !latencies.empty()) {
    // The ratios compare as many checks on each side (the first ones of the longer run): a
    // percentile of fewer samples sits nearer the slowest one.
    std::vector<double> with = withRetention ? latencies : pairs.first;
    std::vector<double> without = withRetention ? pairs.first : latencies;
    const std::size_t count = std::min(with.size(), without.size());
    with.resize(count);
    without.resize(count);
    pairs.p99Ratios.push_back(percentile(with, 0.99) / percentile(without, 0.99));
    pairs.p50Ratios.push_back(percentile(with, 0.5) / percentile(without, 0.5));
    state.counters["p99_ratio"] = pairs.p99Ratios.back();
    state.counters["p50_ratio"] = pairs.p50Ratios.back();
  }
}
BENCHMARK(Checks)
    ->DenseRange(0, 2 * kPairs - 1)
    ->Iterations(kChecks)
    ->Unit(benchmark::kMillisecond);

// The medians of the pairs' ratios, reported once all pairs have run.
void MedianOfPairs(benchmark::State& state) {
  for (auto _ : state) {
  }
  if (pairs.p99Ratios.empty()) {
    state.SkipWithError("no pair completed");
    return;
  }
  state.counters["p99_ratio"] = median(pairs.p99Ratios);
  state.counters["p50_ratio"] = median(pairs.p50Ratios);
  state.counters["p99_ratio_min"] =
      *std::min_element(pairs.p99Ratios.begin(), pairs.p99Ratios.end());
  state.counters["p99_ratio_max"] =
      *std::max_element(pairs.p99Ratios.begin(), pairs.p99Ratios.end());
  state.counters["pairs"] = static_cast<double>(pairs.p99Ratios.size());
}
BENCHMARK(MedianOfPairs)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
