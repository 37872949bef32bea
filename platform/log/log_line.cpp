#include "platform/log/log_line.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "plist/unicode.h"

namespace corvane {

namespace {

constexpr size_t longest_cut_note = 48;

// Time, process, level and what stands between them and the message.
constexpr size_t usual_head = 64;

// The second and the process rarely change: they are kept as text. The digits of the rest are written one by one,
// because formatting them takes longer than everything else.
void append_head(std::string& line, int level) {
  static const std::string process = "Z corvaned[" + std::to_string(getpid()) + "] <";
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
  const auto milliseconds = static_cast<int>(now.tv_nsec / 1'000'000);
  const auto digit = [](int value) { return static_cast<char>('0' + value % 10); };
  line += second;
  line += {'.', digit(milliseconds / 100), digit(milliseconds / 10), digit(milliseconds)};
  line += process;
  line += std::to_string(level);
  line += "> ";
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

// Eight bytes at a time: the highest bit of a byte is set after one of the two sums if it was set before, the byte
// is below 0x20, or it is 0x7f. Where no byte is, none carries into its neighbour.
bool is_printable_ascii(std::string_view text) {
  constexpr uint64_t ones = 0x0101010101010101;
  uint64_t seen = 0;
  for (; text.size() >= 8; text.remove_prefix(8)) {
    uint64_t bytes;
    std::memcpy(&bytes, text.data(), 8);
    seen |= bytes | (bytes + ones) | (bytes - 0x20 * ones);
  }
  const bool rest = std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
  return rest && (seen & 0x80 * ones) == 0;
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

LogLine::LogLine(int level, std::string_view tag, std::string_view message, size_t limit) {
  text_.reserve(std::min(limit, usual_head + tag.size() + message.size()));
  append_head(text_, level);
  head_size_ = text_.size();
  text_.append(tag).append(": ");
  if (message.ends_with('\n')) message.remove_suffix(1);
  append_message(text_, message, limit - std::min(limit, text_.size() + 1));
  text_ += '\n';
}

}  // namespace corvane
