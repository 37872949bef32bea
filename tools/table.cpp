#include "tools/table.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <numeric>
#include <sys/ioctl.h>
#include <unistd.h>

#include "plist/printable.h"
#include "plist/unicode.h"

namespace corvane::tools {

namespace {

constexpr size_t default_width = 80;
constexpr size_t narrowest_column = 8;
constexpr std::string_view gap = "  ";
constexpr std::string_view ellipsis = "...";

bool is_set(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool has_colours() {
  const char* terminal = std::getenv("TERM");
  return terminal != nullptr && std::string_view(terminal) != "dumb" && !is_set("NO_COLOR");
}

// The first character of a text that is not empty: its length in bytes, and its width.
size_t measure(std::string_view text, size_t& width) {
  char32_t c = 0;
  const size_t length = plist::unicode::decode_utf8(text, c);
  const int columns = wcwidth(static_cast<wchar_t>(c));
  width = length == 0 || columns < 0 ? 1 : static_cast<size_t>(columns);
  return std::max<size_t>(length, 1);
}

size_t sum(const std::vector<size_t>& numbers) {
  return std::accumulate(numbers.begin(), numbers.end(), size_t{0});
}

std::string line_of(const std::vector<std::string>& cells, const std::vector<size_t>& widths) {
  std::string line;
  for (size_t i = 0; i < cells.size(); ++i) {
    const std::string cell = cut_to_width(cells[i], widths[i]);
    line += cell;
    line.append(widths[i] - display_width(cell), ' ');
    line += gap;
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

}  // namespace

Screen screen() {
  if (isatty(STDOUT_FILENO) == 0) return {};
  winsize size{};
  const bool is_known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return {is_known ? size.ws_col : default_width, has_colours()};
}

size_t display_width(std::string_view text) {
  size_t total = 0;
  while (!text.empty()) {
    size_t width = 0;
    text.remove_prefix(measure(text, width));
    total += width;
  }
  return total;
}

std::string cut_to_width(std::string_view text, size_t width) {
  if (display_width(text) <= width) return std::string(text);
  size_t kept = 0;
  for (size_t used = 0;;) {
    size_t columns = 0;
    const size_t length = measure(text.substr(kept), columns);
    used += columns;
    if (used + ellipsis.size() > width) return std::string(text.substr(0, kept)) + std::string(ellipsis);
    kept += length;
  }
}

std::string heading(const std::string& text, const Screen& screen) {
  return screen.colour ? "\x1b[1m" + text + "\x1b[0m" : text;
}

Table::Table(const std::vector<std::string>& titles) : titles_(titles) {}

void Table::add_row(const std::vector<std::string>& cells) {
  std::vector<std::string>& row = rows_.emplace_back();
  for (const std::string& cell : cells) row.push_back(plist::printable(cell));
}

std::vector<size_t> Table::widths(const Screen& screen) const {
  std::vector<size_t> widths;
  for (const std::string& title : titles_) widths.push_back(display_width(title));
  for (const std::vector<std::string>& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], display_width(row[i]));
  }
  if (screen.width == 0) return widths;
  for (size_t& width : widths) width = std::min(width, std::max(screen.width, narrowest_column));
  const size_t gaps = gap.size() * (widths.size() - 1);
  while (sum(widths) + gaps > screen.width) {
    size_t& widest = *std::max_element(widths.begin(), widths.end());
    if (widest <= narrowest_column) break;
    --widest;
  }
  return widths;
}

std::string Table::text(const Screen& screen) const {
  const std::vector<size_t> columns = widths(screen);
  std::string text;
  const std::string titles = line_of(titles_, columns);
  if (!titles.empty()) text += heading(titles, screen) + "\n";
  for (const std::vector<std::string>& row : rows_) text += line_of(row, columns) + "\n";
  return text;
}

}  // namespace corvane::tools
