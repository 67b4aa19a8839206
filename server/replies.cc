#include "server/replies.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <ctime>
#include <optional>

#include "server/web_access.h"

namespace saffra::server {

using http::Params;
using http::Request;
using http::Response;

void replyJson(Response& res, int status, const Json& body) {
  res.status = status;
  res.set_content(json::write(body), "application/json");
}

void replyError(Response& res, int status, const std::string& message) {
  replyJson(res, status, Json{{"error", message}});
}

Json parseBody(const Request& req) {
  std::optional<Json> body = json::parse(req.body);
  if (!body || !body->is_object()) throw RequestError(400, "the body is not a JSON object");
  return std::move(*body);
}

/// Session ids are the service's own UUIDs; anything else (path characters included) is refused
/// before it reaches the store.
std::string sessionIdFrom(const std::string& text) {
  bool safe =
      !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-';
      });
  if (!safe) throw RequestError(400, "invalid session id");
  return text;
}

bool queryFlag(const Request& req, const char* name) {
  if (!req.has_param(name)) return false;
  std::string value = req.get_param_value(name);
  if (value == "true" || value == "1") return true;
  if (value == "false" || value == "0") return false;
  throw RequestError(400, std::string(name) + " must be true or false");
}

bool accepts(const Request& req, std::string_view type) {
  return req.get_header_value("Accept").find(type) != std::string::npos;
}

/// The headers of every reply: pages load their script, style and images from the service
/// only (and their script talks to it only), are never framed, and never send their address (which
/// may hold a key) elsewhere.
void setSecurityHeaders(Response& res) {
  if (res.has_header("Content-Security-Policy")) return;
  res.set_header("Content-Security-Policy",
                 "default-src 'none'; img-src 'self'; style-src 'self'; script-src 'self'; "
                 "connect-src 'self'; "
                 "form-action 'self'; frame-ancestors 'none'; base-uri 'none'");
  res.set_header("X-Frame-Options", "DENY");
  res.set_header("Referrer-Policy", "no-referrer");
  res.set_header("X-Content-Type-Options", "nosniff");
}

void replyHtml(Response& res, int status, const std::string& html) {
  res.status = status;
  res.set_header("Cache-Control", "no-store");
  res.set_content(html, "text/html; charset=utf-8");
}

void redirect(Response& res, const std::string& location) {
  res.status = 303;
  res.set_header("Location", location);
}

/// The request's path and query without the API key, percent-encoded again: where a login
/// returns to.
std::string returnPath(const Request& req) {
  std::string path;
  std::size_t start = 0;
  while (start <= req.path.size()) {
    std::size_t slash = req.path.find('/', start);
    path += percentEncode(req.path.substr(start, slash - start));
    if (slash == std::string::npos) break;
    path += '/';
    start = slash + 1;
  }
  std::string query;
  for (const auto& [name, value] : req.params) {
    if (name == "apiKey") continue;
    query += (query.empty() ? "?" : "&") + percentEncode(name) + "=" + percentEncode(value);
  }
  return path + query;
}

/// The fields of a form posted as application/x-www-form-urlencoded.
Params formFields(const Request& req) {
  Params fields;
  if (req.get_header_value("Content-Type").rfind("application/x-www-form-urlencoded", 0) == 0) {
    http::parseQueryText(req.body, fields);
  }
  return fields;
}

std::string fieldAt(const Params& fields, const std::string& name) {
  auto found = fields.find(name);
  return found == fields.end() ? std::string() : found->second;
}

bool isForeign(const Request& req) {
  return isForeignRequest({req.get_header_value("Host"), req.get_header_value("Origin"),
                           req.get_header_value("Referer"),
                           req.get_header_value("Sec-Fetch-Site")});
}

Links linksFor(const Request& req, const std::string& listenHost, int port) {
  std::string host = req.get_header_value("Host");
  bool plain =
      !host.empty() && host.size() < 256 && std::all_of(host.begin(), host.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == ':' ||
               c == '[' || c == ']';
      });
  if (!plain) host = listenHost + ":" + std::to_string(port);
  return Links("http://" + host);
}

Json documentFor(Store& store, const SessionRecord& session, const Links& links) {
  std::optional<BatchRecord> batch = store.batch(session.batchId);
  return resultsDocument(session, batch ? batch->name : std::nullopt, store.steps(session.id),
                         links);
}

}  // namespace saffra::server
