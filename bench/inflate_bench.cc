// Inflating the zlib streams of screenshot PNG files: the service's own inflater against
// libdeflate (the baseline), zlib and ISA-L, each inflating whole streams into a buffer of the
// exact size; and the service's whole decoding of the files (inflating and rebuilding rows). Two
// sets of streams from the corpus: the files as other encoders wrote them, and the same images
// encoded by the library's encoder (what the service receives from clients). Speeds are inflated
// bytes per second; compare them as ratios to libdeflate's of the same run.
#include <benchmark/benchmark.h>
#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <zlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "saffra/platform/image.h"
#include "server/codec/inflater.h"
#include "server/codec/png_decoder.h"
#include "testing/png_files.h"

namespace {

using saffra::testing::Bytes;

struct Stream {
  Bytes file;          // the whole PNG file
  Bytes zlib;          // the zlib stream, followed by the padding the service's inflater reads
  std::size_t size;    // bytes of the stream without the padding
  std::size_t output;  // inflated bytes
};

// The screenshots of the corpus (the icon and the palette file are too small or too unusual to
// stand for uploads).
const char* const kFiles[] = {
    "phone-docs-index-1170x2532.png",    "phone-help-cards-1170x2532.png",
    "phone-docs-article-750x1334.png",   "tablet-docs-tutorial-1536x2048.png",
    "desktop-docs-index-1920x1080.png",  "desktop-hidpi-help-screenshot-2560x1440.png",
    "app-screenshot-dialog-841x631.png", "small-help-topic-320x480.png",
};

// The IDAT stream of a PNG file with its inflated size (read by zlib).
Stream streamOf(const Bytes& png) {
  Stream s;
  s.file = png;
  for (const auto& chunk : saffra::testing::chunksOf(png)) {
    if (chunk.type == "IDAT") s.zlib.insert(s.zlib.end(), chunk.body.begin(), chunk.body.end());
  }
  s.size = s.zlib.size();
  z_stream z{};
  inflateInit(&z);
  Bytes scratch(1 << 20);
  z.next_in = s.zlib.data();
  z.avail_in = static_cast<uInt>(s.size);
  int rc = Z_OK;
  while (rc == Z_OK) {
    z.next_out = scratch.data();
    z.avail_out = static_cast<uInt>(scratch.size());
    rc = inflate(&z, Z_NO_FLUSH);
  }
  s.output = z.total_out;
  inflateEnd(&z);
  s.zlib.resize(s.size + saffra::inflate::kInputPadding, 0);
  return s;
}

const std::vector<Stream>& streams(bool ours) {
  static const auto load = [](bool reencode) {
    std::vector<Stream> list;
    for (const char* name : kFiles) {
      const Bytes file = saffra::testing::readFile(std::filesystem::path(SAFFRA_CORPUS_DIR) / name);
      list.push_back(streamOf(reencode ? saffra::Image::fromPNGData(file)->pngData() : file));
    }
    return list;
  };
  static const std::vector<Stream> others = load(false), library = load(true);
  return ours ? library : others;
}

template <class Inflate>
void run(benchmark::State& state, Inflate inflate) {
  const auto& all = streams(state.range(0) == 1);
  // Argument 1: -1 for every file, else the index of one file in kFiles.
  const std::vector<Stream> list =
      state.range(1) < 0 ? all : std::vector<Stream>{all[static_cast<std::size_t>(state.range(1))]};
  std::size_t largest = 0, total = 0;
  for (const Stream& s : list) largest = std::max(largest, s.output), total += s.output;
  Bytes out(largest + saffra::inflate::kOutputSlack);
  for (auto _ : state) {
    for (const Stream& s : list) {
      if (!inflate(s, out.data())) state.SkipWithError("inflating failed");
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * total));
  state.SetLabel(std::string(state.range(0) == 1 ? "library's encoder" : "other encoders") +
                 (state.range(1) < 0 ? ", all files" : std::string(", ") + kFiles[state.range(1)]));
}

void BM_Service(benchmark::State& state) {
  run(state, [](const Stream& s, std::uint8_t* out) {
    return saffra::inflate::zlib(s.zlib.data(), s.size, out, s.output);
  });
}

// The service's whole decoding of the same files (inflating piece by piece, each piece's rows
// rebuilt into RGBA while they are in the caches): any other inflater would need this time for
// inflating alone to match it.
void BM_ServiceDecodingWhole(benchmark::State& state) {
  Bytes rgba;
  run(state, [&rgba](const Stream& s, std::uint8_t*) {
    std::size_t width = 0, height = 0;
    return saffra::png::decodeCommonInto(s.file.data(), s.file.size(), rgba, width, height);
  });
}

void BM_Libdeflate(benchmark::State& state) {
  libdeflate_decompressor* d = libdeflate_alloc_decompressor();
  run(state, [d](const Stream& s, std::uint8_t* out) {
    return libdeflate_zlib_decompress(d, s.zlib.data(), s.size, out, s.output, nullptr) ==
           LIBDEFLATE_SUCCESS;
  });
  libdeflate_free_decompressor(d);
}

void BM_Zlib(benchmark::State& state) {
  run(state, [](const Stream& s, std::uint8_t* out) {
    uLongf size = s.output;
    return uncompress(out, &size, s.zlib.data(), s.size) == Z_OK && size == s.output;
  });
}

void BM_IsaL(benchmark::State& state) {
  run(state, [](const Stream& s, std::uint8_t* out) {
    inflate_state st;
    isal_inflate_init(&st);
    st.crc_flag = ISAL_ZLIB;
    st.next_in = const_cast<std::uint8_t*>(s.zlib.data());
    st.avail_in = static_cast<std::uint32_t>(s.size);
    st.next_out = out;
    st.avail_out = static_cast<std::uint32_t>(s.output);
    return isal_inflate(&st) == ISAL_DECOMP_OK && st.block_state == ISAL_BLOCK_FINISH &&
           st.total_out == s.output;
  });
}

// Arguments: the files as other encoders wrote them (0) or re-encoded by the library (1); all
// files (-1) or the first phone screenshot (0).
void Streams(benchmark::internal::Benchmark* b) {
  b->ArgNames({"library", "file"})->Unit(benchmark::kMillisecond);
  for (int file : {-1, 0}) {
    for (int library : {0, 1}) b->Args({library, file});
  }
}
BENCHMARK(BM_Libdeflate)->Apply(Streams);
BENCHMARK(BM_Service)->Apply(Streams);
BENCHMARK(BM_Zlib)->Apply(Streams);
BENCHMARK(BM_IsaL)->Apply(Streams);
BENCHMARK(BM_ServiceDecodingWhole)->Apply(Streams);

}  // namespace

BENCHMARK_MAIN();
