#include "saffra/service/http_request_builder.h"

#include <gtest/gtest.h>

#include <cmath>

namespace saffra {
namespace {

using Headers = std::vector<std::pair<std::string, std::string>>;

TEST(HTTPRequestBuilderTest, BodyAndExactlyTheFixedHeaders) {
  Json params = Json::object();
  params["startInfo"] = {{"appName", "Café/app"}, {"n", 1.0}};
  HttpRequest request =
      HTTPRequestBuilder::requestWithURL("http://localhost/api/sessions", params, "POST", 300);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, "http://localhost/api/sessions");
  EXPECT_EQ(request.timeoutSeconds, 300.0);
  ASSERT_TRUE(request.body);
  EXPECT_EQ(*request.body, R"({"startInfo":{"appName":"Café\/app","n":1}})");
  // "é" is two bytes in UTF-8: the length counts bytes.
  EXPECT_EQ(request.headers, (Headers{{"Content-Length", "44"},
                                      {"Content-Type", "application/json"},
                                      {"Accept", "application/json"}}));
}

TEST(HTTPRequestBuilderTest, WithoutParamsNoBodyAndNoLength) {
  HttpRequest request =
      HTTPRequestBuilder::requestWithURL("http://h/api/sessions/1", std::nullopt, "DELETE", 12);
  EXPECT_EQ(request.method, "DELETE");
  EXPECT_EQ(request.timeoutSeconds, 12.0);
  EXPECT_FALSE(request.body);
  EXPECT_EQ(request.headers,
            (Headers{{"Content-Type", "application/json"}, {"Accept", "application/json"}}));
}

TEST(HTTPRequestBuilderTest, UnwritableParamsGiveEmptyBody) {
  Json params = {{"scale", NAN}};
  HttpRequest request = HTTPRequestBuilder::requestWithURL("http://h/", params, "POST", 300);
  EXPECT_EQ(request.body, "");
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Length"), "0");
}

}  // namespace
}  // namespace saffra
