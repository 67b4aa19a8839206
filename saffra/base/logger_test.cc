#include "saffra/base/logger.h"

#include <gtest/gtest.h>

namespace saffra {
namespace {

TEST(LoggerTest, FormattedLineCarriesThePrefix) {
  LogCapture log;
  Logger::logWithFormat("Close batch with ID: %@", "B1");
  Logger::log(std::nullopt);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"[QuorvantSaffra] Close batch with ID: B1",
                                                   "[QuorvantSaffra] (null)"}));
  EXPECT_TRUE(log.systemLines().empty());
}

}  // namespace
}  // namespace saffra
