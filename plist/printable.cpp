#include "plist/printable.h"

#include <cstdio>

#include "plist/unicode.h"

namespace corvane::plist {

namespace {

bool is_control(char32_t c) { return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029; }

bool changes_direction(char32_t c) {
  return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

void append_escape(std::string& out, const char* format, unsigned number) {
  char escape[8];
  std::snprintf(escape, sizeof escape, format, number);
  out += escape;
}

}  // namespace

size_t append_printable_character(std::string& out, std::string_view text) {
  char32_t c = 0;
  const size_t length = unicode::decode_utf8(text, c);
  if (length == 0) {
    append_escape(out, "\\x%02x", static_cast<unsigned char>(text.front()));
    return 1;
  }
  if (c == '\n') {
    out += "\\n";
  } else if (c == '\t') {
    out += "\\t";
  } else if (c == '\r') {
    out += "\\r";
  } else if (is_control(c) || changes_direction(c)) {
    append_escape(out, "\\u%04x", static_cast<unsigned>(c));
  } else {
    out += text.substr(0, length);
  }
  return length;
}

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) text.remove_prefix(append_printable_character(out, text));
  return out;
}

void append_quoted(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    if (text.front() == '"' || text.front() == '\\') out += '\\';
    text.remove_prefix(append_printable_character(out, text));
  }
  out += '"';
}

}  // namespace corvane::plist
