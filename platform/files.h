#pragma once

#include <cstddef>
#include <string_view>
#include <sys/types.h>

namespace corvane {

/// The bytes that a path buffer holds, its terminator not counted.
inline constexpr size_t path_limit = 1024;

/// The longest of the daemon's own paths, and the longest root under which it still fits a path buffer.
inline constexpr std::string_view longest_path_below_root =
    "/private/var/mobile/Library/cvd/regulatory_images/regulatory_images.plist";
inline constexpr size_t root_limit = path_limit - longest_path_below_root.size();

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
