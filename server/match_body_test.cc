// Reading the match window body: the quick reader of the whole body, held to the general way.
#include "server/match_body.h"

#include <gtest/gtest.h>

#include "server/base64.h"
#include "server/service_test_support.h"

namespace saffra::server {
namespace {

/// What the service reads from a body the general way: the parsed object and the decoded
/// screenshot, or nothing where it refuses the body.
struct GeneralRead {
  Json body;
  std::vector<std::uint8_t> screenshot;
};

std::optional<GeneralRead> readGenerally(std::string_view text) {
  std::optional<Json> body = json::parse(text);
  if (!body || !body->is_object()) return std::nullopt;
  const Json* appOutput = json::find(*body, "appOutput");
  const Json* value = appOutput ? json::find(*appOutput, "screenshot64") : nullptr;
  if (!value || !value->is_string() || value->get_ref<const std::string&>().empty()) {
    return std::nullopt;
  }
  auto bytes = decodeBase64(value->get_ref<const std::string&>());
  if (!bytes) return std::nullopt;
  (*body)["appOutput"]["screenshot64"] = "";
  return GeneralRead{std::move(*body), std::move(*bytes)};
}

// The quick reader takes the bodies it is meant for and gives what the general way gives;
// it leaves every other body to the general way.
TEST(MatchBodyTest, ReadsBodiesAsTheGeneralWayDoes) {
  std::vector<std::uint8_t> bytes(300);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 37 + 11);
  const std::string b64 = testing::base64WithLineBreaks(bytes);
  const Json wire = testing::matchBody(bytes, "home");
  struct Case {
    const char* label;
    std::string text;
    bool quick;
  };
  const std::vector<Case> cases = {
      {"as the client writes it", json::write(wire), true},
      {"indented", wire.dump(2), true},
      {"blanks around tokens",
       "\r\n { \"appOutput\" :\t{ \"screenshot64\" : " + Json(b64).dump() +
           " } , \"tag\" : [ 1 , {\"a\":\"}\"} ] } \n",
       true},
      {"escaped slashes and line breaks", R"({"appOutput":{"screenshot64":"+\/+\/\r\nZm9v\t"}})",
       true},
      {"padding and spaces", R"({"appOutput":{"screenshot64":" Zm9vYg== "}})", true},
      {"keys inside other strings",
       R"({"tag":"{\"appOutput\":{\"screenshot64\":\"AAAA\"}}","appOutput":{"x":"screenshot64",)"
       R"("screenshot64":"Zm9v"}})",
       true},
      {"the key at other depths",
       R"({"screenshot64":"AAAA","options":{"appOutput":{"screenshot64":"AAAA"}},)"
       R"("appOutput":{"screenshot64":"Zm9v","more":{"screenshot64":"BBBB"}}})",
       true},
      {"other escaped keys", R"({"t\u0061g":"x","appOutput":{"screenshot64":"Zm9v"}})", false},
      {"escaped appOutput key", R"({"app\u004Futput":{"screenshot64":"Zm9v"}})", false},
      {"escaped screenshot key", R"({"appOutput":{"screenshot\u0036\u0034":"Zm9v"}})", false},
      {"unicode escape in the text", R"({"appOutput":{"screenshot64":"Zm9\u0076"}})", false},
      {"quote escape in the text", R"({"appOutput":{"screenshot64":"Zm9v\""}})", false},
      {"doubled appOutput",
       R"({"appOutput":{"screenshot64":"AAAA"},"appOutput":{"screenshot64":"Zm9v"}})", false},
      {"doubled screenshot", R"({"appOutput":{"screenshot64":"AAAA","screenshot64":"Zm9v"}})",
       false},
      {"empty screenshot", R"({"appOutput":{"screenshot64":""}})", false},
      {"screenshot not text", R"({"appOutput":{"screenshot64":12}})", false},
      {"appOutput not an object", R"({"appOutput":["screenshot64","Zm9v"]})", false},
      {"not base64", R"({"appOutput":{"screenshot64":"iVBOR*w0KGgo="}})", false},
      {"text after padding", R"({"appOutput":{"screenshot64":"Zg==Zg=="}})", false},
      {"raw line break in the text", "{\"appOutput\":{\"screenshot64\":\"Zm9v\nYmFy\"}}", false},
      {"trailing text", R"({"appOutput":{"screenshot64":"Zm9v"}} x)", false},
      {"top level array", R"([{"appOutput":{"screenshot64":"Zm9v"}}])", false},
      {"missing colon", R"({"appOutput"{"screenshot64":"Zm9v"}})", false},
      {"unclosed", R"({"appOutput":{"screenshot64":"Zm9v"})", false},
  };
  for (const Case& c : cases) {
    std::optional<MatchBody> read = readMatchBody(c.text);
    EXPECT_EQ(read.has_value(), c.quick) << c.label;
    if (!read) continue;
    std::optional<GeneralRead> general = readGenerally(c.text);
    ASSERT_TRUE(general) << c.label;
    EXPECT_EQ(read->body, general->body) << c.label;
    EXPECT_EQ(read->screenshot, general->screenshot) << c.label;
  }

  // Every truncated body is refused.
  const std::string text = json::write(wire);
  for (std::size_t n = 0; n < text.size(); ++n) {
    EXPECT_FALSE(readMatchBody(std::string_view(text).substr(0, n))) << n;
  }
}

}  // namespace
}  // namespace saffra::server
