#pragma once

#include "platform/files.h"

namespace corvane {

/// Files on a Linux file system. There is no protection class, and a descriptor's path is what
/// /proc/self/fd says.
class SystemFiles final : public Files {
 public:
  int open(const char* path, int flags, mode_t mode, int protection_class) override;
  int locate(int descriptor, char (&path)[path_limit + 1]) override;
};

}  // namespace corvane
