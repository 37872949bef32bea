#pragma once

#include <cstddef>
#include <cstdint>

#include "plist/value.h"

namespace corvane {

/// The platform logger. Levels are those of syslog(3), 0 to 7. Every operation may be called from any
/// thread and orders its own writes; none fails towards the caller.
class Logger {
 public:
  /// An open log. Lives as long as the logger; never closed.
  class Handle;

  static constexpr int no_level = -1;

  virtual ~Logger() = default;

  /// Null when the logger refuses. The meaning of `options` is the logger's own.
  virtual Handle* open(const char* name, int options) = 0;
  /// Keeps a copy of everything written through `handle` in at most `files` files of `bytes` bytes each, the
  /// newest of them at `path`. Makes the last folder of the path where it is missing, but none above it.
  virtual void enable_disk_copy(Handle* handle, const char* path, int files, size_t bytes) = 0;
  /// The level configured for a logger name at this moment, or `no_level`.
  virtual int configured_level(const char* name) = 0;
  /// How an open log is doing.
  struct Status {
    bool disk_copy_works = false;    ///< the disk took the line that was written last
    uint64_t dropped_on_stderr = 0;  ///< lines since start-up
  };
  virtual Status status(Handle* handle) = 0;

  /// Writes one line. `format` is "%@", which prints the argument as it is.
  virtual void write(Handle* handle, int level, const char* tag, const char* format,
                     const plist::String& argument) = 0;
};

}  // namespace corvane
