// Saffra: the class test code uses. It is given finished images and checks each one against the
// baseline of the open test:
//
//   saffra::Saffra saffra(runner);              // or std::make_shared<saffra::Saffra>()
//   saffra.setApiKey("...");
//   saffra.openWithApplicationName("Shop", "Login page");
//   saffra.checkImage(image, "login");            // false on a mismatch; never throws for one
//   std::optional<saffra::Error> error;
//   saffra.closeWithThrow(false, &error);         // results; the error tells what went wrong
#pragma once

#include <memory>

#include "saffra/session/saffra_base.h"

namespace saffra {

/// The image test session. Usable on the stack or in a std::shared_ptr; not copyable.
class Saffra : public SaffraBase {
 public:
  /// The default server address, a new configuration and a new runner.
  Saffra();
  /// The given server address (empty or absent: the default).
  explicit Saffra(const OptString& serverURL);
  /// Shares the runner of a suite.
  explicit Saffra(std::shared_ptr<SaffraRunner> runner);

  /// The configuration in force (a private copy of the one last set).
  std::shared_ptr<Configuration> configuration() const override { return configuration_; }
  /// Takes the key, address and proxy of the configuration when they are set (they live in the
  /// connector), then keeps a copy of it: later changes to the caller's object do not count
  /// until it is set again. Batch, match settings and proxy objects stay shared.
  void setConfiguration(const std::shared_ptr<ConfigurationBase>& configuration);

  std::shared_ptr<SaffraScreenshot> screenshot() const override { return screenshot_; }
  /// The image of the current check.
  const std::shared_ptr<Image>& image() const { return image_; }
  /// The scale of the current screenshot's image; 0 without one.
  double scaleRatio() const override;
  /// "saffra-xctest-images".
  std::string sdkName() const override { return "saffra-xctest-images"; }
  /// "com.quorvant.saffra.images".
  std::string sdkBundleIdentifier() const override { return "com.quorvant.saffra.images"; }
  /// The size in the viewport holder (0 x 0 when empty).
  Size viewportSize() const override;
  void setViewportSize(const Size& size) override;

  /// Opens a test without a viewport size: the first check sets it to that image's size.
  void openWithApplicationName(const OptString& appName, const OptString& testName);
  /// Opens a test; no traffic until the first check.
  void openWithApplicationName(const OptString& appName, const OptString& testName,
                               const Size& viewportSize);

  /// Checks the whole image; true when the service found it as expected. The ignore-mismatch
  /// argument is not used: every check runs with mismatches not ignored.
  bool checkImage(const std::shared_ptr<Image>& image);
  bool checkImage(const std::shared_ptr<Image>& image, const OptString& tag);
  bool checkImage(const std::shared_ptr<Image>& image, const OptString& tag, bool ignoreMismatch);
  /// Checks the part of the image under the region (an empty region: the whole image).
  void checkRegion(const std::shared_ptr<Region>& region, const std::shared_ptr<Image>& image);
  void checkRegion(const std::shared_ptr<Region>& region, const std::shared_ptr<Image>& image,
                   const OptString& tag);
  /// Checks the settings' target image with their regions and options (group FluentInterface).
  bool checkWithTag(const OptString& tag, const std::shared_ptr<CheckSettingsProtocol>& settings);
  /// The common road of every check (for the library's own use).
  bool checkWithRegionProvider(const std::shared_ptr<RegionProviderProtocol>& regionProvider,
                               const OptString& tag, bool ignoreMismatch,
                               const std::shared_ptr<CheckSettingsProtocol>& checkSettings);

  /// closeWithThrow(true, error).
  std::shared_ptr<TestResults> close(ErrorSlot error);
  /// Closes the test and hands the results to the runner. With `shouldThrow` a failure is
  /// raised and the runner gets nothing; without, a failure of the close itself (a time-out)
  /// is dropped and the runner is handed absent results, which it rejects with
  /// Exception "NSInvalidArgumentException".
  std::shared_ptr<TestResults> closeWithThrow(bool shouldThrow, ErrorSlot error) override;

 private:
  std::shared_ptr<Configuration> configuration_;
  std::shared_ptr<Image> image_;
  std::shared_ptr<SaffraScreenshot> screenshot_;
};

}  // namespace saffra
