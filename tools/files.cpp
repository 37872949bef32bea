#include "tools/files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdlib.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace corvane::tools {

namespace {

// The daemon does not read a property-list file that is longer.
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

[[noreturn]] void fail(const std::string& path, int error) { throw FileFault(path, std::strerror(error)); }

// The file that a rename has to replace: what a link leads to, or the path itself where there is nothing.
std::string target_of(const std::string& path) {
  std::error_code error;
  std::string target = std::filesystem::canonical(path, error);
  if (error == std::errc::no_such_file_or_directory) return path;
  if (error) fail(path, error.value());
  if (!std::filesystem::is_regular_file(target, error)) throw FileFault(path, "not a regular file");
  return target;
}

// Returns 0 or an error number.
int write_whole(int descriptor, std::string_view bytes, mode_t mode) {
  const bool written = write_all(descriptor, bytes) && fchmod(descriptor, mode) == 0 && fsync(descriptor) == 0;
  const int error = written ? 0 : errno;
  close(descriptor);
  return error;
}

// So that the new name outlives a loss of power. Not every file system lets a folder be flushed.
void flush_folder_of(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path();
  const int descriptor = open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return;
  fsync(descriptor);
  close(descriptor);
}

}  // namespace

bool open_standard_descriptors() {
  for (;;) {
    const int descriptor = open("/dev/null", O_RDONLY);
    if (descriptor < 0) return false;
    if (descriptor > STDERR_FILENO) return close(descriptor) == 0;
  }
}

std::string read_standard_input() {
  std::string bytes;
  const int error = read_whole(STDIN_FILENO, bytes);
  if (error != 0) fail("standard input", error);
  return bytes;
}

std::string read_file(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) fail(path, errno);
  std::string bytes;
  const int error = read_whole(descriptor, bytes);
  close(descriptor);
  if (error != 0) fail(path, error);
  return bytes;
}

void replace_file(const std::string& path, std::string_view bytes, mode_t mode) {
  const std::string target = target_of(path);
  std::string temporary = target + ".XXXXXX";
  const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
  if (descriptor < 0) fail(path, errno);
  int error = write_whole(descriptor, bytes, mode);
  if (error == 0 && rename(temporary.c_str(), target.c_str()) != 0) error = errno;
  if (error == 0) return flush_folder_of(target);
  unlink(temporary.c_str());
  fail(path, error);
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
