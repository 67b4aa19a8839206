// Webhooks against real loopback receivers: what each event says and how it is signed, retries
// that end, and receivers that hang while the service goes on and stops.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "saffra/base/logger.h"
#include "server/service_test_support.h"
#include "server/webhook_sender.h"
#include "testing/test_server.h"

namespace saffra::server::testing {
namespace {

using namespace std::chrono_literals;
using saffra::testing::RecordedRequest;
using saffra::testing::TestServer;
using ReceiverReply = saffra::testing::Reply;

/// Settings that keep the tests quick: short retry delays. A hanging receiver hangs until the
/// test releases it; tests with one wait only briefly at the stop.
WebhookDelivery quickDelivery(std::chrono::milliseconds stopGrace = 10s) {
  WebhookDelivery delivery;
  delivery.retryDelays = {5ms, 10ms};
  delivery.timeout = 60s;
  delivery.stopGrace = stopGrace;
  return delivery;
}

/// Waits (at most ten seconds) until a captured log line holds `text`; the lines that do.
std::vector<std::string> waitForLogLine(const LogCapture& log, const std::string& text) {
  std::vector<std::string> found;
  for (int i = 0; i < 1000 && found.empty(); ++i) {
    for (const std::string& line : log.lines()) {
      if (line.find(text) != std::string::npos) found.push_back(line);
    }
    if (found.empty()) std::this_thread::sleep_for(10ms);
  }
  return found;
}

std::size_t linesWith(const LogCapture& log, const std::string& text) {
  std::size_t count = 0;
  for (const std::string& line : log.lines()) count += line.find(text) != std::string::npos;
  return count;
}

// The key of HMAC-SHA256 test case 2 of RFC 4231.
TEST(WebhookSenderTest, SignsWithHmacSha256OfTheBody) {
  EXPECT_EQ(WebhookSender::signature("Jefe", "what do ya want for nothing?"),
            "sha256=5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

// Two webhooks with secrets of their own hear of every session and batch that ends and every
// decision, each POST signed over its exact body with its webhook's secret and carrying its own
// delivery id; stopping a session or closing a batch twice tells them once.
TEST(WebhooksTest, EventsTellWhatEndedOrWasDecidedAndAreSigned) {
  TestServer receiver;
  receiver.route("POST", "/*", ReceiverReply::json(204, ""));
  const std::map<std::string, std::string> secrets = {{"/a", "one"}, {"/b", "two"}};
  ServiceOptions options;
  for (const auto& [path, secret] : secrets)
    options.webhooks.push_back({receiver.url(path), secret});
  options.webhookDelivery = quickDelivery();
  TempFolder folder;
  Harness harness(folder.path(), options);
  const std::string key = std::string("?apiKey=") + kApiKey;
  SessionSpec test;
  const std::string saved = harness.runTest(test, {kPlain}, true)["id"];
  const std::string changed = harness.runTest(test, {kMarked}, false)["id"];
  const std::string aborted = harness.start(test).body["id"];
  for (int twice = 0; twice < 2; ++twice) {
    harness.stop(aborted, true, false);
    harness.closeBatch(test.batchId);
  }
  for (const std::string review : {"/steps/1/accept", "/undo", "/batch", "/steps/1/reject"}) {
    const std::string target = review == "/undo"    ? "/api/undo"
                               : review == "/batch" ? "/api/batches/" + test.batchId + "/accept"
                                                    : "/api/sessions/" + changed + review;
    ASSERT_EQ(harness.send("POST", target + key).status, 200) << review;
  }

  // Each event is found by what it is about; the table holds fields it must carry.
  const std::map<std::string, std::string> expected = {
      {"session.ended " + saved,
       R"({"/session/status": "Passed", "/session/endedBy": "client", "/session/isNew": true,
           "/session/savedAsBaseline": true, "/session/steps": 1, "/session/matches": 0})"},
      {"session.ended " + changed,
       R"({"/session/status": "Unresolved", "/session/isNew": false, "/session/steps": 1,
           "/session/mismatches": 1, "/session/isAborted": false})"},
      {"session.ended " + aborted,
       R"({"/session/status": "Failed", "/session/endedBy": "client-abort",
           "/session/isAborted": true, "/session/steps": 0})"},
      {"batch.closed",
       R"({"/batch/id": "BATCH-1", "/batch/name": "nightly", "/batch/tests": 3, "/batch/passed": 1,
           "/batch/unresolved": 1, "/batch/failed": 1, "/batch/running": 0})"},
      {"review.decided accept step",
       R"({"/decision/step": 1, "/decision/reviewer": "api", "/sessions/0/status": "Passed"})"},
      {"review.decided undo step", R"({"/sessions/0/status": "Unresolved"})"},
      {"review.decided accept batch",
       R"({"/decision/batchId": "BATCH-1", "/sessions/0/status": "Passed", "/sessions/1": null})"},
      {"review.decided reject step", R"({"/sessions/0/status": "Failed"})"}};
  const std::size_t total = expected.size() * secrets.size();
  ASSERT_TRUE(receiver.waitForRequests(total)) << receiver.requests().size();
  harness.service().stop();  // anything still queued would arrive by now
  const std::vector<RecordedRequest> requests = receiver.requests();
  ASSERT_EQ(requests.size(), total);

  const std::string pages = "http://127.0.0.1:" + std::to_string(harness.port()) + "/app/";
  std::map<std::string, std::set<std::string>> seen;  // event -> the paths it reached
  std::set<std::string> deliveryIds;
  for (const RecordedRequest& r : requests) {
    Json body = json::parse(r.body).value_or(Json::object());
    const std::string event = body.value("event", "");
    const Json decision = body.value("decision", Json::object());
    const Json session =
        event == "review.decided" ? body["sessions"][0] : body.value("session", Json::object());
    const std::string about = event == "session.ended"    ? " " + session.value("id", "")
                              : event == "review.decided" ? " " + decision.value("action", "") +
                                                                " " + decision.value("scope", "")
                                                          : "";
    SCOPED_TRACE(r.path + " " + event + about);
    seen[event + about].insert(r.path);
    deliveryIds.insert(body.value("deliveryId", ""));
    EXPECT_EQ(r.header("X-Saffra-Event"), event);
    EXPECT_EQ(r.header("X-Saffra-Delivery"), body.value("deliveryId", "?"));
    EXPECT_EQ(r.header("X-Saffra-Signature"), WebhookSender::signature(secrets.at(r.path), r.body));
    ASSERT_TRUE(expected.count(event + about));
    EXPECT_EQ(differences(body, expected.at(event + about)), "");
    if (event == "batch.closed") {
      EXPECT_EQ(body["batch"]["url"], pages + "batches/BATCH-1");
      continue;
    }
    EXPECT_EQ(session["url"], pages + "sessions/" + session.value("id", "?"));
    EXPECT_EQ(differences(session, R"({"/test": "month view", "/app": "Calendar",
                                       "/batchId": "BATCH-1"})"),
              "");
  }
  EXPECT_EQ(deliveryIds.size(), total);
  for (const auto& [about, fields] : expected) EXPECT_EQ(seen[about].size(), 2u) << about;
}

// A session that its client left is aborted by the idle time-out, and the webhook hears that.
TEST(WebhooksTest, AnIdleAbortIsAnEvent) {
  TestServer receiver;
  receiver.route("POST", "/hook", ReceiverReply::json(200, "{}"));
  ServiceOptions options;
  options.webhooks = {{receiver.url("/hook"), "s"}};
  options.idleSessionTimeout = 1ms;  // counted in whole seconds: aborted a second or two later
  TempFolder folder;
  Harness harness(folder.path(), options);
  harness.start(SessionSpec{});
  ASSERT_TRUE(receiver.waitForRequests(1));
  EXPECT_EQ(differences(json::parse(receiver.requests()[0].body).value_or(Json()),
                        R"({"/session/status": "Failed", "/session/endedBy": "idle"})"),
            "");
}

// A failed attempt (an error status, a refused or stalled connection) is
// tried again after each retry delay (two here), with the same delivery id and body, and then
// dropped with one log line: never more attempts than that. HTTPS receivers work as well.
TEST(WebhooksTest, FailedDeliveriesAreRetriedAFewTimesThenDropped) {
  int closedPort = 0;
  {
    TestServer gone;
    closedPort = gone.port();
  }
  struct Case {
    const char* label;
    std::vector<ReceiverReply> replies;  // empty: nothing listens
    std::size_t attempts;
    const char* dropped;  // the reason the log line gives, or null when delivered
    TestServer::Scheme scheme = TestServer::Scheme::Http;
    std::chrono::milliseconds timeout = 60s;
  };
  const std::vector<Case> cases = {
      {"fails twice, then succeeds",
       {ReceiverReply::json(500, "{}"), ReceiverReply::json(502, "{}"),
        ReceiverReply::json(200, "")},
       3,
       nullptr},
      {"always fails", {ReceiverReply::json(503, "{}")}, 3, "after 3 attempts: status 503"},
      {"refuses the connection", {}, 0, "after 3 attempts"},
      {"never answers",
       {ReceiverReply::hang()},
       3,
       "after 3 attempts",
       TestServer::Scheme::Http,
       200ms},
      {"answers over HTTPS", {ReceiverReply::json(200, "")}, 1, nullptr, TestServer::Scheme::Https},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    LogCapture log;
    TestServer receiver(c.scheme);
    receiver.route("POST", "/hook", c.replies);
    ServiceOptions options;
    options.webhooks = {{c.replies.empty()
                             ? "http://127.0.0.1:" + std::to_string(closedPort) + "/hook"
                             : receiver.url("/hook"),
                         "s"}};
    options.webhookDelivery = quickDelivery();
    options.webhookDelivery.timeout = c.timeout;
    TempFolder folder;
    Harness harness(folder.path(), options);
    harness.runTest(SessionSpec{}, {kPlain}, false);
    if (c.dropped) {
      const std::vector<std::string> lines = waitForLogLine(log, "dropped");
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_NE(lines[0].find(c.dropped), std::string::npos) << lines[0];
      EXPECT_NE(lines[0].find("session.ended"), std::string::npos) << lines[0];
      EXPECT_EQ(lines[0].find("/hook"), std::string::npos) << "the path may hold a token";
    } else {
      ASSERT_TRUE(receiver.waitForRequests(c.attempts));
    }
    harness.service().stop();
    const std::vector<RecordedRequest> requests = receiver.requests();
    EXPECT_EQ(requests.size(), c.attempts);
    for (const RecordedRequest& r : requests) {
      EXPECT_EQ(r.body, requests[0].body);
      EXPECT_EQ(r.header("X-Saffra-Delivery"), requests[0].header("X-Saffra-Delivery"));
    }
    EXPECT_EQ(linesWith(log, "dropped"), c.dropped ? 1u : 0u);
    EXPECT_EQ(linesWith(log, "not delivered"), 0u);
  }
}

// A receiver that never answers holds up neither a check, nor a stop, nor a review, nor the
// service's own stop: they all return while the receiver still holds the first delivery. With
// that one in flight and a queue of one, the next delivery waits and the third pushes it out.
TEST(WebhooksTest, AHangingReceiverHoldsNothingUp) {
  LogCapture log;
  TestServer receiver;
  receiver.route("POST", "/hook", ReceiverReply::hang());
  ServiceOptions options;
  options.webhooks = {{receiver.url("/hook"), "s"}};
  options.webhookDelivery = quickDelivery(50ms);
  options.webhookDelivery.maxInFlight = 1;
  options.webhookDelivery.queueLimit = 1;
  TempFolder folder;
  Harness harness(folder.path(), options);
  SessionSpec test;
  harness.runTest(test, {kPlain}, true);
  ASSERT_TRUE(receiver.waitForRequests(1));  // the first delivery now hangs

  const std::string id = harness.start(test).body["id"];
  EXPECT_EQ(harness.match(id, matchBody(kMarked, "step 1")).body["asExpected"], false);
  EXPECT_EQ(harness.stop(id, false, false).body["status"], "Unresolved");
  EXPECT_EQ(linesWith(log, "dropped"), 0u);
  EXPECT_EQ(
      harness.send("POST", "/api/sessions/" + id + "/accept?apiKey=" + std::string(kApiKey)).status,
      200);
  EXPECT_EQ(linesWith(log, "session.ended"), 1u);  // the second session's end was pushed out
  EXPECT_EQ(linesWith(log, "dropped: the queue is full (1 waiting)"), 1u);
  harness.service().stop();
  receiver.releaseHangs();  // only now
  EXPECT_EQ(receiver.requests().size(), 1u);
  EXPECT_EQ(linesWith(log, "webhooks: 2 deliveries not delivered when the service stopped"), 1u);
}

}  // namespace
}  // namespace saffra::server::testing
