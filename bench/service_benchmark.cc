// The local service over loopback: one check of a screenshot (the client's PNG and base64
// encoding, the upload, the service's decoding, comparison with the baseline and storage, the
// reply) for corpus screenshots, and a session's start and stop.
//
// The match-window benchmarks also report the service's own share of a check: the time spent
// inside its match-window handler, as the service measures it, against the whole check as the
// client sees it:
//   check_ms       whole check per step, client side (encode + round trip)
//   round_trip_ms  upload to reply alone
//   service_ms     inside the service's handler (base64 and PNG decoding, comparison, SQLite)
//   service_share  service_ms / check_ms          checks_per_s  1000 / check_ms (one client)
//
//   cmake -S . -B build-rel -DCMAKE_BUILD_TYPE=Release -DSAFFRA_BUILD_BENCH=ON
//   cmake --build build-rel -j2 --target service_benchmark
//   build-rel/service_benchmark --benchmark_filter=MatchWindow --benchmark_min_time=4
//
// MatchWindow_Phone uploads the anti-aliasing variant of its baseline (other bytes, other
// pixels, same verdict), so both decodes and the comparison really run; PhoneNewBytes does the
// same with a text chunk of its own in every upload, so every check also stores a new file;
// PhoneSameBytes uploads the baseline's own bytes; PhoneIgnoredChange uploads the changed-word
// variant with the changed box as an ignore region (a clock or a date on the screen).
//
// Earlier (load average 1-3): reading the body without running the screenshot through the JSON
// parser and keeping decoded baselines took Phone from check 30.2 ms / service 21.0 ms (share
// 0.70) to 21.1 / 12.1 (0.57), PhoneSameBytes from 25.2 / 16.1 (0.64) to 16.8 / 7.4 (0.44).
//
// Then, one after the other with the command above (load average about 1):
//   before (every upload decoded into a fresh buffer and compared, hashed when stored):
//     Phone          check 22.6 ms, service 13.6 ms, share 0.60,  44 checks/s
//     PhoneSameBytes check 17.1 ms, service  8.5 ms, share 0.49,  58 checks/s
//     Desktop        check 13.1 ms, service  7.3 ms, share 0.56,  76 checks/s
//     Small          check 1.72 ms, service 0.61 ms, share 0.36, 583 checks/s
//   after (an upload equal to its baseline's image is hashed once and neither decoded nor
//   compared; other uploads are decoded into a few reused buffers; prepared statements kept;
//   a new file written while the comparison runs):
//     Phone          check 18.7 ms, service 9.9 ms,  share 0.53,  54 checks/s
//     PhoneNewBytes  check 20.1 ms, service 11.1 ms, share 0.55,  50 checks/s
//     PhoneSameBytes check  9.0 ms, service 0.70 ms, share 0.08, 111 checks/s
//     Desktop        check 11.2 ms, service 5.3 ms,  share 0.48,  89 checks/s
//     Small          check 1.30 ms, service 0.20 ms, share 0.16, 772 checks/s
// On the current CI machine kind (AVX-512 Xeon), at the start of the next round: Phone check
// 28.7 ms, service 17.2 ms (share 0.60). After the codec's own inflater, piecewise decoding,
// the Paeth stretches, the AVX2 Strict kernels and the whole-image pass on two threads:
//     Phone          check 21.5 ms, service 10.9 ms,  share 0.51,  47 checks/s
//     PhoneNewBytes  check 21.0 ms, service 10.3 ms,  share 0.49,  48 checks/s
//     PhoneSameBytes check 10.9 ms, service 0.87 ms,  share 0.08,  92 checks/s
//     Desktop        check 12.9 ms, service 6.1 ms,   share 0.47,  78 checks/s
//     Small          check 1.41 ms, service 0.19 ms,  share 0.14, 711 checks/s
// Timers put in the handler for one run: the upload's decode 4.9 ms (one deflate stream: one
// core) and the comparison 4.7 ms (5.4 ms on one thread). Then the comparison was made to
// follow the decoding band by band on waiting pool threads (a new thread often started 1-2 ms
// late here):
//     Phone          check 19.8-20.2 ms, service 9.3-9.6 ms,  share 0.47-0.48,  50 checks/s
//     PhoneNewBytes  check 21.0 ms,      service 10.3 ms,     share 0.49,       48 checks/s
//     PhoneSameBytes check 11.3 ms,      service 0.90 ms,     share 0.08,       89 checks/s
//     Desktop        check 13.0-14.0 ms, service 5.9-6.2 ms,  share 0.45,       72-77 checks/s
// Decoding alone takes about 6.3 ms in the handler; with the comparison trailing it on the
// other core it takes 7.5 ms (shared caches and memory), and the comparison ends 1.5 ms later.
// Then a single file's rows were inflated through a reused 512 KiB buffer (A/B, interleaved:
// Phone service 9.5 -> 8.9 ms, Desktop 5.9 -> 5.5 ms); at the end of that round:
//     Phone          check 19.4-20.0 ms, service 8.8-9.2 ms,  share 0.45-0.46,  50 checks/s
//     PhoneNewBytes  check 20.6 ms,      service 9.4 ms,      share 0.46,       49 checks/s
//     PhoneSameBytes check 11.5 ms,      service 0.90 ms,     share 0.08,       87 checks/s
//     Desktop        check 12.4-13.5 ms, service 5.3-5.6 ms,  share 0.42,       74-81 checks/s
// In the handler: base64 0.5 ms, hashing 0.26 ms, SQLite about 0.4 ms, decoding and comparing
// 7.9 ms. The two cores slow each other down (shared caches and memory): under a third would
// need about half the decoding and comparing work, not more overlap.
// Then files were compressed in independent bands (45 for a phone screenshot), decoded on two
// threads, with bands the baseline's file shares copied and not compared. A/B on the next
// machine kind (AMD EPYC, 2 cores), three rounds interleaved, --benchmark_min_time=2:
//                        before bands                      with bands
//     Phone              15.2 ms, service 6.4-6.5 (0.42)     15.3-15.6 ms, 6.2-6.3 (0.40-0.41)
//     PhoneIgnoredChange 13.1-13.4 ms, 4.8-4.9 (0.36)        11.3-11.9 ms, 2.4-2.6 (0.21-0.22)
//     PhoneNewBytes      15.5-15.7 ms, 6.7-7.0 (0.43-0.44)   15.5-16.7 ms, 6.4-7.0 (0.42)
//     PhoneSameBytes     9.5-9.9 ms, 0.75-0.80 (0.08)        10.0-10.4 ms, 0.73-0.76 (0.07)
//     Desktop            10.2-10.3 ms, 4.2 (0.40)            10.4-11.0 ms, 3.8-4.4 (0.36-0.40)
// The anti-aliasing variant differs in 38 of its 45 bands, so it gains only the second decoding
// thread; the client's encoding is about 0.8 ms slower (a Huffman block and an empty matcher
// history per band).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "server/service_test_support.h"

namespace {

using namespace saffra;
using namespace saffra::server::testing;
using Clock = std::chrono::steady_clock;

struct Fixture {
  TempFolder folder;
  Harness harness{folder.path()};
};

double milliseconds(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

// The bounding box of the pixels in which two images of one size differ, as an ignore region.
Json differenceBox(const Image& a, const Image& b) {
  std::size_t left = a.width(), top = a.height(), right = 0, bottom = 0;
  for (std::size_t y = 0; y < a.height(); ++y) {
    for (std::size_t x = 0; x < a.width(); ++x) {
      const std::size_t at = (y * a.width() + x) * 4;
      if (std::memcmp(a.data() + at, b.data() + at, 4) == 0) continue;
      left = std::min(left, x), right = std::max(right, x + 1);
      top = std::min(top, y), bottom = std::max(bottom, y + 1);
    }
  }
  return Json{{"left", left}, {"top", top}, {"width", right - left}, {"height", bottom - top}};
}

/// Saves `baselineFile` as the test's baseline, then times checks that upload `uploadFile`,
/// which must match it. With `newBytes` every upload carries a text chunk of its own: the same
/// pixels in bytes the service has not stored yet. With `ignoreChange` the step ignores the
/// box in which the two images differ, as a test does for a clock or a date on the screen.
void matchWindow(benchmark::State& state, const char* baselineFile, const char* uploadFile,
                 bool newBytes = false, bool ignoreChange = false) {
  Fixture f;
  const std::string corpus = std::string(SAFFRA_CORPUS_DIR) + "/";
  const std::shared_ptr<Image> baseline = Image::fromPNGFile(corpus + baselineFile);
  const std::shared_ptr<Image> screenshot = Image::fromPNGFile(corpus + uploadFile);
  SessionSpec test;
  f.harness.runTest(test, {baseline->pngData()}, true);
  const Json settings =
      ignoreChange ? wireSettings("Strict", Json::array({differenceBox(*baseline, *screenshot)}))
                   : wireSettings();
  const server::HandlerTime before = f.harness.service().matchWindowTime();
  std::size_t checks = 0;
  Clock::duration check{}, roundTrip{};
  std::size_t bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::string id = f.harness.start(test).body["id"];
    state.ResumeTiming();
    const Clock::time_point start = Clock::now();
    std::vector<std::uint8_t> png = screenshot->pngData();
    if (newBytes)
      png = withTextChunk(png, std::string("Comment\0check ", 14) + std::to_string(++checks));
    const std::string body = json::write(matchBody(png, "home", false, settings));
    const Clock::time_point encoded = Clock::now();
    Reply reply =
        f.harness.send("POST", "/api/sessions/running/" + id + "?apiKey=" + kApiKey, body);
    const Clock::time_point replied = Clock::now();
    state.PauseTiming();
    check += replied - start;
    roundTrip += replied - encoded;
    bytes += body.size();
    if (reply.body["asExpected"] != true) state.SkipWithError("the step did not match");
    f.harness.stop(id, false, false);
    state.ResumeTiming();
  }
  const server::HandlerTime after = f.harness.service().matchWindowTime();
  const double n = static_cast<double>(state.iterations());
  if (n == 0 || after.requests == before.requests) return;
  const double serviceMs = milliseconds(after.total - before.total) /
                           static_cast<double>(after.requests - before.requests);
  const double checkMs = milliseconds(check) / n;
  state.counters["check_ms"] = checkMs;
  state.counters["round_trip_ms"] = milliseconds(roundTrip) / n;
  state.counters["service_ms"] = serviceMs;
  state.counters["service_share"] = serviceMs / checkMs;
  state.counters["checks_per_s"] = 1000.0 / checkMs;
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

// The upload differs from the baseline only in text anti-aliasing: other bytes and other
// pixels, so decoding and comparison run in full, and the step still matches.
void BM_MatchWindow_Phone(benchmark::State& state) {
  matchWindow(state, "pairs/phone-help-steps-1170x2532.png",
              "pairs/phone-help-steps-1170x2532--aa.png");
}
void BM_MatchWindow_Desktop(benchmark::State& state) {
  matchWindow(state, "pairs/desktop-docs-warning-1920x1080.png",
              "pairs/desktop-docs-warning-1920x1080--aa.png");
}
// As Phone, with a new file to store at every check.
void BM_MatchWindow_PhoneNewBytes(benchmark::State& state) {
  matchWindow(state, "pairs/phone-help-steps-1170x2532.png",
              "pairs/phone-help-steps-1170x2532--aa.png", true);
}
// The upload differs from the baseline by a changed word that the step ignores.
void BM_MatchWindow_PhoneIgnoredChange(benchmark::State& state) {
  matchWindow(state, "pairs/phone-help-steps-1170x2532.png",
              "pairs/phone-help-steps-1170x2532--word.png", false, true);
}
// The upload is byte for byte the baseline.
void BM_MatchWindow_PhoneSameBytes(benchmark::State& state) {
  matchWindow(state, "phone-docs-index-1170x2532.png", "phone-docs-index-1170x2532.png");
}
void BM_MatchWindow_Small(benchmark::State& state) {
  matchWindow(state, "small-help-topic-320x480.png", "small-help-topic-320x480.png");
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
BENCHMARK(BM_MatchWindow_PhoneNewBytes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MatchWindow_PhoneIgnoredChange)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MatchWindow_PhoneSameBytes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MatchWindow_Desktop)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MatchWindow_Small)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StartAndStop)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
