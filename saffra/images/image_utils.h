// Saving, cropping and the documents folder: the image helpers the screenshots and the debug
// files rely on.
#pragma once

#include <memory>
#include <string>

#include "saffra/platform/geometry.h"
#include "saffra/platform/image.h"

namespace saffra {

/// Stateless image helpers.
class ImageUtils {
 public:
  /// Writes the image as PNG to `filename` (a full path), atomically. Creates the folder and
  /// its parents when nothing exists at the folder's path; throws SaffraException with the
  /// error's description when that fails, and SaffraException "Failed to save image" when the
  /// image is absent or the file cannot be written.
  static void saveImage(const std::shared_ptr<Image>& image, const std::string& filename);

  /// The folder that stands for the user's documents folder ($XDG_DATA_HOME, else
  /// ~/.local/share), without a separator at the end.
  static std::string documentsFolderPath();

  /// A new image at scale 1 of the pixels under `rect`, in pixel coordinates. The rectangle is
  /// standardised, rounded outward to whole pixels (origin floored, far edges ceiled) and
  /// clipped to the image; nullptr when nothing is left or the image is absent.
  static std::shared_ptr<Image> cropRect(const Rect& rect, const std::shared_ptr<Image>& image);
};

}  // namespace saffra
