// The part of the store that both engines share: batches, sessions, steps, baselines and
// their versions, reviews, decisions and retention of rows, all through the binding of
// binding.h. An engine adds its connections and where image bytes live. Included by the
// store's own files only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/store.h"
#include "server/store/binding.h"

namespace saffra::server {

class SqlStore : public Store {
 public:
  using Store::putImage;

  std::optional<BaselineRef> findBaseline(const std::string& key) override;
  std::vector<BaselineStep> baselineSteps(std::int64_t baselineId, std::int64_t version) override;
  std::optional<BaselineStep> baselineStepByTag(std::int64_t baselineId, std::int64_t version,
                                                const std::string& tag,
                                                std::int64_t occurrence) override;
  std::optional<BaselineHistory> baselineHistory(std::int64_t baselineId) override;
  std::int64_t rollBack(std::int64_t baselineId, std::int64_t version) override;
  std::optional<BatchRecord> batch(const std::string& id) override;
  bool closeBatch(const std::string& id) override;
  void insertSession(const SessionRecord& session, const BatchRecord& batch) override;
  std::optional<SessionRecord> session(const std::string& id) override;
  std::vector<StepRecord> steps(const std::string& sessionId) override;
  std::int64_t stepCount(const std::string& sessionId) override;
  std::int64_t stepCountWithTag(const std::string& sessionId, const std::string& tag) override;
  using Store::insertStep;
  void insertStep(const std::string& sessionId, const StepRecord& step,
                  const Json* changes) override;
  void touchSession(const std::string& sessionId, std::int64_t at) override;
  std::vector<std::string> idleSessions(std::int64_t before) override;
  std::vector<BatchRecord> batches() override;
  std::vector<SessionRecord> sessionsInBatch(const std::string& batchId) override;
  std::map<std::int64_t, Verdict> reviews(const std::string& sessionId) override;
  void reviewSteps(const std::string& sessionId, const std::vector<StepReview>& reviews,
                   const Outcome& outcome, bool confirmed) override;
  std::int64_t decide(const std::string& reviewer, const std::string& scope,
                      const std::vector<SessionDecision>& sessions, bool confirmed) override;
  std::optional<std::int64_t> lastDecision(const std::string& reviewer) override;
  std::optional<UndoneDecision> decisionToUndo(const std::string& reviewer) override;
  std::optional<UndoneDecision> undoLastDecision(const std::string& reviewer,
                                                 std::optional<std::int64_t> expected) override;
  bool finishSession(const std::string& sessionId, const Outcome& outcome,
                     const std::vector<BaselineStep>* newBaseline) override;
  std::int64_t removeSessions(std::int64_t before, std::int64_t limit) override;
  std::int64_t removeVersions(std::int64_t before, std::int64_t keep) override;
  std::int64_t schemaVersion() override;
  BatchPage batchSummaries(const std::string& search, std::int64_t offset,
                           std::int64_t limit) override;
  void putStepChanges(const std::string& sessionId, std::int64_t position,
                      const Json& changes) override;
  std::map<std::int64_t, Json> stepChanges(const std::string& sessionId) override;
  bool addApiKey(const std::string& name, const std::string& digest, std::int64_t at) override;
  std::vector<ApiKeyRecord> apiKeys() override;
  bool revokeApiKey(const std::string& name, std::int64_t at) override;
  bool hasApiKeyDigest(const std::string& digest) override;
  std::string sharedSecret(const std::string& name) override;
  MigrationReport copyInto(Store& target,
                           const std::function<void(const std::string&)>& progress) override;

 protected:
  /// A connection for one operation. Throws StoreUnavailable when none can be had.
  virtual storage::Lease lease() = 0;
  /// Throws StoreUnavailable when nothing written now would last; called before every write.
  virtual void requireWritable() const {}
  /// The table that holds the schema's version.
  virtual const char* schemaTable() const = 0;

 private:
  using Lease = storage::Lease;
  /// What applyReview changed in the baseline: the baseline and the version it made, and the
  /// version current before (none when it created the baseline).
  struct AppliedReview {
    std::optional<std::int64_t> baselineId;
    std::optional<std::int64_t> previousVersion;
    std::int64_t madeVersion = 0;
  };
  /// The reviewer's last decision not undone, without its sessions.
  std::optional<UndoneDecision> lastOpenDecision(Lease& db, const std::string& reviewer);
  /// reviewSteps inside a transaction.
  AppliedReview applyReview(Lease& db, const std::string& sessionId,
                            const std::vector<StepReview>& reviews, const Outcome& outcome,
                            bool confirmed);
  /// Checks, inside a transaction, that the session's baseline key still has the version the
  /// session was compared with (or versions made by the session itself since); throws
  /// StaleBaselineError otherwise. Returns the baseline under the key, if any, and its version.
  std::optional<std::pair<std::int64_t, std::int64_t>> requireFreshBaseline(
      Lease& db, const std::string& sessionId, bool confirmed);
  /// Makes the next version of baseline `toId`, current at once, with the steps of `from` (a
  /// baseline and one of its versions) when given; returns its number. Inside a transaction.
  std::int64_t newVersion(Lease& db, std::int64_t toId,
                          std::optional<std::pair<std::int64_t, std::int64_t>> from,
                          const std::string& kind, const OptString& sessionId,
                          std::optional<std::int64_t> fromVersion);
};

}  // namespace saffra::server
