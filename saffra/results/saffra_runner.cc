#include "saffra/results/saffra_runner.h"

#include <exception>

#include "saffra/platform/exception.h"
#include "saffra/results/session_results.h"
#include "saffra/service/test_results.h"

namespace saffra {

SaffraRunner::SaffraRunner() : allResults_(std::make_shared<ResultList>()) {}

void SaffraRunner::aggregateResult(const std::shared_ptr<TestResults>& result) {
  if (!result) {
    throw Exception("NSInvalidArgumentException",
                    "aggregateResult: the result list cannot hold an absent result");
  }
  allResults_->push_back(result);
}

void SaffraRunner::setAllResults(std::shared_ptr<ResultList> allResults) {
  allResults_ = allResults ? std::move(allResults) : std::make_shared<ResultList>();
}

std::shared_ptr<TestResultsSummary> SaffraRunner::allTestResults() {
  return allTestResultsShouldThrowException(true);
}

std::shared_ptr<TestResultsSummary> SaffraRunner::allTestResultsShouldThrowException(
    bool shouldThrow) {
  std::shared_ptr<TestResultsSummary> summary;
  std::exception_ptr failure;
  try {
    summary = allTestResultsImplShouldThrowException(shouldThrow);
  } catch (...) {
    failure = std::current_exception();
  }
  deleteAllBatches();
  if (failure) std::rethrow_exception(failure);
  return summary;
}

std::shared_ptr<TestResultsSummary> SaffraRunner::allTestResultsImplShouldThrowException(
    bool shouldThrow) {
  for (const auto& result : *allResults_) {
    std::optional<Error> ignored;
    logSessionResults(result, shouldThrow, &ignored);
  }
  return std::make_shared<TestResultsSummary>(allResults_);
}

void SaffraRunner::deleteAllBatches() {
  if (!batchesServerConnectorsMap_) return;
  for (const auto& [batchId, closer] : *batchesServerConnectorsMap_) {
    if (closer) closer->closeBatchWithId(batchId);
  }
}

void SaffraRunner::addBatchCloser(const std::shared_ptr<BatchCloserProtocol>& batchCloser,
                                  const OptString& batchId) {
  if (!batchesServerConnectorsMap_ || !batchId) return;
  batchesServerConnectorsMap_->try_emplace(*batchId, batchCloser);
}

}  // namespace saffra
