#include "server/results_page.h"

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

std::string figure(const Json& apiUrls, std::string_view key, std::string_view caption) {
  const Json* url = json::find(apiUrls, key);
  if (!url) return "";
  std::string href = escapeHtml(json::stringValue(*url).value_or(""));
  return "<figure><a href=\"" + href + "\"><img src=\"" + href + "\" alt=\"" +
         std::string(caption) + "\"></a><figcaption>" + std::string(caption) +
         "</figcaption></figure>";
}

constexpr std::string_view kStyle = R"css(
body{font-family:sans-serif;margin:2em;color:#222}
.status{display:inline-block;padding:.2em .6em;border-radius:.3em;color:#fff}
.Passed{background:#2e7d32}.Unresolved{background:#ef6c00}.Failed{background:#c62828}
.Running{background:#546e7a}
table{border-collapse:collapse}td,th{padding:.2em .8em;text-align:left}
section{border-top:1px solid #ccc;margin-top:1em}
figure{display:inline-block;margin:.5em}img{max-width:360px;max-height:640px;border:1px solid #999}
)css";

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

std::string renderResultsPage(const Json& d) {
  std::string status = text(d, "status");
  std::string title = text(d, "appName") + " / " + text(d, "name");
  std::string html = "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + title +
                     "</title><style>" + std::string(kStyle) + "</style></head><body>\n";
  html += "<h1>" + title + "</h1>\n<p><span class=\"status " + status + "\">" + status + "</span>";
  if (flag(d, "isNew")) html += " new test";
  if (flag(d, "isAborted")) html += " aborted";
  html += "</p>\n<table>\n";
  auto row = [&](std::string_view label, const std::string& value) {
    html += "<tr><th>" + std::string(label) + "</th><td>" + value + "</td></tr>\n";
  };
  row("Steps", number(d, "steps"));
  row("Matches", number(d, "matches"));
  row("Mismatches", number(d, "mismatches"));
  row("Missing", number(d, "missing"));
  row("Branch", text(d, "branchName"));
  row("Batch", text(d, "batchName").empty() ? text(d, "batchId") : text(d, "batchName"));
  row("OS", text(d, "hostOS"));
  row("Hosting app", text(d, "hostApp"));
  if (const Json* size = json::find(d, "hostDisplaySize")) {
    row("Display size", number(*size, "width") + " x " + number(*size, "height"));
  }
  row("Started", text(d, "startedAt"));
  row("Duration", number(d, "duration") + " s");
  if (const Json* a = json::find(d, "accessibilityStatus")) {
    row("Accessibility", text(*a, "status") + " (" + text(*a, "level") + ")");
  }
  html += "</table>\n";

  if (const Json* steps = json::find(d, "stepsInfo"); steps && steps->is_array()) {
    int number = 0;
    for (const Json& step : *steps) {
      ++number;
      std::string name = text(step, "name");
      std::string verdict = !flag(step, "hasCurrentImage") ? "missing"
                            : flag(step, "isDifferent")    ? "different"
                                                           : "matched";
      html += "<section id=\"step-" + std::to_string(number) + "\"><h2>Step " +
              std::to_string(number) + (name.empty() ? "" : ": " + name) + " (" + verdict +
              ")</h2>\n";
      const Json* api = json::find(step, "apiUrls");
      if (api) {
        html += figure(*api, "baselineImage", "baseline") +
                figure(*api, "currentImage", "current") + figure(*api, "diffImage", "diff");
      }
      html += "\n</section>\n";
    }
  }
  html += "</body></html>\n";
  return html;
}

}  // namespace saffra::server
