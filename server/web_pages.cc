#include "server/web_pages.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <utility>

#include "saffra/platform/geometry.h"
#include "server/results_document.h"
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
         "<script src=\"/app/static/app.js\"></script></head>\n<body>\n"
         "<header class=\"bar\"><a class=\"home\" href=\"/app/batches\">Saffra results</a>"
         "</header>\n<main>\n" +
         body + "</main>\n</body></html>\n";
}

/// A form with one button that posts to `action`; `state`, when given, is the state the
/// decision is made on (see TestView::state).
std::string postButton(const std::string& action, const std::string& csrf,
                       const std::string& buttonAttributes, const std::string& label, bool enabled,
                       const std::string& state = "") {
  return "<form class=\"review\" method=\"post\" action=\"" + escapeHtml(action) +
         "\"><input type=\"hidden\" name=\"csrf\" value=\"" + escapeHtml(csrf) + "\">" +
         (state.empty()
              ? ""
              : "<input type=\"hidden\" name=\"state\" value=\"" + escapeHtml(state) + "\">") +
         "<button " + buttonAttributes + " type=\"submit\"" + (enabled ? "" : " disabled") + ">" +
         label + "</button></form>";
}

/// The form that undoes the reader's last decision (`decision`, so that an undo sent twice
/// undoes once) and returns to `next`; disabled when there is none.
std::string undoButton(const std::string& csrf, std::optional<std::int64_t> decision,
                       const std::string& next) {
  return "<form id=\"undo\" class=\"undo\" method=\"post\" action=\"/app/undo\">"
         "<input type=\"hidden\" name=\"csrf\" value=\"" +
         escapeHtml(csrf) + "\"><input type=\"hidden\" name=\"decision\" value=\"" +
         (decision ? std::to_string(*decision) : "") +
         "\"><input type=\"hidden\" name=\"next\" value=\"" + escapeHtml(next) +
         "\"><button type=\"submit\" id=\"undo-button\" title=\"Undo your last decision (u)\"" +
         (decision ? "" : " disabled") + ">Undo</button></form>";
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

/// The changed areas as an SVG layer in image pixels, like regionLayer.
std::string changeLayer(const ImageRef& image, const std::optional<StepChanges>& changes) {
  if (!changes || changes->boxes.empty() || image.width <= 0 || image.height <= 0) return "";
  std::string svg = "<svg class=\"changes\" viewBox=\"0 0 " + std::to_string(image.width) + " " +
                    std::to_string(image.height) +
                    "\" preserveAspectRatio=\"none\" aria-hidden=\"true\">";
  for (const PixelRect& r : changes->boxes) {
    svg += "<rect class=\"change\" x=\"" + std::to_string(r.left) + "\" y=\"" +
           std::to_string(r.top) + "\" width=\"" + std::to_string(r.width) + "\" height=\"" +
           std::to_string(r.height) + "\" vector-effect=\"non-scaling-stroke\"></rect>";
  }
  return svg + "</svg>";
}

/// One image of a step in its scrolling pane. Images load only when shown (lazy), so a page
/// of hundreds of steps fetches the few a reviewer looks at.
std::string figure(const std::optional<ImageRef>& image, const std::string& kind,
                   const std::string& caption, const std::string& layers = "") {
  if (!image) return "";
  std::string src = escapeHtml(image->url);
  return "<figure class=\"shot shot-" + kind + "\"><figcaption>" + caption + " <a href=\"" + src +
         "\" class=\"raw\">open</a></figcaption><div class=\"pane\"><div class=\"canvas\" " +
         "data-width=\"" + std::to_string(image->width) + "\" data-height=\"" +
         std::to_string(image->height) + "\"><img class=\"" + kind + "\" src=\"" + src +
         "\" alt=\"" + caption + "\" loading=\"lazy\" decoding=\"async\"" + sizeAttributes(*image) +
         ">" + layers + "</div></div></figure>";
}

/// The words the pages use for step states.
std::string stateLabel(const std::string& state) {
  return state == "mismatched" ? "changed" : state;
}

bool needsDecision(const std::string& state) {
  return state == "mismatched" || state == "new" || state == "missing";
}

/// "1,234,567".
std::string grouped(std::int64_t n) {
  std::string digits = std::to_string(n < 0 ? -n : n), out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return (n < 0 ? "-" : "") + out;
}

/// "2026-01-01 00:00 UTC".
std::string shortTime(std::int64_t seconds) {
  std::string iso = isoTime(seconds);
  return iso.substr(0, 10) + " " + iso.substr(11, 5) + " UTC";
}

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

StepChanges changesFromJson(const Json& changes) {
  StepChanges found;
  found.sizesDiffer = flag(changes, "sizesDiffer");
  if (const Json* pixels = json::find(changes, "pixels"))
    found.pixels = json::integerValue(*pixels);
  if (const Json* more = json::find(changes, "moreBoxes"))
    found.moreBoxes = json::integerValue(*more);
  const Json* boxes = json::find(changes, "boxes");
  if (boxes && boxes->is_array()) {
    for (const Json& box : *boxes) {
      if (!box.is_array() || box.size() != 4 ||
          !std::all_of(box.begin(), box.end(),
                       [](const Json& v) { return v.is_number_integer(); })) {
        continue;
      }
      PixelRect r{box[0].get<std::int64_t>(), box[1].get<std::int64_t>(),
                  box[2].get<std::int64_t>(), box[3].get<std::int64_t>()};
      if (!r.isEmpty()) found.boxes.push_back(r);
    }
  }
  return found;
}

std::string renderBatchList(const BatchListView& view) {
  const std::string search = escapeHtml(view.search);
  std::string body =
      "<h1>Batches</h1>\n<form id=\"batch-search\" class=\"search\" method=\"get\" "
      "action=\"/app/batches\" role=\"search\"><input type=\"search\" name=\"q\" value=\"" +
      search +
      "\" placeholder=\"Name, id, application or branch\" aria-label=\"Search batches\">"
      "<button type=\"submit\">Search</button></form>\n"
      "<table id=\"batches\"><thead><tr><th>Batch</th><th>Application</th><th>Tests</th>"
      "<th>Branch</th><th>Started</th><th>Finished</th><th>State</th></tr></thead><tbody>\n";
  for (const BatchSummary& row : view.batches.rows) {
    const BatchRecord& b = row.batch;
    bool named = b.name && !b.name->empty();
    std::string label = named ? escapeHtml(*b.name) : "<code>" + escapeHtml(b.id) + "</code>";
    auto joined = [](const std::vector<std::string>& texts) {
      std::string out;
      for (const std::string& t : texts) out += (out.empty() ? "" : ", ") + escapeHtml(t);
      return out;
    };
    std::string tests;
    auto tally = [&](std::int64_t n, const char* status, const char* word) {
      if (n > 0) {
        tests += "<span class=\"tally " + std::string(status) + "\">" + std::to_string(n) + " " +
                 word + "</span> ";
      }
    };
    tally(row.passed, "Passed", "passed");
    tally(row.unresolved, "Unresolved", "unresolved");
    tally(row.failed, "Failed", "failed");
    tally(row.running, "Running", "running");
    if (row.tests == 0) tests = "none";
    std::string started = b.startedAt && !b.startedAt->empty() ? escapeHtml(*b.startedAt)
                          : row.tests > 0                      ? shortTime(row.startedAt)
                                                               : "";
    std::string state = b.isClosed        ? "closed"
                        : row.running > 0 ? "running"
                        : row.tests > 0   ? "finished"
                                          : "open";
    body += "<tr class=\"batch\" data-state=\"" + state +
            "\"><td><a class=\"batch-link\" href=\"/app/batches/" +
            escapeHtml(percentEncode(b.id)) + "\">" + label + "</a></td><td class=\"apps\">" +
            joined(row.apps) + "</td><td class=\"tests\">" + tests +
            "</td><td class=\"branches\">" + joined(row.branches) + "</td><td class=\"started\">" +
            started + "</td><td class=\"finished\">" +
            (row.finishedAt ? shortTime(*row.finishedAt) : "") +
            "</td><td><span class=\"batch-state " + state + "\">" + state + "</span></td></tr>\n";
  }
  body += "</tbody></table>\n";
  if (view.batches.rows.empty()) {
    body += view.search.empty() ? "<p>No batches yet.</p>\n"
                                : "<p>No batch matches &ldquo;" + search + "&rdquo;.</p>\n";
  }
  // Paging: where this page is in the whole list, and links to its neighbours.
  std::int64_t size = std::max<std::int64_t>(1, view.pageSize);
  std::int64_t pages = std::max<std::int64_t>(1, (view.batches.total + size - 1) / size);
  auto link = [&](std::int64_t page, const char* rel, const char* text) {
    std::string query = "?page=" + std::to_string(page);
    if (!view.search.empty()) query += "&q=" + percentEncode(view.search);
    return "<a rel=\"" + std::string(rel) + "\" href=\"/app/batches" + escapeHtml(query) + "\">" +
           text + "</a>";
  };
  body += "<nav class=\"pager\" aria-label=\"Pages\">";
  if (view.page > 1) body += link(view.page - 1, "prev", "&larr; Newer");
  body += "<span>Page " + std::to_string(view.page) + " of " + std::to_string(pages) + " (" +
          grouped(view.batches.total) + " batches)</span>";
  if (view.page < pages) body += link(view.page + 1, "next", "Older &rarr;");
  body += "</nav>\n";
  return page("Batches", body);
}

std::string renderBatchPage(const BatchRecord& batch, const std::vector<Json>& tests,
                            const std::string& actions) {
  std::string name = escapeHtml(batch.name && !batch.name->empty() ? *batch.name : batch.id);
  bool running = std::any_of(tests.begin(), tests.end(),
                             [](const Json& d) { return text(d, "status") == "Running"; });
  std::string state = batch.isClosed  ? "closed"
                      : running       ? "running"
                      : tests.empty() ? "open"
                                      : "finished";
  std::string body = "<h1>" + name + "</h1>\n<p>" +
                     (batch.startedAt ? "Started " + escapeHtml(*batch.startedAt) + ", " : "") +
                     "<span class=\"batch-state " + state + "\">" + state + "</span></p>\n" +
                     actions;
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

namespace {

/// The keys of the review page, as the help lists them.
constexpr std::pair<const char*, const char*> kKeys[] = {
    {"j / &darr; / &rarr;", "next step"},
    {"k / &uarr; / &larr;", "previous step"},
    {"a", "accept the step"},
    {"r", "reject the step"},
    {"v", "next view: side by side, overlay, blink, swipe, differences"},
    {"z", "zoom to 100% and back to fit"},
    {"+ / &minus;", "zoom in / out"},
    {"c", "jump to the first change"},
    {"1 / 2 / 3", "first changed / new / missing step"},
    {"u", "undo your last decision"},
    {"m", "show or fold the matched steps"},
    {"/", "find a step by name"},
    {"?", "this help"},
};

/// The statuses of the counts bar, in order, with their words.
constexpr std::pair<const char*, const char*> kCounted[] = {
    {"mismatched", "changed"}, {"new", "new"},           {"missing", "missing"},
    {"accepted", "accepted"},  {"rejected", "rejected"}, {"matched", "matched"},
};

std::string stepItem(const StepView& step, bool hidden) {
  std::string n = std::to_string(step.number);
  std::string state = escapeHtml(step.state);
  const std::optional<ImageRef>& shown = step.current ? step.current : step.baseline;
  std::string thumb = shown && !shown->thumbnail.empty()
                          ? "<img class=\"thumb\" src=\"" + escapeHtml(shown->thumbnail) +
                                "\" alt=\"\" loading=\"lazy\" decoding=\"async\">"
                          : "<span class=\"thumb\"></span>";
  return "<li class=\"item\" data-step=\"" + n + "\" data-status=\"" + state + "\" data-name=\"" +
         escapeHtml(step.name) + "\"" + (hidden ? " hidden" : "") + "><a href=\"#step-" + n +
         "\">" + thumb + "<span class=\"no\">" + n + "</span><span class=\"name\">" +
         escapeHtml(step.name) + "</span><span class=\"state\">" +
         escapeHtml(stateLabel(step.state)) + "</span></a></li>\n";
}

std::string stepSection(const StepView& step, const std::string& base, const TestView& view,
                        bool hidden) {
  std::string n = std::to_string(step.number);
  std::string name = escapeHtml(step.name);
  std::string state = escapeHtml(step.state);
  std::string body = "<section class=\"step\" id=\"step-" + n + "\" data-step=\"" + n +
                     "\" data-status=\"" + state + "\"" + (hidden ? " hidden" : "") +
                     ">\n<div class=\"step-head\"><h2><span class=\"no\">" + n +
                     "</span> <bdi class=\"name\">" + (name.empty() ? "(no name)" : name) +
                     "</bdi></h2><span class=\"state\">" + escapeHtml(stateLabel(step.state)) +
                     "</span>";
  if (!step.matchLevel.empty()) {
    body += "<span class=\"level\">match level " + escapeHtml(step.matchLevel) + "</span>";
  }
  if (step.matchedAlternative) {
    body += "<span class=\"level matched-alternative\">matched an accepted alternative</span>";
  }
  std::string stepBase = base + "/steps/" + n;
  body += "<span class=\"decide\">" +
          postButton(stepBase + "/accept", view.csrf, "class=\"accept\" title=\"Accept (a)\"",
                     "Accept", view.reviewable, step.state) +
          (step.canAcceptAlternative
               ? postButton(stepBase + "/alternative", view.csrf, "class=\"alternative\"",
                            "Accept as alternative", view.reviewable, step.state)
               : std::string()) +
          postButton(stepBase + "/reject", view.csrf, "class=\"reject\" title=\"Reject (r)\"",
                     "Reject", view.reviewable, step.state) +
          "</span></div>\n";
  if (step.changes) {
    const StepChanges& c = *step.changes;
    body += "<div class=\"changes\">";
    if (c.sizesDiffer) {
      body += "<p>The baseline and the current image differ in size.</p>";
    } else {
      std::size_t areas =
          c.boxes.size() + static_cast<std::size_t>(std::max<std::int64_t>(0, c.moreBoxes));
      body += "<p><strong class=\"changed-pixels\">" + grouped(c.pixels) +
              " px</strong> changed in " + std::to_string(areas) +
              (areas == 1 ? " area" : " areas");
      if (!c.boxes.empty()) {
        body +=
            " <button type=\"button\" class=\"jump js-only\" title=\"Jump to change (c)\">"
            "Jump to change</button>";
      }
      body += "</p>";
      if (!c.boxes.empty()) {
        body += "<ol class=\"boxes\">";
        for (std::size_t i = 0; i < c.boxes.size(); ++i) {
          const PixelRect& r = c.boxes[i];
          body += "<li><button type=\"button\" class=\"box\" data-box=\"" + std::to_string(i) +
                  "\" data-x=\"" + std::to_string(r.left) + "\" data-y=\"" + std::to_string(r.top) +
                  "\" data-w=\"" + std::to_string(r.width) + "\" data-h=\"" +
                  std::to_string(r.height) + "\">" + std::to_string(r.width) + " &times; " +
                  std::to_string(r.height) + " at " + std::to_string(r.left) + ", " +
                  std::to_string(r.top) + "</button></li>";
        }
        if (c.moreBoxes > 0) body += "<li>and " + grouped(c.moreBoxes) + " more</li>";
        body += "</ol>";
      }
    }
    body += "</div>\n";
  }
  if (step.baseline && step.current) {
    body +=
        "<label class=\"blend js-only\">Baseline <input class=\"blend-range\" type=\"range\" "
        "min=\"0\" max=\"100\" value=\"50\" aria-label=\"Current image opacity\"> "
        "Current</label>\n";
  }
  std::string currentLayers;
  if (step.current) {
    currentLayers =
        regionLayer(*step.current, step.regions) + changeLayer(*step.current, step.changes);
  }
  std::string diffLayers = step.diff ? changeLayer(*step.diff, step.changes) : "";
  body += "<div class=\"viewer\">" + figure(step.baseline, "baseline", "Baseline") +
          figure(step.current, "current", "Current", currentLayers) +
          figure(step.diff, "diff", "Differences", diffLayers) +
          (step.baseline && step.current ? "<div class=\"divider js-only\"></div>" : "") +
          "</div>\n</section>\n";
  return body;
}

}  // namespace

std::string renderTestPage(const TestView& view) {
  const Json& d = view.document;
  std::string id = percentEncode(json::stringValue(d.value("id", Json())).value_or(""));
  std::string base = "/app/sessions/" + id;
  std::string title = text(d, "appName") + " / " + text(d, "name");
  std::string body = "<div class=\"title\"><h1><bdi>" + title + "</bdi></h1>" +
                     statusBadge(text(d, "status"), "test-status");
  if (flag(d, "isNew")) body += " <span class=\"note\">new test</span>";
  if (flag(d, "isAborted")) body += " <span class=\"note\">aborted</span>";
  body += "</div>\n<dl class=\"facts\">";
  auto fact = [&](const char* cls, std::string_view label, const std::string& value) {
    if (value.empty()) return;
    body += "<div class=\"" + std::string(cls) + "\"><dt>" + std::string(label) + "</dt><dd>" +
            value + "</dd></div>";
  };
  std::string batch = text(d, "batchName").empty() ? text(d, "batchId") : text(d, "batchName");
  fact("batch", "Batch",
       "<a href=\"/app/batches/" +
           escapeHtml(percentEncode(json::stringValue(d.value("batchId", Json())).value_or(""))) +
           "\"><bdi>" + batch + "</bdi></a>");
  fact("branch", "Branch", "<bdi>" + text(d, "branchName") + "</bdi>");
  if (const Json* version = json::find(d, "baselineVersion")) {
    const Json* baselineId = json::find(d, "baselineId");
    std::string label = "version " + std::to_string(json::integerValue(*version)) +
                        " of branch <bdi>" + text(d, "baselineBranchName") + "</bdi>";
    fact("baseline", "Baseline",
         baselineId ? "<a id=\"baseline-link\" href=\"/app/baselines/" +
                          std::to_string(json::integerValue(*baselineId)) + "\">" + label + "</a>"
                    : label);
  } else {
    fact("baseline", "Baseline", "none (new test)");
  }
  fact("os", "OS", text(d, "hostOS"));
  fact("app", "Hosting app", text(d, "hostApp"));
  fact("display", "Display size", displaySize(d));
  fact("started", "Started", text(d, "startedAt"));
  if (const Json* a = json::find(d, "accessibilityStatus")) {
    fact("accessibility", "Accessibility", text(*a, "status") + " (" + text(*a, "level") + ")");
  }
  body += "</dl>\n";

  // Steps that need a decision first, then the decided ones, then the matched ones, folded.
  std::vector<const StepView*> open, decided, matched;
  std::map<std::string, std::int64_t> counts;
  for (const StepView& step : view.steps) {
    ++counts[step.state];
    (step.state == "matched"     ? matched
     : needsDecision(step.state) ? open
                                 : decided)
        .push_back(&step);
  }
  std::string filter;
  for (const auto& [status, word] : kCounted) {
    if (view.filter == status) filter = status;
  }
  body +=
      "<nav id=\"counts\" aria-label=\"Steps by status\"><a class=\"count\" data-status=\"\" "
      "href=\"" +
      base + "\"" + (filter.empty() ? " aria-current=\"true\"" : "") + ">All <b>" +
      std::to_string(view.steps.size()) + "</b></a>";
  for (const auto& [status, word] : kCounted) {
    body += "<a class=\"count\" data-status=\"" + std::string(status) + "\" href=\"" + base +
            "?status=" + status + "\"" + (filter == status ? " aria-current=\"true\"" : "") +
            "><b>" + std::to_string(counts[status]) + "</b> " + word + "</a>";
  }
  body +=
      "</nav>\n<div class=\"toolbar\">" +
      postButton(base + "/accept", view.csrf, "id=\"accept-all\"", "Accept all", view.reviewable,
                 view.state) +
      undoButton(view.csrf, view.undoDecision, base) +
      "<span class=\"views js-only\" role=\"group\" aria-label=\"View\">"
      "<button type=\"button\" data-view=\"side\" title=\"Side by side (v)\">Side by side</button>"
      "<button type=\"button\" data-view=\"overlay\" title=\"Overlay (v)\">Overlay</button>"
      "<button type=\"button\" data-view=\"blink\" title=\"Blink (v)\">Blink</button>"
      "<button type=\"button\" data-view=\"swipe\" title=\"Swipe (v)\">Swipe</button>"
      "<button type=\"button\" data-view=\"diff\" title=\"Differences (v)\">Differences</button>"
      "</span><span class=\"zoom js-only\" role=\"group\" aria-label=\"Zoom\">"
      "<button type=\"button\" data-zoom=\"out\" title=\"Zoom out (-)\">&minus;</button>"
      "<output id=\"zoom-level\">Fit</output>"
      "<button type=\"button\" data-zoom=\"in\" title=\"Zoom in (+)\">+</button>"
      "<button type=\"button\" data-zoom=\"toggle\" title=\"100% or fit (z)\">100%</button>"
      "</span><input id=\"step-search\" class=\"js-only\" type=\"search\" placeholder=\"Find a "
      "step (/)\" aria-label=\"Find a step by name\">"
      "<button type=\"button\" id=\"help-button\" class=\"js-only\" title=\"Keys (?)\">Keys ?"
      "</button><span id=\"message\" role=\"status\" aria-live=\"polite\"></span></div>\n";

  auto hiddenByFilter = [&](const StepView& step) {
    return !filter.empty() && step.state != filter;
  };
  body +=
      "<div class=\"review\">\n<nav id=\"step-list\" aria-label=\"Steps\"><ol class=\"open\">\n";
  for (const auto* group : {&open, &decided}) {
    for (const StepView* step : *group) body += stepItem(*step, hiddenByFilter(*step));
  }
  body += "</ol>\n";
  if (!matched.empty()) {
    body += "<details id=\"matched-list\"" + std::string(filter == "matched" ? " open" : "") +
            "><summary>Matched <b>" + std::to_string(matched.size()) +
            "</b> <kbd>m</kbd></summary><ol>\n";
    for (const StepView* step : matched) body += stepItem(*step, hiddenByFilter(*step));
    body += "</ol></details>\n";
  }
  body += "</nav>\n<div id=\"steps\" data-session=\"" + escapeHtml(id) + "\">\n";
  if (view.steps.empty()) body += "<p>No steps.</p>\n";
  for (const auto* group : {&open, &decided}) {
    for (const StepView* step : *group)
      body += stepSection(*step, base, view, hiddenByFilter(*step));
  }
  if (!matched.empty()) {
    body += "<details id=\"matched-steps\"" + std::string(filter == "matched" ? " open" : "") +
            "><summary>" + std::to_string(matched.size()) + " matched " +
            (matched.size() == 1 ? "step" : "steps") + "</summary>\n";
    for (const StepView* step : matched)
      body += stepSection(*step, base, view, hiddenByFilter(*step));
    body += "</details>\n";
  }
  body +=
      "</div>\n</div>\n<dialog id=\"help\" aria-labelledby=\"help-title\"><h2 id=\"help-title\">"
      "Keys</h2><table>";
  for (const auto& [key, what] : kKeys) {
    body += "<tr><th><kbd>" + std::string(key) + "</kbd></th><td>" + what + "</td></tr>";
  }
  body +=
      "</table><p>Keys do nothing while you type in a text field.</p><button type=\"button\" "
      "id=\"help-close\">Close</button></dialog>\n";
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

std::string batchActions(const std::string& batchId, const std::string& csrf,
                         std::optional<std::int64_t> undoDecision) {
  const std::string path = "/app/batches/" + percentEncode(batchId);
  return "<div class=\"toolbar batch-actions\"><form method=\"get\" action=\"" + escapeHtml(path) +
         "\"><input type=\"hidden\" name=\"accept\" value=\"1\"><button type=\"submit\" "
         "id=\"batch-accept\">Accept all changes&hellip;</button></form>" +
         undoButton(csrf, undoDecision, path) + "</div>\n";
}

std::string renderBatchAcceptPage(const BatchAcceptView& view) {
  const std::string path = "/app/batches/" + percentEncode(view.batchId);
  const std::string name = escapeHtml(view.batchName);
  auto plural = [](std::int64_t n, const char* one, const char* many) {
    return grouped(n) + " " + (n == 1 ? one : many);
  };
  std::string body = view.stale.empty()
                         ? "<h1>Accept every change of <bdi>" + name + "</bdi>?</h1>\n"
                         : std::string("<h1>Accept anyway?</h1>\n");
  if (!view.stale.empty()) {
    body +=
        "<p class=\"message\">These tests were compared with a baseline that moved on since; "
        "accepting now replaces what was accepted there meanwhile:</p>\n<ul id=\"stale\">";
    for (const std::string& s : view.stale) body += "<li><bdi>" + escapeHtml(s) + "</bdi></li>";
    body += "</ul>\n";
  }
  if (view.tests.empty()) {
    body +=
        "<p id=\"batch-accept-summary\">Nothing to accept: no stopped test of the batch has "
        "a changed, new or missing step without a decision.</p>\n";
  } else {
    body += "<p id=\"batch-accept-summary\">This accepts <b>" +
            plural(view.steps, "step", "steps") + "</b> in <b>" +
            plural(static_cast<std::int64_t>(view.tests.size()), "test", "tests") +
            "</b>: every changed, new or missing step that has no decision yet becomes part of "
            "its baseline. Steps accepted or rejected already stay as they are. Undo takes it "
            "back.</p>\n";
  }
  if (view.leftOut > 0) {
    body += "<p>" + plural(view.leftOut, "test is", "tests are") +
            " left out: still running or aborted.</p>\n";
  }
  if (!view.tests.empty()) {
    body +=
        "<table id=\"accept-tests\"><thead><tr><th>Test</th><th class=\"num\">Steps to "
        "accept</th></tr></thead><tbody>\n";
    for (const BatchAcceptTest& t : view.tests) {
      body += "<tr><td><a href=\"/app/sessions/" + escapeHtml(percentEncode(t.sessionId)) +
              "\"><bdi>" + escapeHtml(t.name) + "</bdi></a></td><td class=\"num\">" +
              grouped(t.steps) + "</td></tr>\n";
    }
    body += "</tbody></table>\n<form class=\"review\" method=\"post\" action=\"" +
            escapeHtml(path) + "/accept\"><input type=\"hidden\" name=\"csrf\" value=\"" +
            escapeHtml(view.csrf) + "\"><input type=\"hidden\" name=\"state\" value=\"" +
            escapeHtml(view.state) + "\">" +
            (view.stale.empty() ? "" : "<input type=\"hidden\" name=\"confirm\" value=\"1\">") +
            "<button id=\"confirm-batch-accept\" class=\"accept\" type=\"submit\">" +
            (view.stale.empty() ? "Accept " : "Accept anyway: ") +
            plural(view.steps, "step", "steps") + "</button></form> ";
  }
  body += "<a href=\"" + escapeHtml(path) + "\">Back to the batch</a>\n";
  return page("Accept the batch?", body);
}

std::string renderMessagePage(const std::string& title, const std::string& message,
                              const std::string& back) {
  return page(escapeHtml(title),
              "<h1>" + escapeHtml(title) + "</h1>\n<p class=\"message\" id=\"refusal\">" +
                  escapeHtml(message) + "</p>\n<a href=\"" + escapeHtml(back) + "\">Back</a>\n");
}

}  // namespace saffra::server
