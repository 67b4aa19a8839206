#include "server/base64.h"

#include <gtest/gtest.h>

#include "server/service_test_support.h"

namespace saffra::server {
namespace {

std::vector<std::uint8_t> bytes(std::string_view text) {
  return {text.begin(), text.end()};
}

TEST(Base64Test, DecodesWhatItShould) {
  struct Case {
    std::string_view text;
    std::string_view decoded;
  };
  for (const Case& c : std::vector<Case>{
           {"", ""},
           {"Zg==", "f"},
           {"Zm8=", "fo"},
           {"Zm9v", "foo"},
           {"Zm9vYg", "foob"},  // padding left out
           {"Zm9vYmE", "fooba"},
           {"Zm9v\r\nYmFy", "foobar"},
           {" Zm9v\tYmFy\n", "foobar"},
           {"+/+/", "\xfb\xff\xbf"},
       }) {
    auto decoded = decodeBase64(c.text);
    ASSERT_TRUE(decoded) << c.text;
    EXPECT_EQ(*decoded, bytes(c.decoded)) << c.text;
  }
}

TEST(Base64Test, RefusesWhatIsNotBase64) {
  using namespace std::string_view_literals;
  for (std::string_view text : {"Z"sv, "Zm9vY"sv, "Zm9v="sv, "Zg==="sv, "Zg==Zg=="sv, "Zm9v-_"sv,
                                "Zm9v\0xyz"sv, "Zm9v%AAA"sv, "\xc3\xa9Zm9v"sv}) {
    EXPECT_FALSE(decodeBase64(text)) << text;
  }
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

}  // namespace
}  // namespace saffra::server
