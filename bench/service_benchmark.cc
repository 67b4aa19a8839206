// The local service over loopback: one match-window round trip (base64 and PNG decoding,
// comparison with the baseline, storage) for corpus screenshots, and a session's start and stop.
#include <benchmark/benchmark.h>

#include "server/service_test_support.h"

namespace {

using namespace saffra;
using namespace saffra::server::testing;

struct Fixture {
  TempFolder folder;
  Harness harness{folder.path()};
};

std::vector<std::uint8_t> corpusPng(const char* name) {
  return Image::fromPNGFile(std::string(SAFFRA_CORPUS_DIR) + "/" + name)->pngData();
}

void matchWindow(benchmark::State& state, const char* file) {
  Fixture f;
  std::vector<std::uint8_t> png = corpusPng(file);
  SessionSpec test;
  f.harness.runTest(test, {png}, true);
  std::string body = json::write(matchBody(png, "home"));
  for (auto _ : state) {
    state.PauseTiming();
    std::string id = f.harness.start(test).body["id"];
    state.ResumeTiming();
    Reply reply = f.harness.send("POST", "/api/sessions/running/" + id + "?apiKey=" + kApiKey, body);
    state.PauseTiming();
    if (reply.body["asExpected"] != true) state.SkipWithError("the step did not match");
    f.harness.stop(id, false, false);
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
}

void BM_MatchWindow_Phone(benchmark::State& state) {
  matchWindow(state, "phone-docs-index-1170x2532.png");
}
void BM_MatchWindow_Desktop(benchmark::State& state) {
  matchWindow(state, "desktop-docs-index-1920x1080.png");
}
void BM_MatchWindow_Small(benchmark::State& state) {
  matchWindow(state, "small-help-topic-320x480.png");
}

void BM_StartAndStop(benchmark::State& state) {
  Fixture f;
  SessionSpec test;
  for (auto _ : state) {
    std::string id = f.harness.start(test).body["id"];
    benchmark::DoNotOptimize(f.harness.stop(id, false, false));
  }
}

BENCHMARK(BM_MatchWindow_Phone)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MatchWindow_Desktop)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MatchWindow_Small)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StartAndStop)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
