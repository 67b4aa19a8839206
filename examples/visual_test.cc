// A GoogleTest suite with visual checks: each test opens a session in SetUp, checks its images
// and closes in TearDown; one runner collects the results of the whole suite, whose summary is
// printed at the end.
//
//   QUORVANT_API_KEY=... QUORVANT_SERVER_URL=http://localhost:8080 ./visual_test
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "saffra/saffra.h"

namespace {

// The runner shared by every test of the suite.
std::shared_ptr<saffra::SaffraRunner> suiteRunner() {
  static auto runner = std::make_shared<saffra::SaffraRunner>();
  return runner;
}

// Prints the suite's summary once all tests ran.
class SummaryPrinter : public ::testing::Environment {
 public:
  void TearDown() override {
    auto summary = suiteRunner()->allTestResultsShouldThrowException(false);
    std::printf("%s\n", summary->description().c_str());
  }
};

// A screen drawn in code so the example needs no files: a header bar and a body.
std::shared_ptr<saffra::Image> drawScreen(std::uint8_t headerShade) {
  auto image = std::make_shared<saffra::Image>(320, 480, 2.0);
  for (std::size_t y = 0; y < image->height(); ++y) {
    for (std::size_t x = 0; x < image->width(); ++x) {
      std::uint8_t* p = image->mutableData() + (y * image->width() + x) * 4;
      const bool header = y < 60;
      p[0] = header ? headerShade : 250;
      p[1] = header ? 120 : 250;
      p[2] = header ? 200 : static_cast<std::uint8_t>(240 - y / 4);
      p[3] = 255;
    }
  }
  return image;
}

class VisualTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    saffra_.openWithApplicationName("Example app", info->name());
  }

  void TearDown() override {
    std::optional<saffra::Error> error;
    saffra_.closeWithThrow(false, &error);
    if (error) ADD_FAILURE() << error->localizedDescription;
  }

  saffra::Saffra saffra_{suiteRunner()};
};

TEST_F(VisualTest, HomeScreen) {
  EXPECT_TRUE(saffra_.checkImage(drawScreen(40), "home"));
  // The second step ignores the header, whose shade changes from run to run.
  auto settings = saffra::Target::image(drawScreen(90))
                      ->ignore({std::make_shared<saffra::Region>(0, 0, 160, 30)});
  EXPECT_TRUE(saffra_.checkWithTag("home, header ignored", settings));
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new SummaryPrinter);
  return RUN_ALL_TESTS();
}
