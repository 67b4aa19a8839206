#include "server/web_pages.h"

#include <algorithm>
#include <ctime>

#include "saffra/platform/geometry.h"
#include "server/web_access.h"

namespace saffra::server {

namespace {

std::string text(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  return value ? escapeHtml(json::stringValue(*value).value_or("")) : std::string();
}

std::string number(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  return value ? std::to_string(json::integerValue(*value)) : "0";
}

bool flag(const Json& object, std::string_view key) {
  const Json* value = json::find(object, key);
  return value && json::boolValue(*value);
}

std::string displaySize(const Json& document) {
  const Json* size = json::find(document, "hostDisplaySize");
  if (!size) return "";
  auto dimension = [&](std::string_view key) {
    const Json* v = json::find(*size, key);
    return formatNumber(v ? json::doubleValue(*v) : 0.0);
  };
  return dimension("width") + " &times; " + dimension("height");
}

/// Only the three statuses and "Running" become class names; anything else is shown as text.
std::string statusClass(const std::string& status) {
  for (const char* known : {"Passed", "Unresolved", "Failed", "Running"}) {
    if (status == known) return known;
  }
  return "Other";
}

std::string statusBadge(const std::string& escapedStatus, const std::string& id = "") {
  std::string idAttribute = id.empty() ? "" : " id=\"" + id + "\"";
  return "<span" + idAttribute + " class=\"status " + statusClass(escapedStatus) + "\">" +
         escapedStatus + "</span>";
}

std::string page(const std::string& title, const std::string& body) {
  return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
         "<title>" +
         title +
         "</title><link rel=\"stylesheet\" href=\"/app/static/app.css\">"
         "<script src=\"/app/static/app.js\" defer></script></head>\n<body>\n"
         "<header class=\"bar\"><a class=\"home\" href=\"/app/batches\">Saffra results</a>"
         "</header>\n<main>\n" +
         body + "</main>\n</body></html>\n";
}

std::string postButton(const std::string& action, const std::string& csrf,
                       const std::string& buttonAttributes, const std::string& label,
                       bool enabled) {
  return "<form class=\"review\" method=\"post\" action=\"" + escapeHtml(action) +
         "\"><input type=\"hidden\" name=\"csrf\" value=\"" + escapeHtml(csrf) + "\"><button " +
         buttonAttributes + " type=\"submit\"" + (enabled ? "" : " disabled") + ">" + label +
         "</button></form>";
}

std::string sizeAttributes(const ImageRef& image) {
  if (image.width <= 0 || image.height <= 0) return "";
  return " width=\"" + std::to_string(image.width) + "\" height=\"" + std::to_string(image.height) +
         "\"";
}

/// The regions as an SVG layer in the image's own pixel coordinates, stretched over the image
/// so the boxes scale with it.
std::string regionLayer(const ImageRef& image, const std::vector<RegionBox>& regions) {
  if (regions.empty() || image.width <= 0 || image.height <= 0) return "";
  std::string w = std::to_string(image.width), h = std::to_string(image.height);
  std::int64_t fontSize = std::max<std::int64_t>(10, std::max(image.width, image.height) / 40);
  std::string svg = "<svg class=\"regions\" viewBox=\"0 0 " + w + " " + h +
                    "\" preserveAspectRatio=\"none\" aria-hidden=\"true\">";
  for (const RegionBox& r : regions) {
    // Clip to the image so absurd rectangles draw as the part that covers it.
    std::int64_t left = std::clamp<std::int64_t>(r.rect.left, 0, image.width);
    std::int64_t top = std::clamp<std::int64_t>(r.rect.top, 0, image.height);
    std::int64_t right = std::clamp<std::int64_t>(r.rect.right(), 0, image.width);
    std::int64_t bottom = std::clamp<std::int64_t>(r.rect.bottom(), 0, image.height);
    if (right <= left || bottom <= top) continue;
    std::string kind = escapeHtml(r.kind);
    svg += "<g class=\"region\" data-kind=\"" + kind + "\"><rect x=\"" + std::to_string(left) +
           "\" y=\"" + std::to_string(top) + "\" width=\"" + std::to_string(right - left) +
           "\" height=\"" + std::to_string(bottom - top) +
           "\" vector-effect=\"non-scaling-stroke\"></rect><text x=\"" + std::to_string(left + 2) +
           "\" y=\"" + std::to_string(top + fontSize) + "\" font-size=\"" +
           std::to_string(fontSize) + "\">" + kind + "</text></g>";
  }
  return svg + "</svg>";
}

std::string figure(const std::optional<ImageRef>& image, const std::string& kind,
                   const std::string& caption, const std::vector<RegionBox>& regions = {}) {
  if (!image) return "";
  std::string src = escapeHtml(image->url);
  return "<figure class=\"shot shot-" + kind + "\"><div class=\"frame\"><a href=\"" + src +
         "\"><img class=\"" + kind + "\" src=\"" + src + "\" alt=\"" + caption + "\"" +
         sizeAttributes(*image) + "></a>" + regionLayer(*image, regions) + "</div><figcaption>" +
         caption + "</figcaption></figure>";
}

constexpr std::string_view kStyle = R"css(
:root{--ink:#1f2328;--muted:#59636e;--line:#d1d9e0;--bg:#f6f8fa}
*{box-sizing:border-box}
body{margin:0;color:var(--ink);background:#fff;
  font-family:system-ui,-apple-system,"Segoe UI",Roboto,"Helvetica Neue",Arial,sans-serif;
  font-size:15px;line-height:1.4}
a{color:#0b5cad}
.bar{background:var(--bg);border-bottom:1px solid var(--line);padding:.6em 1.5em}
.bar .home{font-weight:600;text-decoration:none;color:var(--ink)}
main{padding:1em 1.5em}
h1{font-size:1.4em;margin:.3em 0}h2{font-size:1.1em;margin:0}
.status{display:inline-block;padding:.1em .6em;border-radius:.3em;color:#fff;font-weight:600;
  background:#59636e}
.status.Passed{background:#1a7f37}.status.Unresolved{background:#bc4c00}
.status.Failed{background:#cf222e}.status.Running{background:#59636e}
table{border-collapse:collapse}
th,td{padding:.3em .8em;text-align:left;border-bottom:1px solid var(--line)}
td.num,th.num{text-align:right}
.facts th{color:var(--muted);font-weight:normal}
.toolbar{display:flex;gap:.8em;align-items:center;margin:1em 0}
form.review{display:inline}
button{font:inherit;padding:.3em .9em;border:1px solid var(--line);border-radius:.3em;
  background:var(--bg);cursor:pointer}
button:disabled{cursor:default;opacity:.5}
button.accept,#accept-all{background:#1a7f37;border-color:#1a7f37;color:#fff}
button.reject{background:#cf222e;border-color:#cf222e;color:#fff}
section.step{border-top:1px solid var(--line);padding:1em 0}
.step-head{display:flex;flex-wrap:wrap;gap:.8em;align-items:center;margin-bottom:.6em}
.state{font-size:.85em;padding:.05em .5em;border-radius:.3em;border:1px solid var(--line)}
.step[data-status=mismatched] .state,.step[data-status=missing] .state{border-color:#bc4c00}
.step[data-status=rejected] .state{border-color:#cf222e}
.step[data-status=accepted] .state,.step[data-status=matched] .state{border-color:#1a7f37}
.level{color:var(--muted);font-size:.9em}
.images{display:flex;flex-wrap:wrap;gap:1em;align-items:flex-start}
figure{margin:0;max-width:420px}
figcaption{color:var(--muted);font-size:.85em;margin-top:.2em}
.frame{position:relative;display:inline-block;max-width:100%;line-height:0}
.frame img{display:block;max-width:100%;height:auto;border:1px solid var(--line)}
.frame svg.regions{position:absolute;left:0;top:0;width:100%;height:100%;pointer-events:none}
.region rect{fill-opacity:.18;stroke-width:2}
.region text{font-family:inherit;fill-opacity:1}
.region[data-kind=ignore] rect{fill:#8250df;stroke:#8250df}.region[data-kind=ignore] text{fill:#8250df}
.region[data-kind=layout] rect{fill:#0969da;stroke:#0969da}.region[data-kind=layout] text{fill:#0969da}
.region[data-kind=strict] rect{fill:#cf222e;stroke:#cf222e}.region[data-kind=strict] text{fill:#cf222e}
.region[data-kind=content] rect{fill:#1a7f37;stroke:#1a7f37}.region[data-kind=content] text{fill:#1a7f37}
.region[data-kind=floating] rect{fill:#bc4c00;stroke:#bc4c00}.region[data-kind=floating] text{fill:#bc4c00}
.region[data-kind=accessibility] rect{fill:#bf3989;stroke:#bf3989}
.region[data-kind=accessibility] text{fill:#bf3989}
.blend{display:none}
.overlay .blend{display:flex;gap:.5em;align-items:center;margin-bottom:.5em}
.overlay .images{display:grid;grid-template-columns:minmax(0,420px);gap:0}
.overlay .shot-baseline,.overlay .shot-current{grid-area:1/1}
.overlay .shot-current{opacity:.5}
.overlay .shot-diff,.overlay figcaption{display:none}
form#login{display:flex;flex-direction:column;gap:.6em;max-width:22em}
form#login input{font:inherit;padding:.4em}
.message{color:#cf222e}
)css";

constexpr std::string_view kScript = R"js(
'use strict';
// Switches the test page between side by side and overlay (baseline and current stacked,
// the current one faded by each step's slider).
document.addEventListener('DOMContentLoaded', function () {
  var toggle = document.getElementById('view-toggle');
  if (!toggle) return;
  var root = document.getElementById('steps') || document.body;
  function show(overlay) {
    root.classList.toggle('overlay', overlay);
    document.body.classList.toggle('overlay', overlay);
    toggle.setAttribute('aria-pressed', overlay ? 'true' : 'false');
    toggle.textContent = overlay ? 'Side by side' : 'Overlay';
  }
  toggle.addEventListener('click', function () {
    show(!document.body.classList.contains('overlay'));
  });
  document.querySelectorAll('input.blend-range').forEach(function (range) {
    range.addEventListener('input', function () {
      var step = range.closest('section.step');
      var current = step && step.querySelector('.shot-current');
      if (current) current.style.opacity = String(range.value / 100);
    });
  });
  show(false);
});
)js";

}  // namespace

std::string escapeHtml(std::string_view in) {
  std::string out;
  out.reserve(in.size());
  for (char c : in) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string_view pageStyleSheet() {
  return kStyle;
}

std::string_view pageScript() {
  return kScript;
}

std::vector<RegionBox> regionsOf(const MatchSettings& s) {
  std::vector<RegionBox> boxes;
  auto add = [&](const char* kind, const std::vector<PixelRect>& rects) {
    for (const PixelRect& r : rects) boxes.push_back({kind, r});
  };
  add("ignore", s.ignore);
  add("layout", s.layout);
  add("strict", s.strict);
  add("content", s.content);
  for (const FloatingRegion& f : s.floating) boxes.push_back({"floating", f.rect});
  for (const AccessibilityRegion& a : s.accessibility) boxes.push_back({"accessibility", a.rect});
  return boxes;
}

std::string renderLoginPage(const std::string& next, const std::string& message) {
  std::string body = "<h1>Log in</h1>\n<p>Enter one of the service's API keys.</p>\n";
  if (!message.empty()) body += "<p class=\"message\">" + escapeHtml(message) + "</p>\n";
  body +=
      "<form id=\"login\" method=\"post\" action=\"/app/login\">"
      "<label for=\"apiKey\">API key</label>"
      "<input id=\"apiKey\" name=\"apiKey\" type=\"password\" autocomplete=\"current-password\" "
      "required autofocus>"
      "<input type=\"hidden\" name=\"next\" value=\"" +
      escapeHtml(next) + "\"><button type=\"submit\">Log in</button></form>\n";
  return page("Log in", body);
}

std::string renderBatchList(const std::vector<BatchRow>& batches) {
  std::string body =
      "<h1>Batches</h1>\n<table id=\"batches\"><thead><tr><th>Batch</th><th>Started</th>"
      "<th>State</th><th class=\"num\">Tests</th><th class=\"num\">Passed</th>"
      "<th class=\"num\">Unresolved</th><th class=\"num\">Failed</th></tr></thead><tbody>\n";
  for (const BatchRow& row : batches) {
    std::string name = escapeHtml(row.batch.name.value_or(row.batch.id));
    if (name.empty()) name = escapeHtml(row.batch.id);
    body += "<tr class=\"batch\"><td><a class=\"batch-link\" href=\"/app/batches/" +
            escapeHtml(percentEncode(row.batch.id)) + "\">" + name + "</a></td><td>" +
            escapeHtml(row.batch.startedAt.value_or("")) + "</td><td>" +
            (row.batch.isClosed ? "closed" : "open") + "</td><td class=\"num\">" +
            std::to_string(row.tests) + "</td><td class=\"num\">" + std::to_string(row.passed) +
            "</td><td class=\"num\">" + std::to_string(row.unresolved) + "</td><td class=\"num\">" +
            std::to_string(row.failed) + "</td></tr>\n";
  }
  body += "</tbody></table>\n";
  if (batches.empty()) body += "<p>No batches yet.</p>\n";
  return page("Batches", body);
}

std::string renderBatchPage(const BatchRecord& batch, const std::vector<Json>& tests) {
  std::string name = escapeHtml(batch.name.value_or(batch.id));
  std::string body = "<h1>" + name + "</h1>\n<p>" +
                     (batch.startedAt ? "Started " + escapeHtml(*batch.startedAt) + ", " : "") +
                     (batch.isClosed ? "closed" : "open") + "</p>\n";
  body +=
      "<table id=\"tests\"><thead><tr><th>Test</th><th>Status</th><th class=\"num\">Steps</th>"
      "<th class=\"num\">Matches</th><th class=\"num\">Mismatches</th>"
      "<th class=\"num\">Missing</th><th>Branch</th><th>OS</th><th>Hosting app</th>"
      "<th>Display size</th></tr></thead><tbody>\n";
  for (const Json& d : tests) {
    std::string status = text(d, "status");
    body += "<tr class=\"test\" data-status=\"" + status +
            "\"><td><a class=\"test-link\" href=\"/app/sessions/" +
            escapeHtml(percentEncode(json::stringValue(d.value("id", Json())).value_or(""))) +
            "\">" + text(d, "appName") + " / " + text(d, "name") + "</a></td><td>" +
            statusBadge(status) + "</td><td class=\"num\">" + number(d, "steps") +
            "</td><td class=\"num\">" + number(d, "matches") + "</td><td class=\"num\">" +
            number(d, "mismatches") + "</td><td class=\"num\">" + number(d, "missing") +
            "</td><td>" + text(d, "branchName") + "</td><td>" + text(d, "hostOS") + "</td><td>" +
            text(d, "hostApp") + "</td><td>" + displaySize(d) + "</td></tr>\n";
  }
  body += "</tbody></table>\n";
  return page(name, body);
}

std::string renderTestPage(const TestView& view) {
  const Json& d = view.document;
  std::string id = percentEncode(json::stringValue(d.value("id", Json())).value_or(""));
  std::string base = "/app/sessions/" + id;
  std::string title = text(d, "appName") + " / " + text(d, "name");
  std::string body = "<h1>" + title + "</h1>\n<p>" + statusBadge(text(d, "status"), "test-status");
  if (flag(d, "isNew")) body += " <span class=\"note\">new test</span>";
  if (flag(d, "isAborted")) body += " <span class=\"note\">aborted</span>";
  body += "</p>\n<table class=\"facts\">\n";
  auto row = [&](std::string_view label, const std::string& value) {
    body += "<tr><th>" + std::string(label) + "</th><td>" + value + "</td></tr>\n";
  };
  std::string batch = text(d, "batchName").empty() ? text(d, "batchId") : text(d, "batchName");
  row("Batch",
      "<a href=\"/app/batches/" +
          escapeHtml(percentEncode(json::stringValue(d.value("batchId", Json())).value_or(""))) +
          "\">" + batch + "</a>");
  row("Branch", text(d, "branchName"));
  if (const Json* version = json::find(d, "baselineVersion")) {
    const Json* baselineId = json::find(d, "baselineId");
    std::string label = "version " + std::to_string(json::integerValue(*version)) + " of branch " +
                        text(d, "baselineBranchName");
    row("Baseline", baselineId ? "<a id=\"baseline-link\" href=\"/app/baselines/" +
                                     std::to_string(json::integerValue(*baselineId)) + "\">" +
                                     label + "</a>"
                               : label);
  } else {
    row("Baseline", "none (new test)");
  }
  row("OS", text(d, "hostOS"));
  row("Hosting app", text(d, "hostApp"));
  row("Display size", displaySize(d));
  row("Started", text(d, "startedAt"));
  row("Steps", number(d, "steps") + " (" + number(d, "matches") + " matched, " +
                   number(d, "mismatches") + " mismatched, " + number(d, "missing") + " missing)");
  if (const Json* a = json::find(d, "accessibilityStatus")) {
    row("Accessibility", text(*a, "status") + " (" + text(*a, "level") + ")");
  }
  body +=
      "</table>\n<div class=\"toolbar\">" +
      postButton(base + "/accept", view.csrf, "id=\"accept-all\"", "Accept all", view.reviewable) +
      "<button id=\"view-toggle\" type=\"button\" aria-pressed=\"false\">Overlay</button>"
      "</div>\n<div id=\"steps\">\n";

  for (const StepView& step : view.steps) {
    std::string n = std::to_string(step.number);
    std::string name = escapeHtml(step.name);
    std::string state = escapeHtml(step.state);
    body += "<section class=\"step\" id=\"step-" + n + "\" data-step=\"" + n + "\" data-status=\"" +
            state + "\">\n<div class=\"step-head\"><h2>Step " + n +
            (name.empty() ? "" : ": " + name) + "</h2><span class=\"state\">" + state + "</span>";
    if (!step.matchLevel.empty()) {
      body += "<span class=\"level\">match level " + escapeHtml(step.matchLevel) + "</span>";
    }
    if (step.matchedAlternative) {
      body += "<span class=\"level matched-alternative\">matched an accepted alternative</span>";
    }
    std::string stepBase = base + "/steps/" + n;
    body +=
        postButton(stepBase + "/accept", view.csrf, "class=\"accept\"", "Accept", view.reviewable) +
        (step.canAcceptAlternative
             ? postButton(stepBase + "/alternative", view.csrf, "class=\"alternative\"",
                          "Accept as alternative", view.reviewable)
             : std::string()) +
        postButton(stepBase + "/reject", view.csrf, "class=\"reject\"", "Reject", view.reviewable) +
        "</div>\n";
    if (step.baseline && step.current) {
      body +=
          "<label class=\"blend\">Baseline <input class=\"blend-range\" type=\"range\" min=\"0\" "
          "max=\"100\" value=\"50\" aria-label=\"Current image opacity\"> Current</label>\n";
    }
    body += "<div class=\"images\">" + figure(step.baseline, "baseline", "Baseline") +
            figure(step.current, "current", "Current", step.regions) +
            figure(step.diff, "diff", "Differences") + "</div>\n</section>\n";
  }
  body += "</div>\n";
  return page(title, body);
}

namespace {

std::string isoTimeText(std::int64_t seconds) {
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm utc{};
  gmtime_r(&t, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
  return text;
}

}  // namespace

std::string renderBaselinePage(const BaselineView& view) {
  const BaselineHistory& h = view.history;
  std::string id = std::to_string(h.id);
  std::string body = "<h1>Baseline " + id + "</h1>\n<table class=\"facts\">\n";
  for (const auto& [label, value] : view.identity) {
    body += "<tr><th>" + escapeHtml(label) + "</th><td>" + escapeHtml(value) + "</td></tr>\n";
  }
  body += "<tr><th>Current version</th><td id=\"current-version\">" +
          std::to_string(h.currentVersion) + "</td></tr>\n</table>\n";
  body +=
      "<table id=\"versions\"><thead><tr><th class=\"num\">Version</th><th>Made</th>"
      "<th>How</th><th class=\"num\">Steps</th><th></th></tr></thead><tbody>\n";
  for (const BaselineVersion& v : h.versions) {
    std::string n = std::to_string(v.version);
    std::string how = escapeHtml(v.kind);
    if (v.sessionId) {
      how += " from <a href=\"/app/sessions/" + escapeHtml(percentEncode(*v.sessionId)) +
             "\">session " + escapeHtml(*v.sessionId) + "</a>";
    }
    if (v.fromVersion) how += " of version " + std::to_string(*v.fromVersion);
    const bool current = v.version == h.currentVersion;
    body +=
        "<tr class=\"version\" data-version=\"" + n + "\"" +
        (current ? " data-current=\"true\"" : "") + "><td class=\"num\">" + n + "</td><td>" +
        isoTimeText(v.createdAt) + "</td><td>" + how + "</td><td class=\"num\">" +
        std::to_string(v.steps) + "</td><td>" +
        (current ? std::string("current")
                 : postButton("/app/baselines/" + id + "/versions/" + n + "/rollback", view.csrf,
                              "class=\"rollback\"", "Roll back to this version", true)) +
        "</td></tr>\n";
  }
  body += "</tbody></table>\n";
  return page("Baseline " + id, body);
}

std::string renderConfirmAcceptPage(const std::string& message, const std::string& action,
                                    const std::string& csrf, const std::string& sessionPage) {
  std::string body =
      "<h1>Accept anyway?</h1>\n<p class=\"message\" id=\"stale-message\">" + escapeHtml(message) +
      ". Accepting now replaces what was accepted since.</p>\n"
      "<form class=\"review\" method=\"post\" action=\"" +
      escapeHtml(action) + "\"><input type=\"hidden\" name=\"csrf\" value=\"" + escapeHtml(csrf) +
      "\"><input type=\"hidden\" name=\"confirm\" value=\"1\">"
      "<button id=\"confirm-accept\" class=\"accept\" type=\"submit\">Accept "
      "anyway</button></form> <a href=\"" +
      escapeHtml(sessionPage) + "\">Back to the test</a>\n";
  return page("Accept anyway?", body);
}

}  // namespace saffra::server
