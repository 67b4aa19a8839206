#include "server/compare/compare.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <system_error>

#include "server/codec/png_decoder.h"
#include "server/compare/accessibility.h"
#include "server/compare/pixel_levels.h"
#include "server/compare/task_pool.h"

namespace saffra::compare {

namespace {

using detail::Pixels;
using detail::Span;

Pixels view(const Image& image) {
  return {image.data(), static_cast<int>(image.width()), static_cast<int>(image.height())};
}

struct Clip {
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  bool isEmpty() const { return x1 <= x0 || y1 <= y0; }
  int width() const { return x1 - x0; }
  int height() const { return y1 - y0; }
};

Clip clip(const PixelRect& r, std::size_t width, std::size_t height) {
  if (r.isEmpty()) return {};
  const auto limit = [](std::int64_t v, std::size_t max) {
    return static_cast<int>(std::clamp<std::int64_t>(v, 0, static_cast<std::int64_t>(max)));
  };
  return {limit(r.left, width), limit(r.top, height), limit(r.right(), width),
          limit(r.bottom(), height)};
}

void clearMask(std::vector<std::uint8_t>& mask, std::size_t stride, const Clip& c) {
  for (int y = c.y0; y < c.y1; ++y) std::memset(&mask[y * stride + c.x0], 0, c.width());
}

// Marks the differences of one area at `level` (None marks nothing). Returns the number of
// pixels marked kCounted or kCandidate: none means cluster() has nothing to do there.
std::size_t diffArea(const Pixels& a, const Pixels& b, MatchLevel level, const Clip& c,
                     std::vector<std::uint8_t>& mask) {
  if (c.isEmpty()) return 0;
  const std::size_t stride = a.width;
  const Span s{
      &a, &b, c.x0, c.y0, c.x0, c.y0, c.width(), c.height(), &mask[c.y0 * stride + c.x0], stride};
  switch (level) {
    case MatchLevel::None:
      return 0;
    case MatchLevel::Exact:
      return detail::diffExact(s);
    case MatchLevel::Layout:
      return detail::diffLayout(s);
    case MatchLevel::Content:
      return detail::diffStrict(s, true);
    case MatchLevel::Strict:
    default:
      return detail::diffStrict(s, false);
  }
}

// Waits until the checkpoint's rows [0, rows) are there (they always are unless the checkpoint
// is still being decoded); a decoding that failed abandons the comparison.
void awaitRows(const CompareOptions& options, int rows) {
  if (options.checkpointRows && !options.checkpointRows(rows)) throw ComparisonAbandoned();
}

// The area a floating region's content may occupy in the checkpoint.
Clip searchArea(const FloatingRegion& f, std::size_t width, std::size_t height) {
  // Offsets past the image change nothing, so they are cut to its size before any arithmetic.
  const Clip region = clip(f.rect, width, height);
  if (region.isEmpty()) return {};
  const auto cut = [](std::int64_t v, std::size_t limit) {
    return static_cast<int>(std::clamp<std::int64_t>(v, 0, static_cast<std::int64_t>(limit)));
  };
  return {std::max(region.x0 - cut(f.maxLeftOffset, width), 0),
          std::max(region.y0 - cut(f.maxUpOffset, height), 0),
          std::min(region.x1 + cut(f.maxRightOffset, width), static_cast<int>(width)),
          std::min(region.y1 + cut(f.maxDownOffset, height), static_cast<int>(height))};
}

// The most pixel comparisons spent looking for one floating region's content; offsets left
// when it is spent count as not found (so huge offsets cannot stall the service).
constexpr std::uint64_t kFloatingBudget = std::uint64_t{1} << 28;

// True when the baseline's content of `f` appears in the checkpoint at some allowed offset,
// nearest offsets first.
bool floatingFound(const Pixels& a, const Pixels& b, const FloatingRegion& f, const Clip& region) {
  const int w = region.width(), h = region.height();
  const std::uint64_t area = static_cast<std::uint64_t>(w) * h;
  const auto reach = [](std::int64_t v, int limit) {
    return static_cast<int>(std::clamp<std::int64_t>(v, 0, limit));
  };
  // Offsets that keep the region inside the image; when there are more than the budget
  // covers, each direction is shortened alike.
  int up = reach(f.maxUpOffset, region.y0), down = reach(f.maxDownOffset, a.height - region.y1);
  int left = reach(f.maxLeftOffset, region.x0),
      right = reach(f.maxRightOffset, a.width - region.x1);
  const std::uint64_t affordable = std::max<std::uint64_t>(kFloatingBudget / area, 1);
  if (static_cast<std::uint64_t>(up + down + 1) * (left + right + 1) > affordable) {
    const int r = static_cast<int>(std::sqrt(static_cast<double>(affordable))) / 2;
    up = std::min(up, r), down = std::min(down, r), left = std::min(left, r),
    right = std::min(right, r);
  }
  std::vector<std::pair<int, int>> offsets;
  for (int dy = -up; dy <= down; ++dy) {
    for (int dx = -left; dx <= right; ++dx) offsets.emplace_back(dx, dy);
  }
  std::stable_sort(offsets.begin(), offsets.end(), [](const auto& p, const auto& q) {
    return std::abs(p.first) + std::abs(p.second) < std::abs(q.first) + std::abs(q.second);
  });
  std::vector<std::uint8_t> scratch(area);
  for (const auto& [dx, dy] : offsets) {
    std::fill(scratch.begin(), scratch.end(), 0);
    const Span s{&a,
                 &b,
                 region.x0,
                 region.y0,
                 region.x0 + dx,
                 region.y0 + dy,
                 w,
                 h,
                 scratch.data(),
                 static_cast<std::size_t>(w)};
    if (detail::diffStrict(s, false) == 0) return true;
    if (detail::cluster(scratch.data(), w, w, h, 0, 0).counted == 0) return true;
  }
  return false;
}

// Large scratch buffers are kept between comparisons only up to this size.
constexpr std::size_t kKeptBuffer = std::size_t{64} << 20;

void releaseIfLarge(std::vector<std::uint8_t>& buffer) {
  if (buffer.capacity() > kKeptBuffer) std::vector<std::uint8_t>().swap(buffer);
}

const std::vector<std::pair<std::string_view, MatchLevel>> kMatchLevels = {
    {"None", MatchLevel::None},
    {"Layout", MatchLevel::Layout},
    {"Content", MatchLevel::Content},
    {"Strict", MatchLevel::Strict},
    {"Exact", MatchLevel::Exact}};
const std::vector<std::pair<std::string_view, AccessibilityRegionType>> kRegionTypes = {
    {"IgnoreContrast", AccessibilityRegionType::IgnoreContrast},
    {"RegularText", AccessibilityRegionType::RegularText},
    {"LargeText", AccessibilityRegionType::LargeText},
    {"BoldText", AccessibilityRegionType::BoldText},
    {"GraphicalObject", AccessibilityRegionType::GraphicalObject}};

PixelRect rectFromJson(const Json& value) {
  const auto field = [&](std::string_view key) {
    const Json* v = json::find(value, key);
    return v ? json::integerValue(*v) : std::int64_t{0};
  };
  return {field("left"), field("top"), field("width"), field("height")};
}

template <typename F>
void forEachObject(const Json& settings, std::string_view key, F&& f) {
  const Json* list = json::find(settings, key);
  if (!list || !list->is_array()) return;
  for (const Json& item : *list) {
    if (item.is_object()) f(item);
  }
}

std::vector<PixelRect> rectsFromJson(const Json& settings, std::string_view key) {
  std::vector<PixelRect> rects;
  forEachObject(settings, key, [&](const Json& item) { rects.push_back(rectFromJson(item)); });
  return rects;
}

}  // namespace

std::int64_t PixelRect::right() const {
  std::int64_t edge = 0;
  return __builtin_add_overflow(left, width, &edge) ? (width > 0 ? INT64_MAX : INT64_MIN) : edge;
}

std::int64_t PixelRect::bottom() const {
  std::int64_t edge = 0;
  return __builtin_add_overflow(top, height, &edge) ? (height > 0 ? INT64_MAX : INT64_MIN) : edge;
}

std::string_view matchLevelName(MatchLevel level) {
  for (const auto& [name, value] : kMatchLevels) {
    if (value == level) return name;
  }
  return "Strict";
}

MatchLevel matchLevelFromName(std::string_view name) {
  for (const auto& [text, value] : kMatchLevels) {
    if (text == name) return value;
  }
  return MatchLevel::Strict;
}

std::string_view accessibilityLevelName(AccessibilityLevel level) {
  switch (level) {
    case AccessibilityLevel::AA:
      return "AA";
    case AccessibilityLevel::AAA:
      return "AAA";
    default:
      return "None";
  }
}

AccessibilityLevel accessibilityLevelFromName(std::string_view name) {
  if (name == "AA") return AccessibilityLevel::AA;
  if (name == "AAA") return AccessibilityLevel::AAA;
  return AccessibilityLevel::None;
}

std::string_view accessibilityRegionTypeName(AccessibilityRegionType type) {
  const auto index = std::min<std::uint64_t>(static_cast<std::uint64_t>(type), 4);
  return kRegionTypes[index].first;
}

AccessibilityRegionType accessibilityRegionTypeFromName(std::string_view name) {
  for (const auto& [text, value] : kRegionTypes) {
    if (text == name) return value;
  }
  return AccessibilityRegionType::GraphicalObject;
}

CompareOptions CompareOptions::fromJson(const Json& settings) {
  CompareOptions options;
  if (const Json* level = json::find(settings, "matchLevel")) {
    if (level->is_string()) {
      options.level = matchLevelFromName(level->get<std::string>());
    } else if (level->is_number()) {
      const std::int64_t value = json::integerValue(*level);
      options.level =
          value >= 1 && value <= 5 ? static_cast<MatchLevel>(value) : MatchLevel::Strict;
    }
  }
  if (const Json* level = json::find(settings, "accessibilityLevel"); level && level->is_string()) {
    options.accessibilityLevel = accessibilityLevelFromName(level->get<std::string>());
  }
  options.ignoreRegions = rectsFromJson(settings, "Ignore");
  options.layoutRegions = rectsFromJson(settings, "Layout");
  options.strictRegions = rectsFromJson(settings, "Strict");
  options.contentRegions = rectsFromJson(settings, "Content");
  forEachObject(settings, "Floating", [&](const Json& item) {
    const auto field = [&](std::string_view key) {
      const Json* v = json::find(item, key);
      return v ? json::integerValue(*v) : std::int64_t{0};
    };
    options.floatingRegions.push_back({rectFromJson(item), field("maxUpOffset"),
                                       field("maxDownOffset"), field("maxLeftOffset"),
                                       field("maxRightOffset")});
  });
  forEachObject(settings, "accessibility", [&](const Json& item) {
    const Json* type = json::find(item, "type");
    const OptString name = type ? json::stringValue(*type) : OptString{};
    options.accessibilityRegions.push_back(
        {rectFromJson(item),
         name ? accessibilityRegionTypeFromName(*name) : AccessibilityRegionType::RegularText});
  });
  return options;
}

namespace {

// Mask buffers kept between comparisons: fresh memory for every comparison would cost more in
// page faults than the comparison itself. A few are kept, each up to kKeptBuffer.
class SpareMasks {
 public:
  static std::vector<std::uint8_t> take() {
    std::lock_guard lock(mutex());
    std::vector<std::vector<std::uint8_t>>& spare = buffers();
    if (spare.empty()) return {};
    std::vector<std::uint8_t> buffer = std::move(spare.back());
    spare.pop_back();
    return buffer;
  }
  static void give(std::vector<std::uint8_t> buffer) {
    if (buffer.capacity() == 0 || buffer.capacity() > kKeptBuffer) return;
    std::lock_guard lock(mutex());
    if (buffers().size() < kKept) buffers().push_back(std::move(buffer));
  }

 private:
  static constexpr std::size_t kKept = 4;
  static std::mutex& mutex() {
    static std::mutex m;
    return m;
  }
  static std::vector<std::vector<std::uint8_t>>& buffers() {
    static std::vector<std::vector<std::uint8_t>> b;
    return b;
  }
};

}  // namespace

// The pass over the whole image at the step's level goes in bands of a multiple of the Strict
// kernel's 8-row tiles, taken in order by whichever threads come: each band sees the very tiles
// it would see in one pass, so the result does not depend on which thread took which band, and
// threads read (never write) each other's pixels as neighbours. A band is compared once the
// checkpoint's rows reach a little past it (neighbour reads go two rows beyond an area). Each
// band clears its own part of the mask, while those rows are in cache anyway.
struct Comparison::State {
  static constexpr int kBand = 64, kReach = 8;

  Pixels a, b;
  CompareOptions options;
  std::vector<std::uint8_t> mask = SpareMasks::take();
  // Whether the whole-image pass goes in bands (else it is one area, compared in finish()).
  bool inBands = false;
  std::atomic<int> next{0};
  // For each band, whether the pass marked any of its pixels (each written by the thread that
  // compared the band, read once every band is done).
  std::vector<std::uint8_t> bandMarked;

  State(const Pixels& baseline, const Pixels& checkpoint, CompareOptions o)
      : a(baseline), b(checkpoint), options(std::move(o)) {
    // Neighbour reads stay inside these sizes; the pixel buffers hold width * height pixels.
    static_assert(Image::kMaxDimension < (1u << 30));
    const bool compared = a.width == b.width && a.height == b.height &&
                          options.level != MatchLevel::None && a.width > 0 && a.height > 0;
    if (!compared) return;
    mask.resize(static_cast<std::size_t>(a.width) * a.height);
    inBands = a.height >= 2 * kBand && options.level != MatchLevel::Layout;
    bandMarked.assign(static_cast<std::size_t>((a.height + kBand - 1) / kBand), 0);
  }
  ~State() { SpareMasks::give(std::move(mask)); }

  Clip rows(int from, int to) const {
    return clip({0, from, a.width, static_cast<std::int64_t>(to - from)}, a.width, a.height);
  }
  void diffBand(int y) {
    const Clip c = rows(y, std::min(y + kBand, a.height));
    clearMask(mask, a.width, c);
    bandMarked[static_cast<std::size_t>(y / kBand)] = diffArea(a, b, options.level, c, mask) > 0;
  }
  // The rows [from, to) that hold every pixel the whole-image pass marked (from a multiple of
  // the 8-row tiles, so clustering them alone sees the same tiles); empty when none.
  std::pair<int, int> markedRows() const {
    std::pair<int, int> found{0, 0};
    for (std::size_t k = 0; k < bandMarked.size(); ++k) {
      if (!bandMarked[k]) continue;
      const int y = static_cast<int>(k) * kBand;
      if (found.second == 0) found.first = y;
      found.second = std::min(y + kBand, a.height);
    }
    return found;
  }
  void diffReady(int finalRows) {
    int y = next.load();
    while (y < a.height && std::min(y + kBand + kReach, a.height) <= finalRows) {
      if (next.compare_exchange_weak(y, y + kBand)) {
        diffBand(y);
        y = next.load();
      }
    }
  }
  // Takes bands until none is left, waiting for their rows.
  void diffBands() {
    for (int y = next.fetch_add(kBand); y < a.height; y = next.fetch_add(kBand)) {
      awaitRows(options, std::min(y + kBand + kReach, a.height));
      diffBand(y);
    }
  }
  void diffRemaining();
  CompareResult finish();
};

void Comparison::State::diffRemaining() {
  if (options.threads < 2 || a.height - next.load() < 2 * kBand) {
    diffBands();
    return;
  }
  // The helper comes from a pool of waiting threads, and does nothing if it starts only after
  // this thread has taken every band. While the checkpoint is still being decoded, one thread
  // keeps up with the decoding, and a second would only take the decoder's core: the helper
  // joins in once the decoding is done.
  std::shared_ptr<TaskPool::Task> helper;
  try {
    helper = TaskPool::shared().post([&] {
      try {
        awaitRows(options, a.height);
        diffBands();
      } catch (...) {
        next = a.height;  // the other thread stops at its next band
        throw;
      }
    });
  } catch (const std::system_error&) {
    // No thread to spare: this thread takes every band.
  }
  try {
    diffBands();
  } catch (...) {
    next = a.height;
    if (helper) {
      try {
        helper->finish();
      } catch (...) {
        // The first failure is the one reported.
      }
    }
    throw;
  }
  if (helper) helper->finish();
}

CompareResult Comparison::State::finish() {
  CompareResult result;
  if (!options.accessibilityRegions.empty()) awaitRows(options, b.height);
  for (const AccessibilityRegion& region : options.accessibilityRegions) {
    result.accessibility.push_back(detail::checkContrast(b, region, options.accessibilityLevel));
  }
  const std::size_t width = a.width, height = a.height;
  if (a.width != b.width || a.height != b.height) {
    const std::size_t w = std::max(a.width, b.width);
    const std::size_t h = std::max(a.height, b.height);
    result.matches = false;
    result.sizesDiffer = true;
    result.differingPixels = w * h;
    result.differences.push_back(
        {0, 0, static_cast<std::int64_t>(w), static_cast<std::int64_t>(h)});
    return result;
  }
  if (options.level == MatchLevel::None || width == 0 || height == 0) return result;
  // The rows in which clustering has work: those of the whole-image pass's marks, or all of
  // them once regions compare their areas again.
  std::pair<int, int> marked{0, a.height};
  if (inBands) {
    diffRemaining();
    marked = markedRows();
  } else {
    awaitRows(options, b.height);
    std::fill(mask.begin(), mask.end(), 0);
    if (diffArea(a, b, options.level, rows(0, a.height), mask) == 0) marked = {0, 0};
  }
  awaitRows(options, b.height);  // the rest reads anywhere
  if (!options.layoutRegions.empty() || !options.contentRegions.empty() ||
      !options.strictRegions.empty()) {
    marked = {0, a.height};
  }
  const std::pair<const std::vector<PixelRect>*, MatchLevel> regionLevels[] = {
      {&options.layoutRegions, MatchLevel::Layout},
      {&options.contentRegions, MatchLevel::Content},
      {&options.strictRegions, MatchLevel::Strict}};
  for (const auto& [rects, level] : regionLevels) {
    for (const PixelRect& r : *rects) {
      const Clip c = clip(r, width, height);
      if (c.isEmpty()) continue;
      clearMask(mask, width, c);
      diffArea(a, b, level, c, mask);
    }
  }
  for (const FloatingRegion& f : options.floatingRegions) {
    clearMask(mask, width, searchArea(f, width, height));
  }
  for (const PixelRect& r : options.ignoreRegions) clearMask(mask, width, clip(r, width, height));

  if (marked.first < marked.second) {
    detail::Clusters clusters =
        detail::cluster(&mask[static_cast<std::size_t>(marked.first) * width], width,
                        static_cast<int>(width), marked.second - marked.first, 0, marked.first);
    result.differingPixels = clusters.counted;
    result.differences = std::move(clusters.boxes);
  }

  for (const FloatingRegion& f : options.floatingRegions) {
    const Clip region = clip(f.rect, width, height);
    if (region.isEmpty() || floatingFound(a, b, f, region)) continue;
    // Not found: the region's own differences at Strict count, and the region is one box.
    const Span s{&a,
                 &b,
                 region.x0,
                 region.y0,
                 region.x0,
                 region.y0,
                 region.width(),
                 region.height(),
                 &mask[region.y0 * width + region.x0],
                 width};
    detail::diffStrict(s, false);
    for (int y = region.y0; y < region.y1; ++y) {
      for (int x = region.x0; x < region.x1; ++x) {
        std::uint8_t& m = mask[y * width + x];
        if (m == detail::kCandidate) m = detail::kCounted, ++result.differingPixels;
      }
    }
    result.differences.push_back({region.x0, region.y0, region.width(), region.height()});
  }
  std::sort(result.differences.begin(), result.differences.end(),
            [](const PixelRect& p, const PixelRect& q) {
              return p.top != q.top ? p.top < q.top : p.left < q.left;
            });
  result.matches = result.differences.empty();
  if (!result.matches && options.keepMask) {
    detail::resolveForgiven(a, b, mask.data());
    result.mask = mask;
    result.maskWidth = width;
    result.maskHeight = height;
  }
  return result;
}

Comparison::Comparison(const Image& baseline, const std::uint8_t* checkpointRgba, std::size_t width,
                       std::size_t height, CompareOptions options, const std::uint8_t* sameRows)
    : state_(std::make_unique<State>(
          view(baseline),
          Pixels{checkpointRgba, static_cast<int>(width), static_cast<int>(height), sameRows},
          std::move(options))) {}

Comparison::Comparison(std::unique_ptr<State> state) : state_(std::move(state)) {}

Comparison::~Comparison() = default;

void Comparison::diffReady(std::size_t finalRows) {
  if (state_->inBands) {
    state_->diffReady(static_cast<int>(std::min<std::size_t>(finalRows, INT_MAX)));
  }
}

CompareResult Comparison::finish() {
  return state_->finish();
}

namespace {

// The comparison proper, on pixels that may live in an Image or in a decoding buffer.
CompareResult compareViews(const Pixels& baseline, const Pixels& checkpoint,
                           const CompareOptions& options) {
  return Comparison(std::make_unique<Comparison::State>(baseline, checkpoint, options)).finish();
}

}  // namespace

CompareResult compareImages(const Image& baseline, const Image& checkpoint,
                            const CompareOptions& options) {
  return compareViews(view(baseline), view(checkpoint), options);
}

CompareResult compareDecoding(const Image& baseline, const std::uint8_t* checkpointRgba,
                              std::size_t width, std::size_t height, const CompareOptions& options,
                              const std::uint8_t* sameRows) {
  return compareViews(view(baseline),
                      {checkpointRgba, static_cast<int>(width), static_cast<int>(height), sameRows},
                      options);
}

CompareResult comparePNG(const std::vector<std::uint8_t>& baselinePNG,
                         const std::vector<std::uint8_t>& checkpointPNG,
                         const CompareOptions& options) {
  // Common screenshots decode together into buffers each thread keeps; anything else through
  // Image.
  static thread_local std::vector<std::uint8_t> baselinePixels, checkpointPixels, sameRows;
  png::DecodedPixels a{baselinePixels}, b{checkpointPixels};
  if (png::decodeCommonPairInto(baselinePNG, checkpointPNG, a, b, sameRows)) {
    const Pixels checkpoint{checkpointPixels.data(), static_cast<int>(b.width),
                            static_cast<int>(b.height), sameRows.data()};
    CompareResult result =
        compareViews({baselinePixels.data(), static_cast<int>(a.width), static_cast<int>(a.height)},
                     checkpoint, options);
    releaseIfLarge(baselinePixels);
    releaseIfLarge(checkpointPixels);
    return result;
  }
  const std::shared_ptr<Image> baseline = Image::fromPNGData(baselinePNG);
  const std::shared_ptr<Image> checkpoint = Image::fromPNGData(checkpointPNG);
  return compareImages(*baseline, *checkpoint, options);
}

Image makeDiffImage(const Image& baseline, const CompareResult& result) {
  std::size_t width = baseline.width(), height = baseline.height();
  if (result.sizesDiffer && !result.differences.empty()) {
    width = std::max<std::size_t>(width, result.differences.front().width);
    height = std::max<std::size_t>(height, result.differences.front().height);
  }
  Image out(width, height, baseline.scale());
  std::uint8_t* dst = out.mutableData();
  const bool haveMask = result.maskWidth == baseline.width() &&
                        result.maskHeight == baseline.height() &&
                        result.mask.size() == result.maskWidth * result.maskHeight;
  for (std::size_t y = 0; y < height; ++y) {
    for (std::size_t x = 0; x < width; ++x) {
      std::uint8_t* d = dst + (y * width + x) * 4;
      d[3] = 255;
      if (x >= baseline.width() || y >= baseline.height()) {
        d[0] = 255, d[1] = 0, d[2] = 0;
        continue;
      }
      const std::uint8_t mark = haveMask ? result.mask[y * baseline.width() + x] : 0;
      if (mark == detail::kCounted) {
        d[0] = 255, d[1] = 0, d[2] = 0;
      } else if (mark == detail::kForgiven) {
        d[0] = 255, d[1] = 230, d[2] = 140;
      } else {
        // Grey by luminance, blended over white, then faded to a third of its contrast.
        const std::uint8_t* p = baseline.pixel(x, y);
        const int grey = (p[0] * 77 + p[1] * 150 + p[2] * 29) >> 8;
        const int over = 255 - ((255 - grey) * p[3]) / 255;
        const auto faded = static_cast<std::uint8_t>(255 - (255 - over) / 3);
        d[0] = d[1] = d[2] = faded;
      }
    }
  }
  if (!result.sizesDiffer) {
    const auto paint = [&](std::int64_t x, std::int64_t y) {
      if (x < 0 || y < 0 || x >= static_cast<std::int64_t>(width) ||
          y >= static_cast<std::int64_t>(height)) {
        return;
      }
      std::uint8_t* d = dst + (y * width + x) * 4;
      d[0] = 255, d[1] = 0, d[2] = 0, d[3] = 255;
    };
    for (const PixelRect& r : result.differences) {
      if (r.isEmpty()) continue;
      // The outline sits one pixel outside the box so the marked pixels stay visible.
      const std::int64_t x0 = r.left - 1, y0 = r.top - 1, x1 = r.right(), y1 = r.bottom();
      for (std::int64_t x = x0; x <= x1; ++x) paint(x, y0), paint(x, y1);
      for (std::int64_t y = y0; y <= y1; ++y) paint(x0, y), paint(x1, y);
    }
  }
  return out;
}

}  // namespace saffra::compare
