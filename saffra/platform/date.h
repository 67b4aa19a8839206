// Dates and the platform's date formatter. Dates render in the local time zone (set TZ to change
// it). Pattern letters: yyyy/yy year, MM/M month, dd/d day, HH/H hour 0-23, hh/h hour 1-12,
// mm/m minute, ss/s second, S... fraction of a second (one digit per letter), Z offset (+0100),
// a AM/PM. Text in single quotes and any character that is not a letter is copied as it is.
// Formatting stops at the first letter the formatter does not know, as the platform's does: so
// "yyyy-MM-ddTHH:mm:ssZ" gives only the date "2024-03-05".
#pragma once

#include <chrono>
#include <string>

namespace saffra {

/// A point in time.
using Date = std::chrono::system_clock::time_point;

/// Formats dates with a pattern in the local time zone.
class DateFormatter {
 public:
  DateFormatter() = default;
  explicit DateFormatter(std::string pattern) : pattern_(std::move(pattern)) {}

  const std::string& dateFormat() const { return pattern_; }
  void setDateFormat(std::string pattern) { pattern_ = std::move(pattern); }

  std::string stringFromDate(Date date) const;

 private:
  std::string pattern_;
};

}  // namespace saffra
