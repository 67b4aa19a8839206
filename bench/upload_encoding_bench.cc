// Upload encoding of phone screenshots: PNG candidates against libpng at its default settings,
// base64 against memcpy, and the peak extra memory of encoding one screenshot for upload.
// Every ratio is computed from times measured in this same run.
#include <benchmark/benchmark.h>
#include <libdeflate.h>
#include <malloc.h>
#include <png.h>
#include <spng.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "saffra/platform/base64.h"
#include "saffra/platform/image.h"
#include "saffra/platform/png.h"

// ---------------------------------------------------------------------------------------------
// Counting allocator: every operator new / delete of the program updates the bytes in use.

namespace {
std::atomic<std::size_t> gInUse{0};
std::atomic<std::size_t> gPeak{0};

void* countedAlloc(std::size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  std::size_t now = gInUse += malloc_usable_size(p);
  std::size_t peak = gPeak.load();
  while (now > peak && !gPeak.compare_exchange_weak(peak, now)) {
  }
  return p;
}

void countedFree(void* p) {
  if (!p) return;
  gInUse -= malloc_usable_size(p);
  std::free(p);
}
}  // namespace

void* operator new(std::size_t size) {
  return countedAlloc(size);
}
void* operator new[](std::size_t size) {
  return countedAlloc(size);
}
void operator delete(void* p) noexcept {
  countedFree(p);
}
void operator delete[](void* p) noexcept {
  countedFree(p);
}
void operator delete(void* p, std::size_t) noexcept {
  countedFree(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  countedFree(p);
}

namespace {

using saffra::Image;

const char* const kPhones[] = {"phone-docs-index-1170x2532.png", "phone-help-cards-1170x2532.png"};

const std::vector<std::shared_ptr<Image>>& phones() {
  static const std::vector<std::shared_ptr<Image>> images = [] {
    std::vector<std::shared_ptr<Image>> out;
    for (const char* name : kPhones)
      out.push_back(Image::fromPNGFile(std::string(SAFFRA_CORPUS_DIR) + "/" + name));
    return out;
  }();
  return images;
}

// ---------------------------------------------------------------------------------------------
// Candidates. Each encodes one image and returns the size of its output.

void appendToVector(png_structp png, png_bytep data, png_size_t size) {
  auto* out = static_cast<std::vector<std::uint8_t>*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + size);
}

std::size_t libpng(const Image& image, int level, int filters) {
  std::vector<std::uint8_t> out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_set_write_fn(png, &out, appendToVector, nullptr);
  if (level >= 0) png_set_compression_level(png, level);
  if (filters >= 0) png_set_filter(png, 0, filters);
  png_set_IHDR(png, info, static_cast<png_uint_32>(image.width()),
               static_cast<png_uint_32>(image.height()), 8, PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (std::size_t y = 0; y < image.height(); ++y) png_write_row(png, image.pixel(0, y));
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return out.size();
}

std::size_t libspng(const Image& image, int level, int filters) {
  spng_ctx* ctx = spng_ctx_new(SPNG_CTX_ENCODER);
  spng_set_option(ctx, SPNG_ENCODE_TO_BUFFER, 1);
  if (level >= 0) spng_set_option(ctx, SPNG_IMG_COMPRESSION_LEVEL, level);
  if (filters >= 0) spng_set_option(ctx, SPNG_FILTER_CHOICE, filters);
  spng_ihdr ihdr{};
  ihdr.width = static_cast<std::uint32_t>(image.width());
  ihdr.height = static_cast<std::uint32_t>(image.height());
  ihdr.bit_depth = 8;
  ihdr.color_type = SPNG_COLOR_TYPE_TRUECOLOR_ALPHA;
  spng_set_ihdr(ctx, &ihdr);
  spng_encode_image(ctx, image.data(), image.pixels().size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE);
  std::size_t length = 0;
  int error = 0;
  void* buffer = spng_get_png_buffer(ctx, &length, &error);
  std::free(buffer);
  spng_ctx_free(ctx);
  return length;
}

// Filter every row with "up" (or "none"), then one libdeflate call at the given level. The PNG
// framing adds a few dozen bytes, which the size leaves out.
std::size_t libdeflateRows(const Image& image, int level, bool up) {
  const std::size_t row = image.width() * 4;
  std::vector<std::uint8_t> filtered((row + 1) * image.height());
  for (std::size_t y = 0; y < image.height(); ++y) {
    std::uint8_t* out = &filtered[y * (row + 1)];
    const std::uint8_t* cur = image.pixel(0, y);
    out[0] = up && y ? 2 : 0;
    if (up && y) {
      const std::uint8_t* prev = cur - row;
      for (std::size_t i = 0; i < row; ++i)
        out[1 + i] = static_cast<std::uint8_t>(cur[i] - prev[i]);
    } else {
      std::memcpy(out + 1, cur, row);
    }
  }
  libdeflate_compressor* c = libdeflate_alloc_compressor(level);
  std::vector<std::uint8_t> out(libdeflate_zlib_compress_bound(c, filtered.size()));
  std::size_t n =
      libdeflate_zlib_compress(c, filtered.data(), filtered.size(), out.data(), out.size());
  libdeflate_free_compressor(c);
  return n;
}

std::size_t saffraPng(const Image& image, unsigned threads) {
  return saffra::png::encode(image.data(), image.width(), image.height(), image.stride(), {threads})
      .size();
}

std::size_t saffraUpload(const Image& image) {
  return saffra::png::encodeBase64Lines64(image).size();
}

struct Candidate {
  const char* name;
  std::size_t (*encode)(const Image&);
};

const Candidate kCandidates[] = {
    {"libpng_default", [](const Image& i) { return libpng(i, -1, -1); }},
    {"libpng_level1_up", [](const Image& i) { return libpng(i, 1, PNG_FILTER_UP); }},
    {"libpng_level1_none", [](const Image& i) { return libpng(i, 1, PNG_FILTER_NONE); }},
    {"libspng_default", [](const Image& i) { return libspng(i, -1, -1); }},
    {"libspng_level1_none", [](const Image& i) { return libspng(i, 1, SPNG_FILTER_CHOICE_NONE); }},
    {"libdeflate_level1_up", [](const Image& i) { return libdeflateRows(i, 1, true); }},
    {"libdeflate_level1_none", [](const Image& i) { return libdeflateRows(i, 1, false); }},
    {"libdeflate_level6_none", [](const Image& i) { return libdeflateRows(i, 6, false); }},
    {"saffra_1_thread", [](const Image& i) { return saffraPng(i, 1); }},
    {"saffra_auto_threads", [](const Image& i) { return saffraPng(i, 0); }},
    {"saffra_upload_png_base64", saffraUpload},
};
constexpr const char* kLibraryChoice = "saffra_1_thread";

std::map<std::string, double> gBytes;  // candidate name -> total output bytes over the images

void BM_Encode(benchmark::State& state, const Candidate* candidate) {
  std::size_t bytes = 0;
  for (auto _ : state) {
    bytes = 0;
    for (const auto& image : phones()) bytes += candidate->encode(*image);
    benchmark::DoNotOptimize(bytes);
  }
  gBytes[candidate->name] = static_cast<double>(bytes);
  state.counters["out_bytes"] = static_cast<double>(bytes);
  state.counters["raw_MB/s"] =
      benchmark::Counter(static_cast<double>(phones()[0]->pixels().size() * phones().size()) *
                             state.iterations() / 1e6,
                         benchmark::Counter::kIsRate);
}

// ---------------------------------------------------------------------------------------------
// Base64 against memcpy of the same bytes.

const std::vector<std::uint8_t>& base64Input(std::size_t size) {
  static std::map<std::size_t, std::vector<std::uint8_t>> inputs;
  auto& v = inputs[size];
  if (v.empty()) {
    v.resize(size);
    std::uint32_t x = 12345;
    for (auto& b : v) b = static_cast<std::uint8_t>((x = x * 1664525u + 1013904223u) >> 24);
  }
  return v;
}

void BM_Base64Lines64(benchmark::State& state) {
  const auto& input = base64Input(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    std::string text = saffra::base64::encodeLines64(input);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * input.size()));
}

void BM_Memcpy(benchmark::State& state) {
  const auto& input = base64Input(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    // Allocated per iteration, as the encoder allocates its text.
    std::vector<std::uint8_t> copy(input.size());
    std::memcpy(copy.data(), input.data(), input.size());
    benchmark::DoNotOptimize(copy.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * input.size()));
}

// Records the real time per iteration of every run, for the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const std::string name = run.benchmark_name();
      times[name] = run.GetAdjustedRealTime();
      times[name.substr(0, name.find('/'))] = run.GetAdjustedRealTime();
    }
  }
  std::map<std::string, double> times;
};

void printPeakMemory() {
  const Image& image = *phones()[0];
  const double raw = static_cast<double>(image.pixels().size());
  for (unsigned threads : {1u, 0u}) {
    const std::size_t before = gInUse.load();
    gPeak = before;
    // What the library's upload text does (PNG, then base64), with the thread count chosen here.
    std::string text = saffra::base64::encodeLines64(saffra::png::encode(
        image.data(), image.width(), image.height(), image.stride(), {threads}));
    const double extra = static_cast<double>(gPeak.load() - before);
    std::printf("peak extra memory, upload text of %s (%s): %.2f MB = %.3f x raw RGBA (%.2f MB)\n",
                kPhones[0], threads == 0 ? "auto threads" : "1 thread", extra / 1e6, extra / raw,
                raw / 1e6);
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (const auto& c : kCandidates) {
    benchmark::RegisterBenchmark(c.name, BM_Encode, &c)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MinTime(1.0);
  }
  benchmark::RegisterBenchmark("base64_lines64", BM_Base64Lines64)
      ->Arg(400 << 10)
      ->Arg(8 << 20)
      ->UseRealTime();
  benchmark::RegisterBenchmark("memcpy", BM_Memcpy)->Arg(400 << 10)->Arg(8 << 20)->UseRealTime();
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  auto& t = reporter.times;
  std::printf(
      "\nPNG candidates on %s and %s (1170x2532), against libpng at its default settings:\n",
      kPhones[0], kPhones[1]);
  std::printf("%-28s %10s %10s %10s\n", "candidate", "ms/pair", "speed x", "size x");
  const double baseTime = t.count("libpng_default") ? t["libpng_default"] : 0;
  const double baseBytes = gBytes.count("libpng_default") ? gBytes["libpng_default"] : 0;
  for (const auto& c : kCandidates) {
    if (!t.count(c.name)) continue;
    std::printf("%-28s %10.2f %10.2f %10.3f%s\n", c.name, t[c.name], baseTime / t[c.name],
                gBytes[c.name] / baseBytes,
                std::string(c.name) == kLibraryChoice ? "   <- the library's encoder" : "");
  }
  std::printf(
      "(size x of saffra_upload_png_base64 is the base64 text's size; base64 adds a third)\n");
  for (const char* size : {"409600", "8388608"}) {
    const std::string b = std::string("base64_lines64/") + size + "/real_time";
    const std::string m = std::string("memcpy/") + size + "/real_time";
    if (t.count(b) && t.count(m)) {
      std::printf("base64 of %s bytes: %.2f GB/s, %.2f x the time of memcpy of the same bytes\n",
                  size, std::atof(size) / (t[b] * 1e-9) / 1e9, t[b] / t[m]);
    }
  }
  printPeakMemory();
  benchmark::Shutdown();
  return 0;
}
