// Helpers for the service's tests: a service on a free loopback port over a fresh data folder,
// requests shaped exactly as the client library sends them, and small PNG makers.
#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <httplib.h>
#include <zlib.h>

#include "saffra/platform/base64.h"
#include "saffra/platform/image.h"
#include "saffra/platform/json.h"
#include "saffra/platform/uuid.h"
#include "server/match_settings.h"
#include "server/service.h"
#include "testing/postgres_server.h"

namespace saffra::server::testing {

inline constexpr const char* kApiKey = "test-key";

using Rgba = std::array<std::uint8_t, 4>;
inline constexpr Rgba kWhite = {255, 255, 255, 255};
inline constexpr Rgba kBlack = {0, 0, 0, 255};

/// Base64 as the client sends it: CR LF between 64-character lines, none after the last.
inline std::string base64WithLineBreaks(const std::vector<std::uint8_t>& bytes) {
  return base64::encodeLines64(bytes);
}

/// A PNG of one colour, optionally with a rectangle of another.
inline std::vector<std::uint8_t> solidPng(std::size_t width, std::size_t height, Rgba fill,
                                          std::optional<PixelRect> patch = std::nullopt,
                                          Rgba patchColour = kBlack) {
  Image image(width, height);
  for (std::size_t y = 0; y < height; ++y) {
    for (std::size_t x = 0; x < width; ++x) {
      const auto at = [](std::size_t v, std::int64_t from, std::int64_t size) {
        return static_cast<std::int64_t>(v) >= from && static_cast<std::int64_t>(v) < from + size;
      };
      bool inPatch = patch && at(x, patch->left, patch->width) && at(y, patch->top, patch->height);
      const Rgba& c = inPatch ? patchColour : fill;
      std::copy(c.begin(), c.end(), image.mutableData() + (y * width + x) * 4);
    }
  }
  return image.pngData();
}

inline const std::vector<std::uint8_t> kPlain = solidPng(40, 30, kWhite);
inline const std::vector<std::uint8_t> kMarked = solidPng(40, 30, kWhite, PixelRect{5, 5, 4, 4});
inline const std::vector<std::uint8_t> kOther = solidPng(40, 30, kWhite, PixelRect{20, 10, 6, 6});

/// The same PNG with a text chunk after its header: other bytes, the same pixels.
inline std::vector<std::uint8_t> withTextChunk(
    const std::vector<std::uint8_t>& png,
    const std::string& text = std::string("Comment\0re-encoded", 18)) {
  constexpr std::size_t kAfterHeader = 8 + 25;  // the signature and the IHDR chunk
  if (png.size() < kAfterHeader) return png;
  std::vector<std::uint8_t> chunk(4);
  for (int i = 0; i < 4; ++i) chunk[i] = static_cast<std::uint8_t>(text.size() >> (24 - 8 * i));
  chunk.insert(chunk.end(), {'t', 'E', 'X', 't'});
  chunk.insert(chunk.end(), text.begin(), text.end());
  const uLong crc = crc32(0, chunk.data() + 4, static_cast<uInt>(text.size() + 4));
  for (int i = 0; i < 4; ++i) chunk.push_back(static_cast<std::uint8_t>(crc >> (24 - 8 * i)));
  std::vector<std::uint8_t> out(png.begin(), png.begin() + kAfterHeader);
  out.insert(out.end(), chunk.begin(), chunk.end());
  out.insert(out.end(), png.begin() + kAfterHeader, png.end());
  return out;
}

/// The wire form of a step's or a session's matching settings, with all eleven keys.
inline Json wireSettings(const std::string& matchLevel = "Strict", Json ignore = Json::array(),
                         Json accessibility = Json::array(),
                         const std::string& accessibilityLevel = "None") {
  Json settings = Json::parse(R"({"ignoreCaret": false, "IgnoreDisplacements": false,
      "enablePatterns": false, "Layout": [], "Strict": [], "Content": [], "Floating": []})");
  settings["matchLevel"] = matchLevel;
  settings["accessibilityLevel"] = accessibilityLevel;
  settings["Ignore"] = std::move(ignore);
  settings["accessibility"] = std::move(accessibility);
  return settings;
}

inline Json region(std::int64_t left, std::int64_t top, std::int64_t width, std::int64_t height) {
  return Json{{"left", left}, {"top", top}, {"width", width}, {"height", height}};
}

/// What varies between the tests' sessions.
struct SessionSpec {
  std::string app = "Calendar";
  std::string name = "month view";
  std::string branch;  // empty: not sent
  std::string os = "Linux 6.1";
  std::string hostApp = "Unit tests";
  double width = 375;
  double height = 667;
  std::string batchId = "BATCH-1";
  std::string batchName = "nightly";
};

/// The start record ("startInfo") as the client builds it. The client sends the branch name
/// under all three branch keys when they are set.
inline Json startInfo(const SessionSpec& t) {
  Json info{{"appIdOrName", t.app},
            {"scenarioIdOrName", t.name},
            {"batchInfo",
             {{"name", t.batchName}, {"startedAt", "2024-03-05T14:07:09Z"}, {"id", t.batchId}}},
            {"environment",
             {{"displaySize", {{"width", t.width}, {"height", t.height}}},
              {"os", t.os},
              {"hostingApp", t.hostApp}}},
            {"defaultMatchSettings", wireSettings()},
            {"agentId", "saffra-images-cpp/1.0.0"},
            {"saveDiffs", false},
            {"properties", Json::array()},
            {"sessionType", "SEQUENTIAL"}};
  if (!t.branch.empty()) {
    info["branchName"] = t.branch;
    info["parentBranchName"] = t.branch;
    info["baselineBranchName"] = t.branch;
  }
  return Json{{"startInfo", std::move(info)}};
}

/// The match window body as the client builds it.
inline Json matchBody(const std::vector<std::uint8_t>& png, const std::string& tag,
                      bool ignoreMismatch = false, Json settings = wireSettings()) {
  Json options = Json::parse(R"({"ignoreMatch": false, "forceMismatch": false,
      "forceMatch": false, "source": ""})");
  options["name"] = tag;
  options["ignoreMismatch"] = ignoreMismatch;
  options["imageMatchSettings"] = std::move(settings);
  return Json{{"appOutput", {{"screenshot64", base64WithLineBreaks(png)}}},
              {"tag", tag},
              {"options", std::move(options)}};
}

/// An HTTP reply; `body` is the parsed JSON when the reply was JSON.
struct Reply {
  int status = 0;
  std::string raw;
  std::string contentType;
  Json body;
  std::vector<std::uint8_t> bytes() const { return {raw.begin(), raw.end()}; }
};

/// The values at the JSON pointers of `expected` (e.g. "/stepsInfo/0/name") that `document`
/// does not hold, one per line with what it holds instead; empty when all match.
inline std::string differences(const Json& document, const std::string& expected) {
  std::string found;
  const Json wanted = Json::parse(expected);
  for (const auto& [path, value] : wanted.items()) {
    const Json::json_pointer at(path);
    const Json actual = document.contains(at) ? document.at(at) : Json();
    if (actual != value) found += path + ": " + actual.dump() + ", expected " + value.dump() + "\n";
  }
  return found;
}

/// A fresh folder under the system's temporary folder, removed at the end.
class TempFolder {
 public:
  TempFolder()
      : path_(std::filesystem::temp_directory_path() / ("saffra-service-test-" + newUUIDString())) {
    std::filesystem::create_directories(path_);
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// Where a store of `engine` ("sqlite" or "postgres") lives for one test: the folder, or a new
/// database of the test binary's PostgreSQL server. Throws when PostgreSQL cannot start.
inline std::string storeAddress(const std::string& engine, const TempFolder& folder) {
  return engine == "sqlite" ? folder.path().string()
                            : saffra::testing::PostgresServer::shared().createDatabase();
}

/// A running service and a client that speaks its protocol.
class Harness {
 public:
  /// A service on the data folder, or on the PostgreSQL `database` when one is given.
  explicit Harness(const std::filesystem::path& folder, std::size_t maxBodyBytes = 100u << 20,
                   const std::string& database = "") {
    ServiceOptions options;
    options.dataFolder = folder;
    options.database = database;
    options.apiKeys = {kApiKey, "second-key"};
    options.maxBodyBytes = maxBodyBytes;
    service_ = std::make_unique<Service>(options);
    service_->start();
  }

  /// A service with these options over `folder`, accepting the same keys.
  Harness(const std::filesystem::path& folder, ServiceOptions options) {
    options.dataFolder = folder;
    options.apiKeys = {kApiKey, "second-key"};
    service_ = std::make_unique<Service>(options);
    service_->start();
  }

  /// A harness for a service that runs elsewhere (another process) on `port`.
  explicit Harness(int port) : port_(port) {}

  Service& service() { return *service_; }
  int port() const { return service_ ? service_->port() : port_; }

  Reply send(const std::string& method, const std::string& target, const std::string& body = "",
             const httplib::Headers& headers = {}) const {
    httplib::Client client("127.0.0.1", port());
    client.set_read_timeout(30, 0);
    httplib::Result result = method == "POST"
                                 ? client.Post(target.c_str(), headers, body, "application/json")
                             : method == "DELETE" ? client.Delete(target.c_str(), headers)
                                                  : client.Get(target.c_str(), headers);
    Reply reply;
    if (!result) return reply;
    reply.status = result->status;
    reply.raw = result->body;
    reply.contentType = result->get_header_value("Content-Type");
    reply.body = json::parse(result->body).value_or(Json());
    return reply;
  }

  Reply start(const SessionSpec& test) const {
    return send("POST", std::string("/api/sessions/running?apiKey=") + kApiKey,
                json::write(startInfo(test)));
  }
  Reply match(const std::string& id, const Json& body) const {
    return send("POST", "/api/sessions/running/" + id + "?apiKey=" + kApiKey, json::write(body));
  }
  Reply stop(const std::string& id, bool aborted, bool save) const {
    return send("DELETE", "/api/sessions/running/" + id + "?apiKey=" + kApiKey +
                              "&aborted=" + (aborted ? "true" : "false") +
                              "&updateBaseline=" + (save ? "true" : "false"));
  }
  Reply closeBatch(const std::string& id) const {
    return send("DELETE", "/api/sessions/batches/" + id + "/close/bypointerid?apiKey=" + kApiKey);
  }
  /// GET of an absolute address from a document, with the API key added.
  Reply fetch(const std::string& url, const httplib::Headers& headers = {}) const {
    std::string prefix = "http://127.0.0.1:" + std::to_string(port());
    std::string target = url.rfind(prefix, 0) == 0 ? url.substr(prefix.size()) : url;
    target += (target.find('?') == std::string::npos ? "?apiKey=" : "&apiKey=");
    return send("GET", target + kApiKey, "", headers);
  }

  /// Runs one whole test: start, one match per image, stop. Returns the results document.
  Json runTest(const SessionSpec& test, const std::vector<std::vector<std::uint8_t>>& images,
               bool save, std::vector<bool>* asExpected = nullptr) const {
    Reply started = start(test);
    std::string id = started.body.value("id", "");
    for (std::size_t i = 0; i < images.size(); ++i) {
      Reply matched = match(id, matchBody(images[i], "step " + std::to_string(i + 1)));
      if (asExpected) asExpected->push_back(matched.body.value("asExpected", false));
    }
    return stop(id, false, save).body;
  }

 private:
  std::unique_ptr<Service> service_;
  int port_ = 0;
};

}  // namespace saffra::server::testing
