// How a session's row holds its record: the JSON of its settings and its outcome, and the
// columns a session is read from. Included by the store's own files only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "saffra/platform/json.h"
#include "server/store.h"
#include "server/store/sql_store.h"

namespace saffra::server::storage {

Json sessionInfoJson(const SessionRecord& s);
/// Fills the record's settings from the JSON of its "info" column.
void readSessionInfo(const Json& info, SessionRecord& s);
Json outcomeJson(const Outcome& o);
Outcome readOutcome(const Json& j);

inline constexpr const char* kSessionColumns =
    "SELECT id, token, info, baseline_key, baseline_id, is_new, started_at, batch_id, outcome, "
    "baseline_version, baseline_branch, last_active_at FROM sessions";

SessionRecord readSession(const Statement& s);

}  // namespace saffra::server::storage
