#pragma once

#include <string>
#include <string_view>

#include "platform/device.h"
#include "platform/device_properties.h"
#include "platform/linux/linux_code_signing.h"
#include "platform/linux/no_telephony.h"
#include "platform/process/small_file.h"

namespace corvane {

/// The bytes before the first NUL or line feed: the first of a device tree's list of strings, or the one line of a
/// DMI attribute.
std::string_view first_string(std::string_view bytes);

/// Answers from a table, the dictionary in <root>/etc/corvaned/properties.plist. Two names that the table lacks
/// are answered from the running system: "ProductVersion" is VERSION_ID of os-release(5) below the root;
/// "ProductType" is the first "compatible" string of the kernel's device tree, or else the DMI product name. Files
/// may change at any time; a missing or bad one has no answers.
class LinuxDeviceProperties final : public DeviceProperties {
 public:
  explicit LinuxDeviceProperties(const std::string& root);

  plist::Ref<plist::Value> copy_answer(const plist::String& name) override;

 private:
  plist::Ref<plist::Value> system_version() const;

  const std::string root_;
  DictionaryFile table_;
};

/// The device tree of the running kernel. The node "HWTree:/baseband" is the folder baseband below
/// /sys/firmware/devicetree/base, and a property is a file of raw bytes in it. Without a device tree there are no
/// nodes.
class LinuxHardwareRegistry final : public HardwareRegistry {
 public:
  bool has_node(std::string_view path) override;
  plist::Ref<plist::Value> copy_property(std::string_view path, std::string_view key) override;
};

/// The device that a Linux system runs on.
class LinuxDevice final : public Device {
 public:
  explicit LinuxDevice(const std::string& root) : properties_(root) {}

  DeviceProperties& properties() override { return properties_; }
  HardwareRegistry& registry() override { return registry_; }
  Telephony& telephony() override { return telephony_; }
  CodeSigning& code_signing() override { return code_signing_; }

 private:
  LinuxDeviceProperties properties_;
  LinuxHardwareRegistry registry_;
  NoTelephony telephony_;
  LinuxCodeSigning code_signing_;
};

}  // namespace corvane
