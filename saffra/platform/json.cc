#include "saffra/platform/json.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

#include "saffra/platform/exception.h"
#include "saffra/platform/geometry.h"

namespace saffra::json {

namespace {

constexpr int kMaxDepth = 512;

// Rejects nesting deeper than kMaxDepth before the parser sees it.
bool depthWithinLimit(std::string_view text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxDepth) return false;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

std::int64_t clampToInt64(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
  if (v <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(v);
}

const char* skipBlanks(const char* p, const char* end) {
  while (p < end && std::isspace(static_cast<unsigned char>(*p))) ++p;
  return p;
}

std::int64_t leadingInteger(std::string_view s) {
  const char* p = skipBlanks(s.data(), s.data() + s.size());
  const char* end = s.data() + s.size();
  bool negative = false;
  if (p < end && (*p == '+' || *p == '-')) negative = *p++ == '-';
  std::uint64_t magnitude = 0;
  bool overflow = false;
  for (; p < end && *p >= '0' && *p <= '9'; ++p) {
    unsigned digit = static_cast<unsigned>(*p - '0');
    if (magnitude > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) {
      overflow = true;
    } else {
      magnitude = magnitude * 10 + digit;
    }
  }
  const std::uint64_t limit = negative ? 9223372036854775808ull : 9223372036854775807ull;
  if (overflow || magnitude > limit) {
    return negative ? std::numeric_limits<std::int64_t>::min()
                    : std::numeric_limits<std::int64_t>::max();
  }
  if (negative) return magnitude == limit ? std::numeric_limits<std::int64_t>::min()
                                          : -static_cast<std::int64_t>(magnitude);
  return static_cast<std::int64_t>(magnitude);
}

double leadingDouble(std::string_view s) {
  // strtod would also accept hexadecimal, "inf" and "nan"; only plain decimals count here.
  std::string text(s);
  const char* begin = skipBlanks(text.c_str(), text.c_str() + text.size());
  const char* p = begin;
  if (*p == '+' || *p == '-') ++p;
  const char* digits = p;
  while (*p >= '0' && *p <= '9') ++p;
  if (*p == '.') {
    ++p;
    while (*p >= '0' && *p <= '9') ++p;
  }
  if (p == digits || (p == digits + 1 && *digits == '.')) return 0;
  if (*p == 'e' || *p == 'E') {
    const char* q = p + 1;
    if (*q == '+' || *q == '-') ++q;
    if (*q >= '0' && *q <= '9') {
      while (*q >= '0' && *q <= '9') ++q;
      p = q;
    }
  }
  std::string number(begin, p);
  return std::strtod(number.c_str(), nullptr);
}

// For each byte, the letter after the backslash of its escape, or 0 when it is written as it is.
// Control characters without a short form are written as \u00XX (marked 'u').
constexpr std::array<char, 256> kEscapes = [] {
  std::array<char, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[c] = 'u';
  table['"'] = '"';
  table['\\'] = '\\';
  table['/'] = '/';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  table['\b'] = 'b';
  table['\f'] = 'f';
  return table;
}();

// Measures the escaped text first and writes it in place: upload bodies carry megabytes of
// base64 text, which a character-at-a-time append writes several times slower.
void writeString(std::string& out, const std::string& s) {
  static const char* hex = "0123456789abcdef";
  std::size_t length = s.size() + 2;
  for (unsigned char c : s) {
    if (char e = kEscapes[c]) length += e == 'u' ? 5 : 1;
  }
  std::size_t start = out.size();
  out.resize(start + length);
  char* o = out.data() + start;
  *o++ = '"';
  for (unsigned char c : s) {
    char e = kEscapes[c];
    if (!e) {
      *o++ = static_cast<char>(c);
      continue;
    }
    *o++ = '\\';
    *o++ = e;
    if (e == 'u') {
      *o++ = '0';
      *o++ = '0';
      *o++ = hex[c >> 4];
      *o++ = hex[c & 15];
    }
  }
  *o = '"';
}

void writeDouble(std::string& out, double v) {
  if (!std::isfinite(v)) {
    throw Exception("NSInvalidArgumentException", "Invalid number value (" +
                                                      std::string(std::isnan(v) ? "NaN" : "infinite") +
                                                      ") in JSON write");
  }
  if (v == std::trunc(v) && std::fabs(v) < 1e21) {
    char buffer[32];
    auto r = std::to_chars(buffer, buffer + sizeof buffer, v, std::chars_format::fixed, 0);
    std::string_view text(buffer, static_cast<std::size_t>(r.ptr - buffer));
    out += text == "-0" ? std::string_view("0") : text;
    return;
  }
  out += formatNumber(v);
}

void writeValue(std::string& out, const Json& v) {
  switch (v.type()) {
    case Json::value_t::null: out += "null"; break;
    case Json::value_t::boolean: out += v.get<bool>() ? "true" : "false"; break;
    case Json::value_t::number_integer: out += std::to_string(v.get<std::int64_t>()); break;
    case Json::value_t::number_unsigned: out += std::to_string(v.get<std::uint64_t>()); break;
    case Json::value_t::number_float: writeDouble(out, v.get<double>()); break;
    case Json::value_t::string: writeString(out, v.get_ref<const std::string&>()); break;
    case Json::value_t::array: {
      out += '[';
      bool first = true;
      for (const auto& item : v) {
        if (!first) out += ',';
        first = false;
        writeValue(out, item);
      }
      out += ']';
      break;
    }
    case Json::value_t::object: {
      out += '{';
      bool first = true;
      for (const auto& [key, item] : v.items()) {
        if (!first) out += ',';
        first = false;
        writeString(out, key);
        out += ':';
        writeValue(out, item);
      }
      out += '}';
      break;
    }
    default: out += "null"; break;
  }
}

bool isPlainWord(const std::string& s) {
  if (s.empty()) return false;
  return std::all_of(s.begin(), s.end(), [](unsigned char c) { return std::isalnum(c) != 0; });
}

std::string quoted(const std::string& s) {
  if (isPlainWord(s)) return s;
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out + "\"";
}

}  // namespace

std::optional<Json> parse(std::string_view text) {
  if (!depthWithinLimit(text)) return std::nullopt;
  Json value = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded() || !(value.is_object() || value.is_array())) return std::nullopt;
  return value;
}

std::string write(const Json& value) {
  std::string out;
  writeValue(out, value);
  return out;
}

std::int64_t integerValue(const Json& v) {
  switch (v.type()) {
    case Json::value_t::boolean: return v.get<bool>() ? 1 : 0;
    case Json::value_t::number_integer: return v.get<std::int64_t>();
    case Json::value_t::number_unsigned: {
      auto u = v.get<std::uint64_t>();
      return u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                 ? std::numeric_limits<std::int64_t>::max()
                 : static_cast<std::int64_t>(u);
    }
    case Json::value_t::number_float: return clampToInt64(v.get<double>());
    case Json::value_t::string: return leadingInteger(v.get_ref<const std::string&>());
    default: return 0;
  }
}

bool boolValue(const Json& v) {
  switch (v.type()) {
    case Json::value_t::boolean: return v.get<bool>();
    case Json::value_t::number_integer: return v.get<std::int64_t>() != 0;
    case Json::value_t::number_unsigned: return v.get<std::uint64_t>() != 0;
    case Json::value_t::number_float: return v.get<double>() != 0;
    case Json::value_t::string: {
      const std::string& s = v.get_ref<const std::string&>();
      const char* p = skipBlanks(s.data(), s.data() + s.size());
      const char* end = s.data() + s.size();
      if (p < end && (*p == '+' || *p == '-')) ++p;
      while (p < end && *p == '0') ++p;
      if (p == end) return false;
      char c = *p;
      return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
    }
    default: return false;
  }
}

double doubleValue(const Json& v) {
  switch (v.type()) {
    case Json::value_t::boolean: return v.get<bool>() ? 1 : 0;
    case Json::value_t::number_integer: return static_cast<double>(v.get<std::int64_t>());
    case Json::value_t::number_unsigned: return static_cast<double>(v.get<std::uint64_t>());
    case Json::value_t::number_float: return v.get<double>();
    case Json::value_t::string: return leadingDouble(v.get_ref<const std::string&>());
    default: return 0;
  }
}

double floatValue(const Json& v) { return static_cast<double>(static_cast<float>(doubleValue(v))); }

OptString stringValue(const Json& v) {
  switch (v.type()) {
    case Json::value_t::string: return v.get<std::string>();
    case Json::value_t::boolean: return std::string(v.get<bool>() ? "1" : "0");
    case Json::value_t::number_integer: return std::to_string(v.get<std::int64_t>());
    case Json::value_t::number_unsigned: return std::to_string(v.get<std::uint64_t>());
    case Json::value_t::number_float: return formatNumber(v.get<double>());
    default: return std::nullopt;
  }
}

const Json* find(const Json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(std::string(key));
  return it == object.end() ? nullptr : &*it;
}

bool boolAt(const Json& object, std::string_view key) {
  const Json* value = find(object, key);
  return value && boolValue(*value);
}

std::string description(const Json& v, int indent) {
  const std::string pad(static_cast<std::size_t>(indent + 1) * 4, ' ');
  const std::string closePad(static_cast<std::size_t>(indent) * 4, ' ');
  switch (v.type()) {
    case Json::value_t::null: return "<null>";
    case Json::value_t::string: return quoted(v.get<std::string>());
    case Json::value_t::array: {
      std::string out = "(\n";
      for (std::size_t i = 0; i < v.size(); ++i) {
        out += pad + description(v[i], indent + 1);
        out += i + 1 < v.size() ? ",\n" : "\n";
      }
      return out + closePad + ")";
    }
    case Json::value_t::object: {
      std::vector<std::string> keys;
      for (const auto& [key, item] : v.items()) keys.push_back(key);
      std::sort(keys.begin(), keys.end());
      std::string out = "{\n";
      for (const auto& key : keys) {
        out += pad + quoted(key) + " = " + description(v.at(key), indent + 1) + ";\n";
      }
      return out + closePad + "}";
    }
    default: return stringValue(v).value_or("");
  }
}

}  // namespace saffra::json
