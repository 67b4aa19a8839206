#include "server/session_api.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <vector>

#include "saffra/base/logger.h"
#include "saffra/platform/uuid.h"
#include "server/match_body.h"
#include "server/match_settings.h"
#include "server/matcher.h"
#include "server/results_document.h"
#include "server/upload_file.h"
#include "server/web_access.h"

namespace saffra::server {

using http::Params;
using http::Request;
using http::Response;

namespace {

/// The branch of sessions that name none, and the last fallback of every baseline lookup.
constexpr const char* kDefaultBranch = "default";

/// The identity of a baseline: application, test, environment and branch.
std::string baselineKey(const SessionRecord& s, const std::string& branch) {
  return json::write(Json::array({s.appName, s.testName, s.hostOS, s.hostApp, s.displayWidth,
                                  s.displayHeight, s.baselineEnvName, branch}));
}

}  // namespace

// POST /api/sessions/running
void SessionApi::startSession(const Request& req, Response& res) {
  access.requireApiKey(req);
  Json body = parseBody(req);
  const Json* info = json::find(body, "startInfo");
  if (!info || !info->is_object()) throw RequestError(400, "startInfo is missing");
  SessionRecord s;
  s.appName = textAt(*info, "appIdOrName");
  s.testName = textAt(*info, "scenarioIdOrName");
  if (s.appName.empty()) throw RequestError(400, "startInfo.appIdOrName is missing");
  if (s.testName.empty()) throw RequestError(400, "startInfo.scenarioIdOrName is missing");
  const Json& environment = objectAt(*info, "environment");
  s.hostOS = textAt(environment, "os");
  s.hostApp = textAt(environment, "hostingApp");
  const Json& displaySize = objectAt(environment, "displaySize");
  s.displayWidth = finiteAt(displaySize, "width");
  s.displayHeight = finiteAt(displaySize, "height");
  s.baselineEnvName = textAt(*info, "baselineEnvName");
  s.defaultMatchSettings = objectAt(*info, "defaultMatchSettings");

  // The baseline comes from the session's branch, else its parent or baseline branch, else
  // the default branch; a saved baseline always goes to the session's own branch.
  std::string branch = textAt(*info, "branchName");
  s.branchName = branch.empty() ? kDefaultBranch : branch;
  std::vector<std::string> candidates;
  for (std::string b : {branch, textAt(*info, "parentBranchName"),
                        textAt(*info, "baselineBranchName"), std::string(kDefaultBranch)}) {
    if (!b.empty() && std::find(candidates.begin(), candidates.end(), b) == candidates.end()) {
      candidates.push_back(b);
    }
  }
  for (const std::string& candidate : candidates) {
    if (std::optional<BaselineRef> found = store->findBaseline(baselineKey(s, candidate))) {
      s.baselineId = found->id;
      s.baselineVersion = found->version;
      s.baselineBranch = candidate;
      break;
    }
  }
  s.baselineKey = baselineKey(s, s.branchName);
  s.isNew = !s.baselineId;

  const Json& batchInfo = objectAt(*info, "batchInfo");
  BatchRecord batch;
  batch.id = textAt(batchInfo, "id");
  if (batch.id.empty()) batch.id = newUUIDString();
  batch.name = optTextAt(batchInfo, "name");
  batch.startedAt = optTextAt(batchInfo, "startedAt");
  batch.sequenceName = optTextAt(batchInfo, "batchSequenceName");
  s.batchId = batch.id;

  s.id = newUUIDString();
  s.token = randomToken();
  s.startedAt = now();
  store->insertSession(s, batch);
  Logger::logWithFormat("session %@ started: '%@' of '%@'%@", s.id, s.testName, s.appName,
                        s.isNew ? " (new test)" : "");
  replyJson(res, s.isNew ? 201 : 200,
            Json{{"id", s.id},
                 {"url", linksFor(req, options.host, boundPort.load()).sessionPage(s)},
                 {"isNew", s.isNew},
                 {"batchId", s.batchId}});
}

// POST /api/sessions/running/{id}
void SessionApi::matchWindow(const Request& req, Response& res) {
  HandlerTimer timer(matchRequests, matchNanoseconds);
  access.requireApiKey(req);
  std::string id = sessionIdFrom(req.matches[1]);
  // The usual body is read without running its multi-megabyte screenshot text through the
  // JSON parser; anything unusual takes the general way, which gives the precise refusal.
  Json body;
  std::optional<std::vector<std::uint8_t>> uploaded;
  if (std::optional<MatchBody> quick = readMatchBody(req.body)) {
    body = std::move(quick->body);
    uploaded = std::move(quick->screenshot);
  } else {
    body = parseBody(req);
  }
  const std::vector<std::uint8_t> png = UploadPipeline::screenshotFrom(body, std::move(uploaded));
  const Json& options = objectAt(body, "options");
  MatchSettings settings = MatchSettings::fromJson(objectAt(options, "imageMatchSettings"));
  std::string tag = textAt(body, "tag");
  if (tag.empty()) tag = textAt(options, "name");

  std::lock_guard lock(locks.lockFor(id));
  std::optional<SessionRecord> session = store->session(id);
  if (!session) throw RequestError(404, "unknown session");
  if (session->outcome) throw RequestError(409, stoppedMessage(*session->outcome));
  // Times are whole seconds: a second touch within one would write the same value.
  if (session->lastActiveAt < now()) store->touchSession(id, now());
  uploads.checkDeclaredSize(png);

  StepRecord step;
  step.position = store->stepCount(id);
  step.tag = tag;
  step.matchLevel = matchLevelName(settings.matchLevel);
  step.settings = objectAt(options, "imageMatchSettings");
  MatchOutcome outcome;
  // The checkpoint is paired with the baseline step of its tag: the n-th checkpoint with a
  // tag in this session with the n-th baseline step with that tag, whatever comes between.
  std::optional<BaselineStep> baseline;
  if (session->baselineId && session->baselineVersion) {
    baseline = store->baselineStepByTag(*session->baselineId, *session->baselineVersion, tag,
                                        store->stepCountWithTag(id, tag));
  }
  // An upload byte for byte equal to a baseline image of its step (its main image or an
  // accepted alternative) has that image's pixels, so it matches at every level and is not
  // decoded: the stored image was decoded, and so checked, before it was first stored. Only
  // an upload of such a file's size can be it, so only such an upload is hashed before
  // anything else.
  std::optional<std::string> uploadId;
  std::optional<std::string> sameImage;
  if (baseline) {
    std::vector<const std::string*> images{&baseline->image};
    for (const std::string& alternative : baseline->alternatives) images.push_back(&alternative);
    for (const std::string* image : images) {
      if (store->imageSize(*image) != png.size()) continue;
      if (!uploadId) uploadId = Store::imageIdOf(png);
      if (*uploadId == *image) {
        sameImage = *image;
        break;
      }
    }
  }
  const bool sameAsBaseline = sameImage.has_value();
  const bool ignoreMatch = json::boolAt(options, "ignoreMatch");
  const bool ignoreMismatch = json::boolAt(options, "ignoreMismatch");
  // Every other upload is hashed while a helper decodes it; a step recorded whatever its
  // verdict also has a new upload written then under a temporary name. The file is stored
  // only once the upload proved a valid image, before the step's row refers to it (otherwise
  // it is removed), and the store flushes it to disk after the reply.
  UploadFile file(png, std::move(uploadId), !ignoreMatch && !ignoreMismatch);

  std::shared_ptr<const Image> current;
  DecodedImage baselinePixels;
  std::optional<std::string> matchedAlternative;
  if (sameAsBaseline) {
    outcome.matches = true;
    if (*sameImage != baseline->image) matchedAlternative = sameImage;
  } else if (baseline) {
    // The comparison follows the decoding.
    baselinePixels = uploads.storedImage(baseline->image);
    DecodedMatch match = uploads.decodeUpload(png, file, baselinePixels, settings);
    current = std::move(match.current);
    outcome = std::move(match.outcome);
    // A step rendered more than one accepted way passes when it matches any of them.
    for (const std::string& alternative : baseline->alternatives) {
      if (outcome.matches) break;
      MatchOutcome other = matchImages(*uploads.storedImage(alternative).image, *current, settings);
      if (other.matches) {
        outcome = std::move(other);
        matchedAlternative = alternative;
      }
    }
  } else {
    current = uploads.decodeUpload(png, file);
    // Steps of a new test become its proposed baseline; a step beyond an existing baseline
    // is new and needs approval.
    outcome.matches = session->isNew;
  }
  if (baseline) {
    step.baselineImage = matchedAlternative.value_or(baseline->image);
    step.baselinePosition = baseline->position;
    step.matchedAlternative = matchedAlternative.has_value();
  }
  if (json::boolAt(options, "forceMatch")) outcome.matches = true;
  if (json::boolAt(options, "forceMismatch")) outcome.matches = false;
  step.asExpected = outcome.matches;

  // A mismatch sent with ignoreMismatch is a retry that a later attempt replaces.
  const bool record = outcome.matches ? !ignoreMatch : !ignoreMismatch;
  if (record) {
    step.currentImage = sameAsBaseline ? *sameImage : file.keep(*store);
    std::optional<Json> changes;
    if (baselinePixels.image) {
      if (std::shared_ptr<Image> diff = diffImage(*baselinePixels.image, outcome)) {
        step.diffImage = store->putImage(diff->pngData());
      }
      changes = changesOf(outcome);
    }
    if (!settings.accessibility.empty()) {
      const std::shared_ptr<const Image> pixels =
          current ? current : uploads.storedImage(*sameImage).image;
      if (auto verdict = checkAccessibility(*pixels, settings)) {
        step.accessibilityPassed = verdict->passed;
        step.accessibilityLevel = verdict->level;
      }
    }
    store->insertStep(id, step, changes ? &*changes : nullptr);
  }
  replyJson(res, 200, Json{{"asExpected", outcome.matches}});
}

std::optional<Outcome> SessionApi::finish(const SessionRecord& session, bool aborted, bool save) {
  std::vector<StepRecord> steps = store->steps(session.id);
  std::vector<BaselineStep> baseline;
  if (session.baselineId && session.baselineVersion) {
    baseline = store->baselineSteps(*session.baselineId, *session.baselineVersion);
  }
  Outcome outcome = decideOutcome(steps, baseline, session.isNew, aborted, save, now());
  std::vector<BaselineStep> saved;
  if (outcome.savedAsBaseline) saved = baselineAfterSave(steps, baseline);
  bool recorded = false;
  try {
    recorded =
        store->finishSession(session.id, outcome, outcome.savedAsBaseline ? &saved : nullptr);
  } catch (const StaleBaselineError& e) {
    Logger::logWithFormat("session %@ not saved as the baseline: %@", session.id,
                          std::string(e.what()));
    outcome = decideOutcome(steps, baseline, session.isNew, aborted, false, now());
    recorded = store->finishSession(session.id, outcome, nullptr);
  }
  if (!recorded) return std::nullopt;
  return outcome;
}

std::string SessionApi::stoppedMessage(const Outcome& outcome) {
  return outcome.isAborted ? "the session was aborted" : "the session is already stopped";
}

void SessionApi::abortIdleSessions() {
  const auto idle = std::chrono::duration_cast<std::chrono::seconds>(options.idleSessionTimeout);
  const std::int64_t cutoff = now() - std::max<std::int64_t>(idle.count(), 1);
  if (cutoff < startedAt.load()) return;
  for (const std::string& id : store->idleSessions(cutoff)) {
    std::lock_guard lock(locks.lockFor(id));
    std::optional<SessionRecord> session = store->session(id);
    if (!session || session->outcome || session->lastActiveAt >= cutoff) continue;
    session->outcome = finish(*session, true, false);
    if (!session->outcome) continue;  // stopped meanwhile through another service
    Logger::logWithFormat("session %@ aborted: no request for %li s", id,
                          static_cast<std::int64_t>(idle.count()));
    if (events.enabled()) {
      events.sessionEnded(*session, documentFor(*store, *session, events.linksFor(nullptr)), true);
    }
  }
}

// DELETE /api/sessions/running/{id}?aborted=..&updateBaseline=..
void SessionApi::stopSession(const Request& req, Response& res) {
  access.requireApiKey(req);
  std::string id = sessionIdFrom(req.matches[1]);
  bool aborted = queryFlag(req, "aborted");
  bool save = queryFlag(req, "updateBaseline");

  std::lock_guard lock(locks.lockFor(id));
  std::optional<SessionRecord> session = store->session(id);
  if (!session) throw RequestError(404, "unknown session");
  // A repeated stop answers with the results of the first, and tells no webhook again.
  bool ending = !session->outcome;
  if (ending) session->outcome = finish(*session, aborted, save);
  if (ending && !session->outcome) {
    // Another service stopped it meanwhile (or aborted it as idle): its outcome stands.
    session = store->session(id);
    if (!session || !session->outcome) throw RequestError(404, "unknown session");
    ending = false;
  }
  if (ending) {
    Logger::logWithFormat("session %@ stopped: %@%@", id, session->outcome->status,
                          session->outcome->savedAsBaseline ? ", saved as baseline" : "");
  }
  Json document = documentFor(*store, *session, linksFor(req, options.host, boundPort.load()));
  if (ending) events.sessionEnded(*session, document, false);
  replyJson(res, 200, document);
}

// DELETE /api/sessions/batches/{id}/close/bypointerid
void SessionApi::closeBatch(const Request& req, Response& res) {
  access.requireApiKey(req);
  std::string id = req.matches[1];
  // Closing a closed batch again tells no webhook again.
  const std::optional<BatchRecord> before = store->batch(id);
  if (!store->closeBatch(id)) throw RequestError(404, "unknown batch");
  if (before && !before->isClosed) events.batchClosed(req, *before);
  replyJson(res, 200, Json{{"id", id}, {"isClosed", true}});
}

}  // namespace saffra::server
