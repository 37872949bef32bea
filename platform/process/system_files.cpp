#include "platform/process/system_files.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>

namespace corvane {

int SystemFiles::open(const char* path, int flags, mode_t mode, int) {
  return ::open(path, flags | O_CLOEXEC, mode);
}

int SystemFiles::locate(int descriptor, char (&path)[path_limit + 1]) {
  char link[32] = "/proc/self/fd/";
  std::to_chars(link + std::strlen(link), std::end(link) - 1, descriptor);
  const ssize_t length = readlink(link, path, sizeof(path));
  if (length < 0) return -1;
  if (static_cast<size_t>(length) == sizeof(path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  path[length] = '\0';
  return 0;
}

}  // namespace corvane
