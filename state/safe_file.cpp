// What a path leads to can change at any moment. So the object is opened first, and every check asks about the
// descriptor. Opening may thus meet any object that was planted at the path: it must not follow a link, wait for
// the other end of a FIFO, or acquire a controlling terminal.

#include "state/safe_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>

#include "daemon/log/cv_log.h"
#include "daemon/log/error_text.h"
#include "platform/descriptor.h"
#include "platform/files.h"
#include "platform/platform.h"

namespace corvane {

namespace {

constexpr int protection_class = 4;
constexpr int nonblocking_flags = O_NONBLOCK | O_NOCTTY;

constexpr const char* bundle_directories[] = {
    "/private/var/mobile/Library/Carrier Bundle.bundle/",
    "/System/Library/Carrier Bundles/Slate/",
    "/System/Library/Carrier Bundles/Plover/",
};

// Opening must not wait, but whoever reads a device or a FIFO expects to wait for data.
void restore_blocking(int descriptor, int asked_flags, mode_t type) {
  if (type == S_IFREG || type == S_IFDIR || (asked_flags & O_NONBLOCK) != 0) return;
  fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
}

int error_of_type(mode_t type, mode_t expected_type) {
  if (expected_type == S_IFDIR) return ENOTDIR;
  return type == S_IFDIR ? EISDIR : EINVAL;
}

bool is_below(const char* resolved, const char* directory, size_t compare_limit) {
  const std::string prefix = system_path(directory);
  return std::strncmp(resolved, prefix.c_str(), std::min(prefix.size(), compare_limit)) == 0;
}

// The length of a path without its trailing slashes. The first character is always counted.
size_t length_without_slashes(const char* path) {
  size_t length = std::strlen(path);
  while (length > 1 && path[length - 1] == '/') --length;
  return length;
}

// The position at which the last component of the path's first `length` bytes begins.
size_t start_of_last(const char* path, size_t length) {
  while (length > 0 && path[length - 1] != '/') --length;
  return length;
}

}  // namespace

int _safe_open(const char* path, int flags, mode_t mode, mode_t expected_type) {
  Descriptor file(platform().files().open(path, flags | O_NOFOLLOW | nonblocking_flags, mode, protection_class));
  if (!file.is_open()) {
    cv_log("_safe_open", 1, "open(%s) failed: %s", path, error_text(errno));
    return -1;
  }
  char actual_path[path_limit + 1];
  if (platform().files().locate(file.number(), actual_path) != 0) {
    cv_log("_safe_open", 1, "FDLOCATE(%s) failed: %s", path, error_text(errno));
    return -1;
  }
  if (std::strcmp(path, actual_path) != 0) {
    cv_log("_safe_open", 1, "path %s was actually %s, something fishy is going on", path, actual_path);
    errno = ELOOP;
    return -1;
  }
  struct stat status;
  if (fstat(file.number(), &status) != 0) {
    cv_log("_safe_open", 1, "fstat(%s) failed: %s", path, error_text(errno));
    return -1;
  }
  const mode_t type = status.st_mode & S_IFMT;
  if (type != expected_type) {
    cv_log("_safe_open", 1, "%s type is %d, not %d", path, static_cast<int>(type),
           static_cast<int>(expected_type));
    errno = error_of_type(type, expected_type);
    return -1;
  }
  restore_blocking(file.number(), flags, type);
  return file.detach();
}

int safe_open(const char* path, int flags, mode_t expected_type) {
  if ((flags & O_CREAT) != 0) {
    cv_log("safe_open", 0, "safe_open can't be used to create %s", path);
    errno = EINVAL;
    return -1;
  }
  return _safe_open(path, flags, 0, expected_type);
}

int safe_create(const char* path, int flags, mode_t mode, mode_t expected_type) {
  if ((flags & O_CREAT) == 0) {
    cv_log("safe_create", 1, "safe_create requires O_CREAT %s", path);
    errno = EINVAL;
    return -1;
  }
  return _safe_open(path, flags, mode, expected_type);
}

int safe_bundle(const char* path, char* destination, size_t size) {
  const Descriptor file(::open(path, O_RDONLY | O_CLOEXEC | nonblocking_flags));
  if (!file.is_open()) {
    cv_log("safe_bundle", 0, "safe_bundle(%s) failed: %s", path, error_text(errno));
    return -1;
  }
  char resolved[path_limit + 1];
  if (platform().files().locate(file.number(), resolved) != 0) {
    cv_log("safe_bundle", 0, "FDLOCATE(%s) failed: %s", path, error_text(errno));
    return -1;
  }
  for (const char* directory : bundle_directories) {
    if (!is_below(resolved, directory, size)) continue;
    std::snprintf(destination, size, "%s", resolved);
    break;
  }
  return 0;
}

void log_file_info(const char* path) {
  const ErrnoKeeper keeper;
  struct stat status;
  if (stat(path, &status) != 0) {
    cv_log("log_file_info", 0, "Can't stat %s: %s", path, error_text(errno));
    return;
  }
  cv_log("log_file_info", 0, "stat %s uid=%d gid=%d p=%o", path, static_cast<int>(status.st_uid),
         static_cast<int>(status.st_gid), status.st_mode);
}

void log_path_and_parent(const char* path) {
  log_file_info(path);
  char parent[path_limit + 1];
  parent[std::string_view(path).copy(parent, path_limit)] = '\0';
  log_file_info(path_dirname(parent));
}

char* path_dirname(char* path) {
  if (path == nullptr || *path == '\0') return path;
  size_t length = start_of_last(path, length_without_slashes(path));
  while (length > 0 && path[length - 1] == '/') --length;
  if (length == 0) {
    path[0] = *path == '/' ? '/' : '.';
    length = 1;
  }
  path[length] = '\0';
  return path;
}

char* path_basename(char* path) {
  if (path == nullptr || *path == '\0') return path;
  const size_t end = length_without_slashes(path);
  const size_t start = end == 1 ? 0 : start_of_last(path, end);
  std::memmove(path, path + start, end - start);
  path[end - start] = '\0';
  return path;
}

}  // namespace corvane
