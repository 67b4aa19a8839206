#include "saffra/checks/region_providers.h"

namespace saffra {

namespace {

std::shared_ptr<Region> regionFromElement(const std::shared_ptr<UIElement>& element) {
  return std::make_shared<Region>(element ? element->frame() : Rect());
}

// The element's copy when it has one, otherwise the element itself.
std::shared_ptr<UIElement> copyOrShare(const std::shared_ptr<UIElement>& element) {
  if (!element) return nullptr;
  auto copy = element->copy();
  return copy ? copy : element;
}

std::shared_ptr<FloatingMatchSettings> floatingFromRect(const Rect& rect, std::int64_t up,
                                                        std::int64_t down, std::int64_t left,
                                                        std::int64_t right) {
  return std::make_shared<FloatingMatchSettings>(
      Region::truncate(rect.origin.x), Region::truncate(rect.origin.y),
      Region::truncate(rect.size.width), Region::truncate(rect.size.height), up, down, left, right);
}

}  // namespace

std::shared_ptr<IgnoreRegionByRectangle> IgnoreRegionByRectangle::copy() const {
  return std::make_shared<IgnoreRegionByRectangle>(region_ ? region_->copy() : nullptr);
}

std::shared_ptr<Region> IgnoreRegionByElement::getRegion() {
  return regionFromElement(element_);
}

std::shared_ptr<IgnoreRegionByElement> IgnoreRegionByElement::copy() const {
  return std::make_shared<IgnoreRegionByElement>(copyOrShare(element_));
}

FloatingRegionByRectangle::FloatingRegionByRectangle(std::shared_ptr<Region> region,
                                                     std::int64_t maxUpOffset,
                                                     std::int64_t maxDownOffset,
                                                     std::int64_t maxLeftOffset,
                                                     std::int64_t maxRightOffset) {
  setRegion(std::move(region));
  setMaxUpOffset(maxUpOffset);
  setMaxDownOffset(maxDownOffset);
  setMaxLeftOffset(maxLeftOffset);
  setMaxRightOffset(maxRightOffset);
}

std::shared_ptr<FloatingMatchSettings> FloatingRegionByRectangle::getRegion() {
  return floatingFromRect(region_ ? region_->rect() : Rect(), maxUpOffset_, maxDownOffset_,
                          maxLeftOffset_, maxRightOffset_);
}

std::shared_ptr<FloatingRegionByRectangle> FloatingRegionByRectangle::copy() const {
  return std::make_shared<FloatingRegionByRectangle>(region_ ? region_->copy() : nullptr,
                                                     maxUpOffset_, maxDownOffset_, maxLeftOffset_,
                                                     maxRightOffset_);
}

FloatingRegionByElement::FloatingRegionByElement(std::shared_ptr<UIElement> element,
                                                 std::int64_t maxUpOffset,
                                                 std::int64_t maxDownOffset,
                                                 std::int64_t maxLeftOffset,
                                                 std::int64_t maxRightOffset)
    : element_(std::move(element)),
      maxUpOffset_(maxUpOffset),
      maxDownOffset_(maxDownOffset),
      maxLeftOffset_(maxLeftOffset),
      maxRightOffset_(maxRightOffset) {}

std::shared_ptr<FloatingMatchSettings> FloatingRegionByElement::getRegion() {
  return floatingFromRect(regionFromElement(element_)->rect(), maxUpOffset_, maxDownOffset_,
                          maxLeftOffset_, maxRightOffset_);
}

std::shared_ptr<FloatingRegionByElement> FloatingRegionByElement::copy() const {
  return std::make_shared<FloatingRegionByElement>(copyOrShare(element_), maxUpOffset_,
                                                   maxDownOffset_, maxLeftOffset_, maxRightOffset_);
}

}  // namespace saffra
