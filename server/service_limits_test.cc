// The service under hostile, slow and idle clients, over loopback: body limits that hold for
// chunked bodies, clients that trickle or idle beside a running check, key guessing, logins
// that clients without cookies cannot crowd out, batch ids of any characters and a data folder
// removed under the running service.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "server/service_test_support.h"
#include "server/web_access.h"
#include "testing/raw_connection.h"

namespace saffra::server::testing {
namespace {

using namespace std::chrono_literals;
using saffra::testing::RawConnection;

/// Resident memory of this process, in bytes.
std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

std::string withKey(const std::string& path, const std::string& key = kApiKey) {
  return path + (path.find('?') == std::string::npos ? "?" : "&") + "apiKey=" + key;
}

TEST(ServiceLimitsTest, ChunkedBodiesOverTheLimitAreRefusedWithoutGrowingMemory) {
  TempFolder folder;
  Harness service(folder.path(), 8u << 20);
  // 96 MB in 64 KB chunks, on a path without a route and without a key, from two clients.
  const std::string chunk = "10000\r\n" + std::string(1 << 16, 'z') + "\r\n";
  const std::size_t before = residentBytes();
  auto flood = [&] {
    RawConnection client(service.port());
    client.send("POST /anything HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
    for (int i = 0; i < 1536 && client.send(chunk); ++i) {
    }
    return RawConnection::statusOf(client.reply());
  };
  std::thread other([&] { EXPECT_EQ(flood(), 413); });
  EXPECT_EQ(flood(), 413);
  other.join();
  // Sanitizers keep freed blocks in quarantine and add shadow memory, so resident size says
  // nothing there; the plain build checks it.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(residentBytes() - std::min(before, residentBytes()), std::size_t{64} << 20);
#else
  (void)before;
#endif
  EXPECT_EQ(service.start(SessionSpec{}).status, 201);
}

TEST(ServiceLimitsTest, SlowAndIdleClientsDoNotHoldBackACheck) {
  TempFolder folder;
  Harness service(folder.path());
  // 32 kept-alive connections that made a request and now wait, and 16 that send their head
  // one byte at a time.
  std::vector<std::unique_ptr<RawConnection>> idle;
  const std::string ask = "GET " + withKey("/app/batches") + " HTTP/1.1\r\nHost: h\r\n\r\n";
  for (int i = 0; i < 32; ++i) {
    idle.push_back(std::make_unique<RawConnection>(service.port()));
    ASSERT_TRUE(idle.back()->send(ask));
    ASSERT_EQ(RawConnection::statusOf(idle.back()->reply()), 200);
  }
  std::vector<std::unique_ptr<RawConnection>> slow;
  for (int i = 0; i < 16; ++i) slow.push_back(std::make_unique<RawConnection>(service.port()));
  std::atomic<bool> done{false};
  std::thread trickle([&] {
    for (std::size_t i = 0; i < ask.size() - 2 && !done; ++i) {
      for (auto& client : slow) client->send(ask.substr(i, 1));
      std::this_thread::sleep_for(200ms);
    }
  });
  std::vector<bool> verdicts;
  Json results = service.runTest(SessionSpec{}, {kPlain, kMarked}, true, &verdicts);
  done = true;
  trickle.join();
  EXPECT_EQ(results.value("status", ""), "Passed") << results.dump();
  EXPECT_EQ(verdicts, (std::vector<bool>{true, true}));
  // The idle connections are still open and served.
  for (auto& client : idle) {
    ASSERT_TRUE(client->send(ask));
    EXPECT_EQ(RawConnection::statusOf(client->reply()), 200);
  }
}

TEST(ServiceLimitsTest, WrongKeysFromOneAddressAreThrottled) {
  TempFolder folder;
  Harness service(folder.path());
  auto status = [&](const std::string& source, const std::string& key) {
    RawConnection client(service.port(), source);
    client.send("POST " + withKey("/api/sessions/running", key) +
                " HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}");
    return RawConnection::statusOf(client.reply());
  };
  int refused = 0, throttled = 0;
  for (int i = 0; i < 100; ++i) {
    int s = status("127.0.0.1", "guess-" + std::to_string(i));
    refused += s == 401;
    throttled += s == 429;
  }
  EXPECT_EQ(refused + throttled, 100);
  EXPECT_LE(refused, 25);
  // The key is not even looked at while the address is throttled; other addresses are served.
  EXPECT_EQ(status("127.0.0.1", kApiKey), 429);
  EXPECT_EQ(status("127.0.0.2", kApiKey), 400);
  EXPECT_EQ(status("127.0.0.2", "wrong"), 401);
}

// Logins are signed, not held: another instance with the secret knows them, nothing else does,
// and a token changed in any part is refused.
TEST(ServiceLimitsTest, LoginsAreKnownByTheirSignatureOnly) {
  const Logins logins("secret"), sameSecret("secret"), otherSecret("other"),
      expired("secret", std::chrono::seconds(-1));
  const Logins::Login login = logins.create();
  ASSERT_TRUE(sameSecret.find(login.token));
  EXPECT_EQ(sameSecret.find(login.token)->csrf, login.csrf);
  EXPECT_NE(logins.create().csrf, login.csrf);
  std::string later = login.token;
  later[0] = later[0] == '9' ? '8' : '9';  // an expiry moved
  std::string forged = login.token;
  forged.back() = forged.back() == '0' ? '1' : '0';
  for (const auto& [token, finder] : std::vector<std::pair<std::string, const Logins*>>{
           {login.token, &otherSecret},
           {expired.create().token, &logins},
           {later, &logins},
           {forged, &logins},
           {"", &logins},
           {"1.2", &logins},
           {"x." + login.token.substr(login.token.find('.') + 1), &logins},
           {std::string(4000, 'a'), &logins}}) {
    EXPECT_FALSE(finder->find(token)) << token;
  }
}

// Only batches that sessions started can be closed, whatever characters their ids hold.
TEST(ServiceLimitsTest, BatchIdsOfAnyCharactersCanBeClosed) {
  TempFolder folder;
  Harness service(folder.path());
  for (const std::string id : {"release/1.2", "a b?c#d%e", "../x", "ünï"}) {
    SCOPED_TRACE(id);
    SessionSpec test;
    test.batchId = id;
    service.runTest(test, {kPlain}, true);
    Reply closed = service.closeBatch(percentEncode(id));
    EXPECT_EQ(closed.status, 200) << closed.raw;
    EXPECT_EQ(closed.body.value("id", ""), id);
    EXPECT_EQ(closed.body["isClosed"], true);
  }
  Reply unknown = service.closeBatch("unknown%2Fbatch");
  EXPECT_EQ(unknown.status, 404);
  EXPECT_TRUE(unknown.body.contains("error"));
}

TEST(ServiceLimitsTest, WritesAreRefusedOnceTheDataFolderIsGone) {
  struct Case {
    const char* name;
    std::function<void(const std::filesystem::path&)> change;
  };
  const Case cases[] = {
      {"removed", [](const auto& path) { std::filesystem::remove_all(path); }},
      {"replaced",
       [](const auto& path) {
         std::filesystem::rename(path, path.string() + "-old");
         std::filesystem::create_directories(path / "images");
         std::ofstream(path / "saffra.db") << "";
       }},
      {"database removed", [](const auto& path) { std::filesystem::remove(path / "saffra.db"); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempFolder folder;
    Harness service(folder.path());
    const std::string id = service.start(SessionSpec{}).body.value("id", "");
    ASSERT_FALSE(id.empty());
    c.change(folder.path());
    EXPECT_EQ(service.start(SessionSpec{}).status, 503);
    EXPECT_EQ(service.match(id, matchBody(kPlain, "step")).status, 503);
    EXPECT_EQ(service.stop(id, false, true).status, 503);
    std::error_code ignored;
    std::filesystem::remove_all(folder.path().string() + "-old", ignored);
  }
}

}  // namespace
}  // namespace saffra::server::testing
