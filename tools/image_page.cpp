#include "tools/image_page.h"

#include <cstdint>
#include <string_view>

#include "client/image_format.h"
#include "plist/base64_text.h"
#include "plist/describe.h"
#include "plist/printable.h"
#include "tools/images.h"
#include "tools/pixel_size.h"

// A card for each data value of the answer. An image is an <img> with a data: URI, also an SVG one: browsers run
// no script and load nothing from within an <img>. Data that no browser shows as an image gets a note in its
// place.

namespace corvane::tools {

using plist::cast;

namespace {

// The policy names the hash of the style sheet: whoever changes that changes this too. The test of corvanectl
// compares the two.
constexpr std::string_view head = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; img-src data:; base-uri 'none';
  form-action 'none'; style-src 'sha256-Vl/DE++7I5LY6WEh0qmALuEjYYPkqwRMvxu0yJYNOm8='">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<title>Regulatory images</title>
<style>)";

constexpr std::string_view style = R"(
:root { --page: #f6f6f4; --card: #ffffff; --text: #1d1d1b; --quiet: #63635e; --line: #dcdcd7; --mat: #efefec; }
@media (prefers-color-scheme: dark) {
  :root { --page: #161616; --card: #1f1f1f; --text: #e9e9e6; --quiet: #a0a09a; --line: #353533; --mat: #f4f4f2; }
}
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 76rem; padding: 2.5rem 1.25rem 4rem; background: var(--page); color: var(--text);
  font: 1rem/1.5 system-ui, sans-serif; }
header { margin-bottom: 2rem; }
h1 { margin: 0; font-size: 1.5rem; font-weight: 600; letter-spacing: -0.01em; }
header p { margin: 0.25rem 0 0; color: var(--quiet); }
main { display: grid; gap: 1.25rem; grid-template-columns: repeat(auto-fill, minmax(min(100%, 15rem), 1fr)); }
figure { margin: 0; display: flex; flex-direction: column; overflow: hidden; background: var(--card);
  border: 1px solid var(--line); border-radius: 0.625rem; }
.mat { display: flex; align-items: center; justify-content: center; height: 11rem; padding: 1rem;
  background: var(--mat); border-bottom: 1px solid var(--line); }
.mat img { max-width: 100%; max-height: 100%; min-width: 2rem; min-height: 2rem; object-fit: contain;
  color: #63635e; font-size: 0.8125rem; }
.note { background: none; }
.note p { margin: 0; text-align: center; color: var(--quiet); font-size: 0.875rem; }
figcaption { padding: 0.875rem 1rem 1rem; min-width: 0; overflow-wrap: anywhere; }
h2 { margin: 0 0 0.5rem; font-size: 1rem; font-weight: 600; line-height: 1.35; }
h2, dd { display: -webkit-box; -webkit-box-orient: vertical; -webkit-line-clamp: 4; overflow: hidden; }
dl { margin: 0; display: grid; grid-template-columns: auto 1fr; gap: 0.125rem 0.75rem; font-size: 0.875rem; }
dt { color: var(--quiet); }
dd { margin: 0; min-width: 0; }
.path { font: 0.8125rem/1.5 ui-monospace, "Noto Sans Mono", "DejaVu Sans Mono", monospace; }
.empty { padding: 3rem 1rem; border: 1px dashed var(--line); border-radius: 0.625rem; text-align: center;
  color: var(--quiet); }
@media (max-width: 30rem) { body { padding: 1.5rem 1rem 3rem; } }
)";

// Longer text is no name, and a page of it cannot be read.
constexpr size_t text_limit = 500;

// Text as it stands between tags and in quoted attributes.
std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : plist::printable(text.substr(0, text_limit))) {
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
  if (text.size() > text_limit) out += "...";
  return out;
}

std::string joined(const std::vector<std::string>& path) {
  std::string text;
  for (const std::string& part : path) {
    if (!text.empty()) text += '.';
    text += part.substr(0, text_limit + 1);
    if (text.size() > text_limit) break;
  }
  return text;
}

// A string beside the data value; empty where there is none.
std::string_view text_beside(const FoundData& data, std::string_view key) {
  const auto* text = data.owner == nullptr ? nullptr : cast<plist::String>(data.owner->get(key));
  return text == nullptr ? std::string_view() : text->view();
}

// A browser may begin a new line behind each dot.
std::string path_html(const std::string& path) {
  std::string html;
  for (const char c : escaped(path)) html += c == '.' ? std::string(".<wbr>") : std::string(1, c);
  return html;
}

std::string row(const char* title, const std::string& text) {
  return std::string("<dt>") + title + "</dt><dd>" + text + "</dd>\n";
}

bool is_shown(const FoundData& data) {
  const client::ImageFormat& format = client::image_format(data.bytes);
  return format.is_image && (format.extension == std::string_view("svg") || pixel_size(data.bytes));
}

std::string note(const FoundData& data) {
  const client::ImageFormat& format = client::image_format(data.bytes);
  if (data.bytes.empty()) return "No bytes";
  return std::string(format.name) + (format.is_image ? ", cut short or damaged" : ", not shown here");
}

std::string picture(const FoundData& data, std::string_view name) {
  if (!is_shown(data)) return "<div class=\"mat note\"><p>" + note(data) + "</p></div>\n";
  std::string html = "<div class=\"mat\"><img alt=\"" + escaped(name) + "\" src=\"data:";
  html.append(client::image_format(data.bytes).media_type).append(";base64,");
  plist::append_base64(html, data.bytes);
  return html + "\"></div>\n";
}

std::string sizes(const FoundData& data) {
  std::string text;
  if (const auto size = pixel_size(data.bytes)) {
    text = std::to_string(size->width) + " &times; " + std::to_string(size->height) + " pixels, ";
  }
  return text + std::to_string(data.bytes.size()) + (data.bytes.size() == 1 ? " byte" : " bytes");
}

std::string card(const FoundData& data) {
  const std::string path = joined(data.path);
  const std::string_view name = text_beside(data, "Name").empty() ? path : text_beside(data, "Name");
  std::string html = "<figure>\n" + picture(data, name) + "<figcaption>\n";
  html += "<h2>" + escaped(name) + "</h2>\n<dl>\n";
  const std::string_view region = text_beside(data, "Region");
  if (!region.empty()) html += row("Region", escaped(region));
  html += row("Format", client::image_format(data.bytes).name) + row("Size", sizes(data));
  html += "<dt>Path</dt><dd class=\"path\">" + path_html(path) + "</dd>\n";
  return html + "</dl>\n</figcaption>\n</figure>\n";
}

std::string counted(size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string heading(const plist::Dictionary& answer, size_t images, size_t others) {
  const auto* version = cast<plist::String>(answer.get("ProductVersion"));
  std::string html = "<header>\n<h1>Regulatory images</h1>\n<p>";
  html += counted(images, "image");
  if (others > 0) html += ", " + counted(others, "data value") + " that cannot be shown";
  if (version != nullptr) html += ", stored under system version " + escaped(version->view());
  return html + "</p>\n</header>\n";
}

}  // namespace

std::string image_page(const plist::Dictionary& answer) {
  std::string cards;
  size_t images = 0, others = 0;
  for_each_data(answer, [&](const FoundData& data) {
    cards += card(data);
    ++(is_shown(data) ? images : others);
  });
  std::string page(head);
  page.append(style).append("</style>\n</head>\n<body>\n").append(heading(answer, images, others));
  page += !cards.empty() ? "<main>\n" + cards + "</main>\n" : "<p class=\"empty\">No images are stored.</p>\n";
  return page + "</body>\n</html>\n";
}

}  // namespace corvane::tools
