#pragma once

#include <cstddef>
#include <sys/types.h>

namespace corvane {

/// The characters that a path buffer holds, its terminator not counted.
inline constexpr size_t path_limit = 1024;

/// What the platform adds to POSIX file opening.
class Files {
 public:
  virtual ~Files() = default;

  /// open(2), with a data-protection class where the file system has such a thing. The descriptor is
  /// close-on-exec.
  virtual int open(const char* path, int flags, mode_t mode, int protection_class) = 0;

  /// Writes the path that the system knows an open descriptor by, NUL-terminated. 0, or -1 with errno set;
  /// ENAMETOOLONG when the path is longer than `path_limit`.
  virtual int locate(int descriptor, char (&path)[path_limit + 1]) = 0;
};

}  // namespace corvane
