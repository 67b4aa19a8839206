#include "saffra/results/test_results_summary.h"

#include "saffra/platform/format.h"
#include "saffra/service/test_results.h"

namespace saffra {

TestResultsSummary::TestResultsSummary(std::shared_ptr<const ResultList> allResults)
    : allResults_(std::move(allResults)) {
  if (!allResults_) return;
  for (const auto& result : *allResults_) {
    if (!result) continue;
    switch (result->status()) {
      case TestResultsStatusPassed:
        ++passed_;
        break;
      case TestResultsStatusFailed:
        ++failed_;
        break;
      default:
        ++unresolved_;
        break;
    }
    matches_ += static_cast<std::uint64_t>(result->matches());
    missing_ += static_cast<std::uint64_t>(result->missing());
    mismatches_ += static_cast<std::uint64_t>(result->mismatches());
  }
}

std::string TestResultsSummary::description() const {
  std::string results;
  if (allResults_) {
    for (const auto& result : *allResults_) {
      results += "\n";
      results += result ? result->description() : "(null)";
    }
  }
  std::string text = "result summary {";
  text += format("\n\tall results=\n\t\t%@\n\t\t", results);
  text += format("\n\tpassed=%li", passed_);
  text += format("\n\tunresolved=%li", unresolved_);
  text += format("\n\tfailed=%li", failed_);
  text += format("\n\tmismatches=%li", mismatches_);
  text += format("\n\tmissing=%li", missing_);
  text += format("\n\tmatches=%li", matches_);
  text += "\n}";
  return text;
}

}  // namespace saffra
