// The results pages over loopback: who may read them, who may review, what a review changes,
// that stored text never becomes markup, and a first release's database upgraded.
#include <sqlite3.h>

#include <gtest/gtest.h>

#include <regex>

#include "server/service_test_support.h"
#include "server/store.h"
#include "server/thumbnail.h"
#include "server/web_access.h"

namespace saffra::server::testing {
namespace {

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

/// The value of the hidden field `name` in a page's first form that has one.
std::string fieldIn(const std::string& html, const std::string& name) {
  std::smatch found;
  if (!std::regex_search(html, found, std::regex("name=\"" + name + "\" value=\"([^\"]*)\""))) {
    return "";
  }
  return found[1];
}

/// Expects every one of `parts` in `html`.
void expectParts(const std::string& html, std::initializer_list<std::string> parts) {
  for (const std::string& part : parts) EXPECT_TRUE(contains(html, part)) << part;
}

std::ptrdiff_t countMatches(const std::string& text, const std::string& pattern) {
  const std::regex re(pattern);
  return std::distance(std::sregex_iterator(text.begin(), text.end(), re), std::sregex_iterator());
}

/// A reply with its headers, for redirects and cookies.
struct Page : httplib::Response {
  std::string header(const std::string& name) const { return get_header_value(name); }
};

/// A browser-like client: it keeps the login cookie and sends Accept: text/html.
class Browser {
 public:
  explicit Browser(const Harness& harness) : harness_(harness) {}

  std::string origin() const { return "http://127.0.0.1:" + std::to_string(harness_.port()); }

  Page get(const std::string& target, httplib::Headers headers = {}) const {
    headers.emplace("Accept", "text/html,application/xhtml+xml");
    if (!cookie_.empty()) headers.emplace("Cookie", cookie_);
    return toPage(client().Get(target, headers));
  }

  Page post(const std::string& target, const std::string& form, httplib::Headers headers = {},
            bool withCookie = true) const {
    if (!headers.count("Accept")) headers.emplace("Accept", "text/html");
    if (withCookie && !cookie_.empty()) headers.emplace("Cookie", cookie_);
    return toPage(client().Post(target, headers, form, "application/x-www-form-urlencoded"));
  }

  /// Logs in with the form; returns the reply.
  Page logIn(const std::string& key, const std::string& next = "/app/batches") {
    Page reply = post("/app/login", "apiKey=" + percentEncode(key) + "&next=" + percentEncode(next),
                      {{"Origin", origin()}, {"Sec-Fetch-Site", "same-origin"}});
    std::string setCookie = reply.header("Set-Cookie");
    if (!setCookie.empty()) cookie_ = setCookie.substr(0, setCookie.find(';'));
    return reply;
  }

  /// The CSRF token that the forms of a test page carry.
  std::string csrfOf(const std::string& sessionId) const {
    return fieldIn(get("/app/sessions/" + sessionId).body, "csrf");
  }

  /// A review as the page's form sends it.
  Page review(const std::string& path, const std::string& csrf, httplib::Headers headers = {}) {
    if (!headers.count("Origin") && !headers.count("Referer")) headers.emplace("Origin", origin());
    if (!headers.count("Sec-Fetch-Site")) headers.emplace("Sec-Fetch-Site", "same-origin");
    return post(path, "csrf=" + csrf, std::move(headers));
  }

 private:
  httplib::Client client() const {
    httplib::Client c("127.0.0.1", harness_.port());
    c.set_read_timeout(30, 0);
    return c;
  }
  static Page toPage(const httplib::Result& result) {
    Page page;
    if (result) static_cast<httplib::Response&>(page) = *result;
    return page;
  }

  const Harness& harness_;
  std::string cookie_;
};

class WebTest : public ::testing::Test {
 protected:
  /// A saved two-step test and a rerun whose second step changed (Unresolved).
  std::string changedSession() {
    harness_.runTest(test_, {kPlain, kPlain}, true);
    std::string id = harness_.start(test_).body["id"];
    harness_.match(id, matchBody(kPlain, "step 1"));
    harness_.match(id, matchBody(kMarked, "step 2"));
    EXPECT_EQ(harness_.stop(id, false, false).body["status"], "Unresolved");
    return id;
  }

  Json results(const std::string& id) const {
    return harness_.fetch("/api/sessions/" + id, {{"Accept", "application/json"}}).body;
  }

  TempFolder folder_;
  Harness harness_{folder_.path()};
  SessionSpec test_;
  Browser browser_{harness_};
};

TEST_F(WebTest, PagesNeedAKeyOrALogin) {
  std::string id = changedSession();
  std::string image = "/api/sessions/" + id + "/steps/2/current.png";

  // Browsers without credentials go to the login form, which returns them where they were.
  for (const std::string& target :
       std::vector<std::string>{"/app/batches", "/app/sessions/" + id + "?x=1",
                                "/app/sessions/" + id + "?apiKey=nope"}) {
    Page page = browser_.get(target);
    EXPECT_EQ(page.status, 303) << target;
    std::string back = target.substr(0, target.find("?apiKey"));
    // (the client decodes Location; on the wire `next` is percent-encoded)
    EXPECT_EQ(page.header("Location"), "/app/login?next=" + back) << target;
  }

  Page wrong = browser_.logIn("wrong");
  EXPECT_EQ(wrong.status, 401);
  EXPECT_EQ(wrong.header("Set-Cookie"), "");
  Page loggedIn = browser_.logIn(kApiKey, "/app/sessions/" + id);
  EXPECT_EQ(loggedIn.status, 303);
  EXPECT_EQ(loggedIn.header("Location"), "/app/sessions/" + id);
  std::string setCookie = loggedIn.header("Set-Cookie");
  EXPECT_TRUE(contains(setCookie, "HttpOnly")) << setCookie;
  EXPECT_TRUE(contains(setCookie, "SameSite=Strict")) << setCookie;
  EXPECT_FALSE(contains(setCookie, kApiKey)) << setCookie;

  // The cookie opens pages and images; the pages carry the protective headers.
  Page page = browser_.get("/app/sessions/" + id);
  EXPECT_EQ(page.status, 200);
  EXPECT_TRUE(contains(page.header("Content-Security-Policy"), "default-src 'none'"));
  EXPECT_FALSE(contains(page.header("Content-Security-Policy"), "unsafe-inline"));
  EXPECT_EQ(page.header("X-Frame-Options"), "DENY");
  EXPECT_EQ(page.header("Referrer-Policy"), "no-referrer");
  EXPECT_EQ(browser_.get(image).status, 200);
  EXPECT_EQ(browser_.get("/app/batches").status, 200);
  EXPECT_EQ(browser_.get("/").header("Location"), "/app/batches");

  // A forged or stale cookie is no login.
  EXPECT_EQ(harness_.send("GET", image, "", {{"Cookie", "saffra_login=0123abcd"}}).status, 401);
}

TEST_F(WebTest, LoginFollowsOnlyLocalPaths) {
  for (const char* next : {"//evil.example/x", "https://evil.example/", "/\\evil.example",
                           "evil.example", "/app\r\nSet-Cookie: a=b", ""}) {
    Browser browser(harness_);
    Page reply = browser.logIn(kApiKey, next);
    EXPECT_EQ(reply.status, 303) << next;
    EXPECT_EQ(reply.header("Location"), "/app/batches") << next;
  }
  EXPECT_TRUE(contains(browser_.get("/app/login?next=//evil.example").body,
                       "name=\"next\" value=\"/app/batches\""));
}

TEST_F(WebTest, ReviewsFromElsewhereAreRefusedAndChangeNothing) {
  std::string id = changedSession();
  browser_.logIn(kApiKey);
  std::string csrf = browser_.csrfOf(id);
  ASSERT_EQ(csrf.size(), 64u);
  std::string accept = "/app/sessions/" + id + "/steps/2/accept";
  std::string reject = "/app/sessions/" + id + "/steps/2/reject";
  std::string foreign = "http://evil.example";
  Browser other(harness_);
  other.logIn(kApiKey);

  struct Case {
    const char* label;
    std::string path, token;
    httplib::Headers headers;
  };
  std::vector<Case> cases = {
      {"no token", accept, "", {}},
      {"wrong token", accept, std::string(64, 'a'), {}},
      {"token of another login", accept, other.csrfOf(id), {}},
      {"foreign origin", accept, csrf, {{"Origin", foreign}}},
      {"foreign referer", accept, csrf, {{"Referer", foreign + "/page"}}},
      {"cross-site fetch", accept, csrf, {{"Sec-Fetch-Site", "cross-site"}}},
      {"opaque origin from another site",
       accept,
       csrf,
       {{"Origin", "null"}, {"Sec-Fetch-Site", "same-site"}}},
      {"accept all without token", "/app/sessions/" + id + "/accept", "", {}},
      {"reject with foreign origin", reject, csrf, {{"Origin", foreign}}},
  };
  for (const Case& c : cases) {
    Page reply = browser_.review(c.path, c.token, c.headers);
    EXPECT_EQ(reply.status, 403) << c.label;
    EXPECT_TRUE(json::parse(reply.body).value_or(Json()).contains("error")) << c.label;
  }
  // A key instead of a login cannot review either: there is no token to match.
  Page byKey = browser_.post(accept + "?apiKey=" + kApiKey, "csrf=" + csrf, {}, false);
  EXPECT_EQ(byKey.status, 403);
  // Without a login at all, a browser is sent to log in and back to the test page.
  Page loggedOut = browser_.post(accept, "csrf=" + csrf, {}, false);
  EXPECT_EQ(loggedOut.status, 303);
  EXPECT_EQ(loggedOut.header("Location"), "/app/login?next=/app/sessions/" + id);

  EXPECT_EQ(results(id)["status"], "Unresolved");
  EXPECT_EQ(harness_.runTest(test_, {kPlain, kMarked}, false)["status"], "Unresolved");
  // Our own page's form (opaque origin under no-referrer, but same-origin) goes through.
  Page own = browser_.review(accept, csrf, {{"Origin", "null"}});
  EXPECT_EQ(own.status, 303);
  EXPECT_EQ(own.header("Location"), "/app/sessions/" + id + "#step-2");
}

TEST_F(WebTest, ReviewsDecideTheStatusAndTheNextRun) {
  std::string id = changedSession();
  browser_.logIn(kApiKey);
  std::string csrf = browser_.csrfOf(id);
  std::string base = "/app/sessions/" + id;

  // Rejected: the test fails and the old baseline holds.
  EXPECT_EQ(browser_.review(base + "/steps/2/reject", csrf).status, 303);
  EXPECT_EQ(results(id)["status"], "Failed");
  EXPECT_TRUE(contains(browser_.get(base).body, "data-step=\"2\" data-status=\"rejected\""));
  EXPECT_EQ(harness_.runTest(test_, {kPlain, kMarked}, false)["status"], "Unresolved");

  // Accepted after all: the test passes and the change is the baseline of the next run.
  Page reply = browser_.review(base + "/steps/2/accept", csrf, {{"Accept", "application/json"}});
  ASSERT_EQ(reply.status, 200) << reply.body;
  Json body = json::parse(reply.body).value_or(Json());
  EXPECT_EQ(body["status"], "Passed");
  EXPECT_EQ(body["step"], Json({{"step", 2}, {"status", "accepted"}}));
  EXPECT_EQ(results(id)["status"], "Passed");
  std::string page = browser_.get(base).body;
  expectParts(page, {"id=\"test-status\" class=\"status Passed\">Passed<",
                     "data-step=\"2\" data-status=\"accepted\""});
  std::vector<bool> verdicts;
  EXPECT_EQ(harness_.runTest(test_, {kPlain, kMarked}, false, &verdicts)["status"], "Passed");
  EXPECT_EQ(verdicts, std::vector<bool>({true, true}));

  // Wrong step, wrong method, unknown session: JSON errors.
  EXPECT_EQ(browser_.review(base + "/steps/3/accept", csrf).status, 404);
  EXPECT_EQ(browser_.review(base + "/steps/0/reject", csrf).status, 404);
  EXPECT_EQ(browser_.get(base + "/steps/1/accept").status, 405);
  EXPECT_EQ(browser_.review("/app/sessions/ABC-1/accept", csrf).status, 404);

  // Accepting all of a new test makes its baseline; a running session cannot be reviewed yet.
  SessionSpec fresh = test_;
  fresh.name = "new test";
  std::string newId = harness_.runTest(fresh, {kPlain, kMarked}, false)["id"];
  EXPECT_EQ(results(newId)["status"], "Unresolved");
  std::string running = harness_.start(fresh).body["id"];
  EXPECT_EQ(browser_.review("/app/sessions/" + running + "/accept", csrf).status, 409);
  harness_.stop(running, true, false);
  Page accepted = browser_.review("/app/sessions/" + newId + "/accept", csrf);
  EXPECT_EQ(accepted.status, 303);
  EXPECT_EQ(accepted.header("Location"), "/app/sessions/" + newId);
  EXPECT_EQ(results(newId)["status"], "Passed");
  EXPECT_EQ(harness_.start(fresh).status, 200);
  EXPECT_EQ(harness_.runTest(fresh, {kPlain, kMarked}, false)["status"], "Passed");
}

TEST_F(WebTest, PagesShowTheMarkupHooksAndEscapeStoredText) {
  SessionSpec hostile = test_;
  hostile.app = "<script>alert(1)</script>";
  hostile.name = "\"><img src=x onerror=alert(2)>";
  hostile.batchName = "<b>batch</b>";
  hostile.batchId = "id/with \"quotes\"";
  std::string first = harness_.start(hostile).body["id"];
  harness_.match(first, matchBody(kPlain, "<i>tag</i>"));
  harness_.stop(first, false, true);
  std::string id = harness_.start(hostile).body["id"];
  Json settings = wireSettings("Strict", Json::array({region(25, 20, 10, 8)}));
  settings["Floating"] = Json::parse(R"([{"left": 20, "top": 5, "width": 10, "height": 10,
      "maxUpOffset": 2, "maxDownOffset": 2, "maxLeftOffset": 2, "maxRightOffset": 2}])");
  harness_.match(id, matchBody(kMarked, "<i>tag</i>", false, settings));
  harness_.stop(id, false, false);
  browser_.logIn(kApiKey);

  std::string batches = browser_.get("/app/batches").body;
  std::string batch = browser_.get("/app/batches/" + percentEncode(hostile.batchId)).body;
  std::string page = browser_.get("/app/sessions/" + id).body;
  for (const std::string* html : {&batches, &batch, &page}) {
    EXPECT_FALSE(contains(*html, "<script>alert")) << *html;
    EXPECT_FALSE(contains(*html, "<img src=x")) << *html;
    EXPECT_FALSE(contains(*html, "<b>batch")) << *html;
    EXPECT_FALSE(contains(*html, "<i>tag")) << *html;
  }
  expectParts(batches,
              {"<table id=\"batches\">", "class=\"batch-link\"", "&lt;b&gt;batch&lt;/b&gt;"});
  expectParts(batch, {"<tr class=\"test\" data-status=\"Unresolved\">",
                      "class=\"test-link\" href=\"/app/sessions/" + id + "\""});
  // The step's regions are drawn over its current image in image pixels.
  expectParts(
      page, {"&lt;script&gt;alert(1)&lt;/script&gt;", "data-step=\"1\" data-status=\"mismatched\"",
             "<img class=\"baseline\"", "<img class=\"current\"", "<img class=\"diff\"",
             "id=\"accept-all\"", "class=\"accept\"", "class=\"reject\"", "id=\"step-list\"",
             "data-kind=\"ignore\"><rect x=\"25\" y=\"20\" width=\"10\"",
             "data-kind=\"floating\"><rect x=\"20\" y=\"5\"", "viewBox=\"0 0 40 30\""});
}

// An accept over a baseline that moved on is explained on a page whose button confirms it; a
// baseline's page rolls back to an earlier version.
TEST_F(WebTest, StaleAcceptsAskForConfirmationAndVersionsRollBack) {
  std::string old = changedSession();
  std::string newer = harness_.start(test_).body["id"];  // compared with the same version
  harness_.match(newer, matchBody(kPlain, "step 1"));
  harness_.match(newer, matchBody(kOther, "step 2"));
  harness_.stop(newer, false, false);
  browser_.logIn(kApiKey);
  std::string csrf = browser_.csrfOf(newer);
  EXPECT_EQ(browser_.review("/app/sessions/" + newer + "/accept", csrf).status, 303);

  const std::string accept = "/app/sessions/" + old + "/steps/2/accept";
  Page refused = browser_.review(accept, csrf);
  EXPECT_EQ(refused.status, 409);
  expectParts(refused.body,
              {"id=\"stale-message\"", "action=\"" + accept + "\"", "name=\"confirm\" value=\"1\"",
               "compared with version 1 of the baseline, which is now at version 2"});
  EXPECT_EQ(results(old)["status"], "Unresolved");
  Page confirmed =
      browser_.post(accept, "csrf=" + csrf + "&confirm=1",
                    {{"Origin", browser_.origin()}, {"Sec-Fetch-Site", "same-origin"}});
  EXPECT_EQ(confirmed.status, 303);
  EXPECT_EQ(results(old)["status"], "Passed");

  Json document = results(old);
  std::string baseline = "/app/baselines/" + std::to_string(document.value("baselineId", 0));
  EXPECT_TRUE(contains(browser_.get("/app/sessions/" + old).body,
                       "id=\"baseline-link\" href=\"" + baseline + "\""));
  std::string page = browser_.get(baseline).body;
  EXPECT_TRUE(contains(page, "data-version=\"3\" data-current=\"true\""));
  EXPECT_EQ(browser_.review(baseline + "/versions/1/rollback", csrf).status, 303);
  EXPECT_TRUE(contains(browser_.get(baseline).body, "data-version=\"4\" data-current=\"true\""));
  EXPECT_EQ(harness_.runTest(test_, {kPlain, kPlain}, false)["status"], "Passed");
  EXPECT_EQ(browser_.review(baseline + "/versions/9/rollback", csrf).status, 404);
  EXPECT_EQ(browser_.review(baseline + "/versions/1/rollback", "forged").status, 403);
}

// A batch-wide accept shows how many steps of how many tests it accepts, takes them all in one
// request, and is refused when sent twice or from an outdated confirmation. The reviewer's
// last decision is undone whole (verdicts, statuses, baselines) and only once; a step decision
// sent twice, or from a page that no longer shows the step's state, changes nothing. Over the
// API, tests compared with a baseline that moved on are named and accepted only when confirmed,
// and undoing the accept of a new test removes the baseline it made.
TEST_F(WebTest, BatchAcceptUndoAndRepeatedDecisions) {
  SessionSpec week = test_;
  week.name = "week view";
  std::string month = changedSession();  // step 2 changed
  harness_.runTest(week, {kPlain, kPlain}, true);
  std::string weekId = harness_.runTest(week, {kMarked, kOther, kPlain}, false)["id"];  // 3 open
  std::string running = harness_.start(week).body["id"];
  browser_.logIn(kApiKey);
  const std::string batch = "/app/batches/" + test_.batchId;
  std::string batchPage = browser_.get(batch).body;
  expectParts(batchPage, {"id=\"batch-accept\"",
                          "id=\"undo-button\" title=\"Undo your last decision (u)\" disabled"});
  std::string confirm = browser_.get(batch + "?accept=1").body;
  expectParts(confirm, {"This accepts <b>4 steps</b> in <b>2 tests</b>", "1 test is left out"});
  const std::string csrf = fieldIn(confirm, "csrf");
  const std::string state = fieldIn(confirm, "state");
  ASSERT_EQ(state.size(), 16u);
  auto acceptBatch = [&](const std::string& fields) {
    return browser_.review(batch + "/accept", csrf + fields);
  };
  auto statuses = [&] {
    return std::vector<std::string>{results(month)["status"], results(weekId)["status"]};
  };
  const std::vector<std::string> unresolved = {"Unresolved", "Unresolved"};

  EXPECT_EQ(acceptBatch("&state=0123456789abcdef").status, 409);
  EXPECT_EQ(statuses(), unresolved);
  Page accepted = acceptBatch("&state=" + state);
  EXPECT_EQ(accepted.status, 303) << accepted.body;
  EXPECT_EQ(accepted.header("Location"), batch);
  EXPECT_EQ(statuses(), std::vector<std::string>({"Passed", "Passed"}));
  Page twice = acceptBatch("&state=" + state);
  EXPECT_EQ(twice.status, 409);
  EXPECT_TRUE(contains(twice.body, "id=\"refusal\"")) << twice.body;
  EXPECT_EQ(acceptBatch("").status, 409) << "nothing left to accept";

  // Undo restores both tests and their baselines; the same undo again is refused.
  const std::string decision = fieldIn(browser_.get(batch).body, "decision");
  ASSERT_FALSE(decision.empty());
  auto undo = [&](const std::string& which) {
    return browser_.review("/app/undo", csrf + "&decision=" + which + "&next=" + batch);
  };
  Page undone = undo(decision);
  EXPECT_EQ(undone.status, 303);
  EXPECT_EQ(undone.header("Location"), batch);
  EXPECT_EQ(statuses(), unresolved);
  EXPECT_EQ(undo(decision).status, 409);
  EXPECT_EQ(statuses(), unresolved);
  std::string baseline = "/app/baselines/" + std::to_string(results(month).value("baselineId", 0));
  EXPECT_TRUE(contains(browser_.get(baseline).body, "undo from <a")) << baseline;
  SessionSpec check = test_;
  check.batchId = "CHECK";
  EXPECT_EQ(harness_.runTest(check, {kPlain, kMarked}, false)["status"], "Unresolved");

  // Step decisions: the same one twice, or one made on a page showing another state, is refused.
  const std::string step = "/app/sessions/" + month + "/steps/2/";
  EXPECT_EQ(browser_.review(step + "reject", csrf + "&state=mismatched").status, 303);
  EXPECT_EQ(browser_.review(step + "reject", csrf).status, 409);
  Page outdated = browser_.review(step + "accept", csrf + "&state=mismatched");
  EXPECT_EQ(outdated.status, 409);
  EXPECT_TRUE(contains(outdated.body, "it is rejected now")) << outdated.body;
  EXPECT_EQ(results(month)["status"], "Failed");
  EXPECT_EQ(browser_.review(step + "accept", csrf + "&state=rejected").status, 303);
  EXPECT_EQ(results(month)["status"], "Passed");
  const std::string last = fieldIn(browser_.get("/app/sessions/" + month).body, "decision");
  EXPECT_EQ(undo(last).status, 303);
  EXPECT_EQ(results(month)["status"], "Failed") << "the verdict before was the rejection";

  // The API: a test whose baseline moved on is named, and accepted only when confirmed.
  SessionSpec elsewhere = week;
  elsewhere.batchId = "ELSEWHERE";
  std::string newer = harness_.runTest(elsewhere, {kPlain, kPlain, kPlain}, false)["id"];
  EXPECT_EQ(harness_.send("POST", "/api/sessions/" + newer + "/accept?apiKey=" + kApiKey).status,
            200);
  const std::string api = "/api/batches/" + test_.batchId + "/accept?apiKey=" + kApiKey;
  Reply stale = harness_.send("POST", api);
  EXPECT_EQ(stale.status, 409);
  ASSERT_EQ(stale.body["stale"].size(), 1u) << stale.body;
  EXPECT_EQ(stale.body["stale"][0]["id"], weekId);
  EXPECT_EQ(statuses(), std::vector<std::string>({"Failed", "Unresolved"}));
  Reply forced = harness_.send("POST", api + "&confirm=true");
  EXPECT_EQ(forced.status, 200) << forced.body;
  EXPECT_EQ(forced.body["steps"], 3) << "the rejected step stays rejected";
  EXPECT_EQ(statuses(), std::vector<std::string>({"Failed", "Passed"}));
  const std::string apiUndo = "/api/undo?apiKey=" + std::string(kApiKey);
  EXPECT_EQ(harness_.send("POST", apiUndo).body["undone"]["scope"], "batch");
  EXPECT_EQ(harness_.send("POST", apiUndo).body["undone"]["scope"], "test");
  EXPECT_EQ(harness_.send("POST", apiUndo).status, 409) << "the page's decisions are its own";
  EXPECT_EQ(results(newer)["status"], "Unresolved");
  EXPECT_EQ(statuses(), std::vector<std::string>({"Failed", "Unresolved"}));

  // Undoing the accept that made a new test's baseline removes that baseline again.
  SessionSpec fresh = test_;
  fresh.name = "fresh";
  fresh.batchId = "FRESH";
  std::string freshId = harness_.runTest(fresh, {kPlain}, false)["id"];
  EXPECT_EQ(harness_.send("POST", "/api/sessions/" + freshId + "/accept?apiKey=" + kApiKey).status,
            200);
  EXPECT_EQ(harness_.send("POST", apiUndo).status, 200);
  Reply again = harness_.start(fresh);
  EXPECT_EQ(again.status, 201) << "a new test again";
  harness_.stop(again.body["id"], true, false);
  harness_.stop(running, true, false);
}

// The review page lists the steps that need a decision first (changed and new, in step order)
// and folds the matched ones; the counts and the status filter (which works without script)
// come from the server; a changed step lists its changed areas; images load lazily, by content.
TEST_F(WebTest, ReviewPageOrdersCountsAndFiltersSteps) {
  harness_.runTest(test_, {kPlain, kPlain, kPlain}, true);
  std::string id = harness_.start(test_).body["id"];
  harness_.match(id, matchBody(kPlain, "step 1"));
  harness_.match(id, matchBody(kMarked, "step 2"));
  harness_.match(id, matchBody(kPlain, "step 3"));
  harness_.match(id, matchBody(kMarked, "beyond the baseline"));
  harness_.stop(id, false, false);
  browser_.logIn(kApiKey);
  std::string base = "/app/sessions/" + id;
  std::string page = browser_.get(base).body;

  std::vector<std::size_t> order;
  for (const char* part : {"id=\"step-2\"", "id=\"step-4\"", "id=\"matched-steps\"",
                           "id=\"step-1\"", "id=\"step-3\""}) {
    order.push_back(page.find(part));
    EXPECT_NE(order.back(), std::string::npos) << part;
  }
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << page;
  for (const char* count :
       {"?status=mismatched\"><b>1</b> changed", "?status=new\"><b>1</b> new",
        "?status=matched\"><b>2</b> matched", "?status=missing\"><b>0</b> missing"}) {
    EXPECT_TRUE(contains(page, base + count)) << count;
  }
  expectParts(page, {"class=\"changed-pixels\"", "<rect class=\"change\""});
  EXPECT_TRUE(std::regex_search(page, std::regex("class=\"box\" data-box=\"0\" data-x=\"\\d+\"")));
  std::ptrdiff_t images = countMatches(page, "<img ");
  std::ptrdiff_t lazy = countMatches(page, "<img [^>]*loading=\"lazy\"");
  EXPECT_GT(images, 4);
  EXPECT_EQ(images, lazy) << "every image loads only when shown";
  EXPECT_TRUE(std::regex_search(page, std::regex("src=\"/app/images/[0-9a-f]{64}\\.png\"")));

  std::string filtered = browser_.get(base + "?status=new").body;
  expectParts(filtered, {"data-step=\"2\" data-status=\"mismatched\" data-name=\"step 2\" hidden>",
                         "data-step=\"4\" data-status=\"new\" data-name=\"beyond the baseline\">",
                         "?status=new\" aria-current=\"true\""});
  // An unknown filter shows everything.
  EXPECT_FALSE(contains(browser_.get(base + "?status=%3Cx%3E").body, " hidden>"));
}

// Images named by their content are kept by the browser for good; the addresses by step, whose
// image an accept may change, are revalidated. Thumbnails are small; unknown images and
// readers without a login are refused.
TEST_F(WebTest, ImagesAreCachedByContent) {
  std::string id = changedSession();
  browser_.logIn(kApiKey);
  std::string page = browser_.get("/app/sessions/" + id).body;
  std::smatch found;
  ASSERT_TRUE(std::regex_search(page, found, std::regex("/app/images/([0-9a-f]{64})\\.png")));
  std::string imageId = found[1];
  Page image = browser_.get(found[0]);
  EXPECT_EQ(image.status, 200);
  EXPECT_EQ(image.header("Content-Type"), "image/png");
  EXPECT_TRUE(contains(image.header("Cache-Control"), "immutable"));
  EXPECT_EQ(image.header("ETag"), "\"" + imageId + "\"");
  Page again = browser_.get(found[0], {{"If-None-Match", "\"" + imageId + "\""}});
  EXPECT_EQ(again.status, 304);
  EXPECT_TRUE(again.body.empty());
  Page thumb = browser_.get("/app/thumbs/" + imageId + ".png");
  ASSERT_EQ(thumb.status, 200);
  EXPECT_NO_THROW(Image::fromPNGData(reinterpret_cast<const std::uint8_t*>(thumb.body.data()),
                                     thumb.body.size()));
  EXPECT_EQ(browser_.get("/app/images/" + std::string(64, '0') + ".png").status, 404);
  EXPECT_EQ(harness_.send("GET", "/app/images/" + imageId + ".png").status, 401);

  std::string byStep = "/api/sessions/" + id + "/steps/2/current.png";
  Page step = browser_.get(byStep);
  EXPECT_EQ(step.header("Cache-Control"), "private, no-cache");
  EXPECT_EQ(browser_.get(byStep, {{"If-None-Match", step.header("ETag")}}).status, 304);
}

TEST(Thumbnail, ShrinksByAveragingAndNeverToNothing) {
  std::vector<std::uint8_t> rgba(300 * 100 * 4, 255);
  for (std::size_t y = 0; y < 100; ++y) {
    for (std::size_t x = 0; x < 150; ++x) std::fill_n(&rgba[(y * 300 + x) * 4], 3, 0);
  }
  auto small = Image::fromPNGData(makeThumbnail(Image(300, 100, rgba), 128, 128));
  ASSERT_EQ(small->width(), 128u);
  ASSERT_EQ(small->height(), 43u);
  EXPECT_EQ(small->pixel(0, 0)[0], 0);
  EXPECT_EQ(small->pixel(127, 42)[0], 255);
  EXPECT_EQ(small->pixel(127, 42)[3], 255);
  // A column of one pixel stays one pixel wide; a small image is not enlarged.
  EXPECT_EQ(Image::fromPNGData(makeThumbnail(Image(1, 1000), 128, 128))->width(), 1u);
  EXPECT_EQ(Image::fromPNGData(makeThumbnail(Image(40, 30), 128, 128))->width(), 40u);
}

// The batch list: name (the id when there is none), applications, branches, tests by status,
// and state; a search by any of them (its wildcard characters taken literally); 50 to a page.
TEST_F(WebTest, BatchListSearchesAndPages) {
  SessionSpec shop = test_;
  shop.app = "Shop";
  shop.branch = "feature/cart";
  shop.batchId = "B-shop";
  shop.batchName = "100% cart";
  harness_.runTest(shop, {kPlain}, true);
  harness_.closeBatch("B-shop");
  SessionSpec unnamed = test_;
  unnamed.batchId = "B-unnamed";
  unnamed.batchName = "";
  harness_.start(unnamed);  // still running
  for (int i = 0; i < 50; ++i) {
    SessionSpec filler = test_;
    filler.batchId = "B-" + std::to_string(i);
    filler.batchName = "filler " + std::to_string(i);
    std::string id = harness_.start(filler).body["id"];
    harness_.stop(id, false, false);
  }
  browser_.logIn(kApiKey);
  auto rows = [](const std::string& html) { return countMatches(html, "<tr class=\"batch\""); };
  std::string first = browser_.get("/app/batches").body;
  EXPECT_EQ(rows(first), 50);
  // The newest batches come first: the last filler is on page 1, the unnamed one shows its id.
  expectParts(first, {"Page 1 of 2 (52 batches)", "rel=\"next\" href=\"/app/batches?page=2\"",
                      "filler 49", "data-state=\"finished\""});
  std::string second = browser_.get("/app/batches?page=2").body;
  EXPECT_EQ(rows(second), 2);
  expectParts(second, {"data-state=\"closed\"", "100% cart", "<td class=\"apps\">Shop</td>",
                       "<td class=\"branches\">feature/cart</td>",
                       "<span class=\"tally Passed\">1 passed</span>"});
  expectParts(first + second, {"<code>B-unnamed</code></a>", "data-state=\"running\""});

  struct SearchCase {
    std::string query;
    std::int64_t found;
  };
  for (const auto& [query, count] :
       std::vector<SearchCase>{{"SHOP", 1},
                               {"cart", 1},
                               {"100%", 1},
                               {"0%", 1},
                               {"%", 1},
                               {"_", 0},
                               {"filler 4", 11},
                               {"b-unNamed", 1},
                               {"calendar", 50},  // of 51, on the first page
                               {"nothing like it", 0}}) {
    std::string html = browser_.get("/app/batches?q=" + percentEncode(query)).body;
    EXPECT_EQ(rows(html), count) << query;
  }
  EXPECT_TRUE(contains(browser_.get("/app/batches?q=%3Cb%3E").body, "value=\"&lt;b&gt;\""));
}

// A database as the first release wrote it: no step settings, no reviews, no baseline versions.
constexpr const char* kFirstSchema = R"sql(
CREATE TABLE batches(id TEXT PRIMARY KEY, name TEXT, started_at TEXT, sequence_name TEXT,
  is_closed INTEGER NOT NULL DEFAULT 0, closed_at INTEGER);
CREATE TABLE baselines(id INTEGER PRIMARY KEY, key TEXT NOT NULL UNIQUE,
  updated_at INTEGER NOT NULL);
CREATE TABLE baseline_steps(baseline_id INTEGER NOT NULL REFERENCES baselines(id),
  position INTEGER NOT NULL, tag TEXT NOT NULL, image TEXT NOT NULL,
  PRIMARY KEY(baseline_id, position));
CREATE TABLE sessions(id TEXT PRIMARY KEY, token TEXT NOT NULL, info TEXT NOT NULL,
  baseline_key TEXT NOT NULL, baseline_id INTEGER, is_new INTEGER NOT NULL,
  started_at INTEGER NOT NULL, batch_id TEXT NOT NULL, outcome TEXT);
CREATE TABLE steps(session_id TEXT NOT NULL REFERENCES sessions(id), position INTEGER NOT NULL,
  tag TEXT NOT NULL, current_image TEXT NOT NULL, baseline_image TEXT, diff_image TEXT,
  as_expected INTEGER NOT NULL, match_level TEXT NOT NULL, accessibility TEXT,
  PRIMARY KEY(session_id, position));
INSERT INTO batches(id, name) VALUES('OLD', 'old batch');
INSERT INTO sessions VALUES('OLD-1', 'tok', '{"appName":"Legacy","testName":"home"}', 'k', NULL,
  1, 1700000000, 'OLD', '{"status":"Unresolved","missing":[]}');
INSERT INTO steps VALUES('OLD-1', 0, 'start', 'ab', NULL, NULL, 1, 'Strict', NULL);
)sql";

// The upgrade keeps the old data: its sessions keep their pages and can be reviewed, its
// baseline (of the default test, two steps) becomes version 1 and new runs pair with its steps
// by tag, and a missing step of an old session is still shown and can be accepted (the step
// is dropped). New steps keep their settings.
TEST(Migration, AFirstReleaseDatabaseIsUpgradedAndKeepsItsData) {
  TempFolder folder;
  {
    const std::string plain = Store::imageIdOf(kPlain), marked = Store::imageIdOf(kMarked);
    const std::string key = json::write(Json::array(
        {"Calendar", "month view", "Linux 6.1", "Unit tests", 375.0, 667.0, "", "default"}));
    const std::string sql =
        kFirstSchema + ("INSERT INTO baselines VALUES(1, '" + key + "', 1700000000);") +
        "INSERT INTO baseline_steps VALUES(1, 0, 'home', '" + plain + "'), (1, 1, 'menu', '" +
        marked + "');" +
        "INSERT INTO sessions VALUES('OLD-2', 'tok', '{}', 'k', 1, 0, 1700000000, 'B', "
        "'{\"status\":\"Unresolved\",\"missing\":[{\"position\":1,\"tag\":\"menu\",\"image\":\"" +
        marked + "\"}]}');";
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((folder.path() / "saffra.db").c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    std::unique_ptr<Store> store = openStore(folder.path().string());
    store->putImage(kPlain);
    store->putImage(kMarked);
    EXPECT_EQ(store->schemaVersion(), 5);
  }
  Harness harness(folder.path());
  Browser browser(harness);
  browser.logIn(kApiKey);
  Page page = browser.get("/app/sessions/OLD-1");
  EXPECT_EQ(page.status, 200);
  expectParts(page.body, {"Legacy / home", "data-step=\"1\" data-status=\"new\""});
  EXPECT_TRUE(contains(browser.get("/app/batches").body, "old batch"));
  EXPECT_EQ(browser.review("/app/sessions/OLD-1/steps/1/reject", browser.csrfOf("OLD-1")).status,
            303);
  EXPECT_EQ(harness.fetch("/api/sessions/OLD-1", {{"Accept", "application/json"}}).body["status"],
            "Failed");

  // The menu first, then home: both pair by tag with the migrated steps.
  std::string id = harness.start(SessionSpec{}).body["id"];
  Json ignore = wireSettings("Strict", Json::array({region(1, 1, 5, 5)}));
  EXPECT_EQ(harness.match(id, matchBody(kMarked, "menu", false, ignore)).body["asExpected"], true);
  EXPECT_EQ(harness.match(id, matchBody(kPlain, "home")).body["asExpected"], true);
  EXPECT_EQ(differences(harness.stop(id, false, false).body, R"({"/status": "Passed",
      "/baselineVersion": 1, "/baselineBranchName": "default", "/matches": 2})"),
            "");
  EXPECT_TRUE(contains(browser.get("/app/sessions/" + id).body, "data-kind=\"ignore\""));

  const std::string key = "?apiKey=" + std::string(kApiKey);
  EXPECT_EQ(harness.send("GET", "/api/sessions/OLD-2/steps/2/baseline.png" + key).bytes(), kMarked);
  Reply accepted = harness.send("POST", "/api/sessions/OLD-2/steps/2/accept" + key);
  EXPECT_EQ(accepted.status, 200) << accepted.raw;
}

TEST(WebAccess, RequestSourcesAndReturnPaths) {
  struct SourceCase {
    RequestSource source;
    bool foreign;
  };
  const std::string host = "127.0.0.1:7600";
  for (const auto& [source, foreign] : std::vector<SourceCase>{
           {{host, "", "", ""}, false},
           {{host, "http://127.0.0.1:7600", "", "same-origin"}, false},
           {{host, "HTTP://127.0.0.1:7600", "", ""}, false},
           {{host, "", "http://127.0.0.1:7600/app/sessions/x?apiKey=k", ""}, false},
           {{host, "http://127.0.0.1:7601", "", ""}, true},
           {{host, "https://127.0.0.1:7600", "", ""}, true},
           {{host, "", "http://127.0.0.1:7600.evil.example/", ""}, true},
           {{host, "", "", "cross-site"}, true},
           {{host, "http://127.0.0.1:7600", "", "cross-site"}, true},
           {{host, "null", "", ""}, true},
           {{host, "null", "", "same-origin"}, false}}) {
    EXPECT_EQ(isForeignRequest(source), foreign)
        << source.origin << " | " << source.referer << " | " << source.secFetchSite;
  }
  EXPECT_EQ(cookieValue("a=1; saffra_login=xyz ;b=2", "saffra_login"), "xyz");
  EXPECT_EQ(cookieValue("xsaffra_login=1", "saffra_login"), std::nullopt);
}

}  // namespace
}  // namespace saffra::server::testing
