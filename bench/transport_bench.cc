// Latency and throughput of uploading a phone screenshot (re-encoded as RGBA PNG, then base64
// text in a JSON body) to the loopback test server: through HttpTransport, against the same POST
// made with a blocking curl_easy_perform in the same run. BM_PairedRatio reports the transport's
// p50/p99 latency as ratios of the baseline's (target: at most 1.1).
//
//   build/transport_bench --benchmark_filter=Paired
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "saffra/platform/http_transport.h"
#include "saffra/platform/image.h"
#include "testing/test_server.h"

namespace {

using namespace saffra::bench;

constexpr const char* kPath = "/api/sessions/running/bench";
constexpr int kClearEvery = 32;

// The loopback server and the upload bodies: the screenshot's base64 text once (as the library
// sends it) and twice (about 1.2 MB).
struct Fixture {
  saffra::testing::TestServer server;
  std::string screenshot64;

  Fixture() {
    auto image = saffra::Image::fromPNGFile(std::string(SAFFRA_CORPUS_DIR) +
                                            "/phone-docs-index-1170x2532.png");
    // As a JSON writer puts it: the CR LF line breaks of the base64 text escaped.
    for (char c : base64(image->pngData())) {
      if (c == '\r')
        screenshot64 += "\\r";
      else if (c == '\n')
        screenshot64 += "\\n";
      else
        screenshot64 += c;
    }
    server.route("POST", kPath, saffra::testing::Reply::json(200, R"({"asExpected":true})"));
  }

  std::string body(int copies) const {
    std::string text;
    for (int i = 0; i < copies; ++i) text += screenshot64;
    return R"({"appOutput":{"screenshot64":")" + text + R"("},"tag":"bench"})";
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

// The baseline: one easy handle, reused, posting with a blocking curl_easy_perform.
class EasyPoster {
 public:
  explicit EasyPoster(const std::string& body)
      : curl_(fixture().server.url(kPath), body.size()), body_(body) {}
  // Posts once; returns the latency in microseconds, or a negative number on failure.
  double post() {
    // A fresh copy of the body, as for the transport, so both send from a newly built buffer.
    current_.clear();
    current_.shrink_to_fit();
    current_ = body_;
    curl_.setBody(current_);
    auto start = Clock::now();
    bool ok = curl_.perform();
    return ok ? micros(Clock::now() - start) : -1;
  }

 private:
  CurlPost curl_;
  const std::string& body_;
  std::string current_;
};

// The same POST through the transport. The request is built anew each time, as the connector does,
// but outside the measured time.
class TransportPoster {
 public:
  explicit TransportPoster(const std::string& body) : body_(body) {}
  double post() {
    saffra::HttpRequest request;
    request.method = "POST";
    request.url = fixture().server.url(kPath);
    request.setValueForHTTPHeaderField(std::to_string(body_.size()), "Content-Length");
    request.setValueForHTTPHeaderField("application/json", "Content-Type");
    request.setValueForHTTPHeaderField("application/json", "Accept");
    request.body = body_;
    std::promise<bool> done;
    auto start = Clock::now();
    transport_.send(std::move(request), [&done](saffra::HttpResponse response) {
      done.set_value(!response.error && response.statusCode == 200);
    });
    bool ok = done.get_future().get();
    return ok ? micros(Clock::now() - start) : -1;
  }

 private:
  const std::string& body_;
  saffra::HttpTransport transport_;
};

void clearRequests() {
  fixture().server.clearRequests();
}

template <class Poster>
void BM_Post(benchmark::State& state) {
  std::string body = fixture().body(static_cast<int>(state.range(0)));
  Poster poster(body);
  measureLatency(state, poster, kClearEvery, clearRequests);
  state.counters["body_bytes"] = static_cast<double>(body.size());
}

// Both clients alternate request by request, so that load from elsewhere on the machine falls on
// both alike; the ratios are transport / blocking curl.
void BM_PairedRatio(benchmark::State& state) {
  std::string body = fixture().body(static_cast<int>(state.range(0)));
  EasyPoster easy(body);
  TransportPoster transport(body);
  measurePaired(state, easy, transport, "transport", kClearEvery / 2, clearRequests);
  state.counters["body_bytes"] = static_cast<double>(body.size());
}

// Several uploads in flight together on one transport: requests per second.
void BM_TransportInFlight(benchmark::State& state) {
  std::string body = fixture().body(1);
  const int inFlight = static_cast<int>(state.range(0));
  saffra::HttpTransport transport;
  saffra::HttpRequest request;
  request.method = "POST";
  request.url = fixture().server.url(kPath);
  request.setValueForHTTPHeaderField("application/json", "Content-Type");
  request.body = body;
  for (auto _ : state) {
    std::vector<std::promise<void>> done(inFlight);
    for (auto& d : done) transport.send(request, [&d](saffra::HttpResponse) { d.set_value(); });
    for (auto& d : done) d.get_future().wait();
    fixture().server.clearRequests();
  }
  state.SetItemsProcessed(state.iterations() * inFlight);
}

BENCHMARK_TEMPLATE(BM_Post, EasyPoster)
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_Post, TransportPoster)
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PairedRatio)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(5);
BENCHMARK(BM_TransportInFlight)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
