// The HTTP transport against real loopback servers: the scripted test server (plain and TLS) and
// tinyproxy.
#include "saffra/platform/http_transport.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>

#include "testing/test_server.h"
#include "testing/tinyproxy.h"

namespace saffra {
namespace {

using namespace std::chrono_literals;
using Headers = std::vector<std::pair<std::string, std::string>>;
using testing::Reply;
using testing::TestServer;

HttpRequest makeRequest(std::string method, std::string url, Headers headers = {},
                        std::optional<std::string> body = std::nullopt) {
  return {std::move(method), std::move(url), std::move(headers), std::move(body), 20};
}

// Sends one request and waits (bounded) for its handler, which must run on the worker thread.
HttpResponse fetch(HttpTransport& transport, HttpRequest request) {
  auto promise = std::make_shared<std::promise<HttpResponse>>();
  auto reply = promise->get_future();
  transport.send(std::move(request), [promise, &transport](HttpResponse response) {
    EXPECT_TRUE(transport.isWorkerThread());
    promise->set_value(std::move(response));
  });
  if (reply.wait_for(60s) != std::future_status::ready) {
    ADD_FAILURE() << "no completion handler within 60 s";
    return {};
  }
  return reply.get();
}

std::optional<std::string> replyHeader(const HttpResponse& response, const std::string& name) {
  for (const auto& [key, value] : response.headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0) return value;
  }
  return std::nullopt;
}

// A loopback port with nothing listening on it.
int closedPort() {
  TestServer server;
  return server.port();
}

TEST(HttpTransportTest, SendsExactlyTheHeadersSetOnTheRequest) {
  auto& server = TestServer::shared();
  std::string large(1536 * 1024, 'x');  // large enough for curl to want "Expect: 100-continue"
  struct Case {
    const char* name;
    HttpRequest request;
    Headers added;  // by the transport, after the request's own
  };
  const Case cases[] = {
      {"json post",
       makeRequest("POST", server.url("//api/sessions/running?apiKey=k&aborted=true"),
                   {{"Content-Length", "7"},
                    {"Content-Type", "application/json"},
                    {"Accept", "application/json"}},
                   R"({"a":1})"),
       {}},
      {"delete without body",
       makeRequest("DELETE", server.url("/api/sessions/running/(null)?apiKey=(null)"),
                   {{"Content-Type", "application/json"}, {"Accept", "application/json"}}),
       {}},
      {"body without own length gets exactly one",
       makeRequest("PUT", server.url("/put"), {{"X-Trace", "a"}, {"X-Trace", "b"}, {"X-Empty", ""}},
                   "hello"),
       {{"Content-Length", "5"}}},
      {"large body",
       makeRequest("POST", server.url("/big"), {{"Content-Length", std::to_string(large.size())}},
                   large),
       {}},
  };
  HttpTransport transport;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    server.reset();
    HttpResponse response = fetch(transport, c.request);
    ASSERT_FALSE(response.error) << response.error->localizedDescription;
    auto received = server.requests();
    ASSERT_EQ(received.size(), 1u);
    const auto& r = received[0];
    EXPECT_EQ(r.method, c.request.method);
    EXPECT_EQ(server.url(r.target), c.request.url);
    ASSERT_FALSE(r.headers.empty());
    EXPECT_EQ(r.headers[0], (std::pair<std::string, std::string>{
                                "Host", "127.0.0.1:" + std::to_string(server.port())}));
    Headers expected = c.request.headers;
    expected.insert(expected.end(), c.added.begin(), c.added.end());
    EXPECT_EQ(Headers(r.headers.begin() + 1, r.headers.end()), expected) << r.head;
    EXPECT_EQ(r.body, c.request.body.value_or(""));
  }
}

TEST(HttpTransportTest, PassesStatusHeadersAndBodyThrough) {
  auto& server = TestServer::shared();
  std::string huge(40 * 1024 * 1024, '\0');
  for (size_t i = 0; i < huge.size(); ++i) huge[i] = static_cast<char>('a' + i % 23);
  // A redirect is handed back as it is (its status, not its target's).
  Reply redirect = Reply::json(302, "");
  redirect.headers = {{"Location", server.url("/elsewhere")}};
  const Reply replies[] = {
      Reply::json(200, R"({"id":"1"})"),
      Reply::json(201, R"({"id":"2","url":"u"})"),
      Reply::json(404, R"({"message":"missing"})"),
      Reply::text(500, "<html><body><h1>500 Internal Server Error</h1></body></html>"),
      Reply::text(200, "", "text/plain"),
      redirect,
      Reply::text(200, huge, "application/octet-stream"),
  };
  HttpTransport transport;
  for (const auto& reply : replies) {
    SCOPED_TRACE(reply.status);
    server.route("POST", "/status", reply);
    HttpResponse response = fetch(transport, makeRequest("POST", server.url("/status"), {}, "{}"));
    ASSERT_FALSE(response.error) << response.error->localizedDescription;
    EXPECT_EQ(response.statusCode, reply.status);
    EXPECT_TRUE(response.body == reply.body) << response.body.size() << " bytes";
    EXPECT_EQ(replyHeader(response, "Content-Type"), reply.contentType);
    EXPECT_EQ(replyHeader(response, "Content-Length"), std::to_string(reply.body.size()));
  }
}

TEST(HttpTransportTest, FaultsEndAsTransportErrors) {
  auto& server = TestServer::shared();
  struct Case {
    const char* name;
    std::optional<Reply> reply;  // absent: nothing listens
    CURLcode code;
  };
  const Case cases[] = {
      {"dropped connection", Reply::drop(), CURLE_GOT_NOTHING},
      {"body cut off", Reply::cutBody(200, std::string(100000, 'b')), CURLE_PARTIAL_FILE},
      {"never answers", Reply::hang(), CURLE_OPERATION_TIMEDOUT},
      {"connection refused", std::nullopt, CURLE_COULDNT_CONNECT},
  };
  HttpTransport transport;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.reply) server.route("POST", "/fault", *c.reply);
    const std::string url =
        c.reply ? server.url("/fault") : "http://127.0.0.1:" + std::to_string(closedPort()) + "/";
    HttpRequest request = makeRequest("POST", url, {}, "{}");
    // Short only where the time-out is the fault: a loaded machine may take longer than that
    // to drop or cut off a reply.
    request.timeoutSeconds = c.code == CURLE_OPERATION_TIMEDOUT ? 0.5 : 10;
    HttpResponse response = fetch(transport, request);
    ASSERT_TRUE(response.error);
    EXPECT_EQ(response.error->domain, "saffra.http");
    EXPECT_EQ(response.error->code, c.code) << response.error->localizedDescription;
    EXPECT_FALSE(response.error->localizedDescription.empty());
  }
}

TEST(HttpTransportTest, RepliesOverTheSizeLimitFail) {
  auto& server = TestServer::shared();
  const std::size_t limit = 1 << 20;
  struct Case {
    const char* name;
    Reply reply;
    bool fits;
  };
  const Case cases[] = {
      {"endless chunked reply", Reply::endless(), false},
      {"declared length over the limit", Reply::text(200, std::string(limit + 1, 'a')), false},
      {"exactly the limit", Reply::text(200, std::string(limit, 'a')), true},
  };
  HttpTransport transport;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    server.route("GET", "/big", c.reply);
    HttpRequest request = makeRequest("GET", server.url("/big"));
    request.maxReplyBytes = limit;
    HttpResponse response = fetch(transport, request);
    if (c.fits) {
      ASSERT_FALSE(response.error) << response.error->localizedDescription;
      EXPECT_EQ(response.body.size(), limit);
      continue;
    }
    ASSERT_TRUE(response.error);
    EXPECT_EQ(response.error->code, CURLE_FILESIZE_EXCEEDED);
    EXPECT_NE(response.error->localizedDescription.find("larger than the limit of 1048576 bytes"),
              std::string::npos)
        << response.error->localizedDescription;
    EXPECT_LE(response.body.size(), limit);
  }
}

TEST(HttpTransportTest, TimeOutCountsOnlyTimeWithoutProgress) {
  auto& server = TestServer::shared();
  struct Case {
    const char* name;
    Reply reply;
    bool completes;
  };
  // A one-second limit: the first reply takes about three seconds but never pauses for long;
  // the second stops moving for longer than the limit.
  const Case cases[] = {
      {"trickling past the limit", Reply::trickle(200, std::string(12, 't'), 1, 250ms), true},
      {"stalled mid-body", Reply::trickle(200, std::string(2, 's'), 1, 5s), false},
  };
  HttpTransport transport;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    server.route("GET", "/slow", c.reply);
    HttpRequest request = makeRequest("GET", server.url("/slow"));
    request.timeoutSeconds = 1;
    HttpResponse response = fetch(transport, request);
    if (c.completes) {
      ASSERT_FALSE(response.error) << response.error->localizedDescription;
      EXPECT_EQ(response.body, c.reply.body);
    } else {
      ASSERT_TRUE(response.error);
      EXPECT_EQ(response.error->code, CURLE_OPERATION_TIMEDOUT)
          << response.error->localizedDescription;
      server.releaseHangs();
    }
  }
}

TEST(HttpTransportTest, ResetDuringALargeUploadFailsAndTheNextRequestWorks) {
  auto& server = TestServer::shared();
  server.route("POST", "/upload", std::vector<Reply>{Reply::resetUpload(), Reply::json(200, "{}")});
  HttpTransport transport;
  HttpResponse cut =
      fetch(transport, makeRequest("POST", server.url("/upload"), {}, std::string(32 << 20, 'u')));
  ASSERT_TRUE(cut.error);
  EXPECT_EQ(cut.error->domain, "saffra.http");
  EXPECT_EQ(cut.statusCode, 0);
  HttpResponse next =
      fetch(transport, makeRequest("POST", server.url("/upload"), {}, std::string(1000, 'u')));
  ASSERT_FALSE(next.error) << next.error->localizedDescription;
  EXPECT_EQ(next.statusCode, 200);
}

TEST(HttpTransportTest, InvalidURLsFailInTheHandler) {
  HttpTransport transport;
  for (const char* url : {"", "not a url", "http://exa mple.com/", "ftp://127.0.0.1/file",
                          "/api/sessions/running", "http://", "http://127.0.0.1:99999/"}) {
    SCOPED_TRACE(url);
    HttpResponse response = fetch(transport, makeRequest("GET", url));
    ASSERT_TRUE(response.error);
    EXPECT_EQ(response.error->domain, "saffra.http");
    EXPECT_NE(response.error->code, 0);
  }
}

TEST(HttpTransportTest, AcceptsSelfSignedCertificates) {
  auto& server = TestServer::sharedTLS();
  server.route("POST", "/api/sessions/running", Reply::json(201, R"({"id":"tls"})"));
  HttpTransport transport;
  HttpResponse response =
      fetch(transport, makeRequest("POST", server.url("/api/sessions/running?apiKey=k"),
                                   {{"Content-Type", "application/json"}}, "{}"));
  ASSERT_FALSE(response.error) << response.error->localizedDescription;
  EXPECT_EQ(response.statusCode, 201);
  EXPECT_EQ(response.body, R"({"id":"tls"})");
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].query, "apiKey=k");
}

TEST(HttpTransportTest, HandlersRunOneAtATimeOnTheWorkerThread) {
  auto& server = TestServer::shared();
  server.route("GET", "/n", Reply::json(200, "{}"));
  constexpr int kRequests = 24;
  std::atomic<int> inside{0}, overlaps{0}, offWorker{0};
  std::promise<void> allDone;
  int finished = 0;  // touched only by handlers, which never run together
  std::vector<int> order;
  {
    HttpTransport transport;
    for (int i = 0; i < kRequests; ++i) {
      transport.send(makeRequest("GET", server.url("/n")), [&](HttpResponse) {
        if (inside.fetch_add(1) != 0) ++overlaps;
        if (!transport.isWorkerThread()) ++offWorker;
        std::this_thread::sleep_for(1ms);
        if (++finished == kRequests) {
          // Closures queued from a handler run after it, on the same thread.
          transport.dispatch([&] {
            order.push_back(transport.isWorkerThread());
            allDone.set_value();
          });
        }
        inside.fetch_sub(1);
      });
    }
    ASSERT_EQ(allDone.get_future().wait_for(60s), std::future_status::ready);
  }
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(offWorker, 0);
  EXPECT_EQ(order, std::vector<int>{1});
}

TEST(HttpTransportTest, DestroyingWithRequestsInFlightDropsTheirHandlers) {
  auto& server = TestServer::shared();
  server.route("POST", "/hang", Reply::hang());
  server.route("GET", "/quick", Reply::json(200, "{}"));
  auto ran = std::make_shared<std::atomic<int>>(0);
  {
    HttpTransport transport;
    for (int i = 0; i < 4; ++i) {
      transport.send(makeRequest("POST", server.url("/hang"), {}, "{}"),
                     [ran](HttpResponse) { ++*ran; });
    }
    // All four reach the server together, and a fifth still gets through meanwhile. Only the
    // hanging requests are left when the transport goes (a request that completes before that
    // rightly runs its handler), so none of the four handlers may ever run.
    ASSERT_TRUE(server.waitForRequests(4));
    EXPECT_EQ(fetch(transport, makeRequest("GET", server.url("/quick"))).statusCode, 200);
  }
  EXPECT_EQ(*ran, 0);

  // The last owner may also let go from inside a handler, with a request still hanging.
  auto transport = std::make_shared<HttpTransport>();
  std::promise<long> done;
  auto status = done.get_future();
  transport->send(makeRequest("POST", server.url("/hang"), {}, "{}"),
                  [ran](HttpResponse) { ++*ran; });
  ASSERT_TRUE(server.waitForRequests(6));
  transport->send(makeRequest("GET", server.url("/quick")), [&](HttpResponse response) {
    transport.reset();
    done.set_value(response.statusCode);
  });
  ASSERT_EQ(status.wait_for(60s), std::future_status::ready);
  EXPECT_EQ(status.get(), 200);
  EXPECT_EQ(*ran, 0);
}

class HttpTransportProxyTest : public ::testing::Test {
 protected:
  void SetUp() override { SAFFRA_SKIP_WITHOUT_TINYPROXY(); }
};

TEST_F(HttpTransportProxyTest, ReachesTheServerThroughTheProxy) {
  auto& plain = TestServer::shared();
  auto& tls = TestServer::sharedTLS();
  tls.route("POST", "/api/sessions/running", Reply::json(201, R"({"id":"t"})"));
  struct Case {
    const char* name;
    std::optional<std::string> user;
    std::optional<std::string> password;
  };
  for (const Case& c : {Case{"open proxy", {}, {}}, Case{"basic auth", "saffra", "s3cret"}}) {
    SCOPED_TRACE(c.name);
    testing::Tinyproxy proxy(c.user, c.password);
    HttpTransport transport(proxy.config());
    plain.reset();
    plain.route("POST", "/api/sessions/running", Reply::json(201, R"({"id":"p"})"));

    HttpResponse viaHttp =
        fetch(transport, makeRequest("POST", plain.url("/api/sessions/running?apiKey=k"),
                                     {{"Content-Type", "application/json"}}, R"({"x":1})"));
    ASSERT_FALSE(viaHttp.error) << viaHttp.error->localizedDescription << proxy.log();
    EXPECT_EQ(viaHttp.statusCode, 201);
    ASSERT_EQ(plain.requests().size(), 1u);
    EXPECT_EQ(plain.requests()[0].target, "/api/sessions/running?apiKey=k");
    EXPECT_EQ(plain.requests()[0].body, R"({"x":1})");
    EXPECT_NE(plain.requests()[0].header("Via").value_or("").find("tinyproxy"), std::string::npos);
    EXPECT_FALSE(plain.requests()[0].header("Proxy-Authorization"));

    HttpResponse viaConnect =
        fetch(transport, makeRequest("POST", tls.url("/api/sessions/running"), {}, "{}"));
    ASSERT_FALSE(viaConnect.error) << viaConnect.error->localizedDescription << proxy.log();
    EXPECT_EQ(viaConnect.body, R"({"id":"t"})");
    EXPECT_NE(proxy.log().find("CONNECT 127.0.0.1:" + std::to_string(tls.port())),
              std::string::npos)
        << proxy.log();
  }
}

TEST_F(HttpTransportProxyTest, RefusingProxiesAreReportedAsCurlSeesThem) {
  auto& plain = TestServer::shared();
  auto& tls = TestServer::sharedTLS();
  plain.route("GET", "/x", Reply::json(200, "{}"));
  tls.route("GET", "/x", Reply::json(200, "{}"));
  testing::Tinyproxy proxy("saffra", "s3cret");
  ProxyConfig anonymous{"127.0.0.1", proxy.port(), std::nullopt, std::nullopt};
  ProxyConfig wrong = proxy.config();
  wrong.password = "wrong";
  // tinyproxy asks for credentials with 407 and rejects wrong ones with 401.
  for (auto [credentials, status] : {std::pair{anonymous, 407L}, std::pair{wrong, 401L}}) {
    SCOPED_TRACE(status);
    HttpTransport transport(credentials);
    // Plain HTTP: the proxy's refusal is the reply.
    HttpResponse http = fetch(transport, makeRequest("GET", plain.url("/x")));
    EXPECT_FALSE(http.error);
    EXPECT_EQ(http.statusCode, status);
    // HTTPS: the tunnel is refused, so there is no reply from the server at all.
    HttpResponse https = fetch(transport, makeRequest("GET", tls.url("/x")));
    ASSERT_TRUE(https.error);
    EXPECT_NE(https.error->localizedDescription.find(std::to_string(status)), std::string::npos)
        << https.error->localizedDescription;
  }
  EXPECT_TRUE(plain.requests().empty());
  EXPECT_TRUE(tls.requests().empty());

  ProxyConfig closed{"127.0.0.1", closedPort(), std::nullopt, std::nullopt};
  HttpTransport nowhere(closed);
  HttpResponse refused = fetch(nowhere, makeRequest("GET", plain.url("/x")));
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->code, CURLE_COULDNT_CONNECT) << refused.error->localizedDescription;
}

}  // namespace
}  // namespace saffra
