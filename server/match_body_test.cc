// Reading the match window body: the base64 text of its screenshot and the quick reader of
// the whole body, each held to the plain reading; and the cache of decoded baselines.
#include "server/match_body.h"

#include <gtest/gtest.h>

#include <thread>

#include "saffra/platform/internal/cpu.h"
#include "server/base64.h"
#include "server/image_cache.h"
#include "server/service_test_support.h"

namespace saffra::server {
namespace {

/// A value as JSON string text (with the escapes the readers accept), closed by its quote.
std::string asJson(std::string_view value) {
  std::string text;
  for (char c : value) {
    if (c == '\r') {
      text += "\\r";
    } else if (c == '\n') {
      text += "\\n";
    } else if (c == '\t') {
      text += "\\t";
    } else if (c == '/' || c == '"') {
      text += '\\';
      text += c;
    } else {
      text += c;
    }
  }
  return text + "\"}";
}

// Each text is read as plain text and, written as a JSON string, by the JSON string reader:
// both give the decoded bytes, or both refuse the text.
TEST(Base64Test, DecodesWhatItShouldAndRefusesTheRest) {
  using namespace std::string_view_literals;
  struct Case {
    std::string_view text;
    std::optional<std::string_view> decoded;
  };
  for (const Case& c : std::vector<Case>{
           {"", ""},
           {"Zg==", "f"},
           {"Zm8=", "fo"},
           {"Zm8", "fo"},
           {"Zm9v", "foo"},
           {"Zm9vYg", "foob"},  // padding left out
           {"Zm9vYmE", "fooba"},
           {"Zm9v\r\nYmFy", "foobar"},
           {" Zm9v\tYmFy\n", "foobar"},
           {"Zm9vYg\t==", "foob"},
           {"+/+/", "\xfb\xff\xbf"},
           {"////", "\xff\xff\xff"},
           {"ZmZmZmZmZmZmZmZm  ZmZm", "fffffffffffffff"},
           {"Z", std::nullopt},
           {"Zm9vY", std::nullopt},
           {"Zm9v=", std::nullopt},
           {"Zg===", std::nullopt},
           {"Zg=a", std::nullopt},
           {"Zg==Zg==", std::nullopt},
           {"Zm9v-_", std::nullopt},
           {"Zm9v\0xyz"sv, std::nullopt},
           {"Zm9v%AAA", std::nullopt},
           {"\xc3\xa9Zm9v", std::nullopt},
       }) {
    std::optional<std::vector<std::uint8_t>> expected;
    if (c.decoded) expected.emplace(c.decoded->begin(), c.decoded->end());
    EXPECT_EQ(decodeBase64(c.text), expected) << c.text;
    const std::string json = asJson(c.text);
    std::size_t length = 99;
    EXPECT_EQ(decodeBase64InJsonString(json, length), expected) << json;
    if (expected) {
      EXPECT_EQ(length, json.size() - 2) << json;
    }
  }
  std::size_t length = 0;
  EXPECT_FALSE(decodeBase64InJsonString("Zm9v", length)) << "no closing quote";
  EXPECT_FALSE(decodeBase64InJsonString("Zm9v\\", length)) << "cut inside an escape";
  EXPECT_FALSE(decodeBase64InJsonString(R"(Zm9v\b")", length));
}

TEST(Base64Test, ReadsTheClientsLineBrokenFormOfAllByteValues) {
  std::vector<std::uint8_t> all;
  for (int round = 0; round < 3; ++round) {
    for (int b = 0; b < 256; ++b) all.push_back(static_cast<std::uint8_t>(b));
    all.pop_back();  // vary the length modulo 3
  }
  for (std::size_t length : {all.size(), all.size() - 1, std::size_t{48}, std::size_t{49}}) {
    std::vector<std::uint8_t> input(all.begin(), all.begin() + static_cast<long>(length));
    std::string text = testing::base64WithLineBreaks(input);
    EXPECT_EQ(text.find("\r\n") != std::string::npos, length > 48) << length;
    EXPECT_EQ(decodeBase64(text), input) << length;
  }
}

// Lines of the client's form with one character replaced, at every place and by characters
// of every kind (alphabet, padding, blanks, escapes, others): the vector readers give what the
// portable plain reader gives for the string's value, read as JSON text or as plain text.
TEST(Base64Test, ReadersAgreeCharacterByCharacter) {
  std::vector<std::uint8_t> data(200);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i * 37 + 11);
  const std::string clean = testing::base64WithLineBreaks(data);
  for (std::size_t at = 0; at < clean.size(); ++at) {
    for (const char c : {'A', 'z', '0', '+', '/', '=', '-', ' ', '\t', '"', '\x80', '\0'}) {
      std::string value = clean;
      value[at] = c;
      const std::string text = asJson(value);
      cpu::useBaselineKernels(true);
      const auto expected = decodeBase64(value);
      for (const bool baseline : {true, false}) {
        cpu::useBaselineKernels(baseline);
        std::size_t length = 0;
        const auto quick = decodeBase64InJsonString(text, length);
        ASSERT_EQ(quick, expected) << "at " << at << " " << int(c) << " " << baseline;
        ASSERT_EQ(decodeBase64(value), expected) << "at " << at << " " << int(c) << " " << baseline;
        if (quick) {
          ASSERT_EQ(length, text.size() - 2);
        }
      }
    }
  }
  cpu::useBaselineKernels(false);
  ASSERT_EQ(decodeBase64(clean), data);
}

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

std::shared_ptr<const Image> imageOfBytes(std::size_t pixels) {
  return std::make_shared<Image>(pixels, 1);
}

TEST(ImageCacheTest, KeepsTheRecentlyUsedWithinItsBound) {
  ImageCache cache(400);  // 100 RGBA pixels
  cache.insert("a", imageOfBytes(40));
  cache.insert("b", imageOfBytes(40));
  EXPECT_TRUE(cache.find("a"));  // now "b" is the least recently used
  cache.insert("c", imageOfBytes(40));
  EXPECT_TRUE(cache.find("a"));
  EXPECT_FALSE(cache.find("b"));
  EXPECT_TRUE(cache.find("c"));
  EXPECT_EQ(cache.bytes(), 320u);

  cache.insert("c", imageOfBytes(10));  // replaced, not counted twice
  EXPECT_EQ(cache.bytes(), 200u);
  EXPECT_EQ(cache.find("c")->width(), 10u);

  cache.insert("huge", imageOfBytes(101));
  EXPECT_FALSE(cache.find("huge"));
  EXPECT_EQ(cache.bytes(), 200u);
  cache.insert("d", imageOfBytes(100));  // everything else goes
  EXPECT_FALSE(cache.find("a"));
  EXPECT_EQ(cache.bytes(), 400u);

  ImageCache none(0);
  none.insert("a", imageOfBytes(1));
  EXPECT_FALSE(none.find("a"));
}

TEST(ImageCacheTest, IsSafeToShareBetweenThreads) {
  ImageCache cache(4 * 64 * 10);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&cache, t] {
      for (int i = 0; i < 2000; ++i) {
        std::string id = std::to_string((i * 7 + t) % 40);
        if (auto kept = cache.find(id)) {
          EXPECT_EQ(kept->width(), 64u);
        } else {
          cache.insert(id, imageOfBytes(64));
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(cache.bytes(), 4u * 64 * 10);
}

}  // namespace
}  // namespace saffra::server
