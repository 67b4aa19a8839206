// From an uploaded screenshot to pixels: the size its PNG header declares, decoding (and
// comparing while decoding) into pooled buffers, and the decoded baselines kept between checks.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "saffra/platform/exception.h"
#include "saffra/platform/image.h"
#include "saffra/platform/json.h"
#include "server/image_cache.h"
#include "server/match_settings.h"
#include "server/matcher.h"
#include "server/pixel_pool.h"
#include "server/replies.h"
#include "server/service.h"
#include "server/store.h"
#include "server/upload_file.h"

namespace saffra::server {

/// Reads the size a PNG declares in its header, without decoding it.
std::optional<std::pair<std::uint64_t, std::uint64_t>> declaredPngSize(
    const std::vector<std::uint8_t>& png);

/// Decodes uploads and stored images for the checks.
class UploadPipeline {
 public:
  UploadPipeline(const ServiceOptions& options, Store* store)
      : options(options), store(store), decodedImages(options.decodedImageCacheBytes) {}

  /// The uploaded screenshot's bytes; `png` holds them when they were decoded while reading
  /// the body.
  static std::vector<std::uint8_t> screenshotFrom(const Json& body,
                                                  std::optional<std::vector<std::uint8_t>> png);

  /// Refuses an upload that is not a PNG or whose header declares a size the service does not
  /// accept, before anything decodes it.
  void checkDeclaredSize(const std::vector<std::uint8_t>& png) const;

  /// Decodes an upload into one of the pooled pixel buffers; this thread prepares its file
  /// while a helper decodes.
  std::shared_ptr<const Image> decodeUpload(const std::vector<std::uint8_t>& png, UploadFile& file);

  /// The same, compared with `baseline` as it is decoded.
  DecodedMatch decodeUpload(const std::vector<std::uint8_t>& png, UploadFile& file,
                            const DecodedImage& baseline, const MatchSettings& settings);

  /// A stored image, decoded, with its bands; baselines are compared again at every run of
  /// their test, so decoded ones are kept.
  DecodedImage storedImage(const std::string& id);

 private:
  static RequestError invalidUpload(const Exception& e);

  const ServiceOptions& options;
  Store* store;
  /// Baselines already decoded, by image id.
  ImageCache decodedImages;
  /// Pixel buffers that uploads are decoded into. A few spare ones cover the checks running at
  /// once; more would only hold memory.
  std::shared_ptr<PixelPool> uploadPixels = std::make_shared<PixelPool>(4, std::size_t{128} << 20);
};

}  // namespace saffra::server
