#include "server/upload_pipeline.h"

#include <algorithm>
#include <string_view>

#include "saffra/platform/internal/png_format.h"
#include "server/base64.h"
#include "server/matcher.h"

namespace saffra::server {

/// Reads the size a PNG declares in its header, without decoding it.
std::optional<std::pair<std::uint64_t, std::uint64_t>> declaredPngSize(
    const std::vector<std::uint8_t>& png) {
  if (png.size() < 24 || !std::equal(png::kPngSignature, png::kPngSignature + 8, png.begin()) ||
      std::string_view(reinterpret_cast<const char*>(&png[12]), 4) != "IHDR") {
    return std::nullopt;
  }
  auto word = [&](std::size_t at) {
    return std::uint64_t{png[at]} << 24 | std::uint64_t{png[at + 1]} << 16 |
           std::uint64_t{png[at + 2]} << 8 | std::uint64_t{png[at + 3]};
  };
  return std::make_pair(word(16), word(20));
}

std::vector<std::uint8_t> UploadPipeline::screenshotFrom(
    const Json& body, std::optional<std::vector<std::uint8_t>> png) {
  if (png) return std::move(*png);
  const Json* text = json::find(objectAt(body, "appOutput"), "screenshot64");
  if (!text || !text->is_string() || text->get_ref<const std::string&>().empty()) {
    throw RequestError(400, "appOutput.screenshot64 is missing");
  }
  png = decodeBase64(text->get_ref<const std::string&>());
  if (!png) throw RequestError(400, "screenshot64 is not valid base64");
  return std::move(*png);
}

void UploadPipeline::checkDeclaredSize(const std::vector<std::uint8_t>& png) const {
  auto size = declaredPngSize(png);
  if (!size) throw RequestError(400, "screenshot64 is not a PNG image");
  if (size->first == 0 || size->second == 0 ||
      size->first * size->second > options.maxImagePixels) {
    throw RequestError(413, "the image's declared size " + std::to_string(size->first) + "x" +
                                std::to_string(size->second) + " is not accepted");
  }
}

std::shared_ptr<const Image> UploadPipeline::decodeUpload(const std::vector<std::uint8_t>& png,
                                                          UploadFile& file) {
  try {
    return uploadPixels->decode(png, nullptr, nullptr, {}, [&] { file.prepare(*store); }).image;
  } catch (const Exception& e) {
    throw invalidUpload(e);
  }
}

DecodedMatch UploadPipeline::decodeUpload(const std::vector<std::uint8_t>& png, UploadFile& file,
                                          const DecodedImage& baseline,
                                          const MatchSettings& settings) {
  try {
    return decodeAndMatch(*uploadPixels, png, baseline, settings, [&] { file.prepare(*store); });
  } catch (const Exception& e) {
    throw invalidUpload(e);
  }
}

RequestError UploadPipeline::invalidUpload(const Exception& e) {
  return RequestError(400, "screenshot64 is not a valid PNG image: " + e.reason());
}

DecodedImage UploadPipeline::storedImage(const std::string& id) {
  if (DecodedImage kept = decodedImages.findDecoded(id); kept.image) return kept;
  std::optional<std::vector<std::uint8_t>> bytes = store->readImage(id);
  if (!bytes) throw StoreError("stored image " + id + " is missing");
  DecodedImage image;
  try {
    image = uploadPixels->decode(*bytes);
  } catch (const Exception& e) {
    throw StoreError("stored image " + id + " is unreadable: " + e.reason());
  }
  decodedImages.insert(id, image);
  return image;
}

}  // namespace saffra::server
