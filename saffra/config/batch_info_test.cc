#include "saffra/config/batch_info.h"

#include <gtest/gtest.h>

#include <cctype>

#include "testing/scoped_environment.h"

namespace saffra {
namespace {

// 2024-03-05 13:07:09.123 UTC
const Date kMarch5 = Date(std::chrono::milliseconds(1709644029123));

// Upper-case 8-4-4-4-12 hexadecimal, version 4.
bool isUpperCaseUUID(const std::string& s) {
  if (s.size() != 36 || s[14] != '4') return false;
  for (std::size_t i = 0; i < s.size(); ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? s[i] != '-'
             : !(std::isdigit(static_cast<unsigned char>(s[i])) || (s[i] >= 'A' && s[i] <= 'F'))) {
      return false;
    }
  }
  return true;
}

std::vector<std::string> keys(const Json& object) {
  std::vector<std::string> result;
  for (const auto& item : object.items()) result.push_back(item.key());
  return result;
}

TEST(BatchInfoTest, WithoutEnvironmentHasStartAndFreshIdOnly) {
  ScopedEnvironment env;
  BatchInfo batch(std::nullopt);
  Json d = batch.dictionary();
  EXPECT_EQ(keys(d), (std::vector<std::string>{"startedAt", "id"}));
  EXPECT_TRUE(isUpperCaseUUID(d["id"].get<std::string>())) << d["id"];
  EXPECT_NE(BatchInfo(std::nullopt).batchId(), batch.batchId());
}

TEST(BatchInfoTest, StartTimeIsLocalDateThenTimeWithLiteralZ) {
  ScopedEnvironment env({{"TZ", "CET-1"}});
  EXPECT_EQ(BatchInfo::stringFromStartedAt(kMarch5), "2024-03-05T14:07:09Z");
  BatchInfo a("a", kMarch5), b("b", kMarch5 + std::chrono::milliseconds(500));
  EXPECT_EQ(a.startedAtString(), b.startedAtString());
  env.set("TZ", "UTC0");
  EXPECT_EQ(BatchInfo::stringFromStartedAt(kMarch5), "2024-03-05T13:07:09Z");
}

TEST(BatchInfoTest, EnvironmentFeedsIdNameAndSequence) {
  struct Case {
    const char* what;
    OptString id, bambooId, name, bambooName, sequence, bambooSequence;
    OptString givenName;
    OptString expectedId;  // absent: a fresh UUID
    OptString expectedName, expectedSequence;
  };
  const Case cases[] = {
      {"primaries win", "P", "T", "N", "BN", "S", "BS", std::nullopt, "P", "N", "S"},
      {"empty primaries fall to twins", "", "T", "", "BN", "", "BS", std::nullopt, "T", "BN", "BS"},
      {"empty twin id is kept", std::nullopt, "", std::nullopt, std::nullopt, "", std::nullopt,
       std::nullopt, "", std::nullopt, std::nullopt},
      {"both ids empty", "", "", "", "", "", "", std::nullopt, "", "", std::nullopt},
      {"given name wins", std::nullopt, std::nullopt, "N", std::nullopt, std::nullopt, std::nullopt,
       "mine", std::nullopt, "mine", std::nullopt},
      {"empty given name", std::nullopt, std::nullopt, "N", std::nullopt, std::nullopt,
       std::nullopt, "", std::nullopt, "N", std::nullopt},
  };
  for (const auto& c : cases) {
    ScopedEnvironment env({{"QUORVANT_BATCH_ID", c.id},
                           {"bamboo_QUORVANT_BATCH_ID", c.bambooId},
                           {"QUORVANT_BATCH_NAME", c.name},
                           {"bamboo_QUORVANT_BATCH_NAME", c.bambooName},
                           {"QUORVANT_BATCH_SEQUENCE", c.sequence},
                           {"bamboo_QUORVANT_BATCH_SEQUENCE", c.bambooSequence}});
    BatchInfo batch(c.givenName);
    if (c.expectedId) {
      EXPECT_EQ(batch.batchId(), c.expectedId) << c.what;
    } else {
      EXPECT_TRUE(isUpperCaseUUID(batch.batchId().value_or(""))) << c.what;
    }
    EXPECT_EQ(batch.name(), c.expectedName) << c.what;
    EXPECT_EQ(batch.sequenceName(), c.expectedSequence) << c.what;
  }
}

TEST(BatchInfoTest, WireFormOrderAndAbsentFields) {
  ScopedEnvironment env({{"TZ", "UTC0"}, {"QUORVANT_BATCH_SEQUENCE", "seq"}});
  BatchInfo batch("Nightly run", kMarch5);
  batch.setBatchId("");
  EXPECT_EQ(
      json::write(batch.dictionary()),
      R"({"name":"Nightly run","startedAt":"2024-03-05T13:07:09Z","id":"","batchSequenceName":"seq"})");
  batch.setBatchId(std::nullopt);
  batch.setSequenceName(std::nullopt);
  EXPECT_EQ(keys(batch.dictionary()), (std::vector<std::string>{"name", "startedAt"}));
}

}  // namespace
}  // namespace saffra
