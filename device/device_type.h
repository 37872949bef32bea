#pragma once

#include <cstdint>

#include "plist/value.h"

/// What the daemon runs on: product type, telephony and baseband class.
namespace corvane {

struct DeviceType {
  plist::Ref<plist::String> product_type;  ///< null where the device answers none, or one that is no string
  plist::Ref<plist::String> device_class;  ///< null unless overridden
  bool overridden = false;                 ///< the fixed test product stands in for this machine
  bool is_fpga = false;
  bool has_telephony = false;
  int32_t baseband_class = -1;  ///< -1 where the device tree holds no valid one, and when overridden
};

/// Works the record out anew and logs what it finds. The daemon goes through the accessors below.
/// Throws std::bad_alloc where memory is out.
DeviceType get_device_type_internal();

// One field each of the process's record, which the first call works out, from whichever thread, while others
// wait for it. It never changes afterwards and is never freed: strings are borrowed for good. A call that
// still has to work it out throws std::bad_alloc where memory is out.

plist::String* device_product_type();
plist::String* device_class_override();
bool device_type_overridden();
bool device_is_fpga();
bool device_has_telephony();
/// Whether the product type begins with "Slate", in exactly these letters.
bool device_is_slate_family();
bool baseband_class_above_one();
bool baseband_class_above_two();

/// True only where the device-property service answers `name` with a Boolean, and that is true. Any thread.
bool device_bool_answer(const plist::String& name);

/// A property of 4 bytes of a device-tree node, read in the machine's byte order. -1, and a logged line, where
/// there is no such node or property or it is anything else. Any thread.
int32_t getDeviceTreeInt(const char* path, const plist::String& key);

}  // namespace corvane
