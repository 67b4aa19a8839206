// Retention beside checks: the latency of checks (one match-window request each, decoded and
// compared with its baseline step) while the service's retention removes 10,000 old sessions,
// their baseline versions and the images nothing refers to any more, against the same checks on
// the same data with retention off, measured in the same run.
//
//   cmake --build build -j2 --target retention_benchmark
//   build/retention_benchmark
//
// Counters: p50_ms and p99_ms of the checks; for the runs with retention (odd arguments),
// p99_ratio and p50_ratio against the run without it just before (the target is a p99 ratio of
// at most 1.10), retention_s (how long the round took; 0 when it outlasted the checks) and the
// checks counted (those made while it ran).
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
    Store store(f);
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

double baselineP50 = 0, baselineP99 = 0;

// Set when retention's round has finished.
std::atomic<bool> retentionDone{false};

// Even arguments run without retention, odd ones with it; each odd run is compared with the even
// run just before it, so that the pairs interleave and a machine whose speed drifts affects both
// sides of a ratio alike.
void Checks(benchmark::State& state) {
  const bool withRetention = state.range(0) % 2 != 0;
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
    SessionSpec measured;
    measured.name = "measured";
    auto id =
        saffra::json::parse(client
                                .Post(std::string("/api/sessions/running?apiKey=") + kApiKey,
                                      saffra::json::write(startInfo(measured)), "application/json")
                                ->body)
            .value_or(saffra::Json())
            .value("id", "");
    std::vector<std::string> bodies;
    for (int i = 0; i < kTags; ++i) {
      bodies.push_back(saffra::json::write(matchBody(shot(i, true), "s" + std::to_string(i))));
    }
    const std::string target = "/api/sessions/running/" + id + "?apiKey=" + kApiKey;
    std::size_t n = 0;
    for (auto _ : state) {
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
  state.counters["checks"] = static_cast<double>(latencies.size());  // the ones counted
  if (!withRetention) {
    baselineP50 = p50;
    baselineP99 = p99;
  } else {
    state.counters["retention_s"] = retentionSeconds;  // 0: still running after the checks
    if (baselineP99 > 0) state.counters["p99_ratio"] = p99 / baselineP99;
    if (baselineP50 > 0) state.counters["p50_ratio"] = p50 / baselineP50;
  }
}
BENCHMARK(Checks)->DenseRange(0, 5)->Iterations(kTags)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
