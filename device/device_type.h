#pragma once

#include <cstdint>

#include "plist/value.h"

/// What the daemon runs on: product type, telephony and baseband class.
namespace corvane {

struct DeviceType {
  plist::Ref<plist::String> product_type;  ///< null where the device gives none, or one that is not a string
  plist::Ref<plist::String> device_class;  ///< null unless overridden
  bool overridden = false;                 ///< the fixed test product stands in for this machine
  bool is_fpga = false;
  bool has_telephony = false;
  int32_t baseband_class = -1;  ///< -1 where the device tree has no valid one, or when overridden
};

/// Computes the record and logs what it finds. The daemon calls the accessors below instead.
/// Throws std::bad_alloc where memory is out.
DeviceType get_device_type_internal();

// Each accessor reads one field of the process's record. The first call, on any thread, computes the record while
// others wait; it throws std::bad_alloc where memory is out, and the next call tries again. Once computed, the
// record never changes and is never freed, so the borrowed strings stay valid.

plist::String* device_product_type();
plist::String* device_class_override();
bool device_type_overridden();
bool device_is_fpga();
bool device_has_telephony();
/// Whether the product type begins with "Slate", in exactly these letters.
bool device_is_slate_family();
/// -1 where there is none.
int32_t device_baseband_class();
bool baseband_class_above_one();
bool baseband_class_above_two();

/// True only where the device-property service answers `name` with a Boolean, and that is true. Any thread.
bool device_bool_answer(const plist::String& name);

/// Reads a 4-byte property of a device-tree node in the machine's byte order. Returns -1 and logs a line where the
/// node or the property is missing, or the property is anything else. Any thread.
int32_t getDeviceTreeInt(const char* path, const plist::String& key);

}  // namespace corvane
