#include "state/state_directory.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "platform/descriptor.h"
#include "platform/platform.h"

namespace corvane {

namespace {

constexpr char directory_path[] = "/private/var/mobile/Library/cvd";

}  // namespace

StatePath state_directory() {
  StatePath path;
  std::snprintf(path.text, sizeof path.text, "%s%s", platform().root().c_str(), directory_path);
  return path;
}

StatePath state_path(const char* name) {
  StatePath path;
  std::snprintf(path.text, sizeof path.text, "%s%s/%s", platform().root().c_str(), directory_path, name);
  return path;
}

int open_state_directory() {
  const StatePath path = state_directory();
  Descriptor directory(::open(path.text, O_PATH | O_DIRECTORY | O_CLOEXEC));
  char actual_path[path_limit + 1];
  if (!directory.is_open() || platform().files().locate(directory.number(), actual_path) != 0) return -1;
  if (std::strcmp(path.text, actual_path) != 0) {
    errno = ELOOP;
    return -1;
  }
  return directory.detach();
}

}  // namespace corvane
