#include "saffra/images/saffra_images_image_cropper.h"

#include "saffra/images/image_utils.h"

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

}  // namespace saffra
