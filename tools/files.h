#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace corvane::tools {

/// A file that cannot be read, edited or replaced: one line that begins with its path.
struct FileFault : std::runtime_error {
  FileFault(const std::string& path, const std::string& why) : std::runtime_error(path + ": " + why) {}
};

/// The whole of a file. Throws FileFault.
std::string read_file(const std::string& path);

/// Answers whether all of it was written; errno says why not.
bool write_all(int descriptor, std::string_view bytes);

}  // namespace corvane::tools
