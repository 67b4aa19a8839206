// The base64 readers of uploads: plain text and text inside a JSON string, vector and portable.
#include "server/base64.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "saffra/platform/internal/cpu.h"
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
TEST(Base64DecodeTest, DecodesWhatItShouldAndRefusesTheRest) {
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

// Lines of the client's form with one character replaced, at every place and by characters
// of every kind (alphabet, padding, blanks, escapes, others): the vector readers give what the
// portable plain reader gives for the string's value, read as JSON text or as plain text.
TEST(Base64DecodeTest, ReadersAgreeCharacterByCharacter) {
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
  // Whole texts of every byte value, of each length modulo 3, with line breaks and without.
  std::vector<std::uint8_t> all(767);
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<std::uint8_t>(i);
  for (const std::size_t length : {767, 766, 765, 49, 48}) {
    const std::vector<std::uint8_t> input(all.begin(), all.begin() + length);
    EXPECT_EQ(decodeBase64(testing::base64WithLineBreaks(input)), input) << length;
  }
}

}  // namespace
}  // namespace saffra::server
