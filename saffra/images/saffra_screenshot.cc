#include "saffra/images/saffra_screenshot.h"

#include "saffra/base/argument_guard.h"
#include "saffra/images/image_utils.h"
#include "saffra/results/exceptions.h"

namespace saffra {

std::shared_ptr<Image> SaffraImagesImageCropper::cropRegion(
    const std::shared_ptr<Region>& region, const std::shared_ptr<Image>& image) const {
  const Rect rect = region ? Rect(region->location().x, region->location().y, region->size().width,
                                  region->size().height)
                           : Rect();
  return cropRect(rect, image);
}

std::shared_ptr<Image> SaffraImagesImageCropper::cropRect(
    const Rect& rect, const std::shared_ptr<Image>& image) const {
  return ImageUtils::cropRect(rect, image);
}

namespace {

std::shared_ptr<Image> cropWith(const std::shared_ptr<SaffraImagesImageCropper>& cropper,
                                const std::shared_ptr<Region>& region,
                                const std::shared_ptr<Image>& image) {
  return cropper ? cropper->cropRegion(region, image) : nullptr;
}

Size pointSize(const std::shared_ptr<Image>& image) {
  return image ? image->size() : Size();
}

}  // namespace

std::shared_ptr<SaffraScreenshot> SaffraScreenshot::cropRegion(
    const std::shared_ptr<Region>& region, double scale) const {
  ArgumentGuard::notNil(region, "region");
  auto scaled = Region::scaledRegionFromRegion(region, scale);
  const Size size = pointSize(image_);
  auto bounds = std::make_shared<Region>(Rect(0, 0, size.width, size.height));
  auto crop = Region::intersectionBetweenRegion(scaled, bounds);
  if (crop->isEmpty()) throw OutOfBoundsException(scaled, bounds);
  return std::make_shared<SaffraScreenshot>(cropWith(imageCropper(), crop, image_));
}

std::shared_ptr<SaffraScreenshot> SaffraScreenshot::cropStatusBarWithHeight(double statusBarHeight,
                                                                            double scale) const {
  const double cut = statusBarHeight * scale;
  const Size size = pointSize(image_);
  auto kept = std::make_shared<Region>(Rect(0, cut, size.width, size.height - cut));
  return std::make_shared<SaffraScreenshot>(cropWith(imageCropper(), kept, image_));
}

std::shared_ptr<SaffraScreenshot> SaffraScreenshot::downscale(double /*scaleRatio*/) const {
  return std::make_shared<SaffraScreenshot>(image_);
}

std::shared_ptr<SaffraScreenshot> SaffraImagesScreenshot::cropRegion(
    const std::shared_ptr<Region>& region, double scale) const {
  return std::make_shared<SaffraImagesScreenshot>(
      SaffraScreenshot::cropRegion(region, scale)->image());
}

std::shared_ptr<SaffraScreenshot> SaffraImagesScreenshot::cropStatusBarWithHeight(
    double statusBarHeight, double scale) const {
  return std::make_shared<SaffraImagesScreenshot>(
      SaffraScreenshot::cropStatusBarWithHeight(statusBarHeight, scale)->image());
}

std::shared_ptr<SaffraScreenshot> SaffraImagesScreenshot::downscale(double scaleRatio) const {
  return std::make_shared<SaffraImagesScreenshot>(SaffraScreenshot::downscale(scaleRatio)->image());
}

}  // namespace saffra
