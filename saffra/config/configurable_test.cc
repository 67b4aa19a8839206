#include "saffra/config/configurable.h"

#include <gtest/gtest.h>

#include "saffra/config/argument_guard.h"
#include "saffra/images/logger.h"
#include "saffra/platform/exception.h"

namespace saffra {
namespace {

using namespace Configurable;

TEST(ConfigurableTest, Predicates) {
  EXPECT_FALSE(isNotEmpty(OptString()));
  EXPECT_FALSE(isNotEmpty(OptString("")));
  EXPECT_TRUE(isNotEmpty(OptString(" ")));
  EXPECT_TRUE(isNotEmpty(OptString("0")));
  EXPECT_FALSE(isNotEmpty(Json()));  // the null marker
  EXPECT_FALSE(isNotEmpty(Json("")));
  EXPECT_TRUE(isNotEmpty(Json("0")));
  EXPECT_FALSE(isNotEmpty(static_cast<const char*>(nullptr)));
  EXPECT_EQ(notEmptyString(std::nullopt), "");
  EXPECT_EQ(notEmptyString("x"), "x");

  EXPECT_TRUE(isInteger(""));
  EXPECT_TRUE(isInteger("0123"));
  EXPECT_FALSE(isInteger("-1"));
  EXPECT_FALSE(isInteger("1.5"));

  for (const char* s : {".", "!", "?", "\n"}) EXPECT_TRUE(isEndOfSentence(s)) << s;
  for (const char* s : {"", "..", ",", " "}) EXPECT_FALSE(isEndOfSentence(s)) << s;

  EXPECT_TRUE(containsString("Hello world", "o w"));
  EXPECT_FALSE(containsString("Hello world", "World"));
  EXPECT_TRUE(containsOneOfStrings("abc", {"x", "c", std::nullopt}));
  EXPECT_FALSE(containsOneOfStrings("abc", {"x", std::nullopt, "a"}));  // the list ends at absent
  EXPECT_FALSE(containsOneOfStrings("abc", {std::nullopt, "a"}));

  EXPECT_EQ(priceStringCorrection("1.234,50"), "1234.50");
  EXPECT_EQ(stringByTrimmingSpaces(" \t\n a b \r\n"), "a b");
  EXPECT_EQ(stringByTrimmingSpaces("\xC2\xA0x\xE2\x80\xA8"),
            "x");  // no-break space, line separator
  EXPECT_EQ(stringByTrimmingSpaces("é "), "é");
  EXPECT_EQ(stringByTrimmingSpaces("   "), "");
}

TEST(ConfigurableTest, CuttingOperations) {
  struct Case {
    std::string (*cut)(std::string&);
    std::string input, result, rest;
  };
  const Case cases[] = {
      {cutFirstSentenceFromString, "", "", ""},
      {cutFirstSentenceFromString, "x", "x", ""},
      {cutFirstSentenceFromString, "One. Two.", "One.", " Two."},
      {cutFirstSentenceFromString, "No end", "No end", ""},
      {cutFirstSentenceFromString, "Why?\nBecause", "Why?", "\nBecause"},
      {cutLastSentenceFromString, "One. Two.", " Two.", "One."},
      {cutLastSentenceFromString, "One. Two", " Two", "One."},
      {cutLastSentenceFromString, "No end.", "", "No end."},  // the last character is not scanned
      {cutLastSentenceFromString, "", "", ""},
      {cutLastSentenceFromString, ".", "", "."},
      {cutLastWordFromString, "Hello big world", " world", "Hello big"},
      {cutLastWordFromString, "trailing ", " ", "trailing"},
      {cutLastWordFromString, " x", " x", ""},
  };
  for (const auto& c : cases) {
    std::string s = c.input;
    EXPECT_EQ(c.cut(s), c.result) << '"' << c.input << '"';
    EXPECT_EQ(s, c.rest) << '"' << c.input << '"';
  }

  for (std::string s : {std::string(), std::string("word")}) {
    std::string before = s;
    try {
      cutLastWordFromString(s);
      FAIL() << "expected an exception for \"" << before << '"';
    } catch (const Exception& e) {
      EXPECT_EQ(e.name(), "NSRangeException");
    }
    EXPECT_EQ(s, before);
  }
}

TEST(ArgumentGuardTest, AcceptsAbsentValuesSilently) {
  LogCapture log;
  std::shared_ptr<int> absent;
  ArgumentGuard::notNil(absent, "apiKey");
  ArgumentGuard::notNilOrEmpty(OptString(), "batchId");
  ArgumentGuard::notNilOrEmpty(std::string(), "sequenceName");
  ArgumentGuard::isValidState(false, "state");
  ArgumentGuard::greaterThanOrEqualToZero(-1, "timeout");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(log.systemLines().empty());
}

}  // namespace
}  // namespace saffra
