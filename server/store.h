// The service's storage: an SQLite database (WAL) for batches, baselines, sessions and steps,
// and a folder of PNG files named by the SHA-256 of their bytes. Every path the store touches
// is made from its own folder and such a hash, never from request data. Image files are
// written to a temporary name and renamed, so a crash never leaves a partial image behind.
// All operations are safe to call from several threads.
#pragma once

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

/// One batch of tests.
struct BatchRecord {
  std::string id;
  OptString name;
  OptString startedAt;
  OptString sequenceName;
  bool isClosed = false;
};

/// One step of a baseline: its tag and the id of its image.
struct BaselineStep {
  std::int64_t position = 0;
  std::string tag;
  std::string image;
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
  /// Baseline steps that no check of the session reached.
  std::vector<BaselineStep> missing;
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
  Json defaultMatchSettings = Json::object();  // as the client sent them
  std::string baselineKey;                     // identity of the baseline the session saves to
  std::optional<std::int64_t> baselineId;      // the baseline compared against; none when new
  bool isNew = false;
  std::int64_t startedAt = 0;  // seconds since the epoch
  std::optional<Outcome> outcome;
};

/// One recorded step of a session.
struct StepRecord {
  std::int64_t position = 0;
  std::string tag;
  std::string currentImage;
  OptString baselineImage;
  OptString diffImage;
  bool asExpected = false;
  std::string matchLevel;
  /// The contrast check of the step's accessibility regions, when it had some.
  std::optional<bool> accessibilityPassed;
  std::string accessibilityLevel;
  /// The step's matching settings as the client sent them (empty for steps stored before the
  /// settings were kept).
  Json settings = Json::object();
};

/// A reviewer's verdict on one step of a stopped session.
struct StepReview {
  std::int64_t position = 0;
  bool accepted = false;
  /// For an accepted step that has a current image: the image and tag that become the
  /// baseline at `position`. Absent for an accepted missing step, whose baseline step is
  /// dropped, and for rejections, which leave the baseline alone.
  std::optional<BaselineStep> newBaselineStep;
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

  std::optional<std::int64_t> findBaseline(const std::string& key);
  std::vector<BaselineStep> baselineSteps(std::int64_t baselineId);
  std::optional<BaselineStep> baselineStep(std::int64_t baselineId, std::int64_t position);

  /// Adds the batch, or updates the name and sequence of a known one.
  void recordBatch(const BatchRecord& batch);
  std::optional<BatchRecord> batch(const std::string& id);
  /// Marks the batch closed; false when there is no such batch.
  bool closeBatch(const std::string& id);

  void insertSession(const SessionRecord& session);
  std::optional<SessionRecord> session(const std::string& id);
  std::vector<StepRecord> steps(const std::string& sessionId);
  std::int64_t stepCount(const std::string& sessionId);
  void insertStep(const std::string& sessionId, const StepRecord& step);
  /// Every batch, the one with the latest session first.
  std::vector<BatchRecord> batches();
  /// The sessions of a batch in the order they started.
  std::vector<SessionRecord> sessionsInBatch(const std::string& batchId);
  /// The verdicts given on a session's steps, by position: true for accepted.
  std::map<std::int64_t, bool> reviews(const std::string& sessionId);
  /// Records verdicts on steps of a stopped session and its new outcome in one transaction.
  /// Accepted steps change the baseline under the session's baseline key; when there is none
  /// yet it is created as a copy of the baseline the session was compared with (if any).
  void reviewSteps(const std::string& sessionId, const std::vector<StepReview>& reviews,
                   const Outcome& outcome);
  /// Records the outcome and, when `newBaseline` is given, makes it the baseline under the
  /// session's baseline key, all in one transaction.
  void finishSession(const std::string& sessionId, const Outcome& outcome,
                     const std::vector<BaselineStep>* newBaseline);

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

  /// The store's prepared statements, kept between uses (defined in store.cc).
  class StatementCache;

 private:
  std::filesystem::path imagePath(const std::string& id) const;
  /// Brings a database made by an earlier version up to the current schema.
  void migrate();

  /// The thread that flushes stored image files to disk (defined in store.cc).
  class Flusher;

  std::filesystem::path folder_;
  std::filesystem::path imageFolder_;
  std::unique_ptr<Flusher> flusher_;
  mutable std::mutex mutex_;
  sqlite3* db_ = nullptr;
  std::unique_ptr<StatementCache> statements_;
};

/// True for a 64-character lower-case hex text, the only form an image id takes.
bool isImageId(const std::string& id);

}  // namespace saffra::server
