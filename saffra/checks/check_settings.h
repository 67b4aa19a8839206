// The per-check settings builder. A test describes one check in a chained expression that starts
// from the image:
//
//   auto settings = Target::image(img)->ignore({region})->floating({badge}, 5)->layout();
//
// Every chained operation takes a copy of the receiver, changes the copy and returns it. Plain
// CheckSettings therefore never change under a chain, while ImagesCheckSettings (what
// Target::image gives) hand back themselves as their copy, so a chain changes them in place.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "saffra/base/region.h"
#include "saffra/checks/match_level.h"
#include "saffra/checks/region_provider_protocols.h"
#include "saffra/platform/image.h"

namespace saffra {

class CheckSettings;

/// The public chained operations of check settings.
class CheckSettingsProtocol {
 public:
  using RegionList = std::vector<std::shared_ptr<Region>>;
  using Result = std::shared_ptr<CheckSettings>;

  virtual ~CheckSettingsProtocol() = default;

  /// Each region is copied and appended to the ignored regions.
  virtual Result ignore(const RegionList& regions) = 0;
  /// Each region is copied and appended to the layout regions.
  virtual Result layout(const RegionList& regions) = 0;
  /// Each region is copied and appended to the strict regions.
  virtual Result strict(const RegionList& regions) = 0;
  /// Each region is copied and appended to the content regions.
  virtual Result content(const RegionList& regions) = 0;
  /// Each region is copied and appended as a floating region that may move by `maxOffset` in
  /// every direction.
  virtual Result floating(const RegionList& regions, std::int64_t maxOffset) = 0;
  /// One floating region with its own offsets; note the order up, down, right, left.
  virtual Result floating(const std::shared_ptr<Region>& region, std::int64_t maxUpOffset,
                          std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                          std::int64_t maxLeftOffset) = 0;
  /// One accessibility region of the given type.
  virtual Result accessibility(const std::shared_ptr<Region>& region, std::uint64_t type) = 0;
  /// Capture the full content.
  virtual Result fully() = 0;
  virtual Result timeoutInSeconds(std::int64_t seconds) = 0;
  /// Match levels Layout (2), Content (3), Strict (4) and Exact (5).
  virtual Result layout() = 0;
  virtual Result content() = 0;
  virtual Result strict() = 0;
  virtual Result exact() = 0;
  /// Any level, unchecked; 1 means "not chosen" and leaves the session's default in force.
  virtual Result matchLevel(std::int64_t level) = 0;
  virtual Result ignoreCaret() = 0;
  virtual Result ignoreCaret(bool value) = 0;
  virtual Result withStatusBar() = 0;
  virtual Result ignoreDisplacements() = 0;
  virtual Result ignoreDisplacements(bool value) = 0;
  virtual Result enablePatterns() = 0;
  virtual Result enablePatterns(bool value) = 0;
};

/// What the check pipeline reads from check settings (for the library's own use).
class CheckSettingsInternalProtocol {
 public:
  using ProviderList = std::vector<std::shared_ptr<GetRegionProtocol>>;
  using FloatingProviderList = std::vector<std::shared_ptr<GetFloatingRegionProtocol>>;
  using AccessibilityProviderList = std::vector<std::shared_ptr<GetAccessibilityRegionProtocol>>;

  virtual ~CheckSettingsInternalProtocol() = default;

  virtual std::shared_ptr<Region> getTargetRegion() const = 0;
  virtual std::int64_t getTimeoutInSeconds() const = 0;
  virtual std::int64_t getMatchLevel() const = 0;
  virtual bool getStitchContent() const = 0;
  virtual bool getIgnoreCaret() const = 0;
  virtual bool getWithStatusBar() const = 0;
  virtual bool getIgnoreDisplacements() const = 0;
  virtual bool getEnablePatterns() const = 0;
  /// Snapshots of the provider lists, in insertion order.
  virtual ProviderList getIgnoredRegions() const = 0;
  virtual ProviderList getLayoutRegions() const = 0;
  virtual ProviderList getStrictRegions() const = 0;
  virtual ProviderList getContentRegions() const = 0;
  virtual FloatingProviderList getFloatingRegions() const = 0;
  virtual AccessibilityProviderList getAccessibilityRegions() const = 0;
};

/// Settings of one check; used through std::shared_ptr.
class CheckSettings : public CheckSettingsProtocol,
                      public CheckSettingsInternalProtocol,
                      public std::enable_shared_from_this<CheckSettings> {
 public:
  /// The defaults: no regions, empty target region, match level 1 ("not chosen"), flags off,
  /// timeout 0.
  CheckSettings();
  /// The defaults with a retry timeout.
  explicit CheckSettings(std::int64_t timeoutSeconds);
  /// The defaults with a target region (the object itself is kept).
  explicit CheckSettings(std::shared_ptr<Region> targetRegion);
  ~CheckSettings() override = default;

  /// A new object of the receiver's class with the same values, new lists holding the same
  /// providers and a copy of the target region.
  virtual std::shared_ptr<CheckSettings> copy() const;

  // Chained operations (see CheckSettingsProtocol).
  using CheckSettingsProtocol::content;
  using CheckSettingsProtocol::layout;
  using CheckSettingsProtocol::strict;
  Result ignore(const RegionList& regions) override;
  Result layout(const RegionList& regions) override;
  Result strict(const RegionList& regions) override;
  Result content(const RegionList& regions) override;
  Result floating(const RegionList& regions, std::int64_t maxOffset) override;
  Result floating(const std::shared_ptr<Region>& region, std::int64_t maxUpOffset,
                  std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                  std::int64_t maxLeftOffset) override;
  Result accessibility(const std::shared_ptr<Region>& region, std::uint64_t type) override;
  Result fully() override;
  Result timeoutInSeconds(std::int64_t seconds) override;
  Result layout() override;
  Result content() override;
  Result strict() override;
  Result exact() override;
  Result matchLevel(std::int64_t level) override;
  Result ignoreCaret() override;
  Result ignoreCaret(bool value) override;
  Result withStatusBar() override;
  Result ignoreDisplacements() override;
  Result ignoreDisplacements(bool value) override;
  Result enablePatterns() override;
  Result enablePatterns(bool value) override;

  // Operations on the receiver itself (for the library's own use and subclasses).
  void setupDefaultValues();
  void updateTargetRegion(std::shared_ptr<Region> region) { targetRegion_ = std::move(region); }
  /// Wrap the region (not copied) in a rectangle provider and append it to the list concerned.
  void ignoreRegion(std::shared_ptr<Region> region);
  void layoutRegion(std::shared_ptr<Region> region);
  void strictRegion(std::shared_ptr<Region> region);
  void contentRegion(std::shared_ptr<Region> region);
  void floatingRegion(std::shared_ptr<Region> region, std::int64_t maxUpOffset,
                      std::int64_t maxDownOffset, std::int64_t maxRightOffset,
                      std::int64_t maxLeftOffset);
  void accessibilityRegion(std::shared_ptr<Region> region, std::uint64_t type);
  void accessibilityRegion(std::shared_ptr<GetAccessibilityRegionProtocol> provider);
  /// Append a provider as it is.
  void ignore_(std::shared_ptr<GetRegionProtocol> provider);
  void layout_(std::shared_ptr<GetRegionProtocol> provider);
  void strict_(std::shared_ptr<GetRegionProtocol> provider);
  void content_(std::shared_ptr<GetRegionProtocol> provider);
  void floating_(std::shared_ptr<GetFloatingRegionProtocol> provider);
  void accessibility_(std::shared_ptr<GetAccessibilityRegionProtocol> provider);

  std::shared_ptr<Region> getTargetRegion() const override { return targetRegion_; }
  std::int64_t getTimeoutInSeconds() const override { return timeout_; }
  std::int64_t getMatchLevel() const override { return matchLevel_; }
  bool getStitchContent() const override { return stitchContent_; }
  bool getIgnoreCaret() const override { return shouldIgnoreCaret_; }
  bool getWithStatusBar() const override { return shouldLeaveStatusBar_; }
  bool getIgnoreDisplacements() const override { return shouldIgnoreDisplacements_; }
  bool getEnablePatterns() const override { return shouldEnablePatterns_; }
  ProviderList getIgnoredRegions() const override { return ignoredRegions_; }
  ProviderList getLayoutRegions() const override { return layoutRegions_; }
  ProviderList getStrictRegions() const override { return strictRegions_; }
  ProviderList getContentRegions() const override { return contentRegions_; }
  FloatingProviderList getFloatingRegions() const override { return floatingRegions_; }
  AccessibilityProviderList getAccessibilityRegions() const override {
    return accessibilityRegions_;
  }

 protected:
  /// A new default object of the receiver's own class (the first step of copy()).
  virtual std::shared_ptr<CheckSettings> newDefaultObject() const;

 private:
  ProviderList ignoredRegions_;
  ProviderList layoutRegions_;
  ProviderList strictRegions_;
  ProviderList contentRegions_;
  FloatingProviderList floatingRegions_;
  AccessibilityProviderList accessibilityRegions_;
  std::shared_ptr<Region> targetRegion_;
  std::int64_t matchLevel_ = MatchLevelNone;
  bool shouldIgnoreCaret_ = false;
  bool shouldIgnoreDisplacements_ = false;
  bool shouldEnablePatterns_ = false;
  std::int64_t timeout_ = 0;
  bool shouldLeaveStatusBar_ = false;
  bool stitchContent_ = false;
};

/// Check settings that carry the image to compare.
class ImagesCheckTargetImageProtocol {
 public:
  virtual ~ImagesCheckTargetImageProtocol() = default;
  virtual std::shared_ptr<Image> targetImage() const = 0;
};

/// The settings of an image check. Their copy is the receiver itself, so chained operations
/// change the object in place and return it.
class ImagesCheckSettings : public CheckSettings, public ImagesCheckTargetImageProtocol {
 public:
  ImagesCheckSettings() = default;
  /// The defaults with the image (the object itself is kept).
  explicit ImagesCheckSettings(std::shared_ptr<Image> targetImage)
      : targetImage_(std::move(targetImage)) {}

  /// Makes the base copy with the image, then discards it and returns this very object. An
  /// object not owned by a std::shared_ptr cannot hand out itself and returns the copy instead.
  std::shared_ptr<CheckSettings> copy() const override;

  std::shared_ptr<Image> targetImage() const override { return targetImage_; }
  void setTargetImage(std::shared_ptr<Image> image) { targetImage_ = std::move(image); }

 protected:
  std::shared_ptr<CheckSettings> newDefaultObject() const override;

 private:
  std::shared_ptr<Image> targetImage_;
};

/// The entry point of the chained settings.
class Target {
 public:
  /// New image check settings for the image (the object itself is kept).
  static std::shared_ptr<ImagesCheckSettings> image(std::shared_ptr<Image> image);
};

}  // namespace saffra
