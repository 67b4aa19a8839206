// Latency and throughput of uploading a phone screenshot (re-encoded as RGBA PNG, then base64
// text in a JSON body) to the loopback test server: through HttpTransport, against the same POST
// made with a blocking curl_easy_perform in the same run. BM_PairedRatio reports the transport's
// p50/p99 latency as ratios of the baseline's (target: at most 1.1).
//
//   build/transport_bench --benchmark_filter=Paired
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <vector>

#include "saffra/platform/http_transport.h"
#include "saffra/platform/image.h"
#include "testing/test_server.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kPath = "/api/sessions/running/bench";
constexpr int kClearEvery = 32;

// Standard base64 with CR LF between 64-character lines.
std::string base64(const std::vector<std::uint8_t>& data) {
  static const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve(data.size() * 4 / 3 + data.size() / 24 + 8);
  size_t column = 0;
  for (size_t i = 0; i < data.size(); i += 3) {
    std::uint32_t n = data[i] << 16;
    if (i + 1 < data.size()) n |= data[i + 1] << 8;
    if (i + 2 < data.size()) n |= data[i + 2];
    if (column == 64) {
      out += "\r\n";
      column = 0;
    }
    out += alphabet[(n >> 18) & 63];
    out += alphabet[(n >> 12) & 63];
    out += i + 1 < data.size() ? alphabet[(n >> 6) & 63] : '=';
    out += i + 2 < data.size() ? alphabet[n & 63] : '=';
    column += 4;
  }
  return out;
}

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

double micros(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

double percentile(std::vector<double> values, double q) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(q * values.size()))];
}

// The baseline: one easy handle, reused, posting with a blocking curl_easy_perform.
class EasyPoster {
 public:
  explicit EasyPoster(const std::string& body) : url_(fixture().server.url(kPath)), body_(body) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    easy_ = curl_easy_init();
    headers_ =
        curl_slist_append(headers_, ("Content-Length: " + std::to_string(body.size())).c_str());
    headers_ = curl_slist_append(headers_, "Content-Type: application/json");
    headers_ = curl_slist_append(headers_, "Accept: application/json");
    headers_ = curl_slist_append(headers_, "Expect:");
    curl_easy_setopt(easy_, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_, CURLOPT_PROXY, "");
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &reply_);
    curl_easy_setopt(
        easy_, CURLOPT_WRITEFUNCTION, +[](char* d, size_t s, size_t n, void* u) {
          static_cast<std::string*>(u)->append(d, s * n);
          return s * n;
        });
  }
  ~EasyPoster() {
    curl_slist_free_all(headers_);
    curl_easy_cleanup(easy_);
  }
  // Posts once; returns the latency in microseconds, or a negative number on failure.
  double post() {
    reply_.clear();
    // A fresh copy of the body, as for the transport, so both send from a newly built buffer.
    current_.clear();
    current_.shrink_to_fit();
    current_ = body_;
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, current_.data());
    auto start = Clock::now();
    bool ok = curl_easy_perform(easy_) == CURLE_OK;
    return ok ? micros(Clock::now() - start) : -1;
  }

 private:
  std::string url_;
  const std::string& body_;
  std::string current_;
  CURL* easy_ = nullptr;
  curl_slist* headers_ = nullptr;
  std::string reply_;
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

template <class Poster>
void BM_Post(benchmark::State& state) {
  std::string body = fixture().body(static_cast<int>(state.range(0)));
  Poster poster(body);
  std::vector<double> latencies;
  for (auto _ : state) {
    double latency = poster.post();
    if (latency < 0) state.SkipWithError("request failed");
    latencies.push_back(latency);
    if (latencies.size() % kClearEvery == 0) fixture().server.clearRequests();
  }
  state.counters["body_bytes"] = static_cast<double>(body.size());
  state.counters["p50_us"] = percentile(latencies, 0.5);
  state.counters["p99_us"] = percentile(latencies, 0.99);
  state.SetItemsProcessed(state.iterations());
}

// Both clients alternate request by request, so that load from elsewhere on the machine falls on
// both alike; the ratios are transport / blocking curl.
void BM_PairedRatio(benchmark::State& state) {
  std::string body = fixture().body(static_cast<int>(state.range(0)));
  EasyPoster easy(body);
  TransportPoster transport(body);
  std::vector<double> easyLatencies, transportLatencies;
  for (auto _ : state) {
    double viaCurl = easy.post();
    double viaTransport = transport.post();
    if (viaCurl < 0 || viaTransport < 0) state.SkipWithError("request failed");
    easyLatencies.push_back(viaCurl);
    transportLatencies.push_back(viaTransport);
    if (easyLatencies.size() % (kClearEvery / 2) == 0) fixture().server.clearRequests();
  }
  double sumEasy = 0, sumTransport = 0;
  for (double v : easyLatencies) sumEasy += v;
  for (double v : transportLatencies) sumTransport += v;
  state.counters["body_bytes"] = static_cast<double>(body.size());
  state.counters["curl_p50_us"] = percentile(easyLatencies, 0.5);
  state.counters["transport_p50_us"] = percentile(transportLatencies, 0.5);
  state.counters["p50_ratio"] =
      percentile(transportLatencies, 0.5) / percentile(easyLatencies, 0.5);
  state.counters["p99_ratio"] =
      percentile(transportLatencies, 0.99) / percentile(easyLatencies, 0.99);
  state.counters["mean_ratio"] = sumTransport / sumEasy;
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
