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

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "saffra/base/logger.h"
#include "saffra/platform/image.h"
#include "saffra/service/server_connector.h"
#include "testing/test_server.h"

namespace {

using namespace saffra::bench;

constexpr const char* kSessionPath = "/api/sessions/running/bench";
constexpr int kClearEvery = 16;

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

// The baseline: one reused easy handle posting the body with the connector's headers. With
// `writeBody`, it writes the body from the record for every post, as the connector must; without,
// it posts the text written once beforehand.
class CurlPoster {
 public:
  explicit CurlPoster(bool writeBody = false)
      : curl_(fixture().server.url(std::string(kSessionPath) + "?apiKey=k"), fixture().body.size()),
        writeBody_(writeBody) {
    curl_.setBody(fixture().body);
  }
  // Posts once; the latency in microseconds, or a negative number on failure.
  double post() {
    auto start = Clock::now();
    if (writeBody_) {
      body_ = saffra::json::write(fixture().matchData->dictionary());
      curl_.setBody(body_);
    }
    bool ok = curl_.perform();
    return ok ? micros(Clock::now() - start) : -1;
  }

 private:
  CurlPost curl_;
  bool writeBody_;
  std::string body_;
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

void clearRequests() {
  fixture().server.clearRequests();
}

template <class Poster>
void BM_Post(benchmark::State& state) {
  Poster poster;
  measureLatency(state, poster, kClearEvery, clearRequests);
  state.counters["body_bytes"] = static_cast<double>(fixture().body.size());
}

// Both clients alternate request by request, so that load from elsewhere on the machine falls on
// both alike; ratios are connector / blocking curl. Argument 1: curl also writes the body from the
// record for every post (the same work, so the ratio is the connector's own cost); argument 0:
// curl posts the body written beforehand (the ratio then includes writing the JSON).
void BM_ConnectorVsCurl(benchmark::State& state) {
  CurlPoster curl(state.range(0) != 0);
  ConnectorPoster connector;
  measurePaired(state, curl, connector, "connector", kClearEvery / 2, clearRequests);
  state.counters["body_bytes"] = static_cast<double>(fixture().body.size());
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
