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
// decision, each POST signed over its exact body with its webhook's secret; stopping a session
// or closing a batch twice tells them once.
TEST(WebhooksTest, EventsTellWhatEndedOrWasDecidedAndAreSigned) {
  TestServer receiver;
  receiver.route("POST", "/*", ReceiverReply::json(204, ""));
  const std::map<std::string, std::string> secrets = {{"/a", "first secret"},
                                                      {"/b", "second secret"}};
  ServiceOptions options;
  for (const auto& [path, secret] : secrets)
    options.webhooks.push_back({receiver.url(path), secret});
  options.webhookDelivery = quickDelivery();
  TempFolder folder;
  Harness harness(folder.path(), options);
  const std::string key = std::string("?apiKey=") + kApiKey;
  const std::string base = "http://127.0.0.1:" + std::to_string(harness.port());

  SessionSpec spec;
  const std::string saved = harness.runTest(spec, {kPlain}, true)["id"];
  const std::string changed = harness.runTest(spec, {kMarked}, false)["id"];
  const std::string aborted = harness.start(spec).body["id"];
  harness.stop(aborted, true, false);
  harness.stop(aborted, true, false);
  harness.closeBatch(spec.batchId);
  harness.closeBatch(spec.batchId);
  const std::string review = "/api/sessions/" + changed + "/steps/1/";
  ASSERT_EQ(harness.send("POST", review + "accept" + key).status, 200);
  ASSERT_EQ(harness.send("POST", "/api/undo" + key).status, 200);
  ASSERT_EQ(harness.send("POST", "/api/batches/" + spec.batchId + "/accept" + key).status, 200);
  ASSERT_EQ(harness.send("POST", review + "reject" + key).status, 200);

  // Each event is found by what it is about; the table holds the fields it must carry.
  const auto session = [&](const std::string& id, const char* status, const char* endedBy,
                           bool isNew, int steps, int matches, int mismatches) {
    return Json{{"/session/id", id},
                {"/session/test", spec.name},
                {"/session/app", spec.app},
                {"/session/branch", "default"},
                {"/session/batchId", spec.batchId},
                {"/session/status", status},
                {"/session/endedBy", endedBy},
                {"/session/isAborted", std::string(endedBy) == "client-abort"},
                {"/session/isNew", isNew},
                {"/session/steps", steps},
                {"/session/matches", matches},
                {"/session/mismatches", mismatches},
                {"/session/url", base + "/app/sessions/" + id}};
  };
  const auto decision = [&](const char* action, const char* scope, const char* status) {
    return Json{{"/decision/action", action},
                {"/decision/scope", scope},
                {"/decision/reviewer", "api"},
                {"/sessions/0/id", changed},
                {"/sessions/0/status", status},
                {"/sessions/0/test", spec.name},
                {"/sessions/0/batchId", spec.batchId},
                {"/sessions/1", nullptr},
                {"/sessions/0/url", base + "/app/sessions/" + changed}};
  };
  const std::map<std::string, Json> expected = {
      {"session.ended " + saved, session(saved, "Passed", "client", true, 1, 0, 0)},
      {"session.ended " + changed, session(changed, "Unresolved", "client", false, 1, 0, 1)},
      {"session.ended " + aborted, session(aborted, "Failed", "client-abort", false, 0, 0, 0)},
      {"batch.closed",
       {{"/batch/id", spec.batchId},
        {"/batch/name", spec.batchName},
        {"/batch/tests", 3},
        {"/batch/passed", 1},
        {"/batch/unresolved", 1},
        {"/batch/failed", 1},
        {"/batch/running", 0},
        {"/batch/url", base + "/app/batches/" + spec.batchId}}},
      {"review.decided accept step", decision("accept", "step", "Passed")},
      {"review.decided undo step", decision("undo", "step", "Unresolved")},
      {"review.decided accept batch", decision("accept", "batch", "Passed")},
      {"review.decided reject step", decision("reject", "step", "Failed")}};

  const std::size_t total = expected.size() * secrets.size();
  ASSERT_TRUE(receiver.waitForRequests(total)) << receiver.requests().size();
  harness.service().stop();  // anything still queued would arrive by now
  const std::vector<RecordedRequest> requests = receiver.requests();
  ASSERT_EQ(requests.size(), total);

  std::map<std::string, std::set<std::string>> seen;  // event key -> receiving paths
  std::set<std::string> deliveryIds;
  for (const RecordedRequest& r : requests) {
    const Json body = json::parse(r.body).value_or(Json());
    const std::string event = body.value("event", "");
    std::string about = event == "session.ended"    ? " " + body["session"].value("id", "")
                        : event == "review.decided" ? " " + body["decision"].value("action", "") +
                                                          " " + body["decision"].value("scope", "")
                                                    : "";
    const std::string eventKey = event + about;
    SCOPED_TRACE(r.path + " " + eventKey);
    seen[eventKey].insert(r.path);
    EXPECT_EQ(r.header("X-Saffra-Event"), event);
    EXPECT_EQ(r.header("X-Saffra-Delivery"), body.value("deliveryId", "?"));
    EXPECT_EQ(r.header("Content-Type"), "application/json");
    EXPECT_EQ(r.header("X-Saffra-Signature"), WebhookSender::signature(secrets.at(r.path), r.body));
    deliveryIds.insert(body.value("deliveryId", ""));
    auto wanted = expected.find(eventKey);
    ASSERT_NE(wanted, expected.end());
    EXPECT_EQ(differences(body, wanted->second.dump()), "");
    EXPECT_TRUE(body["occurredAt"].is_string());
  }
  EXPECT_EQ(deliveryIds.size(), total);
  for (const auto& [eventKey, fields] : expected) {
    EXPECT_EQ(seen[eventKey].size(), secrets.size()) << eventKey;
  }
}

// A session that its client left is aborted by the idle time-out, and the webhook hears that.
TEST(WebhooksTest, AnIdleAbortIsAnEvent) {
  TestServer receiver;
  receiver.route("POST", "/hook", ReceiverReply::json(200, "{}"));
  ServiceOptions options;
  options.webhooks = {{receiver.url("/hook"), "s"}};
  options.webhookDelivery = quickDelivery();
  options.idleSessionTimeout = 1ms;  // counted in whole seconds: aborted a second or two later
  TempFolder folder;
  Harness harness(folder.path(), options);
  const std::string id = harness.start(SessionSpec{}).body["id"];
  ASSERT_TRUE(receiver.waitForRequests(1));
  const Json body = json::parse(receiver.requests()[0].body).value_or(Json());
  EXPECT_EQ(differences(body, Json{{"/event", "session.ended"},
                                   {"/session/id", id},
                                   {"/session/status", "Failed"},
                                   {"/session/endedBy", "idle"},
                                   {"/session/isAborted", true}}
                                  .dump()),
            "");
}

// A failed attempt (an error status, a redirect, a dropped, refused or stalled connection) is
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
      {"a redirect is a failure",
       {ReceiverReply::json(302, "{}")},
       3,
       "after 3 attempts: status 302"},
      {"drops the connection", {ReceiverReply::drop()}, 3, "after 3 attempts"},
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
// service's own stop: they all return while the receiver still holds the first delivery.
TEST(WebhooksTest, AHangingReceiverHoldsNothingUp) {
  LogCapture log;
  TestServer receiver;
  receiver.route("POST", "/hook", ReceiverReply::hang());
  ServiceOptions options;
  options.webhooks = {{receiver.url("/hook"), "s"}};
  options.webhookDelivery = quickDelivery(50ms);
  TempFolder folder;
  Harness harness(folder.path(), options);
  SessionSpec spec;
  harness.runTest(spec, {kPlain}, true);
  ASSERT_TRUE(receiver.waitForRequests(1));  // the first delivery now hangs

  const std::string id = harness.start(spec).body["id"];
  EXPECT_EQ(harness.match(id, matchBody(kMarked, "step 1")).body["asExpected"], false);
  EXPECT_EQ(harness.stop(id, false, false).body["status"], "Unresolved");
  EXPECT_EQ(
      harness.send("POST", "/api/sessions/" + id + "/accept?apiKey=" + std::string(kApiKey)).status,
      200);
  harness.service().stop();
  receiver.releaseHangs();  // only now

  const std::vector<std::string> lines =
      waitForLogLine(log, "not delivered when the service stopped");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("webhooks: 3 deliveries"), std::string::npos) << lines[0];
}

// The queue is bounded: with every sender slot held by a hanging receiver, a delivery beyond
// the queue's limit pushes out the oldest waiting one, with one log line.
TEST(WebhookSenderTest, AFullQueueDropsItsOldestDelivery) {
  LogCapture log;
  TestServer receiver;
  receiver.route("POST", "/hook", ReceiverReply::hang());
  WebhookDelivery delivery = quickDelivery(50ms);
  delivery.queueLimit = 2;
  WebhookSender sender({{receiver.url("/hook"), "s"}}, delivery);
  for (std::size_t n = 0; n < WebhookSender::kMaxInFlight; ++n) {
    sender.send("test", {{"n", n}});
    ASSERT_TRUE(receiver.waitForRequests(n + 1));  // in flight, so not in the queue
  }
  for (int n = 0; n < 3; ++n) sender.send("test", {{"n", 100 + n}});
  EXPECT_EQ(linesWith(log, "dropped: the queue is full (2 waiting)"), 1u);
  sender.stop();
  receiver.releaseHangs();
  EXPECT_EQ(receiver.requests().size(), WebhookSender::kMaxInFlight);
  EXPECT_EQ(linesWith(log, "webhooks: 10 deliveries not delivered"), 1u);
}

// Webhooks without an http(s) address or a secret keep the service from starting.
TEST(WebhookSenderTest, RefusesWebhooksItCannotSendOrSign) {
  for (const Webhook& w : std::vector<Webhook>{{"ftp://127.0.0.1/x", "s"},
                                               {"127.0.0.1:8080/hook", "s"},
                                               {"http:///path", "s"},
                                               {"http://127.0.0.1/a b", "s"},
                                               {"http://127.0.0.1/hook", ""}}) {
    EXPECT_THROW(WebhookSender::validate({w}), ServiceError) << w.url;
  }
  EXPECT_NO_THROW(WebhookSender::validate({{"HTTPS://[::1]:8443/x?token=1", "s"}}));
}

}  // namespace
}  // namespace saffra::server::testing
