#include "platform/log/log_line.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <unistd.h>

#include "plist/unicode.h"

namespace corvane {

namespace {

constexpr size_t longest_cut_note = 48;

// The second and the process rarely change: they are kept as text.
std::string head(int level) {
  static const std::string process = "corvaned[" + std::to_string(getpid()) + "]";
  thread_local std::time_t formatted_second = -1;
  thread_local char second[32];
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (now.tv_sec != formatted_second) {
    std::tm utc;
    gmtime_r(&now.tv_sec, &utc);
    std::strftime(second, sizeof second, "%Y-%m-%dT%H:%M:%S", &utc);
    formatted_second = now.tv_sec;
  }
  char text[128];
  std::snprintf(text, sizeof text, "%s.%03dZ %s <%d> ", second, static_cast<int>(now.tv_nsec / 1'000'000),
                process.c_str(), level);
  return text;
}

// What a terminal acts on, and what some readers take for the end of a line (U+2028 and U+2029).
bool is_control(char32_t c) { return c < 0x20 || (c >= 0x7f && c <= 0x9f) || c == 0x2028 || c == 0x2029; }

void append_escaped(std::string& out, char32_t c) {
  char escape[8];
  switch (c) {
    case '\n':
      out += "\\n";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\r':
      out += "\\r";
      return;
    default:
      std::snprintf(escape, sizeof escape, c > 0xff ? "\\u%04x" : "\\x%02x", static_cast<unsigned>(c));
      out += escape;
  }
}

// Appends the first character of `text`, escaped if need be, and returns its length in `text`.
size_t append_character(std::string& out, std::string_view text) {
  char32_t c = 0;
  const size_t length = plist::unicode::decode_utf8(text, c);
  if (length == 0) {
    append_escaped(out, static_cast<unsigned char>(text.front()));
    return 1;
  }
  if (is_control(c)) {
    append_escaped(out, c);
  } else {
    out += text.substr(0, length);
  }
  return length;
}

bool is_printable_ascii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

// Appends at most `limit` bytes, the note of what was cut off included.
void append_message(std::string& line, std::string_view message, size_t limit) {
  if (message.size() <= limit && is_printable_ascii(message)) {
    line += message;
    return;
  }
  const size_t longest = line.size() + limit;
  // The last place at which a note still has room.
  size_t cut_at = line.size();
  size_t cut_off = message.size();
  while (!message.empty() && line.size() <= longest) {
    if (line.size() + longest_cut_note <= longest) {
      cut_at = line.size();
      cut_off = message.size();
    }
    message.remove_prefix(append_character(line, message));
  }
  if (line.size() <= longest) return;
  line.resize(cut_at);
  line += " [" + std::to_string(cut_off) + " more bytes]";
}

}  // namespace

LogLine::LogLine(int level, std::string_view tag, std::string_view message, size_t limit)
    : text_(head(level)), head_size_(text_.size()) {
  text_.append(tag).append(": ");
  if (message.ends_with('\n')) message.remove_suffix(1);
  append_message(text_, message, limit - std::min(limit, text_.size() + 1));
  text_ += '\n';
}

}  // namespace corvane
