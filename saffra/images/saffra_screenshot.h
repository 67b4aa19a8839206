// Screenshots: an immutable wrapper of the image one check sends, with crops that return new
// screenshots. SaffraScreenshot is the general class and has no cropper, so its crops hold no
// image; SaffraImagesScreenshot, the one this library uses, crops with SaffraImagesImageCropper.
#pragma once

#include <memory>

#include "saffra/base/region.h"
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

/// One image with crop operations.
class SaffraScreenshot {
 public:
  explicit SaffraScreenshot(std::shared_ptr<Image> image) : image_(std::move(image)) {}
  virtual ~SaffraScreenshot() = default;

  const std::shared_ptr<Image>& image() const { return image_; }

  /// The part of the image under the region scaled by `scale`, cut down to the image's bounds
  /// (its size in points). Logs the intersection ("intersecting this region (%@) with %@ ...")
  /// and throws OutOfBoundsException when the scaled region does not overlap the image.
  virtual std::shared_ptr<SaffraScreenshot> cropRegion(const std::shared_ptr<Region>& region,
                                                       double scale) const;
  /// The image without its top statusBarHeight * scale points. No bounds check: a cut larger
  /// than the image gives a screenshot without an image.
  virtual std::shared_ptr<SaffraScreenshot> cropStatusBarWithHeight(double statusBarHeight,
                                                                    double scale) const;
  /// A new screenshot of the very same image, whatever the ratio: images handed in by tests are
  /// final, and the ratio only scales the crop region and the status-bar height.
  virtual std::shared_ptr<SaffraScreenshot> downscale(double scaleRatio) const;
  /// The cropper used by the crops; none in this class.
  virtual std::shared_ptr<SaffraImagesImageCropper> imageCropper() const { return nullptr; }

 private:
  std::shared_ptr<Image> image_;
};

/// The screenshot of image-based checks: crops with a SaffraImagesImageCropper and returns
/// SaffraImagesScreenshot objects.
class SaffraImagesScreenshot : public SaffraScreenshot {
 public:
  using SaffraScreenshot::SaffraScreenshot;

  std::shared_ptr<SaffraScreenshot> cropRegion(const std::shared_ptr<Region>& region,
                                               double scale) const override;
  std::shared_ptr<SaffraScreenshot> cropStatusBarWithHeight(double statusBarHeight,
                                                            double scale) const override;
  std::shared_ptr<SaffraScreenshot> downscale(double scaleRatio) const override;
  /// A new cropper on each call.
  std::shared_ptr<SaffraImagesImageCropper> imageCropper() const override {
    return std::make_shared<SaffraImagesImageCropper>();
  }
};

}  // namespace saffra
