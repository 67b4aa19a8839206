#include "saffra/service/http_request_builder.h"

#include "saffra/platform/exception.h"
#include "saffra/platform/format.h"

namespace saffra {

HttpRequest HTTPRequestBuilder::requestWithURL(const std::string& url,
                                               const std::optional<Json>& params,
                                               const std::string& httpMethod,
                                               std::int64_t timeoutInterval) {
  HttpRequest request;
  request.url = url;
  request.timeoutSeconds = static_cast<double>(timeoutInterval);
  request.method = httpMethod;
  if (params) {
    std::string body;
    try {
      body = json::write(*params);
    } catch (const Exception&) {
      // A value that cannot be written (NaN, say) leaves the body empty; it is not reported.
      body.clear();
    }
    request.setValueForHTTPHeaderField(format("%li", static_cast<long>(body.size())),
                                       "Content-Length");
    request.body = std::move(body);
  }
  request.setValueForHTTPHeaderField("application/json", "Content-Type");
  request.setValueForHTTPHeaderField("application/json", "Accept");
  return request;
}

}  // namespace saffra
