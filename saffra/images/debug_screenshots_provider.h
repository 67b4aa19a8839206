// Debug screenshots: copies of every intermediate image of a check, so a user can see what was
// sent. The file provider writes them as time-stamped PNG files, the null provider drops them.
// A session holds one provider and swaps it for one of the other class when the user switches
// debug screenshots on or off, passing the prefix and path on through setPrefix and setPath.
#pragma once

#include <memory>
#include <string>

#include "saffra/platform/date.h"
#include "saffra/platform/image.h"
#include "saffra/platform/nullable.h"

namespace saffra {

/// The base provider: a file-name prefix and a folder; saving does nothing.
class DebugScreenshotsProvider {
 public:
  /// Prefix "screenshot_", path defaultPath().
  DebugScreenshotsProvider();
  virtual ~DebugScreenshotsProvider() = default;

  /// The documents folder followed by "Quorvant/Screenshots", without a final separator.
  static std::string defaultPath();

  const OptString& prefix() const { return prefix_; }
  void setPrefix(const OptString& prefix) { prefix_ = prefix; }
  /// The folder that file names are appended to as they are (see setPath).
  const std::string& path() const { return path_; }
  /// An absent path sets defaultPath() (no final separator); a path ending in "/" is kept;
  /// any other gets "/" appended.
  void setPath(const OptString& path);

  /// Does nothing here.
  virtual void save(const std::shared_ptr<Image>& image, const OptString& suffix);

 private:
  OptString prefix_;
  std::string path_;
};

/// Writes each image to path + prefix + time stamp + "_" + suffix + ".png".
class FileDebugScreenshotsProvider : public DebugScreenshotsProvider {
 public:
  /// As the base, with a date formatter of the pattern "yyyy_MM_dd_HH_mm_ss_SSS".
  FileDebugScreenshotsProvider();

  /// Writes the image through ImageUtils::saveImage (the folder is created when missing) and
  /// throws what it throws. The suffix goes into the file name as it is, blanks included.
  void save(const std::shared_ptr<Image>& image, const OptString& suffix) override;

  /// The current local time through dateFromatter(); absent when the formatter is absent.
  OptString formattedTimeStamp() const;

  const std::shared_ptr<DateFormatter>& dateFromatter() const { return dateFromatter_; }
  void setDateFromatter(std::shared_ptr<DateFormatter> formatter) {
    dateFromatter_ = std::move(formatter);
  }

 private:
  std::shared_ptr<DateFormatter> dateFromatter_;
};

/// Drops every image.
class NullDebugScreenshotsProvider : public DebugScreenshotsProvider {};

}  // namespace saffra
