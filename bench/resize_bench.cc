// Bicubic resize of a phone screenshot (1170x2532) to half its size: the library's flat-buffer
// resize against a straightforward reference that holds every channel value as a boxed number
// in a std::vector<std::shared_ptr<long>>, with a check that both give identical pixels.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "saffra/images/bitmap.h"
#include "saffra/images/resize.h"
#include "saffra/platform/image.h"

namespace {

using saffra::Image;
using Boxed = std::vector<std::shared_ptr<long>>;

const std::shared_ptr<Image>& phone() {
  static const auto image =
      Image::fromPNGFile(std::string(SAFFRA_CORPUS_DIR) + "/phone-help-cards-1170x2532.png");
  return image;
}

const saffra::Size kHalf{585, 1266};

long interpolate(long p0, long p1, long p2, long p3, double t) {
  const long a0 = p3 - p2 - p0 + p1, a1 = p0 - p1 - a0, a2 = p2 - p0;
  double v = static_cast<double>(p1) +
             (static_cast<double>(a2) * t +
              (static_cast<double>(a1) * (t * t) + (t * t * t) * static_cast<double>(a0)));
  v = std::fmin(255.0, v);
  v = std::fmax(v, 0.0);
  return std::isnan(v) ? 0 : static_cast<long>(v);
}

// The reference: every read goes through the boxed list's accessor.
std::shared_ptr<Image> boxedResize(const std::shared_ptr<Image>& image, const saffra::Size& size) {
  const long nw = static_cast<long>(size.width), nh = static_cast<long>(size.height);
  const long sw = static_cast<long>(image->scale() * std::trunc(image->size().width));
  const long sh = static_cast<long>(image->scale() * std::trunc(image->size().height));
  Boxed src;
  src.reserve(static_cast<std::size_t>(sw * sh * 4));
  for (std::int64_t v : saffra::Bitmap::convertImageToBitmapARGB8(image))
    src.push_back(std::make_shared<long>(v));
  const long fx = std::max(sw / nw, 1L), fy = std::max(sh / nh, 1L), iw = fx * nw, ih = fy * nh;
  auto at = [](const Boxed& list, long i) { return *list.at(static_cast<std::size_t>(i)); };
  Boxed h;
  h.reserve(static_cast<std::size_t>(sh * iw * 4));
  for (long y = 0; y < sh; ++y) {
    for (long x = 0; x < iw; ++x) {
      const double sx = static_cast<double>(x * (sw - 1)) / static_cast<double>(iw);
      const long ix = static_cast<long>(std::floor(sx));
      const double t = sx - static_cast<double>(ix);
      for (long c = 0; c < 4; ++c) {
        const long b = (y * sw + ix) * 4 + c;
        const long p0 = ix > 0 ? at(src, b - 4) : 2 * at(src, b) - at(src, b + 4);
        const long p1 = at(src, b), p2 = at(src, b + 4);
        const long p3 = sw - 2 > ix ? at(src, b + 8) : 2 * p2 - p1;
        h.push_back(std::make_shared<long>(interpolate(p0, p1, p2, p3, t)));
      }
    }
  }
  Boxed v;
  v.reserve(static_cast<std::size_t>(ih * iw * 4));
  for (long y = 0; y < ih; ++y) {
    const double sy = static_cast<double>(y * (sh - 1)) / static_cast<double>(ih);
    const long iy = static_cast<long>(std::floor(sy));
    const double t = sy - static_cast<double>(iy);
    for (long x = 0; x < iw; ++x) {
      for (long c = 0; c < 4; ++c) {
        const long b = (iy * iw + x) * 4 + c, row = 4 * iw;
        const long p0 = iy > 0 ? at(h, b - row) : 2 * at(h, b) - at(h, b + row);
        const long p1 = at(h, b), p2 = at(h, b + row);
        const long p3 = sh - 2 > iy ? at(h, b + 2 * row) : 2 * p2 - p1;
        v.push_back(std::make_shared<long>(interpolate(p0, p1, p2, p3, t)));
      }
    }
  }
  Boxed result;
  if (fx * fy < 2) {
    result = std::move(v);
  } else {
    result.reserve(static_cast<std::size_t>(nw * nh * 4));
    for (long y = 0; y < nh; ++y) {
      for (long x = 0; x < nw; ++x) {
        long sum[4] = {0, 0, 0, 0};
        for (long i = 0; i < fx; ++i) {
          for (long j = 0; j < fy; ++j) {
            for (int c = 0; c < 4; ++c) sum[c] += at(v, ((j + y * fy) * iw + i + x * fx) * 4 + c);
          }
        }
        for (int c = 3; c >= 0; --c) result.push_back(std::make_shared<long>(sum[c] / (fx * fy)));
      }
    }
  }
  std::vector<std::uint8_t> bytes(result.size());
  for (std::size_t i = 0; i < result.size(); ++i) bytes[i] = static_cast<std::uint8_t>(*result[i]);
  return saffra::Bitmap::convertBitmapRGBA8ToUIImage(std::move(bytes), size);
}

void BM_ResizeFlat(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(saffra::Resize::resizeImageUsingBicubicInterpolation(phone(), kHalf));
  state.counters["source_MP/s"] = benchmark::Counter(
      static_cast<double>(phone()->width() * phone()->height()) * state.iterations() / 1e6,
      benchmark::Counter::kIsRate);
}

void BM_ResizeBoxedReference(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(boxedResize(phone(), kHalf));
  state.counters["source_MP/s"] = benchmark::Counter(
      static_cast<double>(phone()->width() * phone()->height()) * state.iterations() / 1e6,
      benchmark::Counter::kIsRate);
}

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      const std::string name = run.benchmark_name();
      times[name.substr(0, name.find('/'))] = run.GetAdjustedRealTime();
    }
  }
  std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("resize_flat", BM_ResizeFlat)
      ->Unit(benchmark::kMillisecond)
      ->MinTime(1.0);
  benchmark::RegisterBenchmark("resize_boxed_reference", BM_ResizeBoxedReference)
      ->Unit(benchmark::kMillisecond)
      ->Iterations(2);
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  const bool identical =
      saffra::Resize::resizeImageUsingBicubicInterpolation(phone(), kHalf)->pixels() ==
      boxedResize(phone(), kHalf)->pixels();
  auto& t = reporter.times;
  if (t.count("resize_flat") && t.count("resize_boxed_reference")) {
    std::printf(
        "\nresize 1170x2532 -> 585x1266: flat %.1f ms (%.1f source MP/s), boxed reference %.1f ms: "
        "%.1f x faster\n",
        t["resize_flat"], 1170.0 * 2532 / 1e6 / (t["resize_flat"] / 1e3),
        t["resize_boxed_reference"], t["resize_boxed_reference"] / t["resize_flat"]);
  }
  std::printf("output bit-identical to the boxed reference: %s\n", identical ? "yes" : "NO");
  benchmark::Shutdown();
  return identical ? 0 : 1;
}
