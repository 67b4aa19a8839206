// Dates, waits, identifiers and system facts.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <thread>

#include "saffra/platform/date.h"
#include "saffra/platform/exception.h"
#include "saffra/platform/expectation.h"
#include "saffra/platform/image.h"
#include "saffra/platform/system_info.h"
#include "saffra/platform/uuid.h"
#include "saffra/version.h"

namespace saffra {
namespace {

class LocalTimeZone {
 public:
  explicit LocalTimeZone(const char* tz) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    setenv("TZ", tz, 1);
    tzset();
  }
  ~LocalTimeZone() {
    if (old_) setenv("TZ", old_->c_str(), 1); else unsetenv("TZ");
    tzset();
  }

 private:
  std::optional<std::string> old_;
};

Date march5() {
  // 2024-03-05 13:07:09.123 UTC
  return Date(std::chrono::milliseconds(1709644029123));
}

TEST(DateFormatterTest, PatternsRenderInLocalTime) {
  LocalTimeZone tz("CET-1");
  EXPECT_EQ(DateFormatter("yyyy_MM_dd_HH_mm_ss_SSS").stringFromDate(march5()), "2024_03_05_14_07_09_123");
  EXPECT_EQ(DateFormatter("HH:mm:ss").stringFromDate(march5()), "14:07:09");
  EXPECT_EQ(DateFormatter("yyyy-MM-dd HH:mm:ssZ").stringFromDate(march5()), "2024-03-05 14:07:09+0100");
  EXPECT_EQ(DateFormatter("'at' h a").stringFromDate(march5()), "at 2 PM");
  // An unknown letter (the unquoted T) ends the text.
  EXPECT_EQ(DateFormatter("yyyy-MM-ddTHH:mm:ssZ").stringFromDate(march5()), "2024-03-05");
}

TEST(WaiterTest, CompletesOrTimesOut) {
  auto done = std::make_shared<Expectation>("done");
  std::thread worker([done] { done->fulfill(); });
  EXPECT_EQ(Waiter::waitForExpectations({done}, 5), WaiterResult::Completed);
  worker.join();
  auto never = std::make_shared<Expectation>("never");
  EXPECT_EQ(Waiter::waitForExpectations({never}, 0.05), WaiterResult::TimedOut);
  EXPECT_EQ(static_cast<long>(WaiterResult::TimedOut), 2);
}

TEST(PlatformTest, UuidsAreUpperCaseVersion4) {
  std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::string a = newUUIDString();
  EXPECT_TRUE(std::regex_match(a, form)) << a;
  EXPECT_NE(a, newUUIDString());
}

TEST(PlatformTest, SystemFacts) {
  auto v = system_info::parseOSVersion("6.1.0-18-amd64");
  EXPECT_EQ(v.major, 6);
  EXPECT_EQ(v.minor, 1);
  EXPECT_EQ(system_info::parseOSVersion("garbage").major, 0);
  EXPECT_FALSE(system_info::hostName().empty());
  EXPECT_EQ(SaffraImagesVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(SaffraImagesVersionString),
               "@(#)PROGRAM:SaffraImages  PROJECT:Quorvant-1\n");
}

TEST(ImageTest, PngRoundTripAndBadInput) {
  auto image = std::make_shared<Image>(3, 2, 2.0);
  for (std::size_t i = 0; i < image->pixels().size(); ++i) image->mutableData()[i] = static_cast<std::uint8_t>(i * 11);
  auto back = Image::fromPNGData(image->pngData(), 2.0);
  EXPECT_EQ(back->pixels(), image->pixels());
  EXPECT_EQ(back->size(), (Size{1.5, 1}));
  std::vector<std::uint8_t> junk = {0x89, 'P', 'N', 'G', 1, 2, 3};
  EXPECT_THROW(Image::fromPNGData(junk), Exception);
  auto truncated = image->pngData();
  truncated.resize(truncated.size() / 2);
  EXPECT_THROW(Image::fromPNGData(truncated), Exception);
  EXPECT_THROW(Image(100000, 100000), Exception);
}

}  // namespace
}  // namespace saffra
