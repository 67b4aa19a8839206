// The event-loop server over loopback sockets: framing, limits and deadlines as a client sees
// them, with short time limits so each case ends quickly.
#include "server/http/http_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "testing/raw_connection.h"

namespace saffra::server::http {
namespace {

using namespace std::chrono_literals;

using Socket = saffra::testing::RawConnection;
constexpr auto statusOf = &Socket::statusOf;
constexpr auto bodyOf = &Socket::bodyOf;

class HttpServerTest : public ::testing::Test {
 protected:
  void startWith(ServerOptions options) {
    server_ = std::make_unique<HttpServer>(options);
    server_->Post("/echo", [](const Request& req, Response& res) {
      res.set_content(req.body, "text/plain");
    });
    server_->Get("/items/([^/]+)/name", [](const Request& req, Response& res) {
      res.set_content(req.matches[1], "text/plain");
    });
    server_->Get("/wait", [this](const Request&, Response& res) {
      release_.wait();
      res.set_content("done", "text/plain");
    });
    server_->set_error_handler([](const Request&, Response& res) {
      if (res.body.empty()) res.set_content("refused", "text/plain");
    });
    port_ = server_->start("127.0.0.1", 0);
    ASSERT_GT(port_, 0);
  }
  void TearDown() override {
    releaser_.set_value();
    server_.reset();
  }

  std::unique_ptr<HttpServer> server_;
  int port_ = 0;
  std::promise<void> releaser_;
  std::shared_future<void> release_ = releaser_.get_future().share();
};

TEST_F(HttpServerTest, ServesKeptAliveAndPipelinedRequests) {
  startWith({});
  Socket client(port_);
  ASSERT_TRUE(
      client.send("POST /echo HTTP/1.1\r\nContent-Length: 3\r\n\r\none"
                  "POST /echo HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\ntwo\r\n0\r\n\r\n"
                  "GET /items/a%2Fb%20c/name HTTP/1.1\r\n\r\n"
                  "GET /items/a/b/name HTTP/1.1\r\n\r\n"
                  "DELETE /echo HTTP/1.1\r\n\r\n"));
  // The route matches the raw path; its groups arrive decoded.
  const std::pair<int, std::string> expected[] = {
      {200, "one"}, {200, "two"}, {200, "a/b c"}, {404, "refused"}, {404, "refused"}};
  for (const auto& [status, body] : expected) {
    std::string reply = client.reply();
    EXPECT_EQ(statusOf(reply), status) << reply;
    EXPECT_EQ(bodyOf(reply), body) << reply;
  }
  // HEAD announces the GET body's length without sending it.
  Socket head(port_);
  ASSERT_TRUE(head.send("HEAD /items/abc/name HTTP/1.1\r\nConnection: close\r\n\r\n"));
  std::string reply = head.reply(true);
  EXPECT_NE(reply.find("Content-Length: 3\r\n"), std::string::npos) << reply;
  EXPECT_TRUE(head.closedByPeer());
}

TEST_F(HttpServerTest, AnswersExpectContinueAndRefusesOversizedBodiesBeforeReadingThem) {
  ServerOptions options;
  options.maxBodyBytes = 1000;
  startWith(options);
  Socket client(port_);
  ASSERT_TRUE(
      client.send("POST /echo HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n"));
  EXPECT_EQ(statusOf(client.reply()), 100);
  ASSERT_TRUE(client.send("body"));
  EXPECT_EQ(bodyOf(client.reply()), "body");

  ASSERT_TRUE(
      client.send("POST /echo HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 1001\r\n\r\n"));
  std::string refused = client.reply();
  EXPECT_EQ(statusOf(refused), 413) << refused;
  EXPECT_NE(refused.find("Connection: close"), std::string::npos);
  EXPECT_TRUE(client.closedByPeer());
}

TEST_F(HttpServerTest, SlowHeadsAndBodiesRunOutOfTimeWithoutHoldingOthersBack) {
  ServerOptions options;
  options.headTimeout = 600ms;
  options.bodyTimeout = 600ms;
  options.workerThreads = 1;
  startWith(options);
  // Two clients trickle a byte every 100 ms, one in its head and one in its body; requests of
  // others are answered meanwhile, and each trickler gets 408 once its deadline passes.
  Socket slowHead(port_);
  Socket slowBody(port_);
  ASSERT_TRUE(slowBody.send("POST /echo HTTP/1.1\r\nContent-Length: 100\r\n\r\n"));
  std::atomic<bool> done{false};
  std::thread trickle([&] {
    const std::string head = "GET /items/x/name HTTP/1.1\r\nX-Slow: " + std::string(100, 's');
    for (std::size_t i = 0; i < 30 && !done; ++i) {
      slowHead.send(head.substr(i, 1));
      slowBody.send("b");
      std::this_thread::sleep_for(100ms);
    }
  });
  for (int i = 0; i < 3; ++i) {
    Socket other(port_);
    ASSERT_TRUE(other.send("POST /echo HTTP/1.1\r\nContent-Length: 2\r\n\r\nok"));
    EXPECT_EQ(bodyOf(other.reply()), "ok");
  }
  EXPECT_EQ(statusOf(slowHead.reply()), 408);
  EXPECT_EQ(statusOf(slowBody.reply()), 408);
  done = true;
  trickle.join();
}

TEST_F(HttpServerTest, IdleConnectionsCloseAfterTheirTimeAndExtraOnesAreTurnedAway) {
  ServerOptions options;
  options.idleTimeout = 300ms;
  options.maxConnections = 3;
  startWith(options);
  Socket idle(port_);
  Socket second(port_);
  Socket third(port_);
  Socket fourth(port_);
  EXPECT_EQ(statusOf(fourth.reply()), 503);
  EXPECT_TRUE(idle.closedByPeer());
  // Once the idle ones are gone there is room again.
  Socket later(port_);
  ASSERT_TRUE(later.send("POST /echo HTTP/1.1\r\nContent-Length: 1\r\n\r\nx"));
  EXPECT_EQ(statusOf(later.reply()), 200);
}

TEST_F(HttpServerTest, WaitingHandlersDoNotStopTheLoopOrOtherWorkers) {
  ServerOptions options;
  options.workerThreads = 2;
  startWith(options);
  // One worker waits in a handler; the other still serves, and hundreds of connections opened
  // at once are all accepted.
  Socket waiting(port_);
  ASSERT_TRUE(waiting.send("GET /wait HTTP/1.1\r\n\r\n"));
  std::vector<std::unique_ptr<Socket>> burst;
  for (int i = 0; i < 256; ++i) burst.push_back(std::make_unique<Socket>(port_));
  for (auto& client : burst) {
    ASSERT_TRUE(client->connected());
    ASSERT_TRUE(client->send("POST /echo HTTP/1.1\r\nContent-Length: 2\r\n\r\nhi"));
  }
  for (auto& client : burst) ASSERT_EQ(bodyOf(client->reply()), "hi");
  EXPECT_GE(server_->openConnections(), 257u);
  releaser_.set_value();
  releaser_ = std::promise<void>();
  EXPECT_EQ(bodyOf(waiting.reply()), "done");
}

}  // namespace
}  // namespace saffra::server::http
