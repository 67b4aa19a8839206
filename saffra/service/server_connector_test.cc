// The service connector: the requests and proxy it hands the transport, then the connector
// against real loopback servers: the scripted test server (plain and TLS) for the protocol and
// its faults, tinyproxy for proxies.
#include "saffra/service/server_connector.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <atomic>
#include <cmath>
#include <future>

#include "saffra/base/logger.h"
#include "saffra/config/abstract_proxy_settings.h"
#include "saffra/platform/exception.h"
#include "saffra/service/http_request_builder.h"
#include "testing/scoped_environment.h"
#include "testing/test_server.h"
#include "testing/tinyproxy.h"

namespace saffra {
namespace {

using namespace std::chrono_literals;
using testing::RecordedRequest;
using testing::Reply;
using testing::TestServer;
using Headers = std::vector<std::pair<std::string, std::string>>;

// What a completion handler received.
template <class Record>
struct Outcome {
  std::shared_ptr<Record> record;
  std::optional<Error> error;
  bool onWorkerThread = false;
};

// Makes one call and waits (bounded) for its completion handler. `call` receives the handler.
template <class Record, class Call>
Outcome<Record> await(ServerConnector& connector, Call call) {
  auto promise = std::make_shared<std::promise<Outcome<Record>>>();
  auto future = promise->get_future();
  HttpTransport* transport = connector.urlSession().get();
  call([promise, transport](std::shared_ptr<Record> record, std::optional<Error> error) {
    promise->set_value({std::move(record), std::move(error), transport->isWorkerThread()});
  });
  if (future.wait_for(60s) != std::future_status::ready) {
    ADD_FAILURE() << "no completion handler within 60 s";
    return {};
  }
  return future.get();
}

std::shared_ptr<SessionStartInfo> startInfo() {
  auto info = std::make_shared<SessionStartInfo>();
  auto batch = std::make_shared<BatchInfo>("nightly", Date(std::chrono::seconds(1709644029)));
  batch->setBatchId("B-1");
  info->setupWithAgentId("saffra.images/1.0.0", SessionTypeSequential, "Shop", "login/é",
                         std::nullopt, std::make_shared<AppEnvironment>(), batch, std::nullopt,
                         std::nullopt, std::nullopt, false,
                         ImageMatchSettings::defaultImageMatchSettings());
  return info;
}

std::shared_ptr<MatchWindowData> matchData() {
  auto options = std::make_shared<Options>("step 1", true, false, false, false,
                                           ImageMatchSettings::defaultImageMatchSettings(), "");
  return std::make_shared<MatchWindowData>(std::make_shared<AppOutput>("Cart", "iVBORw0K\r\nAAAA"),
                                           "step 1", options);
}

std::shared_ptr<RunningSession> session(const Json& id) {
  return std::make_shared<RunningSession>(Json{{"id", id}, {"url", "https://x/s"}});
}

Outcome<RunningSession> start(ServerConnector& c) {
  return await<RunningSession>(c,
                               [&](auto handler) { c.startSessionWithInfo(startInfo(), handler); });
}
Outcome<TestResults> stop(ServerConnector& c, std::shared_ptr<RunningSession> s, bool aborted,
                          bool save) {
  return await<TestResults>(c, [&](auto handler) { c.stopSession(s, aborted, save, handler); });
}
Outcome<MatchResult> match(ServerConnector& c, std::shared_ptr<RunningSession> s) {
  return await<MatchResult>(
      c, [&](auto handler) { c.matchWindowForSession(s, matchData(), handler); });
}
Outcome<Error> close(ServerConnector& c, const OptString& batchId) {
  return await<Error>(c, [&](auto handler) {
    c.closeBatchWithId(batchId, [handler](std::optional<Error> error) { handler(nullptr, error); });
  });
}

// Header lines after Host, as sent.
Headers headersAfterHost(const RecordedRequest& request) {
  Headers headers;
  for (const auto& header : request.headers) {
    if (strcasecmp(header.first.c_str(), "Host") != 0) headers.push_back(header);
  }
  return headers;
}

// A loopback port with nothing listening on it.
int closedPort() {
  TestServer server;
  return server.port();
}

void routeEverything(TestServer& server, const Reply& reply) {
  server.route("POST", "/*", reply);
  server.route("DELETE", "/*", reply);
}

TEST(HTTPRequestBuilderTest, BodyLengthAndExactlyTheFixedHeaders) {
  const Headers fixed = {{"Content-Type", "application/json"}, {"Accept", "application/json"}};
  struct Case {
    std::optional<Json> params;
    const char* method;
    std::int64_t timeout;
    std::optional<std::string> body;
    const char* length;  // nullptr: no Content-Length
  };
  const Case cases[] = {
      // "é" is two bytes in UTF-8: the length counts bytes.
      {Json{{"startInfo", {{"appName", "Café/app"}, {"n", 1.0}}}}, "POST", 300,
       R"({"startInfo":{"appName":"Café\/app","n":1}})", "44"},
      {std::nullopt, "DELETE", 12, std::nullopt, nullptr},
      // Params that cannot be written give an empty body.
      {Json{{"scale", NAN}}, "POST", 300, "", "0"},
  };
  for (const auto& c : cases) {
    HttpRequest request =
        HTTPRequestBuilder::requestWithURL("http://h/api/sessions", c.params, c.method, c.timeout);
    EXPECT_EQ(request.method, c.method);
    EXPECT_EQ(request.url, "http://h/api/sessions");
    EXPECT_EQ(request.timeoutSeconds, static_cast<double>(c.timeout));
    EXPECT_EQ(request.body, c.body);
    Headers expected = fixed;
    if (c.length) expected.insert(expected.begin(), {"Content-Length", c.length});
    EXPECT_EQ(request.headers, expected) << c.method;
  }
}

using Proxy = AbstractProxySettings;

TEST(AbstractProxySettingsTest, ProxyDictionaryAndTransportProxy) {
  const std::pair<Proxy, const char*> cases[] = {
      {Proxy("p", 3128), R"({"HTTPEnable":true,"HTTPPort":3128,"HTTPProxy":"p"})"},
      {Proxy("p", 3128, "", ""), R"({"HTTPEnable":true,"HTTPPort":3128,"HTTPProxy":"p"})"},
      {Proxy("p", 3128, "u", std::nullopt),
       R"({"HTTPEnable":true,"HTTPPort":3128,"HTTPProxy":"p","kCFProxyUsernameKey":"u"})"},
      {Proxy("p", 3128, "", "pw"),
       R"({"HTTPEnable":true,"HTTPPort":3128,"HTTPProxy":"p","kCFProxyPasswordKey":"pw"})"},
      // The host is kept as given; without a port it is 888.
      {Proxy("http://p", "u", "pw"),
       R"({"HTTPEnable":true,"HTTPPort":888,"HTTPProxy":"http:\/\/p","kCFProxyUsernameKey":"u",)"
       R"("kCFProxyPasswordKey":"pw"})"},
  };
  for (const auto& [proxy, expected] : cases) {
    EXPECT_EQ(json::write(connectionProxyDictionaryFromProxy(std::make_shared<Proxy>(proxy))),
              expected);
  }

  // On to the transport's proxy: nothing unless enabled with a host.
  auto config = proxyConfigFromDictionary(
      connectionProxyDictionaryFromProxy(std::make_shared<Proxy>("127.0.0.1", 8899, "u", "")));
  ASSERT_TRUE(config);
  EXPECT_EQ(config->host, "127.0.0.1");
  EXPECT_EQ(config->port, 8899);
  EXPECT_EQ(config->username, "u");
  EXPECT_EQ(config->password, std::nullopt);
  for (const Json& off : {Json::object(), Json{{"HTTPEnable", false}, {"HTTPProxy", "h"}},
                          Json{{"HTTPEnable", true}, {"HTTPProxy", ""}}, Json::array()}) {
    EXPECT_FALSE(proxyConfigFromDictionary(off)) << json::write(off);
  }
}

TEST(AbstractProxySettingsTest, AbsentHostIsRejectedNamingTheKey) {
  for (const auto& proxy : {std::make_shared<Proxy>(std::nullopt, 80), std::shared_ptr<Proxy>()}) {
    try {
      connectionProxyDictionaryFromProxy(proxy);
      FAIL() << "expected an exception";
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "NSInvalidArgumentException");
      EXPECT_NE(e.reason().find(kCFNetworkProxiesHTTPProxy), std::string::npos) << e.reason();
    }
  }
}

TEST(ServerConnectorTest, SendsEachCallWithItsMethodTargetHeadersAndBody) {
  ScopedEnvironment env;
  auto& server = TestServer::shared();
  routeEverything(server, Reply::json(200, "{}"));
  auto connector = ServerConnector::connectorWithServerURL(server.baseURL(), "k1");
  auto slashed = ServerConnector::connectorWithServerURL(server.baseURL() + "/", "a&b=c");
  auto keyless = std::make_shared<ServerConnector>();
  keyless->setServerURL(server.baseURL());

  const std::string startBody = json::write(Json{{"startInfo", startInfo()->dictionary()}});
  const std::string matchBody = json::write(matchData()->dictionary());
  struct Case {
    const char* name;
    std::function<void()> call;
    const char* method;
    std::string target;
    std::optional<std::string> body;
  };
  const Case cases[] = {
      {"start", [&] { start(*connector); }, "POST", "/api/sessions/running?apiKey=k1", startBody},
      {"stop aborted", [&] { stop(*connector, session("s-1"), true, false); }, "DELETE",
       "/api/sessions/running/s-1?apiKey=k1&aborted=true&updateBaseline=false", std::nullopt},
      {"stop saved", [&] { stop(*connector, session("s-1"), false, true); }, "DELETE",
       "/api/sessions/running/s-1?apiKey=k1&aborted=false&updateBaseline=true", std::nullopt},
      {"match", [&] { match(*connector, session("s-1")); }, "POST",
       "/api/sessions/running/s-1?apiKey=k1", matchBody},
      {"match with a numeric id", [&] { match(*connector, session(9007199254740993)); }, "POST",
       "/api/sessions/running/9007199254740993?apiKey=k1", matchBody},
      {"close batch", [&] { close(*connector, "b-1"); }, "DELETE",
       "/api/sessions/batches/b-1/close/bypointerid?apiKey=k1", std::nullopt},
      // A trailing slash on the address is kept, and nothing is percent-encoded.
      {"double slash", [&] { start(*slashed); }, "POST", "//api/sessions/running?apiKey=a&b=c",
       startBody},
      {"absent session and key", [&] { stop(*keyless, nullptr, false, false); }, "DELETE",
       "/api/sessions/running/(null)?apiKey=(null)&aborted=false&updateBaseline=false",
       std::nullopt},
      {"absent session, match", [&] { match(*keyless, nullptr); }, "POST",
       "/api/sessions/running/(null)?apiKey=(null)", matchBody},
      {"absent batch id", [&] { close(*keyless, std::nullopt); }, "DELETE",
       "/api/sessions/batches/(null)/close/bypointerid?apiKey=(null)", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    server.clearRequests();
    c.call();
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    const RecordedRequest& r = requests[0];
    EXPECT_EQ(r.method, c.method);
    EXPECT_EQ(r.target, c.target);
    Headers expected;
    if (c.body) expected.emplace_back("Content-Length", std::to_string(c.body->size()));
    expected.emplace_back("Content-Type", "application/json");
    expected.emplace_back("Accept", "application/json");
    EXPECT_EQ(headersAfterHost(r), expected);
    EXPECT_EQ(r.body, c.body.value_or(""));
  }

  server.clearRequests();
  EXPECT_THROW(connector->startSessionWithInfo(nullptr, {}), Exception);
  EXPECT_TRUE(server.requests().empty());
}

TEST(ServerConnectorTest, ReadsEveryJsonReplyIntoItsRecordWhateverTheStatus) {
  auto& server = TestServer::shared();
  auto connector = ServerConnector::connectorWithServerURL(server.baseURL(), "k");
  // One body that each of the three records reads something from; also behind 4 MiB of name.
  const std::string body = R"({"id":"s-7","asExpected":true,"status":"Failed","steps":3})";
  const std::string huge = R"({"name":")" + std::string(4 << 20, 'n') + "\"," + body.substr(1);
  struct Case {
    Reply reply;
    bool record;
  };
  const Case cases[] = {
      {Reply::json(200, body), true},
      {Reply::json(201, body), true},
      {Reply::json(200, huge), true},
      {Reply::json(404, body), true},
      {Reply::json(500, body), true},
      {Reply::text(500, "<html><body>Internal error</body></html>"), false},
      {Reply::json(200, ""), false},
      {Reply::json(201, "42"), false},
      {Reply::json(201, R"({"id":"s)"), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.reply.status) + " " + c.reply.body.substr(0, 80));
    routeEverything(server, c.reply);
    auto started = start(*connector);
    auto stopped = stop(*connector, session("s-7"), false, false);
    LogCapture log;
    auto matched = match(*connector, session(12));
    EXPECT_TRUE(started.onWorkerThread && stopped.onWorkerThread && matched.onWorkerThread);
    EXPECT_FALSE(started.error || stopped.error || matched.error);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"[QuorvantSaffra] Match window URL: " +
                                       server.url("/api/sessions/running/12?apiKey=k")});
    ASSERT_EQ(bool(started.record), c.record);
    ASSERT_EQ(bool(stopped.record), c.record);
    ASSERT_EQ(bool(matched.record), c.record);
    if (!c.record) continue;
    EXPECT_EQ(started.record->sessionIdText(), "s-7");
    // Only 201 makes a session new.
    EXPECT_EQ(started.record->isNewSession(), c.reply.status == 201);
    EXPECT_EQ(stopped.record->status(), TestResultsStatusFailed);
    EXPECT_EQ(stopped.record->steps(), 3);
    EXPECT_EQ(stopped.record->name().value_or("").size(), c.reply.body == huge ? 4u << 20 : 0u);
    EXPECT_TRUE(matched.record->asExpected());
  }
}

TEST(ServerConnectorTest, ApiKeyFallsBackToTheEnvironmentForEveryRequest) {
  auto& server = TestServer::shared();
  server.route("POST", "/api/sessions/running", Reply::json(200, "{}"));
  struct Case {
    OptString stored;
    OptString primary;
    OptString twin;
    OptString expected;
  };
  const Case cases[] = {
      {"mine", "k1", "k2", "mine"},
      {"", "k1", "k2", "k1"},
      {std::nullopt, "k1", std::nullopt, "k1"},
      {"", std::nullopt, "k2", "k2"},
      {"", "", "k2", "k2"},
      {"", std::nullopt, "", ""},
      {"", "", std::nullopt, std::nullopt},
  };
  auto connector = ServerConnector::connectorWithServerURL(server.baseURL(), std::nullopt);
  for (const auto& c : cases) {
    const std::string sent = c.expected.value_or("(null)");
    SCOPED_TRACE(sent);
    // The environment is changed after the connector was made: the key is read per request.
    ScopedEnvironment env({{"QUORVANT_API_KEY", c.primary}, {"bamboo_QUORVANT_API_KEY", c.twin}});
    connector->setApiKey(c.stored);
    EXPECT_EQ(connector->apiKey(), c.expected);
    server.clearRequests();
    start(*connector);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0].query, "apiKey=" + sent);
  }
}

TEST(ServerConnectorTest, CloseBatchCanBeSkippedAndCountsAnyReplyAsDone) {
  auto& server = TestServer::shared();
  server.route("DELETE", "/api/sessions/batches/*", Reply::text(404, "<h1>Not Found</h1>"));
  auto connector = ServerConnector::connectorWithServerURL(server.baseURL(), "k");
  const std::pair<OptString, bool> values[] = {
      {"true", true}, {"TRUE", true},   {"tRuE", true}, {"yes", false},
      {"1", false},   {" true", false}, {"", false},    {std::nullopt, false},
  };
  for (const auto& [value, skips] : values) {
    SCOPED_TRACE(value.value_or("(unset)"));
    ScopedEnvironment env({{"QUORVANT_DONT_CLOSE_BATCHES", value}});
    LogCapture log;
    server.clearRequests();
    // A skipped close calls back at once on the caller's thread, without any request.
    auto outcome = close(*connector, "b-1");
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(outcome.onWorkerThread, !skips);
    using Lines = std::vector<std::string>;
    const Lines expected =
        skips ? Lines{"[QuorvantSaffra] QUORVANT_DONT_CLOSE_BATCHES environment variable set to "
                      "true. Skipping batch close."}
              : Lines{"[QuorvantSaffra] Close batch with ID: b-1",
                      "[QuorvantSaffra] delete batch is done with 404 status"};
    EXPECT_EQ(log.lines(), expected);
    EXPECT_EQ(server.requests().size(), skips ? 0u : 1u);
  }
}

TEST(ServerConnectorTest, TransportFaultsReachTheHandlerAsErrors) {
  ScopedEnvironment env;
  auto& server = TestServer::shared();
  auto connector = ServerConnector::connectorWithServerURL(server.baseURL(), "k");
  connector->setRequestTimeoutForTesting(1);
  auto refused = ServerConnector::connectorWithServerURL(
      "http://127.0.0.1:" + std::to_string(closedPort()), "k");
  // Formatted URLs that are not valid: no address at all, and a key with a blank.
  auto noAddress = std::make_shared<ServerConnector>();
  auto blankKey = ServerConnector::connectorWithServerURL(server.baseURL(), "a key");
  struct Case {
    const char* name;
    ServerConnector* connector;
    Reply reply;
  };
  const Case cases[] = {
      {"dropped connection", connector.get(), Reply::drop()},
      {"reply cut mid-body", connector.get(), Reply::cutBody(200, R"({"id":"s-1","url":"u"})")},
      {"no answer within the time-out", connector.get(), Reply::hang()},
      {"connection refused", refused.get(), Reply::json(200, "{}")},
      {"no server address", noAddress.get(), Reply::json(200, "{}")},
      {"blank in the key", blankKey.get(), Reply::json(200, "{}")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    routeEverything(server, c.reply);
    auto started = start(*c.connector);
    auto matched = match(*c.connector, session("s"));
    auto stopped = stop(*c.connector, session("s"), false, false);
    LogCapture log;
    auto closed = close(*c.connector, "b");
    EXPECT_FALSE(started.record || matched.record || stopped.record);
    for (const auto* error : {&started.error, &matched.error, &stopped.error, &closed.error}) {
      ASSERT_TRUE(*error);
      EXPECT_EQ((*error)->domain, "saffra.http");
    }
    EXPECT_TRUE(started.onWorkerThread && closed.onWorkerThread);
    // A failed close logs no status.
    EXPECT_EQ(log.lines(), std::vector<std::string>{"[QuorvantSaffra] Close batch with ID: b"});
    server.releaseHangs();
  }

  // The error is the transport's own (curl's message carries the elapsed time, so it may differ).
  HttpTransport transport;
  std::promise<HttpResponse> direct;
  transport.send(HTTPRequestBuilder::requestWithURL(
                     *refused->serverURL() + "/api/sessions/running?apiKey=k",
                     Json{{"startInfo", startInfo()->dictionary()}}, "POST", 300),
                 [&](HttpResponse r) { direct.set_value(std::move(r)); });
  auto expected = direct.get_future().get().error;
  auto actual = start(*refused).error;
  ASSERT_TRUE(expected && actual);
  EXPECT_EQ(actual->domain, expected->domain);
  EXPECT_EQ(actual->code, expected->code);
  EXPECT_EQ(actual->localizedDescription.substr(0, 30),
            expected->localizedDescription.substr(0, 30));
}

TEST(ServerConnectorTest, DestroyingWithRequestsInFlightIsSafe) {
  auto& server = TestServer::shared();
  routeEverything(server, Reply::hang());
  auto called = std::make_shared<std::atomic<int>>(0);
  {
    auto connector = ServerConnector::connectorWithServerURL(server.baseURL(), "k");
    for (int i = 0; i < 4; ++i) {
      // Half of the requests run on a transport that was replaced meanwhile.
      if (i == 2) connector->setUrlSession(std::make_shared<HttpTransport>());
      connector->matchWindowForSession(session("s"), matchData(),
                                       [called](auto, auto) { ++*called; });
      connector->closeBatchWithId("b", [called](auto) { ++*called; });
    }
    ASSERT_TRUE(server.waitForRequests(8));
  }
  EXPECT_EQ(*called, 0);
  server.releaseHangs();

  // The last owner may also let go from inside a completion handler.
  server.route("POST", "/api/sessions/running", Reply::json(200, "{}"));
  auto connector = ServerConnector::connectorWithServerURL(server.baseURL(), "k");
  std::promise<void> done;
  ServerConnector* raw = connector.get();
  raw->startSessionWithInfo(startInfo(), [&, owner = std::move(connector)](auto, auto) mutable {
    owner.reset();
    done.set_value();
  });
  EXPECT_EQ(done.get_future().wait_for(60s), std::future_status::ready);
}

TEST(ServerConnectorTest, RequestsRunningOnAReplacedTransportFinishThere) {
  auto& server = TestServer::shared();
  server.route("POST", "/api/sessions/running/*",
               Reply::json(200, R"({"asExpected":true})").after(300ms));
  auto connector = ServerConnector::connectorWithServerURL(server.baseURL(), "k");
  std::promise<std::shared_ptr<MatchResult>> pending;
  connector->matchWindowForSession(session("s"), matchData(),
                                   [&](auto result, auto) { pending.set_value(result); });
  ASSERT_TRUE(server.waitForRequests(1));

  // A proxy that refuses every connection: new requests fail, the earlier one still succeeds.
  connector->setProxy(std::make_shared<AbstractProxySettings>("127.0.0.1", closedPort()));
  auto refused = match(*connector, session("s"));
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->domain, "saffra.http");
  EXPECT_FALSE(refused.record);

  auto future = pending.get_future();
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
  auto result = future.get();
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->asExpected());
}

class ServerConnectorProxyTest : public ::testing::Test {
 protected:
  void SetUp() override { SAFFRA_SKIP_WITHOUT_TINYPROXY(); }
};

// Through a proxy that asks for credentials: the connector hands the proxy's to the transport.
TEST_F(ServerConnectorProxyTest, SendsThroughTheProxyUntilAnotherIsSet) {
  auto& server = TestServer::shared();
  routeEverything(server, Reply::json(201, R"({"id":"p"})"));
  testing::Tinyproxy proxy("saffra", "s3cret");
  auto connector = ServerConnector::connectorWithServerURL(server.baseURL(), "k");
  auto direct = connector->urlSession();

  connector->setProxy(
      std::make_shared<AbstractProxySettings>("127.0.0.1", proxy.port(), "saffra", "s3cret"));
  EXPECT_EQ(connector->proxy(), nullptr);
  EXPECT_NE(connector->urlSession(), direct);
  auto first = start(*connector);
  ASSERT_FALSE(first.error) << first.error->localizedDescription << proxy.log();
  EXPECT_TRUE(first.record && first.record->isNewSession());

  // Absent keeps the proxy in force.
  connector->setProxy(nullptr);
  LogCapture log;
  EXPECT_FALSE(close(*connector, "b-1").error) << proxy.log();
  EXPECT_TRUE(log.contains("delete batch is done with 201 status"));

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  for (const auto& request : requests) {
    EXPECT_NE(request.header("Via").value_or("").find("tinyproxy"), std::string::npos);
  }
  EXPECT_EQ(requests[1].target, "/api/sessions/batches/b-1/close/bypointerid?apiKey=k");
}

}  // namespace
}  // namespace saffra
