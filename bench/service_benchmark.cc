// The local service over loopback, driven by the library as a test drives it: one check of a
// screenshot (Saffra::checkImage: the library's PNG and base64 encoding, the upload through its
// transport, the service's decoding, comparison with the baseline and storage, the reply) for
// corpus screenshots, and a session's opening and closing.
//
// The check benchmarks also report the service's own share of a check: the time spent inside
// its match-window handler, as the service measures it, against the whole check as the caller
// of checkImage sees it:
//   check_ms       whole check per step (checkImage)
//   service_ms     inside the service's handler (base64 and PNG decoding, comparison, SQLite)
//   service_share  service_ms / check_ms          checks_per_s  1000 / check_ms (one client)
//
//   cmake -S . -B build-rel -DCMAKE_BUILD_TYPE=Release -DSAFFRA_BUILD_BENCH=ON
//   cmake --build build-rel -j2 --target service_benchmark
//   build-rel/service_benchmark --benchmark_filter=Check --benchmark_min_time=4
//
// Check_Phone uploads the anti-aliasing variant of its baseline (other bytes, other pixels,
// same verdict), so both the decoding and the comparison really run; PhoneNewBytes does the
// same with one more pixel of the top row nudged at every check (invisible at Strict), so every
// check also stores a new file; PhoneSameBytes uploads the baseline's own pixels;
// PhoneIgnoredChange uploads the changed-word variant with the changed box as an ignore region (a
// clock or a date on the screen).
//
// docs/performance.md has the figures measured on the project's machines.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "saffra/saffra.h"
#include "server/service_test_support.h"

namespace {

using namespace saffra;
using namespace saffra::server::testing;
using Clock = std::chrono::steady_clock;

// A service on a loopback port, and sessions of one test opened on it through the library.
struct Fixture {
  TempFolder folder;
  Harness harness{folder.path()};

  Fixture() {
    // Log lines would fill the benchmark's output; discarding them is the cheaper client.
    Logger::setSink([](const std::string&) {});
  }
  ~Fixture() { Logger::setSink(nullptr); }

  std::shared_ptr<Saffra> open() const {
    auto saffra = std::make_shared<Saffra>();
    saffra->setServerURL("http://127.0.0.1:" + std::to_string(harness.port()));
    saffra->setApiKey(kApiKey);
    saffra->openWithApplicationName("Benchmarks", "home screen");
    return saffra;
  }
};

double milliseconds(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

// The bounding box of the pixels in which two images of one size differ.
std::shared_ptr<Region> differenceBox(const Image& a, const Image& b) {
  std::size_t left = a.width(), top = a.height(), right = 0, bottom = 0;
  for (std::size_t y = 0; y < a.height(); ++y) {
    for (std::size_t x = 0; x < a.width(); ++x) {
      const std::size_t at = (y * a.width() + x) * 4;
      if (std::memcmp(a.data() + at, b.data() + at, 4) == 0) continue;
      left = std::min(left, x), right = std::max(right, x + 1);
      top = std::min(top, y), bottom = std::max(bottom, y + 1);
    }
  }
  return std::make_shared<Region>(left, top, right - left, bottom - top);
}

enum class Upload { AsIs, NewBytes, IgnoringChange };

/// Saves `baselineFile` as the test's baseline, then times checks of `uploadFile`, which must
/// match it, each in a session of its own (opened and closed outside the timing).
void check(benchmark::State& state, const char* baselineFile, const char* uploadFile,
           Upload upload = Upload::AsIs) {
  Fixture f;
  const std::string corpus = std::string(SAFFRA_CORPUS_DIR) + "/";
  const std::shared_ptr<Image> baseline = Image::fromPNGFile(corpus + baselineFile);
  const std::shared_ptr<Image> screenshot = Image::fromPNGFile(corpus + uploadFile);
  {
    auto first = f.open();
    first->checkImage(baseline, "home");
    first->closeWithThrow(false, nullptr);
  }
  const std::shared_ptr<Region> changed = differenceBox(*baseline, *screenshot);
  const server::HandlerTime before = f.harness.service().matchWindowTime();
  Clock::duration spent{};
  std::size_t nudged = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const std::shared_ptr<Saffra> saffra = f.open();
    // One more pixel of the top row nudged each time: bytes the service has not stored yet.
    if (upload == Upload::NewBytes)
      screenshot->mutableData()[(nudged++ % screenshot->width()) * 4] ^= 1;
    state.ResumeTiming();
    const Clock::time_point start = Clock::now();
    const bool matched =
        upload == Upload::IgnoringChange
            ? saffra->checkWithTag("home", Target::image(screenshot)->ignore({changed}))
            : saffra->checkImage(screenshot, "home");
    spent += Clock::now() - start;
    state.PauseTiming();
    if (!matched) state.SkipWithError("the step did not match");
    saffra->closeWithThrow(false, nullptr);
    state.ResumeTiming();
  }
  const server::HandlerTime after = f.harness.service().matchWindowTime();
  const double n = static_cast<double>(state.iterations());
  if (n == 0 || after.requests == before.requests) return;
  const double serviceMs = milliseconds(after.total - before.total) /
                           static_cast<double>(after.requests - before.requests);
  const double checkMs = milliseconds(spent) / n;
  state.counters["check_ms"] = checkMs;
  state.counters["service_ms"] = serviceMs;
  state.counters["service_share"] = serviceMs / checkMs;
  state.counters["checks_per_s"] = 1000.0 / checkMs;
}

// The upload differs from the baseline only in text anti-aliasing: other bytes and other
// pixels, so decoding and comparison run in full, and the step still matches.
void BM_Check_Phone(benchmark::State& state) {
  check(state, "pairs/phone-help-steps-1170x2532.png", "pairs/phone-help-steps-1170x2532--aa.png");
}
void BM_Check_Desktop(benchmark::State& state) {
  check(state, "pairs/desktop-docs-warning-1920x1080.png",
        "pairs/desktop-docs-warning-1920x1080--aa.png");
}
// As Phone, with a new file to store at every check.
void BM_Check_PhoneNewBytes(benchmark::State& state) {
  check(state, "pairs/phone-help-steps-1170x2532.png", "pairs/phone-help-steps-1170x2532--aa.png",
        Upload::NewBytes);
}
// The upload differs from the baseline by a changed word that the step ignores.
void BM_Check_PhoneIgnoredChange(benchmark::State& state) {
  check(state, "pairs/phone-help-steps-1170x2532.png", "pairs/phone-help-steps-1170x2532--word.png",
        Upload::IgnoringChange);
}
// The upload has the baseline's very pixels, so the same bytes.
void BM_Check_PhoneSameBytes(benchmark::State& state) {
  check(state, "phone-docs-index-1170x2532.png", "phone-docs-index-1170x2532.png");
}
void BM_Check_Small(benchmark::State& state) {
  check(state, "small-help-topic-320x480.png", "small-help-topic-320x480.png");
}

// A whole test of one small screenshot: the session's start, the check, and its close with
// the results.
void BM_SmallTest(benchmark::State& state) {
  Fixture f;
  const std::shared_ptr<Image> screenshot =
      Image::fromPNGFile(std::string(SAFFRA_CORPUS_DIR) + "/small-help-topic-320x480.png");
  for (auto _ : state) {
    const std::shared_ptr<Saffra> saffra = f.open();
    saffra->checkImage(screenshot, "home");
    benchmark::DoNotOptimize(saffra->closeWithThrow(false, nullptr));
  }
}

BENCHMARK(BM_Check_Phone)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Check_PhoneNewBytes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Check_PhoneIgnoredChange)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Check_PhoneSameBytes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Check_Desktop)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Check_Small)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SmallTest)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
