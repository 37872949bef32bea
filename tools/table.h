#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Text for the terminal: tables with aligned columns that fit its width.
namespace corvane::tools {

/// What standard output shows.
struct Screen {
  size_t width = 0;     ///< columns of the terminal; 0 where it is none, and nothing is cut
  bool colour = false;  ///< a terminal that has colours, and the variable NO_COLOR is not set
};

Screen screen();

/// The columns that a terminal needs for UTF-8 text without control characters. Wide characters take two,
/// combining ones none. Needs a UTF-8 locale (LC_CTYPE).
size_t display_width(std::string_view text);

/// Text whose display width is at most `width`, which is 3 or more. What was cut ends with "...".
std::string cut_to_width(std::string_view text, size_t width);

/// The text in bold, where the screen has colours.
std::string heading(const std::string& text, const Screen& screen);

/// Rows of cells. Control characters in cells are escaped.
class Table {
 public:
  /// `titles` may be all empty, for a table without a heading.
  explicit Table(const std::vector<std::string>& titles);

  /// Precondition: as many cells as titles.
  void add_row(const std::vector<std::string>& cells);
  bool empty() const { return rows_.empty(); }

  /// A line for each row, two spaces between columns. Where the screen is too narrow, the widest columns are cut.
  std::string text(const Screen& screen) const;

 private:
  std::vector<size_t> widths(const Screen& screen) const;

  std::vector<std::string> titles_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace corvane::tools
