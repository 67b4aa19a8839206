#include "server/web_routes.h"

#include <algorithm>
#include <map>
#include <optional>
#include <vector>

#include "saffra/platform/exception.h"
#include "saffra/platform/image.h"
#include "server/match_settings.h"
#include "server/results_document.h"
#include "server/review_state.h"
#include "server/upload_pipeline.h"
#include "server/web_access.h"

namespace saffra::server {

using http::Params;
using http::Request;
using http::Response;

// GET /api/sessions/{id} and /app/sessions/{id}: the page, or the document for JSON clients.
void WebRoutes::sessionResults(const Request& req, Response& res, bool api) {
  if (api && accepts(req, "text/html") && !accepts(req, "application/json")) {
    // The results address the client prints: a browser following it gets the test's page.
    redirect(res, "/app/sessions/" + percentEncode(sessionIdFrom(req.matches[1])));
    return;
  }
  SessionRecord session = readableSession(req, req.matches[1]);
  if (api) {
    replyJson(res, 200,
              documentFor(*store, session, linksFor(req, options.host, boundPort.load())));
    return;
  }
  Logins::Login login = access.pageLogin(req, res);
  TestView view = testView(session, login.csrf);
  view.filter = req.get_param_value("status");
  std::vector<std::pair<std::int64_t, std::string>> states;
  for (const StepView& step : view.steps) states.emplace_back(step.number, step.state);
  view.state = stateToken(states);
  view.undoDecision = store->lastDecision(RequestAccess::reviewerOfLogin(login.token));
  replyHtml(res, 200, renderTestPage(view));
}

void WebRoutes::apiResults(const Request& req, Response& res) {
  sessionResults(req, res, true);
}

void WebRoutes::appResults(const Request& req, Response& res) {
  sessionResults(req, res, false);
}

SessionRecord WebRoutes::readableSession(const Request& req, const std::string& idText) {
  access.requireReader(req);
  std::string id = sessionIdFrom(idText);
  std::optional<SessionRecord> session = store->session(id);
  if (!session) throw RequestError(404, "unknown session");
  return std::move(*session);
}

ImageRef WebRoutes::imageRef(const std::string& imageId) {
  ImageRef ref;
  ref.url = "/app/images/" + imageId + ".png";
  ref.thumbnail = "/app/thumbs/" + imageId + ".png";
  if (auto bytes = store->imageHead(imageId, 24)) {
    if (auto size = declaredPngSize(*bytes)) {
      ref.width = static_cast<std::int64_t>(std::min<std::uint64_t>(size->first, INT32_MAX));
      ref.height = static_cast<std::int64_t>(std::min<std::uint64_t>(size->second, INT32_MAX));
    }
  }
  return ref;
}

TestView WebRoutes::testView(const SessionRecord& session, const std::string& csrf) {
  TestView view;
  view.document = documentFor(*store, session, Links(""));
  view.csrf = csrf;
  view.reviewable = session.outcome.has_value();
  std::map<std::int64_t, Verdict> reviews = store->reviews(session.id);
  auto verdict = [&](std::int64_t position) -> std::optional<bool> {
    auto found = reviews.find(position);
    return found == reviews.end() ? std::nullopt : std::optional<bool>(found->second.accepted);
  };
  std::map<std::int64_t, Json> changes = store->stepChanges(session.id);
  for (const StepRecord& s : store->steps(session.id)) {
    StepView step;
    step.number = s.position + 1;
    step.name = s.tag;
    step.state = stepState(s, verdict(s.position));
    step.matchLevel = s.matchLevel;
    if (s.baselineImage) step.baseline = imageRef(*s.baselineImage);
    step.current = imageRef(s.currentImage);
    if (s.diffImage) step.diff = imageRef(*s.diffImage);
    step.regions = regionsOf(MatchSettings::fromJson(s.settings));
    step.matchedAlternative = s.matchedAlternative;
    step.canAcceptAlternative = s.baselineImage && !s.asExpected;
    if (auto found = changes.find(s.position); found != changes.end()) {
      step.changes = changesFromJson(found->second);
    }
    view.steps.push_back(std::move(step));
  }
  if (session.outcome) {
    for (const BaselineStep& m : session.outcome->missing) {
      StepView step;
      step.number = m.position + 1;
      step.name = m.tag;
      std::optional<bool> accepted = verdict(m.position);
      step.state = accepted ? (*accepted ? "accepted" : "rejected") : "missing";
      step.baseline = imageRef(m.image);
      view.steps.push_back(std::move(step));
    }
  }
  return view;
}

// GET /, /app: the batch list.
void WebRoutes::home(const Request&, Response& res) {
  redirect(res, "/app/batches");
}

// GET /app/static/{app.css|app.js}
void WebRoutes::staticFile(const Request& req, Response& res) {
  bool css = req.matches[1] == "app.css";
  res.set_header("Cache-Control", "no-cache");
  res.set_content(std::string(css ? pageStyleSheet() : pageScript()),
                  css ? "text/css; charset=utf-8" : "text/javascript; charset=utf-8");
}

// GET /app/batches
// GET /app/batches?q=<search>&page=<n from 1>
void WebRoutes::batchList(const Request& req, Response& res) {
  access.pageLogin(req, res);
  BatchListView view;
  view.search = req.get_param_value("q").substr(0, 200);
  const std::string pageText = req.get_param_value("page");
  if (!pageText.empty() && pageText.size() < 9 &&
      std::all_of(pageText.begin(), pageText.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    view.page = std::max<std::int64_t>(1, std::stoll(pageText));
  }
  view.batches = store->batchSummaries(view.search, (view.page - 1) * view.pageSize, view.pageSize);
  replyHtml(res, 200, renderBatchList(view));
}

// GET /app/batches/{id}
void WebRoutes::batchPage(const Request& req, Response& res) {
  Logins::Login login = access.pageLogin(req, res);
  std::optional<BatchRecord> batch = store->batch(req.matches[1]);
  if (!batch) throw RequestError(404, "unknown batch");
  std::vector<Json> tests;
  for (const SessionRecord& s : store->sessionsInBatch(batch->id)) {
    tests.push_back(resultsDocument(s, batch->name, store->steps(s.id), Links("")));
  }
  replyHtml(res, 200,
            renderBatchPage(
                *batch, tests,
                batchActions(batch->id, login.csrf,
                             store->lastDecision(RequestAccess::reviewerOfLogin(login.token)))));
}

// GET /api/sessions/{id}/steps/{n}/{baseline|current|diff}.png
void WebRoutes::stepImage(const Request& req, Response& res) {
  SessionRecord session = readableSession(req, req.matches[1]);
  std::int64_t position = -1;
  try {
    position = std::stoll(req.matches[2]) - 1;
  } catch (const std::exception&) {
  }
  std::string kind = req.matches[3];
  OptString imageId;
  std::vector<StepRecord> steps = store->steps(session.id);
  auto step = std::find_if(steps.begin(), steps.end(),
                           [&](const StepRecord& s) { return s.position == position; });
  if (step != steps.end()) {
    if (kind == "current") imageId = step->currentImage;
    if (kind == "baseline") imageId = step->baselineImage;
    if (kind == "diff") imageId = step->diffImage;
  } else if (kind == "baseline" && session.outcome) {
    for (const BaselineStep& m : session.outcome->missing) {
      if (m.position == position) imageId = m.image;
    }
  }
  std::optional<std::vector<std::uint8_t>> bytes;
  if (imageId && notModified(req, res, *imageId, false)) return;
  if (imageId) bytes = store->readImage(*imageId);
  if (!bytes) throw RequestError(404, "no such image");
  res.set_content(std::string(bytes->begin(), bytes->end()), "image/png");
}

bool WebRoutes::notModified(const Request& req, Response& res, const std::string& imageId,
                            bool forever) {
  const std::string tag = "\"" + imageId + "\"";
  res.set_header("ETag", tag);
  res.set_header("Cache-Control",
                 forever ? "private, max-age=31536000, immutable" : "private, no-cache");
  if (req.get_header_value("If-None-Match") != tag) return false;
  res.status = 304;
  return true;
}

// GET /app/images/{id}.png and /app/thumbs/{id}.png: a stored image by its id, whole or as a
// thumbnail.
void WebRoutes::imageById(const Request& req, Response& res) {
  access.requireReader(req);
  const std::string id = req.matches[2];
  const bool thumb = req.matches[1] == "thumbs";
  if (!store->imageSize(id)) throw RequestError(404, "no such image");
  if (notModified(req, res, id, true)) return;
  if (!thumb) {
    std::optional<std::vector<std::uint8_t>> bytes = store->readImage(id);
    if (!bytes) throw RequestError(404, "no such image");
    res.set_content(std::string(bytes->begin(), bytes->end()), "image/png");
    return;
  }
  std::shared_ptr<const std::vector<std::uint8_t>> png = thumbnails.find(id);
  if (!png) {
    std::optional<std::vector<std::uint8_t>> bytes = store->readImage(id);
    if (!bytes) throw RequestError(404, "no such image");
    std::shared_ptr<Image> image;
    try {
      image = Image::fromPNGData(*bytes);
    } catch (const Exception& e) {
      throw StoreError("stored image " + id + " is unreadable: " + e.reason());
    }
    png = std::make_shared<const std::vector<std::uint8_t>>(
        makeThumbnail(*image, kThumbnailWidth, kThumbnailHeight));
    thumbnails.insert(id, png);
  }
  res.set_content(std::string(png->begin(), png->end()), "image/png");
}

}  // namespace saffra::server
