#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace corvane::tools {

/// A file that cannot be read, edited or replaced. The text begins with its path.
struct FileFault : std::runtime_error {
  FileFault(const std::string& path, const std::string& why) : std::runtime_error(path + ": " + why) {}
};

/// Opens those of the descriptors 0 to 2 that are closed, so that no socket or file gets their number. Writing to
/// them still fails. Returns false where that was not possible.
bool open_standard_descriptors();

/// The whole of a file: a regular one of up to 4 GiB, or up to 128 MiB from a pipe or a device. Throws FileFault.
std::string read_file(const std::string& path);

/// All of standard input, with the same limits. Throws FileFault.
std::string read_standard_input();

/// Makes or replaces a regular file as a whole: a complete temporary file is renamed over it, so that a reader
/// finds the old content or the new. Both are on stable storage when it returns. A symbolic link to a
/// file stays one; a dangling one is replaced. Throws FileFault, and then the file is as it was.
void replace_file(const std::string& path, std::string_view bytes, mode_t mode);

/// Returns whether all bytes were written; errno has the reason if not.
bool write_all(int descriptor, std::string_view bytes);

}  // namespace corvane::tools
