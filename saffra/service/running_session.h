// The session the service runs for one test, as its start reply describes it.
#pragma once

#include <optional>
#include <string>

#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"

namespace saffra {

/// A started session: the service's id, the session's address and whether the service created
/// a new session. Used through std::shared_ptr.
class RunningSession {
 public:
  /// No id, no address, not new.
  RunningSession() = default;
  /// Reads "id" (kept as the JSON value that arrived, whatever its kind) and "url" (taken as
  /// text, see json::stringValue) from a start reply; other keys are ignored and `isNewSession`
  /// starts false (for the library's own use).
  explicit RunningSession(const Json& dictionary);

  /// The id exactly as it arrived; nothing when the reply had no "id".
  const std::optional<Json>& sessionId() const { return sessionId_; }
  /// The id as URL text: a string as it is, a number as its decimal text, an absent id as
  /// "(null)"; other kinds as "%@" would render them.
  std::string sessionIdText() const;
  const OptString& url() const { return url_; }
  bool isNewSession() const { return isNewSession_; }
  /// Set by the connector when the start reply had status 201.
  void setIsNewSession(bool value) { isNewSession_ = value; }

 private:
  std::optional<Json> sessionId_;
  OptString url_;
  bool isNewSession_ = false;
};

}  // namespace saffra
