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
// Earlier rounds timed a hand-made client (a test helper's base64, then httplib), not the
// library; the service's share of the Phone check went from 0.70 to 0.40 through reading the
// body without the JSON parser, keeping decoded baselines, hashing uploads once, pooled pixel
// buffers, the codec's own inflater, AVX2 kernels and files compressed in bands (see the
// README). Timed through the library, the Phone check then took 57 ms: the service's replies
// waited 40 ms for the client's delayed acknowledgement (Nagle's algorithm on a kept-alive
// connection), as did every close. With TCP_NODELAY, on a 2-core Xeon (AVX-512), A/B in one
// run, --benchmark_min_time=2:
//     Phone          check 12.4 ms, service 4.97 ms, share 0.40
// Then the pool's helper was moved off its poster's processor (woken after the client's
// encoding, it was mostly placed beside the busy handler and shared its core), the decoding
// threads compared the final rows after each band, clustering skipped rows with no marks, and
// the screenshot's text lost its escapes and was decoded sixteen characters at a time:
//     Phone              check 11.2-11.8 ms, service 3.61-3.79 ms, share 0.32-0.33, 86 checks/s
//     PhoneNewBytes      check 11.8-12.6 ms, service 4.16-4.55 ms, share 0.35-0.36 (the new
//                        file is written and flushed, 0.8-1.3 ms of fsync on this disk, while
//                        the upload is decoded and compared; 4.6-4.7 ms when it was written
//                        after the decoding)
//     PhoneIgnoredChange check 9.4 ms,       service 1.45 ms,      share 0.15
//     PhoneSameBytes     check 8.4 ms,       service 0.52 ms,      share 0.06
//     Desktop            check 8.5 ms,       service 2.74 ms,      share 0.32
//     SmallTest          1.95 ms for a whole test (start, one check, close)
// On a 2-core AMD EPYC (AVX-512), whose host's other tenants move times by 10-20%, that code
// measured Phone share 0.321-0.339 and PhoneNewBytes 0.357-0.384 (medians of four runs
// interleaved with the code below). Then the request's thread hashed and wrote the upload while
// a pool thread decoded the first bands, files were flushed to disk after the reply instead of
// before it, and Strict's anti-aliasing test ran on eight pixels at a time before any distance
// was measured:
//     Phone              check 13.3-15.5 ms, service 3.8-4.4 ms, share 0.27-0.32 (medians of
//                        interleaved runs 0.289-0.303), 65-77 checks/s
//     PhoneNewBytes      check 13.1-15.2 ms, service 3.9-4.6 ms, share 0.30-0.33 (medians
//                        0.304-0.308)
//     PhoneIgnoredChange check 11.7-12.7 ms, service 2.0 ms, share 0.16-0.17
//     PhoneSameBytes     check 10.6-12.1 ms, service 0.65-0.77 ms, share 0.06
//     Desktop            check 10.4-11.3 ms, service 3.0-3.5 ms, share 0.29-0.33
//     SmallTest          2.25-2.55 ms for a whole test
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
