#include "saffra/images/general_utils.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "saffra/base/region.h"

namespace saffra {
namespace {

TEST(GeneralUtilsTest, DeepCopiesShareNothingWithTheirSource) {
  using Inner = std::vector<std::string>;
  std::vector<std::shared_ptr<Inner>> source{std::make_shared<Inner>(Inner{"a", "b"}),
                                             std::make_shared<Inner>(Inner{"c"}), nullptr};
  auto copy = Utility::trueMutableDeepCopyOf(source);
  ASSERT_EQ(copy.size(), 3u);
  copy[0]->push_back("changed");
  (*copy[1])[0] = "changed";
  copy.push_back(nullptr);
  EXPECT_EQ(*source[0], (Inner{"a", "b"}));
  EXPECT_EQ(*source[1], (Inner{"c"}));
  EXPECT_EQ(copy[2], nullptr);
  EXPECT_EQ(source.size(), 3u);

  // Objects with copy() are copied through it; nesting of any depth is followed.
  std::vector<std::vector<std::shared_ptr<Region>>> regions{{std::make_shared<Region>(1, 2, 3, 4)}};
  auto regionsCopy = Utility::trueDeepCopyOf(regions);
  regionsCopy[0][0]->setLeft(100);
  EXPECT_EQ(regions[0][0]->left(), 1);
  EXPECT_EQ(regionsCopy[0][0]->description(), "{{100, 2}, {3, 4}}");
}

}  // namespace
}  // namespace saffra
