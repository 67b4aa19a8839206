// The local service under many kept-alive clients over loopback, as a CI with parallel UI
// tests drives it: each client checks a phone screenshot (the anti-aliased variant of its
// baseline, so decoding and comparison run in full) in a session of its own, on one kept-alive
// connection. Requests are prepared once, so the clients spend little processor time and the
// figures are the service's.
//
//   Paced/C/I       C clients, each checking every 2 s (a single client every 250 ms, for more
//                   samples), with I idle connections held open beside them for the whole run.
//                   p50_ms, p99_ms: latency of the check request; p99_vs_single: p99 over that
//                   of Paced/1/0 measured earlier in the same run.
//   BackToBack/C/S  C clients checking without pause: checks_per_s. S = 0: the service in this
//                   process; S = 1: this build's `saffra serve` as a process of its own; S = 2:
//                   the `saffra serve` of another build, named by SAFFRA_OTHER_SAFFRA (skipped
//                   when unset), with vs_this_build = its checks/s over S = 1's. S = 1 and 2 run
//                   the service alone in its process, so they compare two builds fairly.
//
//   build/service_load_benchmark                      (about 100 s)
//   SAFFRA_OTHER_SAFFRA=../old/build/saffra build/service_load_benchmark --benchmark_filter=Back
//
// Figures, with the command and processor they came from, are in docs/performance.md.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>

#include "saffra/base/logger.h"
#include "server/service_test_support.h"
#include "testing/child_process.h"
#include "testing/raw_connection.h"

namespace {

using namespace saffra;
using namespace saffra::server::testing;
using saffra::testing::RawConnection;
using Clock = std::chrono::steady_clock;

constexpr auto kRunTime = std::chrono::seconds(16);

std::string request(const std::string& method, const std::string& target, const std::string& body) {
  return method + " " + target +
         " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n" +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// A service with a phone screenshot's baseline, and the requests of one check. The service
/// runs in this process, or as `command serve` when a command is given.
struct Fixture {
  TempFolder folder;
  std::optional<saffra::testing::ServeProcess> process;
  std::atomic<bool> draining{true};
  std::thread drain;  // reads the process's log (see serve)
  std::unique_ptr<Harness> service;
  const Harness& harness;
  std::string start;
  std::string matchBodyText;

  explicit Fixture(const std::string& command = "")
      : service(command.empty() ? std::make_unique<Harness>(folder.path())
                                : std::make_unique<Harness>(serve(command))),
        harness(*service) {
    Logger::setSink([](const std::string&) {});
    const std::string corpus = std::string(SAFFRA_CORPUS_DIR) + "/pairs/";
    const auto baseline = Image::fromPNGFile(corpus + "phone-help-steps-1170x2532.png")->pngData();
    const auto upload =
        Image::fromPNGFile(corpus + "phone-help-steps-1170x2532--aa.png")->pngData();
    harness.runTest(SessionSpec{}, {baseline}, true);
    start = request("POST", std::string("/api/sessions/running?apiKey=") + kApiKey,
                    json::write(startInfo(SessionSpec{})));
    matchBodyText = json::write(matchBody(upload, "step 1"));
  }
  ~Fixture() {
    draining = false;
    if (drain.joinable()) drain.join();
    Logger::setSink(nullptr);
  }

  /// Starts `command serve` and reads its log lines as they come, so that its output pipe
  /// never fills and blocks it.
  int serve(const std::string& command) {
    process = saffra::testing::startServe(command, folder.path(), {"--api-key", kApiKey});
    drain = std::thread([this] {
      while (draining) process->process->readLine(1);
    });
    return process->port;
  }

  /// One check on `connection`: the session's start and stop are not timed. Returns the match
  /// request's latency, or a negative value when a reply was wrong.
  double check(std::unique_ptr<RawConnection>& connection) const {
    Json started = json::parse(RawConnection::bodyOf(exchange(connection, start))).value_or(Json());
    if (!started.is_object()) return -1;
    const std::string id = started.value("id", "");
    if (id.empty()) return -1;
    const std::string key = std::string("?apiKey=") + kApiKey;
    const Clock::time_point begin = Clock::now();
    std::string matched =
        exchange(connection, request("POST", "/api/sessions/running/" + id + key, matchBodyText));
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    exchange(connection, request("DELETE", "/api/sessions/running/" + id + key, ""));
    return matched.find("\"asExpected\":true") == std::string::npos ? -1 : ms;
  }

  /// Sends a request and reads its reply. A server may close a kept-alive connection between
  /// requests (some do after a few requests); the client then connects again and sends once
  /// more, as HTTP clients do.
  std::string exchange(std::unique_ptr<RawConnection>& connection, const std::string& bytes) const {
    if (connection->send(bytes)) {
      std::string reply = connection->reply();
      if (!reply.empty()) return reply;
    }
    connection = std::make_unique<RawConnection>(harness.port(), "", 60);
    connection->send(bytes);
    return connection->reply();
  }
};

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(p * values.size()))];
}

double singleClientP99 = 0;

/// Runs `clients` clients for kRunTime, each starting a check every `period` (zero: back to
/// back), staggered over the period. Returns the latencies and whether every check matched.
std::vector<double> drive(const Fixture& f, int clients, Clock::duration period, bool& failed) {
  std::mutex mutex;
  std::vector<double> latencies;
  std::atomic<bool> bad{false};
  const Clock::time_point begin = Clock::now(), end = begin + kRunTime;
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      auto connection = std::make_unique<RawConnection>(f.harness.port(), "", 60);
      Clock::time_point next = begin + period * c / std::max(clients, 1);
      while (true) {
        std::this_thread::sleep_until(next);
        if (Clock::now() >= end) break;
        double ms = f.check(connection);
        if (ms < 0) {
          bad = true;
          break;
        }
        std::lock_guard lock(mutex);
        latencies.push_back(ms);
        next = period.count() ? next + period : Clock::now();
      }
    });
  }
  for (auto& t : threads) t.join();
  failed = bad;
  return latencies;
}

void BM_Paced(benchmark::State& state) {
  const int clients = static_cast<int>(state.range(0));
  const int idleCount = static_cast<int>(state.range(1));
  Fixture f;
  std::vector<std::unique_ptr<RawConnection>> idle;
  for (int i = 0; i < idleCount; ++i) {
    idle.push_back(std::make_unique<RawConnection>(f.harness.port()));
  }
  const Clock::duration period =
      clients == 1 ? std::chrono::milliseconds(250) : std::chrono::seconds(2);
  for (auto _ : state) {
    bool failed = false;
    std::vector<double> latencies = drive(f, clients, period, failed);
    if (failed) state.SkipWithError("a check failed");
    const double p99 = percentile(latencies, 0.99);
    if (clients == 1 && idleCount == 0) singleClientP99 = p99;
    state.counters["checks"] = static_cast<double>(latencies.size());
    state.counters["p50_ms"] = percentile(latencies, 0.5);
    state.counters["p99_ms"] = p99;
    if (singleClientP99 > 0) state.counters["p99_vs_single"] = p99 / singleClientP99;
  }
}

double thisBuildChecksPerSecond = 0;

void BM_BackToBack(benchmark::State& state) {
  const int clients = static_cast<int>(state.range(0));
  const int where = static_cast<int>(state.range(1));
  const char* other = std::getenv("SAFFRA_OTHER_SAFFRA");
  if (where == 2 && (!other || !*other)) {
    state.SkipWithError("set SAFFRA_OTHER_SAFFRA to the saffra command of another build");
    for (auto _ : state) {
    }
    return;
  }
  const std::string command = where == 0   ? ""
                              : where == 1 ? std::string(SAFFRA_BINARY_DIR) + "/saffra"
                                           : std::string(other);
  Fixture f(command);
  for (auto _ : state) {
    bool failed = false;
    std::vector<double> latencies = drive(f, clients, Clock::duration::zero(), failed);
    if (failed) state.SkipWithError("a check failed");
    const double perSecond =
        static_cast<double>(latencies.size()) / std::chrono::duration<double>(kRunTime).count();
    if (where == 1) thisBuildChecksPerSecond = perSecond;
    state.counters["checks_per_s"] = perSecond;
    state.counters["p50_ms"] = percentile(latencies, 0.5);
    if (where == 2 && thisBuildChecksPerSecond > 0) {
      state.counters["vs_this_build"] = perSecond / thisBuildChecksPerSecond;
    }
  }
}

BENCHMARK(BM_Paced)
    ->Args({1, 0})
    ->Args({64, 0})
    ->Args({64, 1000})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BackToBack)
    ->Args({8, 0})
    ->Args({8, 1})
    ->Args({8, 2})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
