// The summary of a suite's results: the results themselves and totals over them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace saffra {

class TestResults;

/// Counts by status and summed step counts of a list of results; used through std::shared_ptr.
class TestResultsSummary {
 public:
  using ResultList = std::vector<std::shared_ptr<TestResults>>;

  /// Keeps the list and counts it: Passed and Failed by their status, every other status
  /// (Unresolved and unknown values) as unresolved; matches, missing and mismatches summed.
  /// Absent entries are skipped.
  explicit TestResultsSummary(std::shared_ptr<const ResultList> allResults);

  const std::shared_ptr<const ResultList>& allResults() const { return allResults_; }
  /// The number of results.
  std::size_t size() const { return allResults_ ? allResults_->size() : 0; }

  std::uint64_t passed() const { return passed_; }
  void setPassed(std::uint64_t value) { passed_ = value; }
  std::uint64_t failed() const { return failed_; }
  void setFailed(std::uint64_t value) { failed_ = value; }
  std::uint64_t unresolved() const { return unresolved_; }
  void setUnresolved(std::uint64_t value) { unresolved_ = value; }
  std::uint64_t matches() const { return matches_; }
  void setMatches(std::uint64_t value) { matches_ = value; }
  std::uint64_t missing() const { return missing_; }
  void setMissing(std::uint64_t value) { missing_ = value; }
  std::uint64_t mismatches() const { return mismatches_; }
  void setMismatches(std::uint64_t value) { mismatches_ = value; }

  /// "result summary {\n\tall results=\n\t\t<results>\n\t\t\n\tpassed=N ... \n}", each result's
  /// description preceded by a newline, counts in the order passed, unresolved, failed,
  /// mismatches, missing, matches.
  std::string description() const;

 private:
  std::shared_ptr<const ResultList> allResults_;
  std::uint64_t passed_ = 0;
  std::uint64_t failed_ = 0;
  std::uint64_t unresolved_ = 0;
  std::uint64_t matches_ = 0;
  std::uint64_t missing_ = 0;
  std::uint64_t mismatches_ = 0;
};

}  // namespace saffra
