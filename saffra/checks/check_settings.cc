#include "saffra/checks/check_settings.h"

#include "saffra/base/argument_guard.h"
#include "saffra/checks/accessibility_region_by_rectangle.h"
#include "saffra/checks/region_providers.h"

namespace saffra {

namespace {

std::shared_ptr<Region> copyOf(const std::shared_ptr<Region>& region) {
  return region ? region->copy() : nullptr;
}

}  // namespace

CheckSettings::CheckSettings() {
  setupDefaultValues();
}

CheckSettings::CheckSettings(std::int64_t timeoutSeconds) {
  setupDefaultValues();
  timeout_ = timeoutSeconds;
}

CheckSettings::CheckSettings(std::shared_ptr<Region> targetRegion) {
  setupDefaultValues();
  targetRegion_ = std::move(targetRegion);
}

void CheckSettings::setupDefaultValues() {
  targetRegion_ = Region::emptyRegion();
  matchLevel_ = MatchLevelNone;
  shouldIgnoreCaret_ = false;
  shouldIgnoreDisplacements_ = false;
  shouldEnablePatterns_ = false;
  stitchContent_ = false;
  ignoredRegions_.clear();
  layoutRegions_.clear();
  strictRegions_.clear();
  contentRegions_.clear();
  floatingRegions_.clear();
  accessibilityRegions_.clear();
}

std::shared_ptr<CheckSettings> CheckSettings::newDefaultObject() const {
  return std::make_shared<CheckSettings>();
}

std::shared_ptr<CheckSettings> CheckSettings::copy() const {
  auto other = newDefaultObject();
  other->targetRegion_ = copyOf(targetRegion_);
  other->matchLevel_ = matchLevel_;
  other->stitchContent_ = stitchContent_;
  other->timeout_ = timeout_;
  other->shouldIgnoreCaret_ = shouldIgnoreCaret_;
  other->shouldIgnoreDisplacements_ = shouldIgnoreDisplacements_;
  other->shouldEnablePatterns_ = shouldEnablePatterns_;
  other->shouldLeaveStatusBar_ = shouldLeaveStatusBar_;
  other->ignoredRegions_ = ignoredRegions_;
  other->layoutRegions_ = layoutRegions_;
  other->strictRegions_ = strictRegions_;
  other->contentRegions_ = contentRegions_;
  other->floatingRegions_ = floatingRegions_;
  other->accessibilityRegions_ = accessibilityRegions_;
  return other;
}

// ---- chained operations ----------------------------------------------------------------------

CheckSettings::Result CheckSettings::ignore(const RegionList& regions) {
  auto clone = copy();
  for (const auto& region : regions) clone->ignoreRegion(copyOf(region));
  return clone;
}

CheckSettings::Result CheckSettings::layout(const RegionList& regions) {
  auto clone = copy();
  for (const auto& region : regions) clone->layoutRegion(copyOf(region));
  return clone;
}

CheckSettings::Result CheckSettings::strict(const RegionList& regions) {
  auto clone = copy();
  for (const auto& region : regions) clone->strictRegion(copyOf(region));
  return clone;
}

CheckSettings::Result CheckSettings::content(const RegionList& regions) {
  auto clone = copy();
  for (const auto& region : regions) clone->contentRegion(copyOf(region));
  return clone;
}

CheckSettings::Result CheckSettings::floating(const RegionList& regions, std::int64_t maxOffset) {
  auto clone = copy();
  for (const auto& region : regions) {
    clone->floatingRegion(copyOf(region), maxOffset, maxOffset, maxOffset, maxOffset);
  }
  return clone;
}

CheckSettings::Result CheckSettings::floating(const std::shared_ptr<Region>& region,
                                              std::int64_t maxUpOffset, std::int64_t maxDownOffset,
                                              std::int64_t maxRightOffset,
                                              std::int64_t maxLeftOffset) {
  auto clone = copy();
  clone->floatingRegion(copyOf(region), maxUpOffset, maxDownOffset, maxRightOffset, maxLeftOffset);
  return clone;
}

CheckSettings::Result CheckSettings::accessibility(const std::shared_ptr<Region>& region,
                                                   std::uint64_t type) {
  auto clone = copy();
  clone->accessibilityRegion(copyOf(region), type);
  return clone;
}

CheckSettings::Result CheckSettings::fully() {
  auto clone = copy();
  clone->stitchContent_ = true;
  return clone;
}

CheckSettings::Result CheckSettings::timeoutInSeconds(std::int64_t seconds) {
  auto clone = copy();
  clone->timeout_ = seconds;
  return clone;
}

CheckSettings::Result CheckSettings::layout() {
  return matchLevel(MatchLevelLayout);
}

CheckSettings::Result CheckSettings::content() {
  return matchLevel(MatchLevelContent);
}

CheckSettings::Result CheckSettings::strict() {
  return matchLevel(MatchLevelStrict);
}

CheckSettings::Result CheckSettings::exact() {
  return matchLevel(MatchLevelExact);
}

CheckSettings::Result CheckSettings::matchLevel(std::int64_t level) {
  auto clone = copy();
  clone->matchLevel_ = level;
  return clone;
}

CheckSettings::Result CheckSettings::ignoreCaret() {
  return ignoreCaret(true);
}

CheckSettings::Result CheckSettings::ignoreCaret(bool value) {
  auto clone = copy();
  clone->shouldIgnoreCaret_ = value;
  return clone;
}

CheckSettings::Result CheckSettings::withStatusBar() {
  auto clone = copy();
  clone->shouldLeaveStatusBar_ = true;
  return clone;
}

CheckSettings::Result CheckSettings::ignoreDisplacements() {
  return ignoreDisplacements(true);
}

CheckSettings::Result CheckSettings::ignoreDisplacements(bool value) {
  auto clone = copy();
  clone->shouldIgnoreDisplacements_ = value;
  return clone;
}

CheckSettings::Result CheckSettings::enablePatterns() {
  return enablePatterns(true);
}

CheckSettings::Result CheckSettings::enablePatterns(bool value) {
  auto clone = copy();
  clone->shouldEnablePatterns_ = value;
  return clone;
}

// ---- operations on the receiver ----------------------------------------------------------------

void CheckSettings::ignoreRegion(std::shared_ptr<Region> region) {
  ignore_(std::make_shared<IgnoreRegionByRectangle>(std::move(region)));
}

void CheckSettings::layoutRegion(std::shared_ptr<Region> region) {
  layout_(std::make_shared<IgnoreRegionByRectangle>(std::move(region)));
}

void CheckSettings::strictRegion(std::shared_ptr<Region> region) {
  strict_(std::make_shared<IgnoreRegionByRectangle>(std::move(region)));
}

void CheckSettings::contentRegion(std::shared_ptr<Region> region) {
  content_(std::make_shared<IgnoreRegionByRectangle>(std::move(region)));
}

void CheckSettings::floatingRegion(std::shared_ptr<Region> region, std::int64_t maxUpOffset,
                                   std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                                   std::int64_t maxLeftOffset) {
  // The provider takes its offsets as up, down, left, right.
  floating_(std::make_shared<FloatingRegionByRectangle>(
      std::move(region), maxUpOffset, maxDownOffset, maxLeftOffset, maxRightOffset));
}

void CheckSettings::accessibilityRegion(std::shared_ptr<Region> region, std::uint64_t type) {
  accessibility_(std::make_shared<AccessibilityRegionByRectangle>(std::move(region), type));
}

void CheckSettings::accessibilityRegion(std::shared_ptr<GetAccessibilityRegionProtocol> provider) {
  accessibility_(std::move(provider));
}

void CheckSettings::ignore_(std::shared_ptr<GetRegionProtocol> provider) {
  ignoredRegions_.push_back(std::move(provider));
}

void CheckSettings::layout_(std::shared_ptr<GetRegionProtocol> provider) {
  layoutRegions_.push_back(std::move(provider));
}

void CheckSettings::strict_(std::shared_ptr<GetRegionProtocol> provider) {
  strictRegions_.push_back(std::move(provider));
}

void CheckSettings::content_(std::shared_ptr<GetRegionProtocol> provider) {
  contentRegions_.push_back(std::move(provider));
}

void CheckSettings::floating_(std::shared_ptr<GetFloatingRegionProtocol> provider) {
  floatingRegions_.push_back(std::move(provider));
}

void CheckSettings::accessibility_(std::shared_ptr<GetAccessibilityRegionProtocol> provider) {
  accessibilityRegions_.push_back(std::move(provider));
}

// ---- image check settings ----------------------------------------------------------------------

std::shared_ptr<CheckSettings> ImagesCheckSettings::newDefaultObject() const {
  return std::make_shared<ImagesCheckSettings>();
}

std::shared_ptr<CheckSettings> ImagesCheckSettings::copy() const {
  auto clone = std::static_pointer_cast<ImagesCheckSettings>(CheckSettings::copy());
  clone->setTargetImage(targetImage_);
  if (auto self = std::const_pointer_cast<CheckSettings>(weak_from_this().lock())) return self;
  return clone;
}

std::shared_ptr<ImagesCheckSettings> Target::image(std::shared_ptr<Image> image) {
  ArgumentGuard::notNil(image, "image");
  return std::make_shared<ImagesCheckSettings>(std::move(image));
}

}  // namespace saffra
