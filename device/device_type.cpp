#include "device/device_type.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "daemon/log/cv_log.h"
#include "platform/device_properties.h"
#include "platform/hardware_registry.h"
#include "platform/platform.h"
#include "platform/preferences.h"
#include "state/values.h"

namespace corvane {

namespace {

constexpr char log_name[] = "__get_device_type_internal_block_invoke";

// The test product that a forced machine and an FPGA board stand for.
constexpr std::string_view test_board = "q52";
constexpr std::string_view test_product = "Pocket7,2";
constexpr std::string_view test_class = "Pocket";

constexpr std::string_view fpga_marker = "zFPGA";
constexpr std::string_view slate_family = "Slate";

plist::Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }

// tolower(3) depends on the locale; names of machines are ASCII.
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool same_letter(char a, char b) { return lower(a) == lower(b); }

bool equal_in_any_case(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), same_letter);
}

bool contains_in_any_case(std::string_view whole, std::string_view part) {
  return std::search(whole.begin(), whole.end(), part.begin(), part.end(), same_letter) != whole.end();
}

bool names_test_product(plist::Value* value) {
  const plist::String* const name = as_string(value);
  return name != nullptr &&
         (equal_in_any_case(name->view(), test_board) || equal_in_any_case(name->view(), test_product));
}

// Any value forces the machine type, a misspelt one too: whoever set it does not want the real one.
bool is_forced_by_preference() {
  const auto value = platform().preferences().copy_value("com.norvane.corvaned", "MachineHack");
  if (!value) return false;
  if (!names_test_product(value.get())) {
    cv_log(log_name, 0, "MachineHack value of '%@' is not supported; assuming %@", value, text(test_board));
  }
  return true;
}

void find_product_type(DeviceType& type) {
  const auto answer = VexaCopyAnswer(text("ProductType").get(), nullptr);
  type.product_type = as_string(answer.get());
  if (!type.product_type || !contains_in_any_case(type.product_type->view(), fpga_marker)) return;
  cv_log(log_name, 0, "This is an FPGA, faking out product type as %@", text(test_board));
  type.overridden = true;
  type.is_fpga = true;
}

void find_radio(DeviceType& type) {
  type.has_telephony = device_bool_answer(*text("HasBaseband"));
  type.baseband_class = getDeviceTreeInt("HWTree:/baseband", *text("class"));
}

void become_test_product(DeviceType& type) {
  type.product_type = text(test_product);
  type.device_class = text(test_class);
  cv_log(log_name, 0, "Overriding machine type with %@ (%@)", text(test_board), type.product_type);
}

const DeviceType& device_type() {
  // Not destroyed at exit, where other threads may still be asking.
  static const DeviceType& record = *new DeviceType(get_device_type_internal());
  return record;
}

}  // namespace

DeviceType get_device_type_internal() {
  DeviceType type;
  type.overridden = is_forced_by_preference();
  if (!type.overridden) find_product_type(type);
  if (type.overridden) {
    become_test_product(type);
  } else {
    find_radio(type);
  }
  cv_log(log_name, 0, "product_type: %@\n", type.product_type);
  return type;
}

plist::String* device_product_type() { return device_type().product_type.get(); }

plist::String* device_class_override() { return device_type().device_class.get(); }

bool device_type_overridden() { return device_type().overridden; }

bool device_is_fpga() { return device_type().is_fpga; }

bool device_has_telephony() { return device_type().has_telephony; }

bool device_is_slate_family() {
  const plist::String* const product_type = device_product_type();
  return product_type != nullptr && product_type->view().starts_with(slate_family);
}

int32_t device_baseband_class() { return device_type().baseband_class; }

bool baseband_class_above_one() { return device_type().baseband_class > 1; }

bool baseband_class_above_two() { return device_type().baseband_class > 2; }

bool device_bool_answer(const plist::String& name) {
  const auto answer = VexaCopyAnswer(&name, nullptr);
  const plist::Boolean* const boolean = as_boolean(answer.get());
  return boolean != nullptr && boolean->value();
}

int32_t getDeviceTreeInt(const char* path, const plist::String& key) {
  HardwareRegistry& registry = platform().hardware_registry();
  const auto property = registry.has_node(path) ? registry.copy_property(path, key.view()) : nullptr;
  if (!property) {
    cv_log("getDeviceTreeInt", 0, "no %@ property of %s", &key, path);
    return -1;
  }
  const plist::Data* const data = as_data(property.get());
  int32_t value;
  if (data == nullptr || data->bytes().size() != sizeof value) {
    cv_log("getDeviceTreeInt", 0, "value for %@ property of %s is invalid (%@)", &key, path, property);
    return -1;
  }
  std::memcpy(&value, data->bytes().data(), sizeof value);
  return value;
}

}  // namespace corvane
