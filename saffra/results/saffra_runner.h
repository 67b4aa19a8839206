// The object that outlives the tests of a suite: each session hands it the results of its test
// when it closes, and at the end the suite asks it for all of them at once.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "saffra/platform/nullable.h"
#include "saffra/results/batch_closer_protocol.h"
#include "saffra/results/test_results_summary.h"

namespace saffra {

class TestResults;

/// Collects the results of many tests; used through std::shared_ptr, shared by the sessions of
/// a suite.
class SaffraRunner {
 public:
  using ResultList = TestResultsSummary::ResultList;
  using BatchCloserMap = std::map<std::string, std::shared_ptr<BatchCloserProtocol>>;

  /// An empty result list. The map of batch closers is never created, so the runner keeps no
  /// closers and closes no batches.
  SaffraRunner();

  /// Appends the results (duplicates are kept). Throws Exception "NSInvalidArgumentException"
  /// for absent results, which the list cannot hold.
  void aggregateResult(const std::shared_ptr<TestResults>& result);

  /// allTestResultsShouldThrowException(true).
  std::shared_ptr<TestResultsSummary> allTestResults();
  /// Logs every result again (see logSessionResults) and summarises them; then asks each batch
  /// closer to close its batch. With `shouldThrow`, the first result that did not pass raises
  /// its exception, after the batch step; the results after it are not logged.
  std::shared_ptr<TestResultsSummary> allTestResultsShouldThrowException(bool shouldThrow);
  /// The logging and summary without the batch step.
  std::shared_ptr<TestResultsSummary> allTestResultsImplShouldThrowException(bool shouldThrow);

  /// Closes each batch in the map, in key order (none: the map does not exist).
  void deleteAllBatches();
  /// Keeps the first closer given for a batch id (nothing is kept: the map does not exist).
  void addBatchCloser(const std::shared_ptr<BatchCloserProtocol>& batchCloser,
                      const OptString& batchId);

  /// The map of batch closers; always absent.
  const std::optional<BatchCloserMap>& batchesServerConnectorsMap() const {
    return batchesServerConnectorsMap_;
  }
  const std::shared_ptr<ResultList>& allResults() const { return allResults_; }
  /// Replaces the result list (an absent list is replaced by an empty one).
  void setAllResults(std::shared_ptr<ResultList> allResults);

 private:
  std::optional<BatchCloserMap> batchesServerConnectorsMap_;
  std::shared_ptr<ResultList> allResults_;
};

}  // namespace saffra
