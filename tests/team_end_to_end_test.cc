// The library against two `saffra serve` processes on one PostgreSQL database, behind a load
// balancer as a team runs them: a session moves between the services request by request, a
// reviewer logged in on one acts on the other, and neither a database restart nor a service
// killed in the middle of an upload loses anything a service had answered for.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "saffra/platform/uuid.h"
#include "saffra/saffra.h"
#include "testing/child_process.h"
#include "testing/png_files.h"
#include "testing/postgres_server.h"

namespace saffra {
namespace {

namespace fs = std::filesystem;

const std::string kCommand = std::string(SAFFRA_BINARY_DIR) + "/saffra";

// A 64 x 48 page of stripes; `shade` changes the colour of one band.
std::shared_ptr<Image> page(std::uint8_t shade = 200) {
  auto image = std::make_shared<Image>(64, 48);
  std::uint8_t* p = image->mutableData();
  for (int y = 0; y < 48; ++y) {
    for (int x = 0; x < 64; ++x, p += 4) {
      const bool band = y >= 16 && y < 24;
      const std::uint8_t v = (x / 4) % 2 ? 40 : 230;
      p[0] = band ? shade : v, p[1] = band ? 30 : v, p[2] = v, p[3] = 255;
    }
  }
  return image;
}

// Forwards each request to one of the services, as a team's load balancer does, by rules the
// test sets (under a lock, as the balancer's threads read them).
class Balancer {
 public:
  struct Rules {
    /// The service a request goes to first; one that refuses connections is passed over.
    std::function<std::size_t(const httplib::Request&)> choose = [](const auto&) { return 0; };
    /// When this holds, the request's head and half its body go to service 1, `onCutOff`
    /// runs (the test kills the service), and the client gets 502.
    std::function<bool(const httplib::Request&)> cutOff = [](const auto&) { return false; };
    std::function<void()> onCutOff;
  };
  void setRules(Rules rules) {
    std::lock_guard lock(mutex_);
    rules_ = std::move(rules);
  }

  explicit Balancer(std::vector<int> ports) : ports_(std::move(ports)) {
    auto forward = [this](const httplib::Request& request, httplib::Response& response) {
      handle(request, response);
    };
    server_.Get(".*", forward);
    server_.Post(".*", forward);
    server_.Delete(".*", forward);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~Balancer() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  /// How many requests each service answered.
  std::vector<int> answered() const { return {answered_[0], answered_[1]}; }

 private:
  void handle(const httplib::Request& request, httplib::Response& response) {
    std::unique_lock lock(mutex_);
    if (rules_.cutOff(request)) {
      sendHalf(ports_[1], request);
      rules_.onCutOff();
      response.status = 502;
      return;
    }
    const std::size_t first = rules_.choose(request);
    lock.unlock();
    httplib::Headers headers;
    for (const auto& [name, value] : request.headers) {
      if (name != "Host" && name != "Content-Length" && name != "Connection" &&
          name != "Accept-Encoding" && name.rfind("REMOTE_", 0) != 0 &&
          name.rfind("LOCAL_", 0) != 0) {
        headers.emplace(name, value);
      }
    }
    for (std::size_t i = 0; i < ports_.size(); ++i) {
      const std::size_t backend = (first + i) % ports_.size();
      httplib::Client client("127.0.0.1", ports_[backend]);
      client.set_read_timeout(30);
      const std::string target = request.target;
      httplib::Result reply =
          request.method == "GET" ? client.Get(target, headers)
          : request.method == "POST"
              ? client.Post(target, headers, request.body, request.get_header_value("Content-Type"))
              : client.Delete(target, headers);
      if (!reply && reply.error() == httplib::Error::Connection) continue;  // that one is down
      if (!reply) break;
      ++answered_[backend];
      response.status = reply->status;
      for (const char* name : {"Location", "Set-Cookie"}) {
        if (reply->has_header(name)) response.set_header(name, reply->get_header_value(name));
      }
      response.set_content(reply->body, reply->get_header_value("Content-Type"));
      return;
    }
    response.status = 502;
  }

  // The request line, headers and half the body, written to the service on one connection.
  static void sendHalf(int port, const httplib::Request& request) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      std::string head = request.method + " " + request.target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
      head += "Content-Type: " + request.get_header_value("Content-Type") + "\r\n";
      head += "Content-Length: " + std::to_string(request.body.size()) + "\r\n\r\n";
      head += request.body.substr(0, request.body.size() / 2);
      for (std::size_t sent = 0; sent < head.size();) {
        const ssize_t n = ::send(fd, head.data() + sent, head.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));  // it is reading the rest
    }
    ::close(fd);
  }

  std::vector<int> ports_;
  std::mutex mutex_;
  Rules rules_;
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  std::atomic<int> answered_[2] = {0, 0};
};

class TeamEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      postgres_ = &testing::PostgresServer::shared();
    } catch (const std::exception& e) {
      GTEST_FAIL() << e.what();
    }
    fs::create_directories(folder_);
    const std::string database = postgres_->createDatabase();
    for (int i = 0; i < 2; ++i) {
      services_.push_back(
          testing::startServe(kCommand, folder_ / "unused", {"--database", database}));
    }
    balancer_ = std::make_unique<Balancer>(std::vector<int>{services_[0].port, services_[1].port});
  }
  void TearDown() override {
    balancer_.reset();
    for (auto& service : services_) {
      if (service.process) service.process->stop(SIGTERM);
    }
    fs::remove_all(folder_);
  }

  struct Run {
    std::vector<bool> checks;
    std::shared_ptr<TestResults> results;
    std::string sessionId;
  };
  // One run of the test "Checkout" through the balancer, a check per image, tags "step-1", ...;
  // `between` runs before each check, with the check's index.
  Run run(const std::vector<std::shared_ptr<Image>>& images,
          const std::function<void(std::size_t)>& between = {}) {
    Saffra saffra;
    saffra.setServerURL(balancer_->url());
    saffra.setApiKey("key");
    saffra.setWaitTimeoutForTesting(20);
    saffra.setMatchTimeout(0);
    saffra.openWithApplicationName("Shop", "Checkout");
    Run r;
    for (std::size_t i = 0; i < images.size(); ++i) {
      if (between) between(i);
      r.checks.push_back(saffra.checkImage(images[i], "step-" + std::to_string(i + 1)));
      if (auto session = saffra.runningSession()) r.sessionId = session->sessionIdText();
    }
    r.results = saffra.closeWithThrow(false, nullptr);
    return r;
  }
  // The names of the steps a service keeps for the session, read from service `i`.
  std::set<std::string> storedSteps(std::size_t i, const std::string& sessionId) {
    httplib::Client client("127.0.0.1", services_[i].port);
    auto reply = client.Get("/api/sessions/" + sessionId + "?apiKey=key");
    std::set<std::string> names;
    if (!reply || reply->status != 200) {
      ADD_FAILURE() << (reply ? reply->body : "no reply");
      return names;
    }
    const Json document = json::parse(reply->body).value_or(Json());
    for (const Json& step : document["stepsInfo"]) {
      names.insert(step["name"].get<std::string>());
    }
    return names;
  }

  fs::path folder_ = fs::temp_directory_path() / ("saffra-team-" + newUUIDString());
  testing::PostgresServer* postgres_ = nullptr;
  std::vector<testing::ServeProcess> services_;
  std::unique_ptr<Balancer> balancer_;
  LogCapture quiet_;
};

// Sessions start on A and are checked and stopped on B; a change is found, and a reviewer who
// logged in on A accepts it on B with the page A served; the next run passes on either service.
TEST_F(TeamEndToEndTest, SessionsAndReviewsMoveBetweenServices) {
  Balancer::Rules startsOnA;
  startsOnA.choose = [](const httplib::Request& r) {
    return r.method == "POST" && r.path == "/api/sessions/running" ? 0u : 1u;
  };
  balancer_->setRules(std::move(startsOnA));
  Run first = run({page(), page()});
  ASSERT_TRUE(first.results);
  EXPECT_TRUE(first.results->isNew());
  EXPECT_EQ(first.results->status(), TestResultsStatusPassed);
  Run changed = run({page(), page(90)});
  EXPECT_EQ(changed.checks, (std::vector<bool>{true, false}));
  ASSERT_TRUE(changed.results);
  EXPECT_EQ(changed.results->status(), TestResultsStatusUnresolved);
  EXPECT_EQ(balancer_->answered(), (std::vector<int>{2, 6}));  // starts on A, the rest on B

  httplib::Client a("127.0.0.1", services_[0].port), b("127.0.0.1", services_[1].port);
  httplib::Headers html = {{"Accept", "text/html"}};
  auto login = a.Post("/app/login", html, "apiKey=key&next=/app/batches",
                      "application/x-www-form-urlencoded");
  ASSERT_TRUE(login);
  ASSERT_EQ(login->status, 303) << login->body;
  const std::string cookie = login->get_header_value("Set-Cookie");
  html.emplace("Cookie", cookie.substr(0, cookie.find(';')));
  const std::string sessionPage = "/app/sessions/" + changed.sessionId;
  auto review = a.Get(sessionPage, html);
  ASSERT_TRUE(review);
  ASSERT_EQ(review->status, 200);
  const std::string marker = "name=\"csrf\" value=\"";
  const std::size_t at = review->body.find(marker);
  ASSERT_NE(at, std::string::npos);
  const std::string csrf = review->body.substr(
      at + marker.size(), review->body.find('"', at + marker.size()) - at - marker.size());
  auto forged = b.Post(sessionPage + "/steps/2/accept", html, "csrf=not-the-token",
                       "application/x-www-form-urlencoded");
  ASSERT_TRUE(forged);
  EXPECT_EQ(forged->status, 403);
  auto accepted = b.Post(sessionPage + "/steps/2/accept", html, "csrf=" + csrf,
                         "application/x-www-form-urlencoded");
  ASSERT_TRUE(accepted);
  EXPECT_EQ(accepted->status, 303) << accepted->body;

  balancer_->setRules({});
  Run next = run({page(), page(90)});
  EXPECT_EQ(next.checks, (std::vector<bool>{true, true}));
  EXPECT_EQ(next.results->status(), TestResultsStatusPassed);
}

// The database stops in the middle of a run: the check made meanwhile fails (the services answer
// 503, and `saffra check` exits 3), the services reconnect once it is back, and every step
// answered before or after is kept.
TEST_F(TeamEndToEndTest, ARunOutlivesADatabaseRestart) {
  const std::string shot = testing::writePNGFile(folder_ / "shot.png", *page());
  auto check = [&] {
    testing::ChildProcess command(
        kCommand, {"check", "--app", "Shop", "--test", "Cart", "--timeout", "20", shot},
        {"QUORVANT_API_KEY=key", "QUORVANT_SERVER_URL=" + services_[1].url});
    std::string output = command.readAll();
    return std::pair{command.wait(), output};
  };
  ASSERT_EQ(check().first, 0);
  Run during = run({page(), page(), page(), page()}, [&](std::size_t i) {
    if (i == 2) {
      postgres_->stop();
      const auto [code, output] = check();
      EXPECT_EQ(code, 3) << output;
      EXPECT_NE(output.find("could not start a session"), std::string::npos) << output;
    }
    if (i == 3) postgres_->start();
  });
  EXPECT_EQ(during.checks, (std::vector<bool>{true, true, false, true}));
  ASSERT_TRUE(during.results);
  EXPECT_EQ(storedSteps(0, during.sessionId),
            (std::set<std::string>{"step-1", "step-2", "step-4"}));
  const auto [code, output] = check();
  EXPECT_EQ(code, 0) << output;  // the baseline saved before the restart
}

// Service B is killed outright while an image is being uploaded to it: the balancer moves on to
// A, the session goes on there, and every check B had answered is kept.
TEST_F(TeamEndToEndTest, AServiceKilledMidUploadLosesNoAnswer) {
  std::atomic<int> matches{0};
  Balancer::Rules rules;
  rules.choose = [](const httplib::Request& r) { return r.method == "POST" ? 1u : 0u; };
  rules.cutOff = [&](const httplib::Request& r) {
    return r.method == "POST" && r.path != "/api/sessions/running" && ++matches == 3;
  };
  rules.onCutOff = [&] { services_[1].process->stop(SIGKILL); };
  balancer_->setRules(std::move(rules));
  Run r = run({page(), page(), page(), page()});
  balancer_->setRules({});  // after the kill, for the checks below
  EXPECT_EQ(r.checks, (std::vector<bool>{true, true, false, true}));
  ASSERT_TRUE(r.results);
  EXPECT_EQ(storedSteps(0, r.sessionId), (std::set<std::string>{"step-1", "step-2", "step-4"}));
  services_[1].process.reset();
}

}  // namespace
}  // namespace saffra
