#include "saffra/platform/format.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "saffra/platform/geometry.h"

namespace saffra {

std::string FormatArg::objectText() const {
  switch (kind_) {
    case Kind::Absent: return "(null)";
    case Kind::Text: return text_;
    case Kind::Signed:
    case Kind::Bool: return std::to_string(signed_);
    case Kind::Unsigned: return std::to_string(unsigned_);
    case Kind::Float: return formatNumber(float_);
  }
  return "(null)";
}

std::int64_t FormatArg::integerValue() const {
  switch (kind_) {
    case Kind::Signed:
    case Kind::Bool: return signed_;
    case Kind::Unsigned: return static_cast<std::int64_t>(unsigned_);
    case Kind::Float:
      if (std::isnan(float_)) return 0;
      if (float_ >= 9.2e18) return INT64_MAX;
      if (float_ <= -9.2e18) return INT64_MIN;
      return static_cast<std::int64_t>(float_);
    default: return 0;
  }
}

double FormatArg::floatValue() const {
  switch (kind_) {
    case Kind::Float: return float_;
    case Kind::Signed:
    case Kind::Bool: return static_cast<double>(signed_);
    case Kind::Unsigned: return static_cast<double>(unsigned_);
    default: return 0;
  }
}

namespace {

bool isLengthModifier(char c) { return c == 'l' || c == 'z' || c == 'h' || c == 'q' || c == 'j' || c == 't'; }

}  // namespace

std::string formatArgs(std::string_view format, std::initializer_list<FormatArg> args) {
  static const FormatArg absent(nullptr);
  std::string out;
  out.reserve(format.size() + 16 * args.size());
  auto next = args.begin();
  auto take = [&]() -> const FormatArg& { return next == args.end() ? absent : *next++; };

  for (std::size_t i = 0; i < format.size(); ++i) {
    char c = format[i];
    if (c != '%' || i + 1 >= format.size()) {
      out += c;
      continue;
    }
    std::size_t j = i + 1;
    if (format[j] == '%') {
      out += '%';
      i = j;
      continue;
    }
    if (format[j] == '@') {
      out += take().objectText();
      i = j;
      continue;
    }
    // Precision (only used with %f) and length modifiers.
    int precision = -1;
    if (format[j] == '.') {
      precision = 0;
      ++j;
      while (j < format.size() && format[j] >= '0' && format[j] <= '9') {
        precision = precision * 10 + (format[j] - '0');
        ++j;
      }
    }
    bool isUnsigned = false;
    while (j < format.size() && isLengthModifier(format[j])) ++j;
    if (j >= format.size()) {
      out.append(format.substr(i));
      break;
    }
    char conv = format[j];
    switch (conv) {
      case 'u':
        isUnsigned = true;
        [[fallthrough]];
      case 'd':
      case 'i': {
        std::int64_t v = take().integerValue();
        out += isUnsigned ? std::to_string(static_cast<std::uint64_t>(v)) : std::to_string(v);
        break;
      }
      case 'f': {
        int digits = precision < 0 ? 6 : std::min(precision, 60);
        double value = take().floatValue();
        int n = std::snprintf(nullptr, 0, "%.*f", digits, value);
        if (n > 0) {
          std::string text(static_cast<std::size_t>(n) + 1, '\0');
          std::snprintf(text.data(), text.size(), "%.*f", digits, value);
          text.resize(static_cast<std::size_t>(n));
          out += text;
        }
        break;
      }
      default:
        // Not a placeholder this formatter knows: copy it through unchanged.
        out.append(format.substr(i, j - i + 1));
        break;
    }
    i = j;
  }
  return out;
}

}  // namespace saffra
