#include "saffra/platform/date.h"

#include <cstdio>
#include <ctime>

namespace saffra {

namespace {

std::string padded(long value, std::size_t width) {
  std::string digits = std::to_string(value < 0 ? -value : value);
  if (digits.size() < width) digits.insert(0, width - digits.size(), '0');
  return value < 0 ? "-" + digits : digits;
}

}  // namespace

std::string DateFormatter::stringFromDate(Date date) const {
  using namespace std::chrono;
  auto sinceEpoch = date.time_since_epoch();
  auto secs = duration_cast<seconds>(sinceEpoch);
  if (sinceEpoch < secs) secs -= seconds(1);  // floor for dates before 1970
  auto fraction = duration_cast<nanoseconds>(sinceEpoch - secs).count();  // 0 .. 999'999'999
  std::time_t t = static_cast<std::time_t>(secs.count());
  std::tm tm{};
  localtime_r(&t, &tm);

  std::string out;
  const std::string& p = pattern_;
  for (std::size_t i = 0; i < p.size();) {
    char c = p[i];
    if (c == '\'') {
      std::size_t end = i + 1;
      if (end < p.size() && p[end] == '\'') {  // '' is a single quote
        out += '\'';
        i += 2;
        continue;
      }
      while (end < p.size() && p[end] != '\'') out += p[end++];
      i = end + 1;
      continue;
    }
    bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!letter) {
      out += c;
      ++i;
      continue;
    }
    std::size_t n = 1;
    while (i + n < p.size() && p[i + n] == c) ++n;
    switch (c) {
      case 'y':
        out += n == 2 ? padded((tm.tm_year + 1900) % 100, 2) : padded(tm.tm_year + 1900, n);
        break;
      case 'M': out += padded(tm.tm_mon + 1, n); break;
      case 'd': out += padded(tm.tm_mday, n); break;
      case 'H': out += padded(tm.tm_hour, n); break;
      case 'h': out += padded(tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12, n); break;
      case 'm': out += padded(tm.tm_min, n); break;
      case 's': out += padded(tm.tm_sec, n); break;
      case 'a': out += tm.tm_hour < 12 ? "AM" : "PM"; break;
      case 'S': {
        std::string digits = padded(fraction, 9);
        out += n <= 9 ? digits.substr(0, n) : digits + std::string(n - 9, '0');
        break;
      }
      case 'Z': {
        long offset = tm.tm_gmtoff / 60;
        out += offset < 0 ? '-' : '+';
        if (offset < 0) offset = -offset;
        out += padded(offset / 60, 2) + padded(offset % 60, 2);
        break;
      }
      default:
        return out;  // an unknown pattern letter ends the text
    }
    i += n;
  }
  return out;
}

}  // namespace saffra
