// Shared pieces of the upload benchmarks: base64 text as the library uploads it, a blocking curl
// baseline client, and the latency statistics of single and paired (alternating) clients.
#pragma once

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace saffra::bench {

using Clock = std::chrono::steady_clock;

inline double micros(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

/// The value below which the fraction `q` of `values` lies (nearest rank); `values` not empty.
inline double percentile(std::vector<double> values, double q) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(q * values.size()))];
}

/// Standard base64 with CR LF between 64-character lines, as match steps upload images.
inline std::string base64(const std::vector<std::uint8_t>& data) {
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

/// The baseline client: one reused easy handle posting JSON bodies of a fixed size to one URL
/// with the library's headers, blocking in curl_easy_perform.
class CurlPost {
 public:
  CurlPost(const std::string& url, std::size_t bodySize) : url_(url) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    easy_ = curl_easy_init();
    for (std::string line : {"Content-Length: " + std::to_string(bodySize),
                             std::string("Content-Type: application/json"),
                             std::string("Accept: application/json"), std::string("Expect:")}) {
      headers_ = curl_slist_append(headers_, line.c_str());
    }
    curl_easy_setopt(easy_, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodySize));
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_, CURLOPT_PROXY, "");
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &reply_);
    curl_easy_setopt(
        easy_, CURLOPT_WRITEFUNCTION, +[](char* d, size_t s, size_t n, void* u) {
          static_cast<std::string*>(u)->append(d, s * n);
          return s * n;
        });
  }
  ~CurlPost() {
    curl_slist_free_all(headers_);
    curl_easy_cleanup(easy_);
  }
  CurlPost(const CurlPost&) = delete;
  CurlPost& operator=(const CurlPost&) = delete;

  /// The body of the following posts; it must stay alive and unchanged while they are made.
  void setBody(const std::string& body) {
    curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, body.data());
  }
  /// Posts once; true when the exchange completed.
  bool perform() {
    reply_.clear();
    return curl_easy_perform(easy_) == CURLE_OK;
  }

 private:
  std::string url_;
  CURL* easy_ = nullptr;
  curl_slist* headers_ = nullptr;
  std::string reply_;
};

/// Posts once per iteration with `poster.post()` (a latency in microseconds, negative on
/// failure), calls `clear()` after every `clearEvery` posts, and reports p50_us and p99_us.
template <class Poster, class Clear>
void measureLatency(benchmark::State& state, Poster& poster, std::size_t clearEvery, Clear clear) {
  std::vector<double> latencies;
  for (auto _ : state) {
    double latency = poster.post();
    if (latency < 0) state.SkipWithError("request failed");
    latencies.push_back(latency);
    if (latencies.size() % clearEvery == 0) clear();
  }
  state.counters["p50_us"] = percentile(latencies, 0.5);
  state.counters["p99_us"] = percentile(latencies, 0.99);
  state.SetItemsProcessed(state.iterations());
}

/// Posts with `curl` and then `candidate` in every iteration, so that load from elsewhere on the
/// machine falls on both alike; calls `clear()` after every `clearEvery` pairs. Reports both
/// medians (curl_p50_us and `<name>_p50_us`) and the candidate's p50, p99 and mean latency as
/// ratios of curl's.
template <class Curl, class Candidate, class Clear>
void measurePaired(benchmark::State& state, Curl& curl, Candidate& candidate,
                   const std::string& name, std::size_t clearEvery, Clear clear) {
  std::vector<double> viaCurl, viaCandidate;
  for (auto _ : state) {
    double c = curl.post();
    double s = candidate.post();
    if (c < 0 || s < 0) state.SkipWithError("request failed");
    viaCurl.push_back(c);
    viaCandidate.push_back(s);
    if (viaCurl.size() % clearEvery == 0) clear();
  }
  double sumCurl = 0, sumCandidate = 0;
  for (double v : viaCurl) sumCurl += v;
  for (double v : viaCandidate) sumCandidate += v;
  state.counters["curl_p50_us"] = percentile(viaCurl, 0.5);
  state.counters[name + "_p50_us"] = percentile(viaCandidate, 0.5);
  state.counters["p50_ratio"] = percentile(viaCandidate, 0.5) / percentile(viaCurl, 0.5);
  state.counters["p99_ratio"] = percentile(viaCandidate, 0.99) / percentile(viaCurl, 0.99);
  state.counters["mean_ratio"] = sumCandidate / sumCurl;
}

}  // namespace saffra::bench
