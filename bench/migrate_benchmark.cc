// `saffra migrate` of an embedded store into PostgreSQL: a data folder of 1,000 stopped sessions
// (one step each, 200 of them with an image of their own, and a baseline of 50 versions) copied
// into an empty database, then copied again (nothing left to copy: the check of every row and
// image), against the copy of an empty data folder in the same run (the command's constant:
// process, connections, schema). The command runs as a child process; its peak resident size
// is the kernel's (wait4). The PostgreSQL server is this program's own.
//
// Counters: seconds, peak_MB, and for the 1,000 sessions ms_per_session and above_empty_MB (the
// peak over the empty copy's).
//
//   cmake --build build -j2 --target migrate_benchmark saffra && build/migrate_benchmark
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

#include "saffra/base/logger.h"
#include "server/service_test_support.h"
#include "server/store.h"
#include "testing/postgres_server.h"

extern char** environ;

namespace {

using namespace saffra::server;
using namespace saffra::server::testing;

constexpr int kSessions = 1000;

// The exit code and peak resident size (kB) of `saffra migrate`, and how long it took.
struct Run {
  int code = -1;
  long peakKb = 0;
  double seconds = 0;
};

Run migrate(const std::string& from, const std::string& to) {
  const std::string command = std::string(SAFFRA_BINARY_DIR) + "/saffra";
  std::vector<std::string> args = {command, "migrate", "--from", from, "--to", to};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = -1;
  Run run;
  if (posix_spawn(&pid, command.c_str(), &actions, nullptr, argv.data(), environ) == 0) {
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.peakKb = usage.ru_maxrss;
  }
  posix_spawn_file_actions_destroy(&actions);
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return run;
}

// A data folder of `sessions` stopped sessions, made once per size.
std::string folderOf(TempFolder& folder, int sessions) {
  std::unique_ptr<Store> store = openStore(folder.path().string());
  const std::int64_t at = static_cast<std::int64_t>(std::time(nullptr)) - 86400;
  std::vector<BaselineStep> baseline{{0, "home", store->putImage(solidPng(64, 48, kWhite)), {}}};
  for (int i = 0; i < sessions; ++i) {
    SessionRecord s;
    s.id = "session-" + std::to_string(i);
    s.token = "token";
    s.baselineKey = "app/test";
    s.batchId = "batch-" + std::to_string(i / 20);
    s.startedAt = at + i;
    if (auto current = store->findBaseline(s.baselineKey)) {
      s.baselineId = current->id;
      s.baselineVersion = current->version;
    }
    store->insertSession(s, BatchRecord{s.batchId, "nightly", {}, {}, false});
    StepRecord step;
    step.tag = "home";
    step.matchLevel = "Strict";
    step.currentImage = i % 5 == 0
                            ? store->putImage(solidPng(64, 48, kWhite, PixelRect{i % 60, 4, 3, 3}))
                            : baseline[0].image;
    store->insertStep(s.id, step);
    Outcome o;
    o.status = "Passed";
    // Every twentieth session saves the baseline again: a version of its own.
    store->finishSession(s.id, o, i % 20 == 0 ? &baseline : nullptr);
  }
  store->flushImages();
  return folder.path().string();
}

double emptyPeakKb = 0;

void Migrate(benchmark::State& state) {
  const int sessions = static_cast<int>(state.range(0));
  saffra::Logger::setSink([](const std::string&) {});
  TempFolder folder;
  const std::string from = folderOf(folder, sessions);
  const std::string to = saffra::testing::PostgresServer::shared().createDatabase();
  Run first, again;
  for (auto _ : state) {
    first = migrate(from, to);
    again = migrate(from, to);
  }
  if (first.code != 0 || again.code != 0) state.SkipWithError("saffra migrate failed");
  state.counters["seconds"] = first.seconds;
  state.counters["again_seconds"] = again.seconds;
  state.counters["peak_MB"] = static_cast<double>(first.peakKb) / 1024;
  if (sessions == 0) emptyPeakKb = static_cast<double>(first.peakKb);
  if (sessions > 0) {
    state.counters["ms_per_session"] = first.seconds * 1000 / sessions;
    if (emptyPeakKb > 0) {
      state.counters["above_empty_MB"] = (static_cast<double>(first.peakKb) - emptyPeakKb) / 1024;
    }
  }
  saffra::Logger::setSink(nullptr);
}
BENCHMARK(Migrate)->Arg(0)->Arg(kSessions)->Iterations(1)->UseRealTime()->Unit(
    benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
