// Match-window posts of a phone screenshot (MatchWindowData carrying the base64 text of a
// 1170x2532 corpus image's PNG) to the loopback test server through ServerConnector, against the
// same posts made with a blocking curl_easy_perform in the same run.
//
// BM_ConnectorVsCurl alternates the two clients request by request and reports the connector's
// p50/p99 latency as ratios of curl's (target: at most 1.1). The connector's time covers the
// whole call as users make it: writing the JSON body from the record, logging the URL, sending
// and reading the reply into a MatchResult. With curl_writes_body:1 the baseline writes the same
// body per post; with curl_writes_body:0 it posts text written beforehand.
//
//   build/connector_bench --benchmark_filter=ConnectorVsCurl
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "saffra/images/logger.h"
#include "saffra/platform/image.h"
#include "saffra/service/server_connector.h"
#include "testing/test_server.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kSessionPath = "/api/sessions/running/bench";
constexpr int kClearEvery = 16;

// Standard base64 with CR LF between 64-character lines, as match steps upload images.
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

// The server, the match data of one phone screenshot and its written body.
struct Fixture {
  saffra::testing::TestServer server;
  std::shared_ptr<saffra::MatchWindowData> matchData;
  std::shared_ptr<saffra::RunningSession> session;
  std::string body;

  Fixture() {
    auto image = saffra::Image::fromPNGFile(std::string(SAFFRA_CORPUS_DIR) +
                                            "/phone-docs-index-1170x2532.png");
    auto options = std::make_shared<saffra::Options>(
        "home", false, false, false, false, saffra::ImageMatchSettings::defaultImageMatchSettings(),
        "");
    matchData = std::make_shared<saffra::MatchWindowData>(
        std::make_shared<saffra::AppOutput>("Home", base64(image->pngData())), "home", options);
    session = std::make_shared<saffra::RunningSession>(saffra::Json{{"id", "bench"}});
    body = saffra::json::write(matchData->dictionary());
    server.route("POST", kSessionPath,
                 saffra::testing::Reply::json(200, R"({"asExpected":true,"screenshot":null})"));
    // The connector logs every match URL; a discarding sink keeps the terminal readable.
    saffra::Logger::setSink([](const std::string&) {});
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

// The baseline: one reused easy handle posting the body with the connector's headers. With
// `writeBody`, it writes the body from the record for every post, as the connector must; without,
// it posts the text written once beforehand.
class CurlPoster {
 public:
  explicit CurlPoster(bool writeBody = false)
      : url_(fixture().server.url(std::string(kSessionPath) + "?apiKey=k")), writeBody_(writeBody) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    easy_ = curl_easy_init();
    const std::string& body = fixture().body;
    for (std::string line : {"Content-Length: " + std::to_string(body.size()),
                             std::string("Content-Type: application/json"),
                             std::string("Accept: application/json"), std::string("Expect:")}) {
      headers_ = curl_slist_append(headers_, line.c_str());
    }
    curl_easy_setopt(easy_, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_, CURLOPT_PROXY, "");
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &reply_);
    curl_easy_setopt(
        easy_, CURLOPT_WRITEFUNCTION, +[](char* d, size_t s, size_t n, void* u) {
          static_cast<std::string*>(u)->append(d, s * n);
          return s * n;
        });
  }
  ~CurlPoster() {
    curl_slist_free_all(headers_);
    curl_easy_cleanup(easy_);
  }
  // Posts once; the latency in microseconds, or a negative number on failure.
  double post() {
    reply_.clear();
    auto start = Clock::now();
    if (writeBody_) {
      body_ = saffra::json::write(fixture().matchData->dictionary());
      curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, body_.data());
    }
    bool ok = curl_easy_perform(easy_) == CURLE_OK;
    return ok ? micros(Clock::now() - start) : -1;
  }

 private:
  std::string url_;
  bool writeBody_;
  std::string body_;
  CURL* easy_ = nullptr;
  curl_slist* headers_ = nullptr;
  std::string reply_;
};

// The same post through the connector, waiting for its completion handler.
class ConnectorPoster {
 public:
  ConnectorPoster()
      : connector_(
            saffra::ServerConnector::connectorWithServerURL(fixture().server.baseURL(), "k")) {}
  double post() {
    std::promise<bool> done;
    auto start = Clock::now();
    connector_->matchWindowForSession(
        fixture().session, fixture().matchData,
        [&done](std::shared_ptr<saffra::MatchResult> result, std::optional<saffra::Error> error) {
          done.set_value(!error && result && result->asExpected());
        });
    bool ok = done.get_future().get();
    return ok ? micros(Clock::now() - start) : -1;
  }

 private:
  std::shared_ptr<saffra::ServerConnector> connector_;
};

template <class Poster>
void BM_Post(benchmark::State& state) {
  Poster poster;
  std::vector<double> latencies;
  for (auto _ : state) {
    double latency = poster.post();
    if (latency < 0) state.SkipWithError("request failed");
    latencies.push_back(latency);
    if (latencies.size() % kClearEvery == 0) fixture().server.clearRequests();
  }
  state.counters["body_bytes"] = static_cast<double>(fixture().body.size());
  state.counters["p50_us"] = percentile(latencies, 0.5);
  state.counters["p99_us"] = percentile(latencies, 0.99);
  state.SetItemsProcessed(state.iterations());
}

// Both clients alternate request by request, so that load from elsewhere on the machine falls on
// both alike; ratios are connector / blocking curl. Argument 1: curl also writes the body from the
// record for every post (the same work, so the ratio is the connector's own cost); argument 0:
// curl posts the body written beforehand (the ratio then includes writing the JSON).
void BM_ConnectorVsCurl(benchmark::State& state) {
  CurlPoster curl(state.range(0) != 0);
  ConnectorPoster connector;
  std::vector<double> viaCurl, viaConnector;
  for (auto _ : state) {
    double c = curl.post();
    double s = connector.post();
    if (c < 0 || s < 0) state.SkipWithError("request failed");
    viaCurl.push_back(c);
    viaConnector.push_back(s);
    if (viaCurl.size() % (kClearEvery / 2) == 0) fixture().server.clearRequests();
  }
  double sumCurl = 0, sumConnector = 0;
  for (double v : viaCurl) sumCurl += v;
  for (double v : viaConnector) sumConnector += v;
  state.counters["body_bytes"] = static_cast<double>(fixture().body.size());
  state.counters["curl_p50_us"] = percentile(viaCurl, 0.5);
  state.counters["connector_p50_us"] = percentile(viaConnector, 0.5);
  state.counters["p50_ratio"] = percentile(viaConnector, 0.5) / percentile(viaCurl, 0.5);
  state.counters["p99_ratio"] = percentile(viaConnector, 0.99) / percentile(viaCurl, 0.99);
  state.counters["mean_ratio"] = sumConnector / sumCurl;
}

// The part of a connector post that curl's baseline does not do: writing the record as JSON.
void BM_WriteBody(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(saffra::json::write(fixture().matchData->dictionary()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(fixture().body.size()));
}

BENCHMARK(BM_WriteBody)->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_Post, CurlPoster)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_Post, ConnectorPoster)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConnectorVsCurl)
    ->ArgName("curl_writes_body")
    ->Arg(1)
    ->Arg(0)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(5);

}  // namespace

BENCHMARK_MAIN();
