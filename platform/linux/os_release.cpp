#include "platform/linux/os_release.h"

#include <algorithm>
#include <string_view>

#include "platform/process/small_file.h"

namespace corvane {

namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed_start(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text;
}

// Between double quotes a backslash is an ordinary character except before these.
bool takes_backslash(char c) { return std::string_view("$\"\\`").find(c) != std::string_view::npos; }

// The value of an assignment as a shell would read it, which is how os-release(5) defines it.
std::string unquoted(std::string_view text) {
  std::string value;
  char quote = '\0';
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool has_next = i + 1 < text.size();
    if (quote == '\0' && blanks.find(c) != std::string_view::npos) break;
    if (c == quote) {
      quote = '\0';
    } else if (quote == '\0' && (c == '"' || c == '\'')) {
      quote = c;
    } else if (c == '\\' && has_next && (quote == '\0' || (quote == '"' && takes_backslash(text[i + 1])))) {
      value += text[++i];
    } else {
      value += c;
    }
  }
  return value;
}

// Of several assignments the last one counts. Comments need no care: no name begins with '#'.
std::string assigned_value(std::string_view file, std::string_view name) {
  std::string value;
  while (!file.empty()) {
    const size_t end = std::min(file.find('\n'), file.size());
    const std::string_view line = trimmed_start(file.substr(0, end));
    if (line.starts_with(name) && line.substr(name.size()).starts_with('=')) {
      value = unquoted(line.substr(name.size() + 1));
    }
    file.remove_prefix(std::min(end + 1, file.size()));
  }
  return value;
}

}  // namespace

std::string system_version(const std::string& root) {
  SmallFile file = read_small_file(root + "/etc/os-release");
  if (!file.bytes) file = read_small_file(root + "/usr/lib/os-release");
  if (!file.bytes) return "";
  // Rolling releases and images have no VERSION_ID.
  for (const std::string_view name : {"VERSION_ID", "IMAGE_VERSION", "BUILD_ID", "VERSION_CODENAME"}) {
    if (std::string version = assigned_value(file.bytes->bytes(), name); !version.empty()) return version;
  }
  return "";
}

}  // namespace corvane
