// The service's storage: an SQLite database (WAL) for batches, baselines, sessions and steps,
// and a folder of PNG files named by the SHA-256 of their bytes. Every path the store touches
// is made from its own folder and such a hash, never from request data. Image files are
// written to a temporary name and renamed, so a crash never leaves a partial image behind.
// All operations are safe to call from several threads.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "saffra/platform/json.h"
#include "saffra/platform/nullable.h"

struct sqlite3;

namespace saffra::server {

/// A failure of the database or of the image folder.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The data folder or its database was removed or replaced while the service ran: nothing
/// written now would survive a restart, so writes are refused until the service restarts.
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

/// An API key as the store keeps it: its name and the SHA-256 of its text, never the text.
struct ApiKeyRecord {
  std::string name;
  std::string digest;
  std::int64_t createdAt = 0;  // seconds since the epoch
  std::optional<std::int64_t> revokedAt;
};

/// The database and image folder under one data folder.
class Store {
 public:
  /// Opens (creating when needed) the store in `folder`. Throws StoreError.
  explicit Store(const std::filesystem::path& folder);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// The id that PNG bytes are stored under: the hex SHA-256 of the bytes.
  static std::string imageIdOf(std::span<const std::uint8_t> png);
  /// Stores PNG bytes and returns their id; storing the same bytes twice keeps one file.
  std::string putImage(std::span<const std::uint8_t> png);
  /// The same for bytes whose id the caller already has from imageIdOf, so a large image is
  /// hashed once. Throws StoreError for a text that is not an image id.
  std::string putImage(std::span<const std::uint8_t> png, const std::string& id);
  /// True when an image of this id is stored whole: its file holds `size` bytes. (A file that
  /// a power loss cut short before it reached the disk is not taken for the image.)
  bool hasImage(const std::string& id, std::uint64_t size) const;
  /// The size in bytes of a stored image's file; nothing for an unknown or malformed id.
  std::optional<std::uint64_t> imageSize(const std::string& id) const;

  /// An image's file written under a temporary name, not stored yet: keep() stores it under its
  /// id; one not kept is removed when this goes. Lets an upload be written while it is checked
  /// and stored only once it proved valid.
  class PendingImage {
   public:
    ~PendingImage();
    PendingImage(const PendingImage&) = delete;
    PendingImage& operator=(const PendingImage&) = delete;
    /// Stores the file under the image's id (replacing the same bytes written by another
    /// request) and returns the id. Throws StoreError.
    std::string keep();

   private:
    friend class Store;
    PendingImage(Store& store, std::filesystem::path temporary, std::filesystem::path path,
                 std::string id);
    Store& store_;
    std::filesystem::path temporary_, path_;
    std::string id_;
    bool kept_ = false;
  };
  /// Writes PNG bytes whose id the caller has from imageIdOf beside the stored images, not yet
  /// stored. Throws StoreError.
  std::unique_ptr<PendingImage> writeImage(std::span<const std::uint8_t> png,
                                           const std::string& id);
  /// The bytes of a stored image; nothing for an unknown or malformed id.
  std::optional<std::vector<std::uint8_t>> readImage(const std::string& id) const;
  /// Waits until every image file stored so far is on disk. Image files are written at once,
  /// so a crash of the service loses none that it stored, and a thread of the store flushes
  /// them to disk soon after, so that no request waits for the disk; a baseline is saved only
  /// after this. Throws StoreError when the disk refused to flush a file.
  void flushImages();

  /// The baseline under `key` and its current version.
  std::optional<BaselineRef> findBaseline(const std::string& key);
  /// The steps of a version of a baseline, in order, with their alternatives.
  std::vector<BaselineStep> baselineSteps(std::int64_t baselineId, std::int64_t version);
  /// The `occurrence`-th (from 0) step with this tag of a version of a baseline.
  std::optional<BaselineStep> baselineStepByTag(std::int64_t baselineId, std::int64_t version,
                                                const std::string& tag, std::int64_t occurrence);
  /// A baseline and its versions; nothing for an unknown id.
  std::optional<BaselineHistory> baselineHistory(std::int64_t baselineId);
  /// Makes a new version of the baseline with the steps of `version`. Throws
  /// UnknownVersionError when that version never existed or was removed.
  std::int64_t rollBack(std::int64_t baselineId, std::int64_t version);

  std::optional<BatchRecord> batch(const std::string& id);
  /// Marks the batch closed; false when there is no such batch.
  bool closeBatch(const std::string& id);

  /// Adds the session and its batch (or updates the name and sequence of a known batch), in one
  /// transaction, so retention never removes a batch a new session joins.
  void insertSession(const SessionRecord& session, const BatchRecord& batch);
  std::optional<SessionRecord> session(const std::string& id);
  std::vector<StepRecord> steps(const std::string& sessionId);
  std::int64_t stepCount(const std::string& sessionId);
  /// The session's recorded steps with this tag.
  std::int64_t stepCountWithTag(const std::string& sessionId, const std::string& tag);
  void insertStep(const std::string& sessionId, const StepRecord& step);
  /// Notes a request of the session's client now.
  void touchSession(const std::string& sessionId, std::int64_t at);
  /// Sessions still running whose client was last heard of before `before`.
  std::vector<std::string> idleSessions(std::int64_t before);
  /// Every batch, the one with the latest session first.
  std::vector<BatchRecord> batches();
  /// The sessions of a batch in the order they started.
  std::vector<SessionRecord> sessionsInBatch(const std::string& batchId);
  /// The verdicts given on a session's steps, by position.
  std::map<std::int64_t, Verdict> reviews(const std::string& sessionId);
  /// Records verdicts on steps of a stopped session and its new outcome in one transaction.
  /// Accepted changes make a new version of the baseline under the session's baseline key,
  /// based on its current version (or, when there is none yet, on the baseline the session
  /// was compared with). Throws StaleBaselineError, recording nothing, when that baseline
  /// moved on since the session was compared with it, unless `confirmed`.
  void reviewSteps(const std::string& sessionId, const std::vector<StepReview>& reviews,
                   const Outcome& outcome, bool confirmed);
  /// Records a reviewer's decision on the steps of one or more stopped sessions (a step, a test
  /// or a whole batch) in one transaction, as reviewSteps does for each, and keeps what it
  /// changed so that undoLastDecision can restore it. Returns the decision's id. Throws
  /// StaleSessionsError naming every session whose baseline moved on, recording nothing,
  /// unless `confirmed`.
  std::int64_t decide(const std::string& reviewer, const std::string& scope,
                      const std::vector<SessionDecision>& sessions, bool confirmed);
  /// The id of the reviewer's last decision that was not undone.
  std::optional<std::int64_t> lastDecision(const std::string& reviewer);
  /// The reviewer's last decision that was not undone, with its sessions.
  std::optional<UndoneDecision> decisionToUndo(const std::string& reviewer);
  /// Undoes the reviewer's last decision: its sessions get back their outcome and verdicts,
  /// and each baseline it changed gets a new version (kind "undo") with the steps it had
  /// before; a baseline the decision created is removed again when no session was compared
  /// with it since (else its new version is empty). Nothing when there is no decision to undo.
  /// `expected`: the id the reviewer saw as their last decision; another one is refused, so an
  /// undo sent twice undoes once. Throws UndoRefused, changing nothing.
  std::optional<UndoneDecision> undoLastDecision(const std::string& reviewer,
                                                 std::optional<std::int64_t> expected);

  /// Records the outcome and, when `newBaseline` is given, makes it a new version of the
  /// baseline under the session's baseline key, all in one transaction. Throws
  /// StaleBaselineError, recording nothing, when a baseline is given and the baseline moved
  /// on since the session was compared with it.
  void finishSession(const std::string& sessionId, const Outcome& outcome,
                     const std::vector<BaselineStep>* newBaseline);

  /// Removes up to `limit` stopped sessions that started before `before`, with their steps
  /// and verdicts; returns how many.
  std::int64_t removeSessions(std::int64_t before, std::int64_t limit);
  /// Removes up to fifty versions of baselines that are not current, no remaining session was
  /// compared with, and were made before `before` or are beyond the `keep` newest of their
  /// baseline (0: no such limit); returns how many.
  std::int64_t removeVersions(std::int64_t before, std::int64_t keep);
  /// Removes the image files of the image folder `prefix` (two hex digits) that no step or
  /// baseline version refers to and that were not written or used since `before`, and
  /// temporary files older than that; returns how many images.
  std::int64_t removeUnusedImages(const std::string& prefix, std::int64_t before);
  /// The schema version of the open database.
  std::int64_t schemaVersion();
  /// One page of the batch list: batches whose name, id, applications or branches hold
  /// `search` (ASCII letters in any case; empty for all), newest first, skipping `offset`
  /// and returning at most `limit`.
  BatchPage batchSummaries(const std::string& search, std::int64_t offset, std::int64_t limit);
  /// The first `count` bytes of a stored image (fewer for a shorter file); nothing for an
  /// unknown or malformed id. A page learns an image's size from its header this way.
  std::optional<std::vector<std::uint8_t>> imageHead(const std::string& id,
                                                     std::size_t count) const;
  /// Keeps what the comparison found in one step of a session (a JSON object the caller
  /// defines) beside the step, for the pages.
  void putStepChanges(const std::string& sessionId, std::int64_t position, const Json& changes);
  /// The changes kept for the steps of a session, by position.
  std::map<std::int64_t, Json> stepChanges(const std::string& sessionId);

  /// Adds an API key by the lower-case hex SHA-256 of its text; false when a key in use
  /// already has this name.
  bool addApiKey(const std::string& name, const std::string& digest, std::int64_t at);
  /// Every key ever added, revoked ones too, oldest first.
  std::vector<ApiKeyRecord> apiKeys();
  /// Revokes the key in use of this name; false when there is none.
  bool revokeApiKey(const std::string& name, std::int64_t at);
  /// True when a key in use has this digest.
  bool hasApiKeyDigest(const std::string& digest);
  /// The secret of this name shared by every service on this store (such as the one that
  /// signs logins), made at random the first time it is asked for.
  std::string sharedSecret(const std::string& name);

  /// The store's prepared statements, kept between uses (defined in store/statement.h).
  class StatementCache;

 private:
  std::filesystem::path imagePath(const std::string& id) const;
  /// Brings a database made by an earlier version up to the current schema.
  void migrate();
  /// Throws StoreUnavailable when the folder, the image folder or the database file is no
  /// longer the one opened; called before every write.
  void requireOwnFolder() const;
  /// Adds the columns that the first schema gained during its life.
  void migrateFirstSchema();
  /// What applyReview changed in the baseline: the baseline and the version it made, and the
  /// version current before (none when it created the baseline).
  struct AppliedReview {
    std::optional<std::int64_t> baselineId;
    std::optional<std::int64_t> previousVersion;
    std::int64_t madeVersion = 0;
  };
  /// The reviewer's last decision not undone, without its sessions; the caller holds mutex_.
  std::optional<UndoneDecision> lastOpenDecision(const std::string& reviewer);
  /// reviewSteps inside a transaction.
  AppliedReview applyReview(const std::string& sessionId, const std::vector<StepReview>& reviews,
                            const Outcome& outcome, bool confirmed);
  /// Checks, inside a transaction, that the session's baseline key still has the version the
  /// session was compared with (or versions made by the session itself since); throws
  /// StaleBaselineError otherwise. Returns the baseline under the key, if any, and its version.
  std::optional<std::pair<std::int64_t, std::int64_t>> requireFreshBaseline(
      const std::string& sessionId, bool confirmed);
  /// Makes the next version of baseline `toId`, current at once, with the steps of `from` (a
  /// baseline and one of its versions) when given; returns its number. Inside a transaction.
  std::int64_t newVersion(std::int64_t toId,
                          std::optional<std::pair<std::int64_t, std::int64_t>> from,
                          const std::string& kind, const OptString& sessionId,
                          std::optional<std::int64_t> fromVersion);

  /// The thread that flushes stored image files to disk (defined in store/image_files.h).
  class Flusher;

  std::filesystem::path folder_;
  std::filesystem::path imageFolder_;
  std::unique_ptr<Flusher> flusher_;
  mutable std::mutex mutex_;
  /// Held while an image file is checked for use and removed, and while a file about to be
  /// referred to is found present and touched, so retention never removes a file in use.
  mutable std::mutex imageUseMutex_;
  sqlite3* db_ = nullptr;
  std::unique_ptr<StatementCache> statements_;
  /// Device and inode of the folder, the image folder and the database file when opened.
  std::array<std::pair<std::uint64_t, std::uint64_t>, 3> identity_{};
  mutable std::atomic<bool> lost_{false};
};

/// True for a 64-character lower-case hex text, the only form an image id takes.
bool isImageId(const std::string& id);

}  // namespace saffra::server
