#include "platform/linux/linux_hardware_registry.h"

#include <sys/stat.h>

#include "platform/process/small_file.h"

namespace corvane {

// Empty for a path of another plane.
std::string LinuxHardwareRegistry::folder_of(std::string_view path) const {
  constexpr std::string_view plane = "HWTree:";
  if (!path.starts_with(plane)) return "";
  return tree_ + std::string(path.substr(plane.size()));
}

bool LinuxHardwareRegistry::has_node(std::string_view path) {
  struct stat status {};
  const std::string folder = folder_of(path);
  return !folder.empty() && stat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

plist::Ref<plist::Value> LinuxHardwareRegistry::copy_property(std::string_view path, std::string_view key) {
  const std::string folder = folder_of(path);
  if (folder.empty()) return nullptr;
  return read_small_file(folder + "/" + std::string(key)).bytes;
}

}  // namespace corvane
