#include "server/http/request.h"

#include <algorithm>
#include <cctype>

namespace saffra::server::http {

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string firstValue(const Headers& headers, const std::string& name) {
  auto found = headers.find(name);
  return found == headers.end() ? std::string() : found->second;
}

bool safeInHeader(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
}

}  // namespace

bool CaseInsensitiveLess::operator()(const std::string& a, const std::string& b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) <
           std::tolower(static_cast<unsigned char>(y));
  });
}

std::optional<std::string> percentDecode(std::string_view text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size()) return std::nullopt;
      int high = hexValue(text[i + 1]);
      int low = hexValue(text[i + 2]);
      if (high < 0 || low < 0 || (high == 0 && low == 0)) return std::nullopt;
      out += static_cast<char>(high * 16 + low);
      i += 2;
    } else if (c == '+' && plusIsSpace) {
      out += ' ';
    } else {
      out += c;
    }
  }
  return out;
}

void parseQueryText(std::string_view text, Params& params) {
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('&', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view field = text.substr(start, end - start);
    if (!field.empty()) {
      std::size_t equals = field.find('=');
      auto name = percentDecode(field.substr(0, equals), true);
      auto value = percentDecode(
          equals == std::string_view::npos ? std::string_view() : field.substr(equals + 1), true);
      if (name && value && !name->empty()) params.emplace(std::move(*name), std::move(*value));
    }
    start = end + 1;
  }
}

std::string Request::get_header_value(const std::string& name) const {
  return firstValue(headers, name);
}

std::string Request::get_param_value(const std::string& name) const {
  auto found = params.find(name);
  return found == params.end() ? std::string() : found->second;
}

std::string Response::get_header_value(const std::string& name) const {
  return firstValue(headers, name);
}

void Response::set_header(const std::string& name, const std::string& value) {
  if (name.empty() || !safeInHeader(name) || !safeInHeader(value)) return;
  headers.emplace(name, value);
}

void Response::set_content(std::string content, const std::string& contentType) {
  body = std::move(content);
  headers.erase("Content-Type");
  set_header("Content-Type", contentType);
}

}  // namespace saffra::server::http
