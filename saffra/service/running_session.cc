#include "saffra/service/running_session.h"

#include "saffra/service/internal/record_reading.h"

namespace saffra {

RunningSession::RunningSession(const Json& dictionary) {
  if (!dictionary.is_object()) {
    records::logNotAnObject("RunningSession");
    return;
  }
  if (const Json* id = json::find(dictionary, "id")) sessionId_ = *id;
  url_ = records::textMember(dictionary, "url");
}

std::string RunningSession::sessionIdText() const {
  if (!sessionId_) return "(null)";
  const Json& id = *sessionId_;
  if (id.is_null()) return "<null>";
  if (id.is_object() || id.is_array()) return json::description(id);
  return json::stringValue(id).value_or("");
}

}  // namespace saffra
