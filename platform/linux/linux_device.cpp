#include "platform/linux/linux_device.h"

#include <algorithm>
#include <string_view>
#include <sys/stat.h>

namespace corvane {

namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed_start(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text;
}

// Between double quotes a backslash is an ordinary character except before these.
bool takes_backslash(char c) { return std::string_view("$\"\\`").find(c) != std::string_view::npos; }

// The value of an assignment as a shell would read it, which is how os-release(5) defines it.
std::string unquoted(std::string_view text) {
  std::string value;
  char quote = '\0';
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool has_next = i + 1 < text.size();
    if (quote == '\0' && blanks.find(c) != std::string_view::npos) break;
    if (c == quote) {
      quote = '\0';
    } else if (quote == '\0' && (c == '"' || c == '\'')) {
      quote = c;
    } else if (c == '\\' && has_next && (quote == '\0' || (quote == '"' && takes_backslash(text[i + 1])))) {
      value += text[++i];
    } else {
      value += c;
    }
  }
  return value;
}

// Of several assignments the last one counts. Comments need no care: no name begins with '#'.
std::string assigned_value(std::string_view file, std::string_view name) {
  std::string value;
  while (!file.empty()) {
    const size_t end = std::min(file.find('\n'), file.size());
    const std::string_view line = trimmed_start(file.substr(0, end));
    if (line.starts_with(name) && line.substr(name.size()).starts_with('=')) {
      value = unquoted(line.substr(name.size() + 1));
    }
    file.remove_prefix(std::min(end + 1, file.size()));
  }
  return value;
}

constexpr char device_tree[] = "/sys/firmware/devicetree/base";

// Null where the file is missing or begins with no string.
plist::Ref<plist::Value> first_string_of(const std::string& path) {
  const SmallFile file = read_small_file(path);
  const std::string_view string = file.bytes ? first_string(file.bytes->bytes()) : "";
  if (string.empty()) return nullptr;
  return plist::String::create(string);
}

plist::Ref<plist::Value> machine_name() {
  if (auto name = first_string_of(std::string(device_tree) + "/compatible")) return name;
  return first_string_of("/sys/class/dmi/id/product_name");
}

// Empty for a path of another plane.
std::string folder_of(std::string_view path) {
  constexpr std::string_view plane = "HWTree:";
  if (!path.starts_with(plane)) return "";
  return device_tree + std::string(path.substr(plane.size()));
}

}  // namespace

std::string_view first_string(std::string_view bytes) {
  return bytes.substr(0, bytes.find_first_of(std::string_view("\0\n", 2)));
}

LinuxDeviceProperties::LinuxDeviceProperties(const std::string& root)
    : root_(root), table_(root + "/etc/corvaned/properties.plist") {}

plist::Ref<plist::Value> LinuxDeviceProperties::copy_answer(const plist::String& name) {
  if (auto value = table_.copy_value(name.view())) return value;
  if (name.view() == "ProductVersion") return system_version();
  if (name.view() == "ProductType") return machine_name();
  return nullptr;
}

plist::Ref<plist::Value> LinuxDeviceProperties::system_version() const {
  SmallFile file = read_small_file(root_ + "/etc/os-release");
  if (!file.bytes) file = read_small_file(root_ + "/usr/lib/os-release");
  if (!file.bytes) return nullptr;
  const std::string version = assigned_value(file.bytes->bytes(), "VERSION_ID");
  if (version.empty()) return nullptr;
  return plist::String::create(version);
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
