#pragma once

#include <string>

#include "platform/device_properties.h"
#include "platform/process/small_file.h"

namespace corvane {

/// Answers from a table, the dictionary in <root>/etc/corvaned/properties.plist. Two names that the table lacks
/// are answered from the running system: "ProductVersion" is VERSION_ID of os-release(5) below the root;
/// "ProductType" is the first "compatible" string of the kernel's device tree, or else the DMI product name. Files
/// may change at any time; a missing or bad one has no answers.
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
