// The results pages and the images they show: the batch list, a batch, a test, the stored
// images and their thumbnails.
#pragma once

#include <atomic>

#include <string>

#include "server/http/request.h"
#include "server/request_access.h"
#include "server/service.h"
#include "server/store.h"
#include "server/thumbnail.h"
#include "server/web_pages.h"

namespace saffra::server {

/// The handlers of the pages that show results, and of the images they refer to.
class WebRoutes {
 public:
  /// `boundPort` is the service's, set when it starts.
  WebRoutes(const ServiceOptions& options, Store* store, RequestAccess& access,
            const std::atomic<int>& boundPort)
      : options(options), store(store), access(access), boundPort(boundPort) {}

  void apiResults(const http::Request& req, http::Response& res);

  void appResults(const http::Request& req, http::Response& res);

  // GET /, /app: the batch list.
  void home(const http::Request&, http::Response& res);

  // GET /app/static/{app.css|app.js}
  void staticFile(const http::Request& req, http::Response& res);

  // GET /app/batches
  // GET /app/batches?q=<search>&page=<n from 1>
  void batchList(const http::Request& req, http::Response& res);

  // GET /app/batches/{id}
  void batchPage(const http::Request& req, http::Response& res);

  // GET /api/sessions/{id}/steps/{n}/{baseline|current|diff}.png
  void stepImage(const http::Request& req, http::Response& res);

  // GET /app/images/{id}.png and /app/thumbs/{id}.png: a stored image by its id, whole or as a
  // thumbnail.
  void imageById(const http::Request& req, http::Response& res);

 private:
  // GET /api/sessions/{id} and /app/sessions/{id}: the page, or the document for JSON clients.
  void sessionResults(const http::Request& req, http::Response& res, bool api);

  /// The session a read request names.
  SessionRecord readableSession(const http::Request& req, const std::string& idText);

  /// A stored image as a page refers to it, with the size its PNG header declares.
  /// Pages refer to images by their content's id, so a browser keeps each one for good; only
  /// the PNG header is read here.
  ImageRef imageRef(const std::string& imageId);

  TestView testView(const SessionRecord& session, const std::string& csrf);

  /// Answers 304 when the browser holds the image already; otherwise marks the reply with the
  /// image's id. `forever`: the address names the content, so it never changes.
  static bool notModified(const http::Request& req, http::Response& res, const std::string& imageId,
                          bool forever);

  const ServiceOptions& options;
  Store* store;
  RequestAccess& access;
  const std::atomic<int>& boundPort;
  /// Thumbnails of the images that step lists showed.
  ThumbnailCache thumbnails{std::size_t{32} << 20};
};

}  // namespace saffra::server
