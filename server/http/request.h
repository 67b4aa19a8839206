// The request and reply the service's handlers see: a parsed HTTP/1.1 request with its body
// read whole, and a reply the handler fills in and the server writes out.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace saffra::server::http {

/// Orders header names without regard to case, as HTTP compares them.
struct CaseInsensitiveLess {
  bool operator()(const std::string& a, const std::string& b) const;
};

using Headers = std::multimap<std::string, std::string, CaseInsensitiveLess>;
using Params = std::multimap<std::string, std::string>;

/// Decodes %XX escapes (and '+' as a space when `plusIsSpace`). Returns nothing for a
/// malformed escape or an encoded NUL.
std::optional<std::string> percentDecode(std::string_view text, bool plusIsSpace);

/// Adds the fields of a query or form text (`a=1&b=two`) to `params`; malformed escapes leave
/// their field out.
void parseQueryText(std::string_view text, Params& params);

/// One request, its head parsed and its body read whole.
struct Request {
  std::string method;
  /// The target as it arrived (path and query, still percent-encoded).
  std::string target;
  /// The path, percent-decoded.
  std::string path;
  std::string version;
  Headers headers;
  Params params;
  std::string body;
  /// The groups of the route's pattern, matched against the raw path and then percent-decoded;
  /// [0] is the whole path.
  std::vector<std::string> matches;
  std::string remoteAddress;

  bool has_header(const std::string& name) const { return headers.count(name) > 0; }
  /// The first value of a header, or "" when it is absent.
  std::string get_header_value(const std::string& name) const;
  bool has_param(const std::string& name) const { return params.count(name) > 0; }
  /// The first value of a query parameter, or "" when it is absent.
  std::string get_param_value(const std::string& name) const;
};

/// The reply a handler builds.
struct Response {
  int status = -1;
  Headers headers;
  std::string body;

  bool has_header(const std::string& name) const { return headers.count(name) > 0; }
  std::string get_header_value(const std::string& name) const;
  /// Adds a header; a name or value holding CR, LF or NUL is dropped, so no reply can carry a
  /// header line of the client's making.
  void set_header(const std::string& name, const std::string& value);
  void set_content(std::string content, const std::string& contentType);
};

}  // namespace saffra::server::http
