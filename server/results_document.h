// How a stopped session is judged, which baseline saving it makes, and the test-results
// document the stop call returns (also served as JSON and rendered as the results page).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "saffra/platform/json.h"
#include "server/store.h"

namespace saffra::server {

/// The addresses of a session's pages and images under the service's base address. They
/// carry no credentials: a browser that opens one logs in first (or adds apiKey=...).
class Links {
 public:
  /// `base` is the scheme, host and port, e.g. "http://127.0.0.1:8080"; empty for addresses
  /// relative to the service.
  explicit Links(std::string base) : base_(std::move(base)) {}

  /// The HTML results page.
  std::string sessionPage(const SessionRecord& session) const;
  /// The page of a batch's tests.
  std::string batchPage(const std::string& batchId) const;
  /// The session under the API: the results page, or the document for JSON clients.
  std::string sessionApi(const SessionRecord& session) const;
  /// One step's place on the results page; steps count from 1.
  std::string stepPage(const SessionRecord& session, std::int64_t step) const;
  /// A step's image; `kind` is "baseline", "current" or "diff".
  std::string stepImage(const SessionRecord& session, std::int64_t step,
                        std::string_view kind) const;

 private:
  std::string base_;
};

/// Judges a session being stopped. Aborted sessions fail. A new test passes when it is saved
/// as the baseline and otherwise awaits approval (Unresolved). An existing test is Unresolved
/// when a step mismatched or a baseline step was not reached, and Passed otherwise. Baseline
/// steps that no step was paired with are missing; they are listed after the session's steps.
Outcome decideOutcome(const std::vector<StepRecord>& steps,
                      const std::vector<BaselineStep>& baseline, bool isNew, bool aborted,
                      bool save, std::int64_t now);

/// The baseline after saving a session, in the session's order: matching steps keep their
/// baseline step (image and alternatives), new and changed steps take the current image, and
/// baseline steps the session did not reach are dropped.
std::vector<BaselineStep> baselineAfterSave(const std::vector<StepRecord>& steps,
                                            const std::vector<BaselineStep>& baseline);

/// The state of a step on the results page: the reviewer's "accepted" or "rejected" when there
/// is a verdict, else "new" (no baseline image), "matched" or "mismatched".
std::string stepState(const StepRecord& step, std::optional<bool> accepted);

/// The status of a stopped test after its steps were reviewed (`reviews` maps positions to
/// true for accepted). A rejected step fails the test. When something was accepted and every
/// step that stood in the way of a pass (mismatched, new or missing) is accepted, the test
/// passes. Otherwise the test keeps the status it stopped with.
std::string reviewedStatus(const Outcome& outcome, const std::vector<StepRecord>& steps,
                           const std::map<std::int64_t, bool>& reviews);

/// The test-results document of a session; a session that still runs has the status "Running".
/// Besides the record's keys it names the baseline compared with: "baselineVersion" (absent
/// for a new test) and "baselineBranchName" (the branch it belongs to: the session's own, or the
/// parent or default branch it fell back to), and marks steps that matched an alternative image
/// of their baseline step with "matchedAlternative". Steps without a baseline image are not
/// counted as matches.
Json resultsDocument(const SessionRecord& session, const OptString& batchName,
                     const std::vector<StepRecord>& steps, const Links& links);

/// "2024-03-05T14:07:09Z" in UTC.
std::string isoTime(std::int64_t secondsSinceEpoch);

}  // namespace saffra::server
