// Region providers: the objects that hold a check's special regions and hand them out when the
// check runs. The rectangle providers hold a Region; the element providers hold a UIElement and
// read its frame only at check time, so an element that moved in between is reported where it is.
#pragma once

#include <cstdint>
#include <memory>

#include "saffra/base/region.h"
#include "saffra/checks/floating_match_settings.h"
#include "saffra/checks/region_provider_protocols.h"
#include "saffra/platform/ui_element.h"

namespace saffra {

/// An ignore, layout, strict or content region given as a rectangle.
class IgnoreRegionByRectangle : public GetRegionProtocol {
 public:
  explicit IgnoreRegionByRectangle(std::shared_ptr<Region> region) { setRegion(std::move(region)); }
  /// The held region itself (absent when none is held), so later changes to it are seen.
  std::shared_ptr<Region> getRegion() override { return region_; }
  const std::shared_ptr<Region>& region() const { return region_; }
  void setRegion(std::shared_ptr<Region> region) { region_ = std::move(region); }
  /// A new provider holding a copy of the region.
  std::shared_ptr<IgnoreRegionByRectangle> copy() const;

 private:
  std::shared_ptr<Region> region_;
};

/// An ignore, layout, strict or content region taken from an element's frame.
class IgnoreRegionByElement : public GetRegionProtocol {
 public:
  explicit IgnoreRegionByElement(std::shared_ptr<UIElement> element)
      : element_(std::move(element)) {}
  /// A new Region from the element's current frame; zeros when there is no element.
  std::shared_ptr<Region> getRegion() override;
  const std::shared_ptr<UIElement>& element() const { return element_; }
  void setElement(std::shared_ptr<UIElement> element) { element_ = std::move(element); }
  /// A new provider with a copy of the element, or the same element when it cannot be copied.
  std::shared_ptr<IgnoreRegionByElement> copy() const;

 private:
  std::shared_ptr<UIElement> element_;
};

/// A floating region given as a rectangle and four offsets.
class FloatingRegionByRectangle : public GetFloatingRegionProtocol {
 public:
  FloatingRegionByRectangle(std::shared_ptr<Region> region, std::int64_t maxUpOffset,
                            std::int64_t maxDownOffset, std::int64_t maxLeftOffset,
                            std::int64_t maxRightOffset);
  /// A new FloatingMatchSettings from the region truncated to integers (zeros when absent).
  std::shared_ptr<FloatingMatchSettings> getRegion() override;

  const std::shared_ptr<Region>& region() const { return region_; }
  void setRegion(std::shared_ptr<Region> region) { region_ = std::move(region); }
  std::int64_t maxUpOffset() const { return maxUpOffset_; }
  void setMaxUpOffset(std::int64_t value) { maxUpOffset_ = value; }
  std::int64_t maxDownOffset() const { return maxDownOffset_; }
  void setMaxDownOffset(std::int64_t value) { maxDownOffset_ = value; }
  std::int64_t maxLeftOffset() const { return maxLeftOffset_; }
  void setMaxLeftOffset(std::int64_t value) { maxLeftOffset_ = value; }
  std::int64_t maxRightOffset() const { return maxRightOffset_; }
  void setMaxRightOffset(std::int64_t value) { maxRightOffset_ = value; }
  /// A new provider holding a copy of the region and the same offsets.
  std::shared_ptr<FloatingRegionByRectangle> copy() const;

 private:
  std::shared_ptr<Region> region_;
  std::int64_t maxUpOffset_ = 0;
  std::int64_t maxDownOffset_ = 0;
  std::int64_t maxLeftOffset_ = 0;
  std::int64_t maxRightOffset_ = 0;
};

/// A floating region taken from an element's frame, with four offsets.
class FloatingRegionByElement : public GetFloatingRegionProtocol {
 public:
  FloatingRegionByElement(std::shared_ptr<UIElement> element, std::int64_t maxUpOffset,
                          std::int64_t maxDownOffset, std::int64_t maxLeftOffset,
                          std::int64_t maxRightOffset);
  /// A new FloatingMatchSettings from the element's current frame truncated to integers (zeros
  /// when there is no element).
  std::shared_ptr<FloatingMatchSettings> getRegion() override;

  const std::shared_ptr<UIElement>& element() const { return element_; }
  void setElement(std::shared_ptr<UIElement> element) { element_ = std::move(element); }
  std::int64_t maxUpOffset() const { return maxUpOffset_; }
  void setMaxUpOffset(std::int64_t value) { maxUpOffset_ = value; }
  std::int64_t maxDownOffset() const { return maxDownOffset_; }
  void setMaxDownOffset(std::int64_t value) { maxDownOffset_ = value; }
  std::int64_t maxLeftOffset() const { return maxLeftOffset_; }
  void setMaxLeftOffset(std::int64_t value) { maxLeftOffset_ = value; }
  std::int64_t maxRightOffset() const { return maxRightOffset_; }
  void setMaxRightOffset(std::int64_t value) { maxRightOffset_ = value; }
  /// A new provider with a copy of the element (or the same one) and the same offsets.
  std::shared_ptr<FloatingRegionByElement> copy() const;

 private:
  std::shared_ptr<UIElement> element_;
  std::int64_t maxUpOffset_ = 0;
  std::int64_t maxDownOffset_ = 0;
  std::int64_t maxLeftOffset_ = 0;
  std::int64_t maxRightOffset_ = 0;
};

/// The part of the image that a region check covers. Not copyable.
class RegionProvider : public RegionProviderProtocol {
 public:
  explicit RegionProvider(std::shared_ptr<Region> region) : region_(std::move(region)) {}
  RegionProvider(const RegionProvider&) = delete;
  RegionProvider& operator=(const RegionProvider&) = delete;
  /// The held region itself (absent when none is held).
  std::shared_ptr<Region> getRegion() override { return region_; }
  const std::shared_ptr<Region>& region() const { return region_; }
  void setRegion(std::shared_ptr<Region> region) { region_ = std::move(region); }

 private:
  std::shared_ptr<Region> region_;
};

}  // namespace saffra
