#include "tools/files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace corvane::tools {

std::string read_file(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) throw FileFault(path, std::strerror(errno));
  std::string bytes;
  char piece[64 * 1024];
  ssize_t count;
  while ((count = read(descriptor, piece, sizeof piece)) != 0) {
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) break;
    bytes.append(piece, static_cast<size_t>(count));
  }
  const int error = errno;
  close(descriptor);
  if (count < 0) throw FileFault(path, std::strerror(error));
  return bytes;
}

bool write_all(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

}  // namespace corvane::tools
