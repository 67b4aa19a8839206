// The service on each of its stores, driven by the library as CI jobs drive it: four clients,
// each running sessions of one check of a phone screenshot (the anti-aliased variant of its
// baseline, so decoding and comparison run in full) back to back, against
//   Store/0   one service on an SQLite data folder (the embedded default);
//   Store/1   one service on a PostgreSQL database;
//   Store/2   two services on one PostgreSQL database, the clients split between them;
//   Store/3   one service on a PostgreSQL database whose commits do not wait for the disk
//             (synchronous_commit = off: the guarantee of the SQLite store, whose write-ahead
//             log is flushed at checkpoints, not at each commit).
// The PostgreSQL server is this program's own (started in a temporary folder, stopped at the
// end), on a Unix socket of this machine, with PostgreSQL's default durability: every commit
// waits for its flush to disk.
//
// Counters: checks_per_s (sessions of one check each, opened, checked and closed), vs_sqlite
// (over Store/0's, measured first in the same run), db_share (for PostgreSQL: the time the
// services waited for the database's replies over the time the clients spent in their
// sessions: the database's share of a check's time as a client sees it).
//
//   cmake --build build -j2 --target team_benchmark && build/team_benchmark
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "saffra/saffra.h"
#include "server/service_test_support.h"
#include "testing/postgres_server.h"

namespace {

using namespace saffra;
using namespace saffra::server;
using namespace saffra::server::testing;
using Clock = std::chrono::steady_clock;

constexpr int kClients = 4;
constexpr auto kRunTime = std::chrono::seconds(12);

double sqliteChecksPerSecond = 0;

void Store(benchmark::State& state) {
  const int engine = static_cast<int>(state.range(0));
  Logger::setSink([](const std::string&) {});
  TempFolder folder;
  std::string database;
  if (engine > 0) {
    using saffra::testing::PostgresServer;
    static PostgresServer server(PostgresServer::Durability::Durable);
    database = server.createDatabase();
    if (engine == 3) {
      const std::string name = database.substr(database.find(":///") + 4,
                                               database.find('?') - database.find(":///") - 4);
      PostgresServer::run(database, "ALTER DATABASE " + name + " SET synchronous_commit = off");
    }
  }
  std::vector<std::unique_ptr<Service>> services;
  for (int i = 0; i < (engine == 2 ? 2 : 1); ++i) {
    ServiceOptions options;
    options.dataFolder = folder.path();
    options.database = database;
    options.apiKeys = {kApiKey};
    services.push_back(std::make_unique<Service>(options));
    services.back()->start();
  }
  const std::string corpus = std::string(SAFFRA_CORPUS_DIR) + "/pairs/";
  const auto baseline = Image::fromPNGFile(corpus + "phone-help-steps-1170x2532.png");
  const auto upload = Image::fromPNGFile(corpus + "phone-help-steps-1170x2532--aa.png");
  auto open = [&](int client) {
    auto saffra = std::make_shared<Saffra>();
    saffra->setServerURL(services[static_cast<std::size_t>(client) % services.size()]->url());
    saffra->setApiKey(kApiKey);
    saffra->openWithApplicationName("Team", "home screen");
    return saffra;
  };
  {
    auto first = open(0);
    first->checkImage(baseline, "home");
    first->closeWithThrow(false, nullptr);
  }
  for (auto _ : state) {
    std::atomic<int> checks{0};
    std::atomic<bool> failed{false};
    const auto waitedBefore = services.front()->timeInDatabase();
    const Clock::time_point end = Clock::now() + kRunTime;
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
      clients.emplace_back([&, c] {
        while (Clock::now() < end && !failed) {
          auto saffra = open(c);
          const bool matched = saffra->checkImage(upload, "home");
          auto results = saffra->closeWithThrow(false, nullptr);
          if (!matched || !results || !results->isPassed()) failed = true;
          ++checks;
        }
      });
    }
    for (auto& t : clients) t.join();
    if (failed) state.SkipWithError("a check did not pass");
    const double perSecond = checks / std::chrono::duration<double>(kRunTime).count();
    state.counters["checks_per_s"] = perSecond;
    if (engine == 0) sqliteChecksPerSecond = perSecond;
    if (engine > 0 && sqliteChecksPerSecond > 0) {
      state.counters["vs_sqlite"] = perSecond / sqliteChecksPerSecond;
      // Every service in this process adds to one total.
      const double waited =
          std::chrono::duration<double>(services.front()->timeInDatabase() - waitedBefore).count();
      // The clients were busy with their sessions the whole run.
      state.counters["db_share"] =
          waited / (kClients * std::chrono::duration<double>(kRunTime).count());
    }
  }
  for (auto& s : services) s->stop();
  Logger::setSink(nullptr);
}
BENCHMARK(Store)->DenseRange(0, 3)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
