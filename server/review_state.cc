#include "server/review_state.h"

#include <optional>
#include <string_view>

#include "server/results_document.h"

namespace saffra::server {

std::vector<std::pair<std::int64_t, std::string>> stepStatesOf(
    const std::vector<StepRecord>& steps, const Outcome& outcome,
    const std::map<std::int64_t, bool>& reviews) {
  auto verdict = [&](std::int64_t position) {
    auto found = reviews.find(position);
    return found == reviews.end() ? std::nullopt : std::optional<bool>(found->second);
  };
  std::vector<std::pair<std::int64_t, std::string>> states;
  states.reserve(steps.size() + outcome.missing.size());
  for (const StepRecord& s : steps)
    states.emplace_back(s.position + 1, stepState(s, verdict(s.position)));
  for (const BaselineStep& m : outcome.missing) {
    std::optional<bool> accepted = verdict(m.position);
    states.emplace_back(m.position + 1,
                        accepted ? (*accepted ? "accepted" : "rejected") : "missing");
  }
  return states;
}

std::string stateToken(const std::vector<std::pair<std::int64_t, std::string>>& states) {
  std::uint64_t hash = 14695981039346656037ull;
  auto mix = [&](std::string_view text) {
    for (char c : text) {
      hash ^= static_cast<unsigned char>(c);
      hash *= 1099511628211ull;
    }
  };
  for (const auto& [number, state] : states) {
    mix(std::to_string(number));
    mix(":");
    mix(state);
    mix(";");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string token(16, '0');
  for (int i = 15; i >= 0; --i, hash >>= 4) token[static_cast<std::size_t>(i)] = kHex[hash & 15];
  return token;
}

bool isOpenState(const std::string& state) {
  return state == "mismatched" || state == "new" || state == "missing";
}

}  // namespace saffra::server
