// The HTML results page of one test session, rendered from its results document.
#pragma once

#include <string>
#include <string_view>

#include "saffra/platform/json.h"

namespace saffra::server {

/// A self-contained HTML page: the test's status, counts and environment, and each step with
/// its baseline, current and diff images (linked through the document's image addresses).
std::string renderResultsPage(const Json& document);

/// Escapes text for HTML element content and attribute values.
std::string escapeHtml(std::string_view text);

}  // namespace saffra::server
