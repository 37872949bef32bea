#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Text as one line that is safe to show: what a terminal or an editor would act on is escaped.
namespace corvane::plist {

/// Appends the first character of `text` and returns its length in `text`, which must not be empty. Escaped are
/// control characters (U+0000 to U+001F, U+007F to U+009F), line and paragraph separators (U+2028, U+2029) and the
/// marks that change the direction of text (U+061C, U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069): "\n",
/// "\t", "\r", or "\u" and four hexadecimal digits. A byte that is not UTF-8 is "\x" and two.
size_t append_printable_character(std::string& out, std::string_view text);

/// The whole of a text. Quotes and backslashes stay as they are.
std::string printable(std::string_view text);

/// The same in double quotes, with a backslash before each quote and backslash of the text.
void append_quoted(std::string& out, std::string_view text);

}  // namespace corvane::plist
