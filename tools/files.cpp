#include "tools/files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane::tools {

namespace {

// The daemon reads no longer property-list files.
constexpr size_t regular_file_limit = size_t{1} << 32;
// A pipe or a device does not say how long it is, and may have no end.
constexpr size_t stream_limit = 128 << 20;

// Returns 0 or an error number.
int read_whole(int descriptor, std::string& bytes) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return errno;
  const size_t limit = S_ISREG(status.st_mode) ? regular_file_limit : stream_limit;
  const auto expected = static_cast<size_t>(status.st_size);
  if (expected > limit) return EFBIG;
  bytes.reserve(expected);
  char piece[64 * 1024];
  ssize_t count;
  while ((count = read(descriptor, piece, sizeof piece)) != 0) {
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    bytes.append(piece, static_cast<size_t>(count));
    if (bytes.size() > limit) return EFBIG;
  }
  return 0;
}

}  // namespace

bool open_standard_descriptors() {
  for (;;) {
    const int descriptor = open("/dev/null", O_RDONLY);
    if (descriptor < 0) return false;
    if (descriptor > STDERR_FILENO) return close(descriptor) == 0;
  }
}

std::string read_file(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) throw FileFault(path, std::strerror(errno));
  std::string bytes;
  const int error = read_whole(descriptor, bytes);
  close(descriptor);
  if (error != 0) throw FileFault(path, std::strerror(error));
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
