// Verdicts on the public comparison pairs: real screenshots re-rendered with one word, one
// position or one link colour changed, or only their text anti-aliasing.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "saffra/platform/internal/cpu.h"
#include "server/compare/compare.h"
#include "testing/png_files.h"

namespace saffra::compare {
namespace {

const std::filesystem::path kPairs = std::filesystem::path(SAFFRA_CORPUS_DIR) / "pairs";
const char* const kBases[] = {"phone-help-steps-1170x2532", "phone-reference-boot-750x1334",
                              "desktop-docs-warning-1920x1080",
                              "tablet-framework-article-1536x2048"};

using saffra::testing::readFile;

class CorpusPairs : public ::testing::TestWithParam<const char*> {};

TEST_P(CorpusPairs, LevelsGiveTheExpectedVerdicts) {
  const std::string base = GetParam();
  const auto baseline = Image::fromPNGFile((kPairs / (base + ".png")).string());
  const auto variant = [&](const char* kind) {
    return Image::fromPNGFile((kPairs / (base + "--" + kind + ".png")).string());
  };
  const auto matches = [&](const Image& other, MatchLevel level) {
    CompareOptions options;
    options.level = level;
    return compareImages(*baseline, other, options).matches;
  };
  const auto word = variant("word"), shift = variant("shift"), color = variant("color"),
             aa = variant("aa");
  // Strict: every real change is found; anti-aliasing alone is not a change.
  EXPECT_FALSE(matches(*word, MatchLevel::Strict));
  EXPECT_FALSE(matches(*shift, MatchLevel::Strict));
  EXPECT_FALSE(matches(*color, MatchLevel::Strict));
  EXPECT_TRUE(matches(*aa, MatchLevel::Strict));
  // Content: the recoloured link has the same shapes; the word does not.
  EXPECT_TRUE(matches(*color, MatchLevel::Content));
  EXPECT_FALSE(matches(*word, MatchLevel::Content));
  EXPECT_TRUE(matches(*aa, MatchLevel::Content));
  // Looser levels never fail what Strict passes; Exact sees every pixel.
  EXPECT_TRUE(matches(*aa, MatchLevel::Layout));
  EXPECT_FALSE(matches(*aa, MatchLevel::Exact));
  EXPECT_TRUE(matches(*baseline, MatchLevel::Exact));
}

TEST_P(CorpusPairs, DifferenceBoxesCoverTheEditedText) {
  const std::string base = GetParam();
  const CompareResult r =
      comparePNG(readFile(kPairs / (base + ".png")), readFile(kPairs / (base + "--word.png")));
  ASSERT_FALSE(r.matches);
  // The manifest's change boxes of the word pairs, by base.
  const std::map<std::string, PixelRect> expected = {
      {"phone-help-steps-1170x2532", {835, 1126, 117, 36}},
      {"phone-reference-boot-750x1334", {239, 1025, 196, 31}},
      {"desktop-docs-warning-1920x1080", {381, 224, 682, 15}},
      {"tablet-framework-article-1536x2048", {468, 279, 838, 23}}};
  const PixelRect change = expected.at(base);
  for (const PixelRect& box : r.differences) {
    EXPECT_GE(box.left, change.left - 2);
    EXPECT_GE(box.top, change.top - 2);
    EXPECT_LE(box.right(), change.right() + 2);
    EXPECT_LE(box.bottom(), change.bottom() + 2);
  }
}

// The result every faster path must give: the same verdict, the very pixels marked and the
// very boxes found.
void expectSameResult(const CompareResult& got, const CompareResult& want,
                      const std::string& what) {
  EXPECT_EQ(got.matches, want.matches) << what;
  EXPECT_EQ(got.differingPixels, want.differingPixels) << what;
  EXPECT_EQ(got.differences, want.differences) << what;
  EXPECT_TRUE(got.mask == want.mask) << what;
}

// The kernels for newer processors (where this one has them), alone and with the rows split
// over two threads, give the result of one portable pass, at every level that runs them, for
// every kind of change.
TEST_P(CorpusPairs, ProcessorKernelsAndTwoThreadsGiveTheResultOfOnePortablePass) {
  const std::string base = GetParam();
  const auto baseline = readFile(kPairs / (base + ".png"));
  for (const char* kind : {"word", "shift", "color", "aa"}) {
    const auto other = readFile(kPairs / (base + "--" + kind + ".png"));
    for (const MatchLevel level : {MatchLevel::Strict, MatchLevel::Content, MatchLevel::Exact}) {
      CompareOptions options;
      options.level = level;
      cpu::useBaselineKernels(true);
      const CompareResult portable = comparePNG(baseline, other, options);
      cpu::useBaselineKernels(false);
      const std::string what = std::string(kind) + " " + std::string(matchLevelName(level));
      expectSameResult(comparePNG(baseline, other, options), portable, what);
      options.threads = 2;
      expectSameResult(comparePNG(baseline, other, options), portable, what + " two threads");
    }
  }
}

// A checkpoint still being decoded: rows are handed over only when asked for (or as the
// decoding threads go), and until then hold the inverse of their pixels, so a read ahead of the
// decoding changes the result. The comparison must equal the one of the whole image, and a
// decoding that fails abandons it.
TEST_P(CorpusPairs, ComparingWhileDecodingReadsOnlyFinishedRows) {
  const std::string base = GetParam();
  const auto baseline = Image::fromPNGFile((kPairs / (base + ".png")).string());
  for (const char* kind : {"shift", "aa"}) {
    const auto other = Image::fromPNGFile((kPairs / (base + "--" + kind + ".png")).string());
    const std::size_t rowBytes = other->width() * 4;
    for (const MatchLevel level : {MatchLevel::Strict, MatchLevel::Content, MatchLevel::Layout}) {
      CompareOptions options;
      options.level = level;
      options.threads = 2;
      const CompareResult whole = compareImages(*baseline, *other, options);

      std::vector<std::uint8_t> decoding(other->pixels().size());
      for (std::size_t i = 0; i < decoding.size(); ++i) decoding[i] = ~other->pixels()[i];
      std::mutex mutex;
      std::size_t handedOver = 0;
      options.checkpointRows = [&](int rows) {
        std::lock_guard lock(mutex);
        const std::size_t wanted = static_cast<std::size_t>(rows);
        if (wanted > handedOver) {
          std::memcpy(&decoding[handedOver * rowBytes], other->data() + handedOver * rowBytes,
                      (wanted - handedOver) * rowBytes);
          handedOver = wanted;
        }
        return true;
      };
      const CompareResult pieced =
          compareDecoding(*baseline, decoding.data(), other->width(), other->height(), options);
      expectSameResult(pieced, whole, kind);

      // Threads that publish rows themselves and, in between, compare the bands that are final,
      // as the threads decoding a file band by band do.
      for (std::size_t i = 0; i < decoding.size(); ++i) decoding[i] = ~other->pixels()[i];
      handedOver = 0;
      options.checkpointRows = [](int) { return true; };
      Comparison shared(*baseline, decoding.data(), other->width(), other->height(), options);
      const auto decode = [&] {
        for (;;) {
          std::size_t rows = 0;
          {
            std::lock_guard lock(mutex);
            if (handedOver == other->height()) return;
            const std::size_t upTo = std::min(handedOver + 37, other->height());
            std::memcpy(&decoding[handedOver * rowBytes], other->data() + handedOver * rowBytes,
                        (upTo - handedOver) * rowBytes);
            rows = handedOver = upTo;
          }
          shared.diffReady(rows);
        }
      };
      std::thread helper(decode);
      decode();
      helper.join();
      expectSameResult(shared.finish(), whole, std::string(kind) + " alongside");

      options.checkpointRows = [&](int rows) { return rows <= 300; };
      EXPECT_THROW(
          compareDecoding(*baseline, other->data(), other->width(), other->height(), options),
          ComparisonAbandoned);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(PublicSet, CorpusPairs, ::testing::ValuesIn(kBases), [](const auto& info) {
  std::string name = info.param;
  for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return name;
});

}  // namespace
}  // namespace saffra::compare
