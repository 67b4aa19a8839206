// The scripted server's own promises that later tests build on: routing, sequences, recording,
// reset and release.
#include "testing/test_server.h"

#include <gtest/gtest.h>

#include <future>

#include "saffra/platform/http_transport.h"

namespace saffra::testing {
namespace {

using namespace std::chrono_literals;

HttpResponse fetch(HttpTransport& transport, const std::string& method, const std::string& url) {
  HttpRequest request;
  request.method = method;
  request.url = url;
  request.timeoutSeconds = 20;
  if (method == "POST") request.body = "{}";
  auto promise = std::make_shared<std::promise<HttpResponse>>();
  auto future = promise->get_future();
  transport.send(request, [promise](HttpResponse r) { promise->set_value(std::move(r)); });
  if (future.wait_for(60s) != std::future_status::ready) {
    ADD_FAILURE() << "no reply within 60 s";
    return {};
  }
  return future.get();
}

// Routes match method and raw path; a sequence of replies repeats its last one.
TEST(TestServerTest, RoutesByMethodAndRawPathAndRepeatsTheLastReplyOfASequence) {
  auto& server = TestServer::shared();
  server.route("POST", "/api/sessions/running", Reply::json(201, "start"));
  server.route("DELETE", "/api/sessions/running/*", Reply::json(200, "stop"));
  server.route("POST", "/echo", [](const RecordedRequest& r) {
    return Reply::text(200, r.method + " " + r.target + " " + r.query.value_or("<none>"));
  });
  HttpTransport transport;
  struct Case {
    const char* method;
    const char* target;
    long status;
    std::string body;
  };
  const Case cases[] = {
      {"POST", "/api/sessions/running?apiKey=k", 201, "start"},
      {"DELETE", "/api/sessions/running/s%201?aborted=true", 200, "stop"},
      {"GET", "/api/sessions/running", 404, "no route for GET /api/sessions/running"},
      {"POST", "//api/sessions/running", 404, "no route for POST //api/sessions/running"},
      {"POST", "/echo?a=%2F&b", 200, "POST /echo?a=%2F&b a=%2F&b"},
      {"POST", "/echo?", 200, "POST /echo? "},
      {"POST", "/echo", 200, "POST /echo <none>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target);
    HttpResponse response = fetch(transport, c.method, server.url(c.target));
    ASSERT_FALSE(response.error);
    EXPECT_EQ(response.statusCode, c.status);
    EXPECT_EQ(response.body, c.body);
  }
  auto received = server.requests();
  ASSERT_EQ(received.size(), std::size(cases));
  EXPECT_EQ(received[1].path, "/api/sessions/running/s%201");
  EXPECT_EQ(received[1].query, "aborted=true");

  server.route("POST", "/step",
               std::vector<Reply>{Reply::json(500, "a"), Reply::json(200, "b").after(10ms)});
  std::vector<std::string> bodies;
  for (int i = 0; i < 4; ++i) bodies.push_back(fetch(transport, "POST", server.url("/step")).body);
  EXPECT_EQ(bodies, (std::vector<std::string>{"a", "b", "b", "b"}));
}

TEST(TestServerTest, ResetForgetsRoutesAndRequestsAndReleasesHangs) {
  auto& server = TestServer::shared();
  server.route("POST", "/hang", Reply::hang());
  HttpTransport transport;
  auto hung =
      std::async(std::launch::async, [&] { return fetch(transport, "POST", server.url("/hang")); });
  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_FALSE(server.waitForRequests(2, 10ms));

  server.reset();
  EXPECT_TRUE(hung.get().error);  // released hangs close the connection unanswered
  EXPECT_TRUE(server.requests().empty());
  EXPECT_EQ(fetch(transport, "POST", server.url("/hang")).statusCode, 404);
}

}  // namespace
}  // namespace saffra::testing
