// The cropper of the image-based screenshots: cuts a rectangle of pixels out of an image.
#pragma once

#include <memory>

#include "saffra/images/region.h"
#include "saffra/platform/geometry.h"
#include "saffra/platform/image.h"

namespace saffra {

/// Cuts regions out of images; stateless.
class SaffraImagesImageCropper {
 public:
  virtual ~SaffraImagesImageCropper() = default;

  /// Crops to the region's location and size (an absent region counts as (0, 0, 0, 0)).
  std::shared_ptr<Image> cropRegion(const std::shared_ptr<Region>& region,
                                    const std::shared_ptr<Image>& image) const;
  /// A new image at scale 1 of the rectangle's pixels, taken in pixel coordinates as it stands
  /// (see ImageUtils::cropRect); nullptr when the rectangle misses the image.
  std::shared_ptr<Image> cropRect(const Rect& rect, const std::shared_ptr<Image>& image) const;
};

}  // namespace saffra
