#include "platform/linux/linux_device_properties.h"

#include <string_view>

#include "platform/linux/linux_hardware_registry.h"
#include "platform/linux/os_release.h"

namespace corvane {

namespace {

// The first of a device tree's list of strings, or the one line of a DMI attribute.
std::string first_string(std::string_view bytes) {
  return std::string(bytes.substr(0, bytes.find_first_of(std::string_view("\0\n", 2))));
}

std::string tree_string(const std::string& sys, std::string_view key) {
  const auto property = LinuxHardwareRegistry(sys).copy_property("HWTree:/", key);
  const auto* const data = plist::cast<plist::Data>(property.get());
  return data == nullptr ? "" : first_string(data->bytes());
}

std::string dmi_string(const std::string& sys, const std::string& name) {
  const SmallFile file = read_small_file(sys + "/class/dmi/id/" + name);
  return file.bytes ? first_string(file.bytes->bytes()) : "";
}

std::string product_type(const std::string& sys) {
  if (std::string machine = tree_string(sys, "compatible"); !machine.empty()) return machine;
  return dmi_string(sys, "product_name");
}

plist::Ref<plist::Value> text_or_null(const std::string& text) {
  if (text.empty()) return nullptr;
  return plist::String::create(text);
}

}  // namespace

LinuxDeviceProperties::LinuxDeviceProperties(const std::string& root, const std::string& sys)
    : root_(root), sys_(sys), table_(root + "/etc/corvaned/properties.plist") {}

plist::Ref<plist::Value> LinuxDeviceProperties::copy_answer(const plist::String& name) {
  if (auto value = table_.copy_value(name.view())) return value;
  if (name.view() == "ProductVersion") return text_or_null(system_version(root_));
  if (name.view() == "ProductType") return text_or_null(product_type(sys_));
  return nullptr;
}

}  // namespace corvane
