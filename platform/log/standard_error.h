#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <sys/types.h>

#include "platform/descriptor.h"

namespace corvane {

/// Standard error as a place for log lines. Nothing waits for whoever reads it: a line that a pipe, a socket or a
/// terminal does not take at once is dropped. The next line that gets through comes after one that tells how many
/// were dropped, such as "[12 lines dropped]". Where part of a line got through, that counts as dropped too, and a
/// line feed ends it. A regular file takes every line, as long as its disk does.
///
/// The open file description behind descriptor 2 is shared with the parent process, and its flags stay as they
/// are. Not thread-safe. Throws std::bad_alloc, and the line is lost uncounted.
class StandardError {
 public:
  /// Standard error is what descriptor 2 is now. Opens a descriptor of its own for a pipe or a device.
  StandardError();

  /// `line` ends in a line feed.
  void write(std::string_view line);
  /// How many were dropped so far, those already told included.
  uint64_t dropped_lines() const { return dropped_lines_; }

 private:
  enum class Kind { socket, regular_file, pipe_or_device };

  size_t write_at_once(std::string_view text);
  ssize_t write_some(std::string_view text) const;

  Kind kind_ = Kind::pipe_or_device;
  std::optional<Descriptor> own_;  ///< a non-blocking description of the same pipe or device
  size_t dropped_ = 0;             ///< and not told yet
  uint64_t dropped_lines_ = 0;
  bool in_line_ = false;  ///< the last line that got through has no line feed
};

}  // namespace corvane
