// The states of a stopped session's steps as a reviewer sees them, and a short token of them
// that a page's forms carry, so a decision made on an outdated page is refused.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "server/store.h"

namespace saffra::server {

/// The states of a stopped session's steps by number (from 1), missing steps after the
/// session's own, with the verdicts `reviews` gives them.
std::vector<std::pair<std::int64_t, std::string>> stepStatesOf(
    const std::vector<StepRecord>& steps, const Outcome& outcome,
    const std::map<std::int64_t, bool>& reviews);

/// A short text that changes whenever one of the states does (FNV-1a of them). A page's forms
/// carry the one they were rendered with, so a decision made on an outdated page (sent twice,
/// or after someone else decided) is refused instead of applied to what the page did not show.
std::string stateToken(const std::vector<std::pair<std::int64_t, std::string>>& states);

/// Whether a step in this state still needs a decision.
bool isOpenState(const std::string& state);

}  // namespace saffra::server
