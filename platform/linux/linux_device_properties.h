#pragma once

#include <string>

#include "platform/device_properties.h"
#include "platform/process/small_file.h"

namespace corvane {

/// Answers from a table, the dictionary in <root>/etc/corvaned/properties.plist. A name that the table lacks is
/// answered from the running system, where the system knows it:
///
/// - "ProductVersion": the version in os-release(5) below the root;
/// - "ProductType": the first "compatible" string of the device tree, or else the product or the board that the
///   firmware names (DMI);
/// - "DeviceClass": the device tree's "chassis-type", or else the chassis type of the firmware in the same words;
/// - "HasBaseband": a Boolean, whether the kernel has a WWAN device.
///
/// Files may change at any time; a missing or bad one has no answers.
class LinuxDeviceProperties final : public DeviceProperties {
 public:
  /// `sys` is where sysfs is mounted.
  LinuxDeviceProperties(const std::string& root, const std::string& sys);

  plist::Ref<plist::Value> copy_answer(const plist::String& name) override;

 private:
  const std::string root_;
  const std::string sys_;
  DictionaryFile table_;
};

}  // namespace corvane
