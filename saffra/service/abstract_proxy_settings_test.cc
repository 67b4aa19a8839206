#include "saffra/service/abstract_proxy_settings.h"

#include <gtest/gtest.h>

#include "saffra/platform/exception.h"

namespace saffra {
namespace {

TEST(AbstractProxySettingsTest, ConstructorsAndDefaultPort) {
  AbstractProxySettings withCredentials("proxy.local", "user", "secret");
  EXPECT_EQ(withCredentials.port(), 888);
  EXPECT_EQ(withCredentials.username(), "user");
  EXPECT_EQ(withCredentials.password(), "secret");

  AbstractProxySettings withPort("http://proxy.local", 3128);
  EXPECT_EQ(withPort.uri(), "http://proxy.local");  // kept as given
  EXPECT_EQ(withPort.port(), 3128);
  EXPECT_EQ(withPort.username(), std::nullopt);
  EXPECT_EQ(withPort.password(), std::nullopt);
}

TEST(AbstractProxySettingsTest, ProxyDictionaryEntries) {
  struct Case {
    OptString username, password;
    const char* expected;
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt, R"({"HTTPEnable":true,"HTTPPort":3128,"HTTPProxy":"p"})"},
      {"", "", R"({"HTTPEnable":true,"HTTPPort":3128,"HTTPProxy":"p"})"},
      {"u", std::nullopt,
       R"({"HTTPEnable":true,"HTTPPort":3128,"HTTPProxy":"p","kCFProxyUsernameKey":"u"})"},
      {"", "pw",
       R"({"HTTPEnable":true,"HTTPPort":3128,"HTTPProxy":"p","kCFProxyPasswordKey":"pw"})"},
      {"u", "pw",
       R"({"HTTPEnable":true,"HTTPPort":3128,"HTTPProxy":"p","kCFProxyUsernameKey":"u",)"
       R"("kCFProxyPasswordKey":"pw"})"},
  };
  for (const auto& c : cases) {
    auto proxy = std::make_shared<AbstractProxySettings>("p", 3128, c.username, c.password);
    EXPECT_EQ(json::write(connectionProxyDictionaryFromProxy(proxy)), c.expected);
  }
}

TEST(AbstractProxySettingsTest, AbsentHostIsRejectedNamingTheKey) {
  for (const auto& proxy : {std::make_shared<AbstractProxySettings>(std::nullopt, 80),
                            std::shared_ptr<AbstractProxySettings>()}) {
    try {
      connectionProxyDictionaryFromProxy(proxy);
      FAIL() << "expected an exception";
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "NSInvalidArgumentException");
      EXPECT_NE(e.reason().find(kCFNetworkProxiesHTTPProxy), std::string::npos) << e.reason();
    }
  }
}

TEST(AbstractProxySettingsTest, TransportProxyFromDictionary) {
  auto proxy = std::make_shared<AbstractProxySettings>("127.0.0.1", 8899, "u", "");
  auto config = proxyConfigFromDictionary(connectionProxyDictionaryFromProxy(proxy));
  ASSERT_TRUE(config);
  EXPECT_EQ(config->host, "127.0.0.1");
  EXPECT_EQ(config->port, 8899);
  EXPECT_EQ(config->username, "u");
  EXPECT_EQ(config->password, std::nullopt);

  EXPECT_FALSE(proxyConfigFromDictionary(Json::object()));
  EXPECT_FALSE(proxyConfigFromDictionary(Json{{"HTTPEnable", false}, {"HTTPProxy", "h"}}));
  EXPECT_FALSE(proxyConfigFromDictionary(Json{{"HTTPEnable", true}, {"HTTPProxy", ""}}));
  EXPECT_FALSE(proxyConfigFromDictionary(Json::array()));
}

}  // namespace
}  // namespace saffra
