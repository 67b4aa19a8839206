// The records of one match step: the application output (title and base64 image), the step's
// options, the request body that joins them with the tag, and the service's answer.
#pragma once

#include <memory>
#include <optional>

#include "saffra/checks/image_match_settings.h"
#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"

namespace saffra {

class SaffraScreenshot;

/// What the application showed at one step: a title and the image as base64 text of its PNG.
class AppOutput {
 public:
  AppOutput(const OptString& title, const OptString& screenshot64)
      : title_(title), screenshot64_(screenshot64) {}

  const OptString& title() const { return title_; }
  const OptString& screenshot64() const { return screenshot64_; }

  /// "screenshot64" and "title", each only when non-empty; may be an empty object.
  Json dictionary() const;

 private:
  OptString title_;
  OptString screenshot64_;
};

/// An application output with the screenshot it was made from; never sent.
class AppOutputWithScreenshot {
 public:
  AppOutputWithScreenshot(std::shared_ptr<AppOutput> appOutput,
                          std::shared_ptr<SaffraScreenshot> screenshot)
      : appOutput_(std::move(appOutput)), screenshot_(std::move(screenshot)) {}

  const std::shared_ptr<AppOutput>& appOutput() const { return appOutput_; }
  const std::shared_ptr<SaffraScreenshot>& screenshot() const { return screenshot_; }

 private:
  std::shared_ptr<AppOutput> appOutput_;
  std::shared_ptr<SaffraScreenshot> screenshot_;
};

/// The flags, matching settings and source of one step.
class Options {
 public:
  Options(const OptString& name, bool ignoreMismatch, bool ignoreMatch, bool forceMismatch,
          bool forceMatch, std::shared_ptr<ImageMatchSettings> imageMatchSettings,
          const OptString& source)
      : name_(name),
        ignoreMismatch_(ignoreMismatch),
        ignoreMatch_(ignoreMatch),
        forceMismatch_(forceMismatch),
        forceMatch_(forceMatch),
        imageMatchSettings_(std::move(imageMatchSettings)),
        source_(source) {}

  const OptString& name() const { return name_; }
  bool ignoreMismatch() const { return ignoreMismatch_; }
  bool ignoreMatch() const { return ignoreMatch_; }
  bool forceMismatch() const { return forceMismatch_; }
  bool forceMatch() const { return forceMatch_; }
  const std::shared_ptr<ImageMatchSettings>& imageMatchSettings() const {
    return imageMatchSettings_;
  }
  const OptString& source() const { return source_; }

  /// All seven entries: "name", the four flags, "imageMatchSettings" and "source" ("" when
  /// empty). Throws Exception "NSInvalidArgumentException" naming the key when the name or the
  /// settings are absent.
  Json dictionary() const;

 private:
  OptString name_;
  bool ignoreMismatch_;
  bool ignoreMatch_;
  bool forceMismatch_;
  bool forceMatch_;
  std::shared_ptr<ImageMatchSettings> imageMatchSettings_;
  OptString source_;
};

/// The request body of a match step.
class MatchWindowData {
 public:
  MatchWindowData(std::shared_ptr<AppOutput> appOutput, const OptString& tag,
                  std::shared_ptr<Options> options)
      : appOutput_(std::move(appOutput)), options_(std::move(options)), tag_(tag) {}

  const std::shared_ptr<AppOutput>& appOutput() const { return appOutput_; }
  const std::shared_ptr<Options>& options() const { return options_; }
  const OptString& tag() const { return tag_; }

  /// {"appOutput", "tag", "options"}; an absent or empty tag is sent as "". Throws Exception
  /// "NSInvalidArgumentException" naming the key when the output or the options are absent.
  Json dictionary() const;

 private:
  std::shared_ptr<AppOutput> appOutput_;
  std::shared_ptr<Options> options_;
  OptString tag_;
};

/// The service's answer to a match step.
class MatchResult {
 public:
  /// No screenshot, not as expected.
  MatchResult() = default;
  /// Reads "screenshot" (kept as the JSON value that arrived) and "asExpected" (boolean
  /// reading, see json::boolValue); a reply without "asExpected" counts as a mismatch (for the
  /// library's own use).
  explicit MatchResult(const Json& dictionary);

  /// The reply's screenshot value as it arrived; nothing when the reply had none.
  const std::optional<Json>& screenshot() const { return screenshot_; }
  bool asExpected() const { return asExpected_; }

  /// {"screenshot", "asExpected"}. Throws Exception "NSInvalidArgumentException" naming
  /// "screenshot" when there is none (for the library's own use).
  Json dictionary() const;

 private:
  std::optional<Json> screenshot_;
  bool asExpected_ = false;
};

}  // namespace saffra
