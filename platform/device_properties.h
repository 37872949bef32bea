#pragma once

#include "plist/value.h"

namespace corvane {

/// The device-property service: answers questions about the device by name. Any thread.
class DeviceProperties {
 public:
  virtual ~DeviceProperties() = default;

  /// An owned value, or null when the property is unknown or has no value on this device.
  virtual plist::Ref<plist::Value> copy_answer(const plist::String& name) = 0;
};

/// Asks the installed platform's service. There are no options: `options` is always null. A null name has
/// no answer.
plist::Ref<plist::Value> VexaCopyAnswer(const plist::String* name, const plist::Dictionary* options);

}  // namespace corvane
