// What the service's handlers share: the refusals they throw, the replies they make, and the
// readings of request bodies, queries and forms.
#pragma once

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"
#include "server/clock.h"
#include "server/http/request.h"
#include "server/json_fields.h"
#include "server/results_document.h"
#include "server/store.h"

namespace saffra::server {

/// A request the service refuses: the status and the message of the JSON error body.
class RequestError : public std::runtime_error {
 public:
  RequestError(int status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

/// A browser request for a page (or image) without credentials: it is sent to the login form.
class LoginRequired : public std::exception {
 public:
  /// `next`: where the login returns to; empty for the request's own address.
  explicit LoginRequired(std::string next = "") : next_(std::move(next)) {}
  const char* what() const noexcept override { return "log in first"; }
  const std::string& next() const { return next_; }

 private:
  std::string next_;
};

void replyJson(http::Response& res, int status, const Json& body);
void replyError(http::Response& res, int status, const std::string& message);
/// The headers of every reply: pages load their script, style and images from the service
/// only (and their script talks to it only), are never framed, and never send their address
/// (which may hold a key) elsewhere.
void setSecurityHeaders(http::Response& res);
void replyHtml(http::Response& res, int status, const std::string& html);
void redirect(http::Response& res, const std::string& location);

/// The request's body as a JSON object; throws RequestError (400) otherwise.
Json parseBody(const http::Request& req);
/// Session ids are the service's own UUIDs; anything else (path characters included) is
/// refused with RequestError before it reaches the store.
std::string sessionIdFrom(const std::string& text);
/// A query flag: true/1, false/0, false when absent; anything else is refused.
bool queryFlag(const http::Request& req, const char* name);
/// Whether the request's Accept header names `type`.
bool accepts(const http::Request& req, std::string_view type);
/// The request's path and query without the API key, percent-encoded again: where a login
/// returns to.
std::string returnPath(const http::Request& req);
/// The fields of a form posted as application/x-www-form-urlencoded.
http::Params formFields(const http::Request& req);
std::string fieldAt(const http::Params& fields, const std::string& name);
/// Whether the request comes from another site (see isForeignRequest).
bool isForeign(const http::Request& req);

/// Addresses in replies use the host the client reached us by, when it is a plain host name;
/// otherwise `listenHost`:`port`, where the service listens.
Links linksFor(const http::Request& req, const std::string& listenHost, int port);
/// The results document of a session.
Json documentFor(Store& store, const SessionRecord& session, const Links& links);

}  // namespace saffra::server
