// Reviewing a batch of 10,000 changed steps (20 tests of 500 small screenshots each, seeded
// through the store): how long the batch page, the batch-wide accept's confirmation, one
// test's 500-step review page and the batch list take to serve, and how long the batch-wide
// accept (one request, one transaction) and its undo take, against accepting the same 20 tests
// one request each, measured in the same run on a copy of the same data.
//
//   cmake --build build -j2 --target batch_review_benchmark
//   build/batch_review_benchmark
//
// Counters: ms per request; for the accept, batch_ms and per_test_ms (the 20 test-wide accepts
// one after the other), ratio = batch_ms / per_test_ms, and undo_ms for undoing the batch's
// accept.
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "saffra/base/logger.h"
#include "server/service_test_support.h"
#include "server/store.h"

namespace {

namespace fs = std::filesystem;
using namespace saffra::server;
using namespace saffra::server::testing;
using Clock = std::chrono::steady_clock;

constexpr int kTests = 20;
constexpr int kSteps = 500;
constexpr int kImages = 64;  // distinct images per side; steps share them
const std::string kBatch = "BIG-BATCH";

double millis(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

// A data folder holding the batch: each test has a saved baseline of 500 steps and a stopped
// session in the batch whose 500 steps all differ from it. Made once; removed at the end.
struct PreparedFolder {
  fs::path path;
  std::vector<std::string> sessions;
  ~PreparedFolder() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
};

const PreparedFolder& prepared() {
  static const PreparedFolder folder = [] {
    PreparedFolder f;
    f.path = fs::temp_directory_path() / ("saffra-batch-bench-" + saffra::newUUIDString());
    std::unique_ptr<Store> opened = openStore(f.path.string());
    Store& store = *opened;
    std::vector<std::string> before, after;
    for (int i = 0; i < kImages; ++i) {
      before.push_back(store.putImage(solidPng(64, 48, kWhite, PixelRect{i % 50, i % 40, 6, 6})));
      after.push_back(store.putImage(solidPng(64, 48, kWhite, PixelRect{i % 50, i % 40, 7, 7})));
    }
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    for (int t = 0; t < kTests; ++t) {
      const std::string key = "bench-test-" + std::to_string(t);
      SessionRecord seed;
      seed.id = "seed-" + std::to_string(t);
      seed.appName = "Bench";
      seed.testName = "test " + std::to_string(t);
      seed.baselineKey = key;
      seed.batchId = "SEED";
      seed.isNew = true;
      seed.startedAt = now;
      store.insertSession(seed, BatchRecord{"SEED", "seed", {}, {}, false});
      std::vector<BaselineStep> baseline;
      for (int s = 0; s < kSteps; ++s) {
        baseline.push_back({s, "step " + std::to_string(s), before[s % kImages], {}});
      }
      Outcome saved{"Passed", "Passed", false, false, true, now, {}, {}};
      store.finishSession(seed.id, saved, &baseline);

      std::optional<BaselineRef> ref = store.findBaseline(key);
      SessionRecord review = seed;
      review.id = "review-" + std::to_string(t);
      review.batchId = kBatch;
      review.isNew = false;
      review.baselineId = ref->id;
      review.baselineVersion = ref->version;
      store.insertSession(review, BatchRecord{kBatch, "ten thousand steps", {}, {}, false});
      for (int s = 0; s < kSteps; ++s) {
        StepRecord step;
        step.position = s;
        step.tag = "step " + std::to_string(s);
        step.currentImage = after[s % kImages];
        step.baselineImage = before[s % kImages];
        step.baselinePosition = s;
        step.matchLevel = "Strict";
        store.insertStep(review.id, step);
      }
      store.finishSession(
          review.id, Outcome{"Unresolved", "Unresolved", false, true, false, now, {}, {}}, nullptr);
      f.sessions.push_back(review.id);
    }
    return f;
  }();
  return folder;
}

// A copy of the prepared folder, for a run that changes it.
struct FolderCopy {
  fs::path path =
      fs::temp_directory_path() / ("saffra-batch-bench-copy-" + saffra::newUUIDString());
  FolderCopy() { fs::copy(prepared().path, path, fs::copy_options::recursive); }
  ~FolderCopy() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
};

// A service on the prepared folder and a logged-in client.
struct Reader {
  saffra::LogCapture quiet;
  Harness harness{prepared().path};
  std::string cookie;
  Reader() {
    httplib::Client client("127.0.0.1", harness.port());
    auto reply = client.Post("/app/login",
                             {{"Origin", "http://127.0.0.1:" + std::to_string(harness.port())}},
                             std::string("apiKey=") + kApiKey + "&next=/app/batches",
                             "application/x-www-form-urlencoded");
    std::string set = reply ? reply->get_header_value("Set-Cookie") : "";
    cookie = set.substr(0, set.find(';'));
  }
  std::size_t get(const std::string& target) {
    httplib::Client client("127.0.0.1", harness.port());
    client.set_read_timeout(60, 0);
    auto reply = client.Get(target, {{"Cookie", cookie}, {"Accept", "text/html"}});
    if (!reply || reply->status != 200) throw std::runtime_error("GET " + target + " failed");
    return reply->body.size();
  }
};

void servePage(benchmark::State& state, const std::string& target) {
  Reader reader;
  std::size_t bytes = 0;
  double total = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    bytes = reader.get(target);
    total += millis(Clock::now() - start);
  }
  state.counters["ms"] = total / static_cast<double>(state.iterations());
  state.counters["html_kB"] = static_cast<double>(bytes) / 1024.0;
}

void BM_BatchPage(benchmark::State& state) {
  servePage(state, "/app/batches/" + kBatch);
}
void BM_BatchAcceptConfirmation(benchmark::State& state) {
  servePage(state, "/app/batches/" + kBatch + "?accept=1");
}
void BM_ReviewPageOf500Steps(benchmark::State& state) {
  servePage(state, "/app/sessions/" + prepared().sessions.front());
}
void BM_BatchList(benchmark::State& state) {
  servePage(state, "/app/batches");
}

// Times a POST with the API key on a fresh copy; returns ms.
double post(Harness& harness, const std::string& target) {
  httplib::Client client("127.0.0.1", harness.port());
  client.set_read_timeout(300, 0);
  const auto start = Clock::now();
  auto reply = client.Post(
      target + (target.find('?') == std::string::npos ? "?" : "&") + "apiKey=" + kApiKey, "",
      "application/json");
  const double spent = millis(Clock::now() - start);
  if (!reply || reply->status != 200) {
    throw std::runtime_error("POST " + target + " failed: " + (reply ? reply->body : "no reply"));
  }
  return spent;
}

void BM_BatchWideAccept(benchmark::State& state) {
  saffra::LogCapture quiet;
  double batch = 0, perTest = 0, undo = 0;
  for (auto _ : state) {
    {
      FolderCopy copy;
      Harness harness(copy.path);
      batch += post(harness, "/api/batches/" + kBatch + "/accept");
      undo += post(harness, "/api/undo");
    }
    {
      FolderCopy copy;
      Harness harness(copy.path);
      for (const std::string& id : prepared().sessions) {
        perTest += post(harness, "/api/sessions/" + id + "/accept");
      }
    }
  }
  const auto n = static_cast<double>(state.iterations());
  state.counters["batch_ms"] = batch / n;
  state.counters["per_test_ms"] = perTest / n;
  state.counters["ratio"] = batch / perTest;
  state.counters["undo_ms"] = undo / n;
  state.counters["steps"] = kTests * kSteps;
}

BENCHMARK(BM_BatchPage)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_BatchAcceptConfirmation)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_ReviewPageOf500Steps)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_BatchList)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_BatchWideAccept)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
