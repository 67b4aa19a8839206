// The cache of decoded baselines.
#include "server/image_cache.h"

#include <gtest/gtest.h>

#include <thread>

namespace saffra::server {
namespace {

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
