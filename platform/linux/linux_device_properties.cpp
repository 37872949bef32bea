#include "platform/linux/linux_device_properties.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "platform/linux/linux_hardware_registry.h"
#include "platform/linux/os_release.h"

// Phones and tablets describe themselves in the device tree, PCs in the firmware's DMI table. What has no answer
// gives an empty string.

namespace corvane {

namespace {

// What firmware says where nobody has filled in a name, in lower case.
constexpr std::string_view placeholders[] = {
    "all series",
    "default string",
    "invalid",
    "n/a",
    "none",
    "not applicable",
    "not available",
    "not defined",
    "not specified",
    "null",
    "o.e.m.",
    "oem",
    "product name",
    "system name",
    "system product name",
    "system version",
    "to be filled by o.e.m.",
    "type1productconfigid",
    "undefined",
    "unknown",
};

struct Chassis {
  std::string_view type;          // as DMI numbers it
  std::string_view device_class;  // as a device tree would call it
};

// The types of SMBIOS (DSP0134, section 7.4.1). Those that do not tell what the device is are left out.
constexpr Chassis chassis_types[] = {
    {"3", "desktop"},       // desktop
    {"4", "desktop"},       // low profile desktop
    {"5", "desktop"},       // pizza box
    {"6", "desktop"},       // mini tower
    {"7", "desktop"},       // tower
    {"8", "laptop"},        // portable
    {"9", "laptop"},        // laptop
    {"10", "laptop"},       // notebook
    {"11", "handset"},      // hand held
    {"13", "desktop"},      // all in one
    {"14", "laptop"},       // sub notebook
    {"15", "desktop"},      // space-saving
    {"16", "desktop"},      // lunch box
    {"17", "server"},       // main server chassis
    {"23", "server"},       // rack mount chassis
    {"24", "desktop"},      // sealed-case PC
    {"28", "server"},       // blade
    {"29", "server"},       // blade enclosure
    {"30", "tablet"},       // tablet
    {"31", "convertible"},  // convertible
    {"32", "convertible"},  // detachable
    {"33", "embedded"},     // IoT gateway
    {"34", "embedded"},     // embedded PC
    {"35", "desktop"},      // mini PC
    {"36", "embedded"},     // stick PC
};

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool is_placeholder(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(), lower);
  const bool is_only_filler = name.find_first_not_of("0x.- ") == std::string::npos;
  return is_only_filler ||
         std::find(std::begin(placeholders), std::end(placeholders), name) != std::end(placeholders);
}

// The first of a device tree's list of strings, or the one line of a DMI attribute, without the blanks around it.
std::string first_string(std::string_view bytes) {
  constexpr std::string_view blanks = " \t\r";
  const std::string_view string = bytes.substr(0, bytes.find_first_of(std::string_view("\0\n", 2)));
  const size_t start = string.find_first_not_of(blanks);
  if (start == std::string_view::npos) return "";
  return std::string(string.substr(start, string.find_last_not_of(blanks) + 1 - start));
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
  for (const char* const name : {"product_name", "board_name"}) {
    if (std::string product = dmi_string(sys, name); !is_placeholder(product)) return product;
  }
  return "";
}

std::string device_class(const std::string& sys) {
  if (std::string word = tree_string(sys, "chassis-type"); !word.empty()) return word;
  const std::string type = dmi_string(sys, "chassis_type");
  for (const Chassis& chassis : chassis_types) {
    if (chassis.type == type) return std::string(chassis.device_class);
  }
  return "";
}

bool is_wwan_interface(const std::string& folder) {
  const SmallFile file = read_small_file(folder + "/uevent");
  return file.bytes && ("\n" + std::string(file.bytes->bytes())).find("\nDEVTYPE=wwan\n") != std::string::npos;
}

// Drivers register either a WWAN device with its control ports, or a network interface alone.
bool has_wwan_device(const std::string& sys) {
  using std::filesystem::directory_iterator;
  const directory_iterator end;
  std::error_code error;  // a folder that cannot be read counts as empty
  if (directory_iterator(sys + "/class/wwan", error) != end) return true;
  for (directory_iterator interface(sys + "/class/net", error); interface != end; interface.increment(error)) {
    if (is_wwan_interface(interface->path())) return true;
  }
  return false;
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
  if (name.view() == "DeviceClass") return text_or_null(device_class(sys_));
  if (name.view() == "HasBaseband") return plist::Boolean::of(has_wwan_device(sys_));
  return nullptr;
}

}  // namespace corvane
