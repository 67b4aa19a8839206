// The service's storage: batches, baselines, sessions and steps, and PNG images stored under the
// SHA-256 of their bytes. The interface is the same for both engines (see openStore).
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"

namespace saffra::server {

/// A failure of the database or of the image folder.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The store cannot be used for now: the data folder or its database was removed or replaced
/// while the service ran (writes are refused until it restarts), or the database server cannot
/// be reached (a later request tries again).
class StoreUnavailable : public StoreError {
 public:
  using StoreError::StoreError;
};

/// One batch of tests.
struct BatchRecord {
  std::string id;
  OptString name;
  OptString startedAt;
  OptString sequenceName;
  bool isClosed = false;
};

/// One step of a baseline version: its tag, the id of its image and the ids of the images
/// accepted beside it as alternatives (a checkpoint that matches any of them passes).
struct BaselineStep {
  std::int64_t position = 0;
  std::string tag;
  std::string image;
  std::vector<std::string> alternatives;
};

/// A baseline as a session found it: its id, the version then current and the branch whose
/// baseline it is (the session's own, or the parent or default branch it fell back to).
struct BaselineRef {
  std::int64_t id = 0;
  std::int64_t version = 0;
  std::string branch;
};

/// One version of a baseline: made when a session was saved as the baseline, when steps of a
/// session were accepted, when a version was rolled back to, or when an older data folder was
/// migrated.
struct BaselineVersion {
  std::int64_t version = 0;
  std::int64_t createdAt = 0;  // seconds since the epoch
  /// "saved", "accepted", "rollback", "undo" (the steps of `fromVersion` again, undoing a
  /// decision) or "migrated".
  std::string kind;
  OptString sessionId;                      // the session saved or accepted
  std::optional<std::int64_t> fromVersion;  // the version a rollback restored
  std::int64_t steps = 0;
};

/// A baseline with its identity and versions, newest first.
struct BaselineHistory {
  std::int64_t id = 0;
  std::string key;
  std::int64_t currentVersion = 0;
  std::vector<BaselineVersion> versions;
};

/// How a stopped session ended; written once, when it stops.
struct Outcome {
  /// "Passed", "Unresolved" or "Failed"; reviewing the steps may change it later.
  std::string status;
  /// The status the session stopped with, before any review.
  std::string stoppedStatus;
  bool isAborted = false;
  bool isDifferent = false;
  bool savedAsBaseline = false;
  std::int64_t stoppedAt = 0;  // seconds since the epoch
  /// Baseline steps that no check of the session reached. Their `position` is their place on
  /// the session's page, after the session's own steps; `baselinePositions` holds their
  /// position in the baseline version, in the same order.
  std::vector<BaselineStep> missing;
  std::vector<std::int64_t> baselinePositions;
};

/// One test session as started by a client.
struct SessionRecord {
  std::string id;
  std::string token;  // grants read access to this session's page and images
  std::string appName;
  std::string testName;
  std::string hostOS;
  std::string hostApp;
  double displayWidth = 0;
  double displayHeight = 0;
  std::string baselineEnvName;
  std::string branchName;  // the branch a saved baseline goes to
  std::string batchId;
  Json defaultMatchSettings = Json::object();   // as the client sent them
  std::string baselineKey;                      // identity of the baseline the session saves to
  std::optional<std::int64_t> baselineId;       // the baseline compared against; none when new
  std::optional<std::int64_t> baselineVersion;  // its version compared against
  std::string baselineBranch;                   // the branch that baseline belongs to
  bool isNew = false;
  std::int64_t startedAt = 0;     // seconds since the epoch
  std::int64_t lastActiveAt = 0;  // the last request of its client
  std::optional<Outcome> outcome;
};

/// One recorded step of a session.
struct StepRecord {
  std::int64_t position = 0;
  std::string tag;
  std::string currentImage;
  OptString baselineImage;  // the baseline image compared with (the one matched, if any)
  OptString diffImage;
  /// The baseline step this step was paired with (by tag); none for a new step.
  std::optional<std::int64_t> baselinePosition;
  /// The step matched one of its baseline step's alternatives rather than its main image.
  bool matchedAlternative = false;
  bool asExpected = false;
  std::string matchLevel;
  /// The contrast check of the step's accessibility regions, when it had some.
  std::optional<bool> accessibilityPassed;
  std::string accessibilityLevel;
  /// The step's matching settings as the client sent them (empty for steps stored before the
  /// settings were kept).
  Json settings = Json::object();
};

/// What an accepted step changes in the baseline. The baseline step concerned is the
/// `occurrence`-th (from 0) of those with the step's tag.
struct BaselineChange {
  enum class Kind {
    Replace,         // its image becomes `image` (alternatives dropped); added when absent
    AddAlternative,  // `image` is accepted beside its image; added as a step when absent
    Drop,            // it is removed (an accepted missing step)
  };
  Kind kind = Kind::Replace;
  std::string tag;
  std::int64_t occurrence = 0;
  std::string image;
};

/// A reviewer's verdict on one step of a stopped session (`position` as on its page).
struct StepReview {
  std::int64_t position = 0;
  bool accepted = false;
  bool asAlternative = false;
  /// For accepted steps: the change to the baseline. Rejections leave the baseline alone.
  std::optional<BaselineChange> change;
};

/// A recorded verdict.
struct Verdict {
  bool accepted = false;
  bool asAlternative = false;
};

/// The baseline moved on since the session was compared with it (another session's steps were
/// accepted or saved, or a version was rolled back to): accepting or saving the session's
/// images would silently undo that.
class StaleBaselineError : public StoreError {
 public:
  StaleBaselineError(const std::string& message, std::int64_t compared, std::int64_t current)
      : StoreError(message), compared_(compared), current_(current) {}
  std::int64_t comparedVersion() const { return compared_; }
  std::int64_t currentVersion() const { return current_; }

 private:
  std::int64_t compared_, current_;
};

/// One test's part of a decision: verdicts on its steps and the outcome they give it.
struct SessionDecision {
  std::string sessionId;
  std::vector<StepReview> reviews;
  Outcome outcome;
};

/// A session of a decision whose baseline moved on since it was compared with it.
struct StaleSession {
  std::string sessionId;
  std::string message;
  std::int64_t comparedVersion = 0;
  std::int64_t currentVersion = 0;
};

/// A decision that would accept images of sessions whose baselines moved on: every such
/// session is named. (The first one's versions are those of StaleBaselineError.)
class StaleSessionsError : public StaleBaselineError {
 public:
  explicit StaleSessionsError(std::vector<StaleSession> sessions)
      : StaleBaselineError(sessions.front().message, sessions.front().comparedVersion,
                           sessions.front().currentVersion),
        sessions_(std::move(sessions)) {}
  const std::vector<StaleSession>& sessions() const { return sessions_; }

 private:
  std::vector<StaleSession> sessions_;
};

/// An undo that would overwrite what happened since the decision (a later decision on one of
/// its tests, a baseline that moved on, a removed session or version). Nothing was changed.
class UndoRefused : public StoreError {
 public:
  using StoreError::StoreError;
};

/// A decision (to undo, or undone): its scope ("step", "test" or "batch") and its sessions.
struct UndoneDecision {
  std::int64_t id = 0;
  std::string scope;
  std::vector<std::string> sessions;
};

/// A rollback to a version that does not exist (`removed` when retention removed it).
class UnknownVersionError : public StoreError {
 public:
  UnknownVersionError(const std::string& message, bool removed)
      : StoreError(message), removed_(removed) {}
  bool removed() const { return removed_; }

 private:
  bool removed_;
};

/// What one round of retention removed.
struct RetentionReport {
  std::int64_t sessions = 0;
  std::int64_t versions = 0;
  std::int64_t images = 0;
};

/// One batch as the batch list shows it, with its sessions summed up.
struct BatchSummary {
  BatchRecord batch;
  /// The applications of its tests and their branches, each once, sorted.
  std::vector<std::string> apps;
  std::vector<std::string> branches;
  std::int64_t tests = 0;
  std::int64_t running = 0;
  std::int64_t passed = 0;
  std::int64_t unresolved = 0;
  std::int64_t failed = 0;
  /// Seconds since the epoch: the first session's start, and the last stop once none runs.
  std::int64_t startedAt = 0;
  std::optional<std::int64_t> finishedAt;
};

/// One page of the batch list, newest first, and how many batches match the search in all.
struct BatchPage {
  std::vector<BatchSummary> rows;
  std::int64_t total = 0;
};

/// What a copy of one store into another found and did.
struct MigrationReport {
  struct Table {
    std::string name;
    std::int64_t source = 0;  // rows in the store copied
    std::int64_t added = 0;   // rows the target lacked, copied now
    std::int64_t target = 0;  // rows in the target afterwards
  };
  std::vector<Table> tables;
  std::int64_t images = 0;         // images the rows refer to, found in the store copied
  std::int64_t imagesAdded = 0;    // of those, copied now
  std::int64_t imagesMissing = 0;  // referred to, but not in the store copied
};

/// An API key as the store keeps it: its name and the SHA-256 of its text, never the text.
struct ApiKeyRecord {
  std::string name;
  std::string digest;
  std::int64_t createdAt = 0;  // seconds since the epoch
  std::optional<std::int64_t> revokedAt;
};

/// Where the service keeps its data: one interface over two engines (an SQLite file with a
/// folder of image files, or a PostgreSQL database shared by several instances of the service).
/// The service above it never knows which one it talks to. All operations are safe to call
/// from several threads.
class Store {
 public:
  Store() = default;
  virtual ~Store() = default;
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// The id that PNG bytes are stored under: the hex SHA-256 of the bytes.
  static std::string imageIdOf(std::span<const std::uint8_t> png);
  /// Stores PNG bytes and returns their id; storing the same bytes twice keeps them once.
  std::string putImage(std::span<const std::uint8_t> png) { return putImage(png, imageIdOf(png)); }
  /// The same for bytes whose id the caller already has from imageIdOf, so a large image is
  /// hashed once. Throws StoreError for a text that is not an image id.
  virtual std::string putImage(std::span<const std::uint8_t> png, const std::string& id) = 0;
  /// True when an image of this id is stored whole: its file holds `size` bytes. (A file that
  /// a power loss cut short before it reached the disk is not taken for the image.)
  virtual bool hasImage(const std::string& id, std::uint64_t size) const = 0;
  /// The size in bytes of a stored image's file; nothing for an unknown or malformed id.
  virtual std::optional<std::uint64_t> imageSize(const std::string& id) const = 0;

  /// An image's file written under a temporary name, not stored yet: keep() stores it under its
  /// id; one not kept is removed when this goes. Lets an upload be written while it is checked
  /// and stored only once it proved valid.
  class PendingImage {
   public:
    PendingImage() = default;
    virtual ~PendingImage() = default;
    PendingImage(const PendingImage&) = delete;
    PendingImage& operator=(const PendingImage&) = delete;
    /// Stores the image under its id (replacing the same bytes written by another request)
    /// and returns the id. Throws StoreError.
    virtual std::string keep() = 0;
  };
  /// Writes PNG bytes whose id the caller has from imageIdOf beside the stored images, not yet
  /// stored. Throws StoreError.
  virtual std::unique_ptr<PendingImage> writeImage(std::span<const std::uint8_t> png,
                                                   const std::string& id) = 0;
  /// The bytes of a stored image; nothing for an unknown or malformed id.
  virtual std::optional<std::vector<std::uint8_t>> readImage(const std::string& id) const = 0;
  /// Waits until every image file stored so far is on disk. Image files are written at once,
  /// so a crash of the service loses none that it stored, and a thread of the store flushes
  /// them to disk soon after, so that no request waits for the disk; a baseline is saved only
  /// after this. Throws StoreError when the disk refused to flush a file.
  virtual void flushImages() = 0;

  /// The baseline under `key` and its current version.
  virtual std::optional<BaselineRef> findBaseline(const std::string& key) = 0;
  /// The steps of a version of a baseline, in order, with their alternatives.
  virtual std::vector<BaselineStep> baselineSteps(std::int64_t baselineId,
                                                  std::int64_t version) = 0;
  /// The `occurrence`-th (from 0) step with this tag of a version of a baseline.
  virtual std::optional<BaselineStep> baselineStepByTag(std::int64_t baselineId,
                                                        std::int64_t version,
                                                        const std::string& tag,
                                                        std::int64_t occurrence) = 0;
  /// A baseline and its versions; nothing for an unknown id.
  virtual std::optional<BaselineHistory> baselineHistory(std::int64_t baselineId) = 0;
  /// Makes a new version of the baseline with the steps of `version`. Throws
  /// UnknownVersionError when that version never existed or was removed.
  virtual std::int64_t rollBack(std::int64_t baselineId, std::int64_t version) = 0;

  virtual std::optional<BatchRecord> batch(const std::string& id) = 0;
  /// Marks the batch closed; false when there is no such batch.
  virtual bool closeBatch(const std::string& id) = 0;

  /// Adds the session and its batch (or updates the name and sequence of a known batch), in one
  /// transaction, so retention never removes a batch a new session joins.
  virtual void insertSession(const SessionRecord& session, const BatchRecord& batch) = 0;
  virtual std::optional<SessionRecord> session(const std::string& id) = 0;
  virtual std::vector<StepRecord> steps(const std::string& sessionId) = 0;
  virtual std::int64_t stepCount(const std::string& sessionId) = 0;
  /// The session's recorded steps with this tag.
  virtual std::int64_t stepCountWithTag(const std::string& sessionId, const std::string& tag) = 0;
  /// Records a step and, when given, the changes found in it, in one transaction.
  virtual void insertStep(const std::string& sessionId, const StepRecord& step,
                          const Json* changes) = 0;
  void insertStep(const std::string& sessionId, const StepRecord& step) {
    insertStep(sessionId, step, nullptr);
  }
  /// Notes a request of the session's client now.
  virtual void touchSession(const std::string& sessionId, std::int64_t at) = 0;
  /// Sessions still running whose client was last heard of before `before`.
  virtual std::vector<std::string> idleSessions(std::int64_t before) = 0;
  /// Every batch, the one with the latest session first.
  virtual std::vector<BatchRecord> batches() = 0;
  /// The sessions of a batch in the order they started.
  virtual std::vector<SessionRecord> sessionsInBatch(const std::string& batchId) = 0;
  /// The verdicts given on a session's steps, by position.
  virtual std::map<std::int64_t, Verdict> reviews(const std::string& sessionId) = 0;
  /// Records verdicts on steps of a stopped session and its new outcome in one transaction.
  /// Accepted changes make a new version of the baseline under the session's baseline key,
  /// based on its current version (or, when there is none yet, on the baseline the session
  /// was compared with). Throws StaleBaselineError, recording nothing, when that baseline
  /// moved on since the session was compared with it, unless `confirmed`.
  virtual void reviewSteps(const std::string& sessionId, const std::vector<StepReview>& reviews,
                           const Outcome& outcome, bool confirmed) = 0;
  /// Records a reviewer's decision on the steps of one or more stopped sessions (a step, a test
  /// or a whole batch) in one transaction, as reviewSteps does for each, and keeps what it
  /// changed so that undoLastDecision can restore it. Returns the decision's id. Throws
  /// StaleSessionsError naming every session whose baseline moved on, recording nothing,
  /// unless `confirmed`.
  virtual std::int64_t decide(const std::string& reviewer, const std::string& scope,
                              const std::vector<SessionDecision>& sessions, bool confirmed) = 0;
  /// The id of the reviewer's last decision that was not undone.
  virtual std::optional<std::int64_t> lastDecision(const std::string& reviewer) = 0;
  /// The reviewer's last decision that was not undone, with its sessions.
  virtual std::optional<UndoneDecision> decisionToUndo(const std::string& reviewer) = 0;
  /// Undoes the reviewer's last decision: its sessions get back their outcome and verdicts,
  /// and each baseline it changed gets a new version (kind "undo") with the steps it had
  /// before; a baseline the decision created is removed again when no session was compared
  /// with it since (else its new version is empty). Nothing when there is no decision to undo.
  /// `expected`: the id the reviewer saw as their last decision; another one is refused, so an
  /// undo sent twice undoes once. Throws UndoRefused, changing nothing.
  virtual std::optional<UndoneDecision> undoLastDecision(const std::string& reviewer,
                                                         std::optional<std::int64_t> expected) = 0;

  /// Records the outcome and, when `newBaseline` is given, makes it a new version of the
  /// baseline under the session's baseline key, all in one transaction. Returns false,
  /// recording nothing, when the session already has an outcome (another service stopped it
  /// first). Throws StaleBaselineError, recording nothing, when a baseline is given and the
  /// baseline moved on since the session was compared with it.
  virtual bool finishSession(const std::string& sessionId, const Outcome& outcome,
                             const std::vector<BaselineStep>* newBaseline) = 0;

  /// Removes up to `limit` stopped sessions that started before `before`, with their steps
  /// and verdicts; returns how many.
  virtual std::int64_t removeSessions(std::int64_t before, std::int64_t limit) = 0;
  /// Removes up to fifty versions of baselines that are not current, no remaining session was
  /// compared with, and were made before `before` or are beyond the `keep` newest of their
  /// baseline (0: no such limit); returns how many.
  virtual std::int64_t removeVersions(std::int64_t before, std::int64_t keep) = 0;
  /// Removes the image files of the image folder `prefix` (two hex digits) that no step or
  /// baseline version refers to and that were not written or used since `before`, and
  /// temporary files older than that; returns how many images.
  virtual std::int64_t removeUnusedImages(const std::string& prefix, std::int64_t before) = 0;
  /// The schema version of the open database.
  virtual std::int64_t schemaVersion() = 0;
  /// One page of the batch list: batches whose name, id, applications or branches hold
  /// `search` (ASCII letters in any case; empty for all), newest first, skipping `offset`
  /// and returning at most `limit`.
  virtual BatchPage batchSummaries(const std::string& search, std::int64_t offset,
                                   std::int64_t limit) = 0;
  /// The first `count` bytes of a stored image (fewer for a shorter file); nothing for an
  /// unknown or malformed id. A page learns an image's size from its header this way.
  virtual std::optional<std::vector<std::uint8_t>> imageHead(const std::string& id,
                                                             std::size_t count) const = 0;
  /// Keeps what the comparison found in one step of a session (a JSON object the caller
  /// defines) beside the step, for the pages.
  virtual void putStepChanges(const std::string& sessionId, std::int64_t position,
                              const Json& changes) = 0;
  /// The changes kept for the steps of a session, by position.
  virtual std::map<std::int64_t, Json> stepChanges(const std::string& sessionId) = 0;

  /// Adds an API key by the lower-case hex SHA-256 of its text; false when a key in use
  /// already has this name.
  virtual bool addApiKey(const std::string& name, const std::string& digest, std::int64_t at) = 0;
  /// Every key ever added, revoked ones too, oldest first.
  virtual std::vector<ApiKeyRecord> apiKeys() = 0;
  /// Revokes the key in use of this name; false when there is none.
  virtual bool revokeApiKey(const std::string& name, std::int64_t at) = 0;
  /// True when a key in use has this digest.
  virtual bool hasApiKeyDigest(const std::string& digest) = 0;
  /// The secret of this name shared by every service on this store (such as the one that
  /// signs logins), made at random the first time it is asked for.
  virtual std::string sharedSecret(const std::string& name) = 0;

  /// Time this process has spent waiting for a database server's replies, summed over every
  /// store it opened (for reports; zero for an engine inside the process).
  virtual std::chrono::nanoseconds timeInDatabase() const { return {}; }

  /// Copies everything this store keeps into `target`, a PostgreSQL database that is empty or
  /// holds an earlier copy of this store (rows and images it has are left alone, so running it
  /// again completes a copy and duplicates nothing), checking the rows' counts and every image's
  /// hash. `progress` gets a line per table. Throws StoreError, e.g. for a target holding
  /// another store's data.
  virtual MigrationReport copyInto(Store& target,
                                   const std::function<void(const std::string&)>& progress) = 0;
};

/// An address of a database that cannot be one (not a PostgreSQL address libpq accepts).
class StoreAddressError : public StoreError {
 public:
  using StoreError::StoreError;
};

/// Opens the store at `where`: a "postgresql://" or "postgres://" address opens (and brings up
/// to date) a PostgreSQL database, anything else is a data folder for SQLite, created when
/// missing. Throws StoreAddressError for a malformed address, StoreUnavailable when the
/// database cannot be reached or refuses the login, StoreError otherwise.
std::unique_ptr<Store> openStore(const std::string& where);

/// True for the addresses that openStore opens as PostgreSQL.
bool isDatabaseAddress(const std::string& where);

/// True for a 64-character lower-case hex text, the only form an image id takes.
bool isImageId(const std::string& id);

}  // namespace saffra::server
