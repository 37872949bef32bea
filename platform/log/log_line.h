#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace corvane {

/// One line of the log, "TIME corvaned[PROCESS] <LEVEL> TAG: MESSAGE", with the time in UTC to the millisecond.
///
/// The message stays one line: a line feed at its end is dropped, control characters and bytes that are not UTF-8
/// are escaped, and what would make the line longer than `limit` bytes is cut off behind a whole character, with
/// a note of how many bytes that was. Throws std::bad_alloc.
class LogLine {
 public:
  LogLine(int level, std::string_view tag, std::string_view message, size_t limit);

  /// With the line feed at its end.
  std::string_view whole() const { return text_; }
  /// "TAG: MESSAGE", for a system log that writes its own time, process and level.
  std::string_view without_head() const {
    return std::string_view(text_).substr(head_size_, text_.size() - head_size_ - 1);
  }

 private:
  std::string text_;
  size_t head_size_ = 0;
};

}  // namespace corvane
