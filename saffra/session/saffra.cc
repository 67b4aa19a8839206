#include "saffra/session/saffra.h"

#include "saffra/base/argument_guard.h"
#include "saffra/base/configurable.h"
#include "saffra/checks/region_providers.h"
#include "saffra/platform/exception.h"

namespace saffra {

Saffra::Saffra() : Saffra(OptString(defaultServerURL())) {}

Saffra::Saffra(const OptString& serverURL) : SaffraBase(serverURL) {
  setConfiguration(std::make_shared<Configuration>());
  setShouldCropStatusBar(false);
}

Saffra::Saffra(std::shared_ptr<SaffraRunner> runner) : SaffraBase(std::move(runner)) {
  setConfiguration(std::make_shared<Configuration>());
  setShouldCropStatusBar(false);
}

void Saffra::setConfiguration(const std::shared_ptr<ConfigurationBase>& configuration) {
  if (!configuration) return;
  if (Configurable::isNotEmpty(configuration->apiKey())) setApiKey(configuration->apiKey());
  if (Configurable::isNotEmpty(configuration->serverUrl()))
    setServerURL(configuration->serverUrl());
  if (configuration->proxy()) setProxy(configuration->proxy());
  configuration_ = std::make_shared<Configuration>(*configuration);
}

double Saffra::scaleRatio() const {
  return screenshot_ && screenshot_->image() ? screenshot_->image()->scale() : 0.0;
}

Size Saffra::viewportSize() const {
  auto size = viewportSizeHandler()->property();
  return size ? size->size() : Size();
}

void Saffra::setViewportSize(const Size& size) {
  viewportSizeHandler()->setProperty(std::make_shared<RectangleSize>(size));
}

void Saffra::openWithApplicationName(const OptString& appName, const OptString& testName) {
  openWithApplicationName(appName, testName, Size(0, 0));
}

void Saffra::openWithApplicationName(const OptString& appName, const OptString& testName,
                                     const Size& viewportSize) {
  openBaseWithApplicationName(appName, testName, viewportSize);
}

bool Saffra::checkImage(const std::shared_ptr<Image>& image) {
  return checkImage(image, std::nullopt);
}

bool Saffra::checkImage(const std::shared_ptr<Image>& image, const OptString& tag) {
  return checkImage(image, tag, false);
}

bool Saffra::checkImage(const std::shared_ptr<Image>& image, const OptString& tag,
                        bool /*ignoreMismatch*/) {
  ArgumentGuard::notNil(image, "image");
  image_ = image;
  return checkWithTag(tag, Target::image(image));
}

void Saffra::checkRegion(const std::shared_ptr<Region>& region,
                         const std::shared_ptr<Image>& image) {
  checkRegion(region, image, std::nullopt);
}

void Saffra::checkRegion(const std::shared_ptr<Region>& region, const std::shared_ptr<Image>& image,
                         const OptString& tag) {
  ArgumentGuard::notNil(region, "region");
  ArgumentGuard::notNil(image, "image");
  image_ = image;
  auto held = viewportSizeHandler()->property();
  if (!held || held->isEmpty()) setViewportSize(image ? image->size() : Size());
  auto provider = std::make_shared<RegionProvider>(region);
  checkWithRegionProvider(provider, tag, false, Target::image(image));
}

bool Saffra::checkWithTag(const OptString& tag,
                          const std::shared_ptr<CheckSettingsProtocol>& settings) {
  ArgumentGuard::notNil(settings, "checkSettings");
  auto withImage = std::dynamic_pointer_cast<ImagesCheckTargetImageProtocol>(settings);
  image_ = withImage ? withImage->targetImage() : nullptr;
  auto held = viewportSizeHandler()->property();
  if (!held || held->isEmpty()) setViewportSize(image_ ? image_->size() : Size());
  return checkWithRegionProvider(nullptr, tag, false, settings);
}

bool Saffra::checkWithRegionProvider(const std::shared_ptr<RegionProviderProtocol>& regionProvider,
                                     const OptString& tag, bool /*ignoreMismatch*/,
                                     const std::shared_ptr<CheckSettingsProtocol>& checkSettings) {
  screenshot_ = std::make_shared<SaffraImagesScreenshot>(image_);
  bool asExpected = false;
  checkWindowBase(regionProvider, tag, false, checkSettings, std::nullopt,
                  [&asExpected](std::shared_ptr<MatchResult> result) {
                    asExpected = result && result->asExpected();
                  });
  setShouldCropStatusBar(false);
  return asExpected;
}

std::shared_ptr<TestResults> Saffra::close(ErrorSlot error) {
  return closeWithThrow(true, error);
}

std::shared_ptr<TestResults> Saffra::closeWithThrow(bool shouldThrow, ErrorSlot error) {
  std::shared_ptr<TestResults> results;
  try {
    results = SaffraBase::closeWithThrow(shouldThrow, error);
  } catch (const Exception&) {
    if (shouldThrow) throw;
    results = nullptr;
  }
  if (runner()) runner()->aggregateResult(results);
  return results;
}

}  // namespace saffra
