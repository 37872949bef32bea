#pragma once

#include <string>

#include "platform/device.h"
#include "platform/linux/linux_code_signing.h"
#include "platform/linux/linux_device_properties.h"
#include "platform/linux/linux_hardware_registry.h"
#include "platform/linux/linux_telephony.h"

namespace corvane {

/// The device that a Linux system runs on. Making one throws std::system_error where the system refuses an event
/// loop.
class LinuxDevice final : public Device {
 public:
  explicit LinuxDevice(const std::string& root) : properties_(root, sys), registry_(sys) {}

  DeviceProperties& properties() override { return properties_; }
  HardwareRegistry& registry() override { return registry_; }
  Telephony& telephony() override { return telephony_; }
  CodeSigning& code_signing() override { return code_signing_; }
  DeviceStatus status() override { return {"linux", telephony_.is_connected(), telephony_.has_bus()}; }

 private:
  static constexpr char sys[] = "/sys";

  LinuxDeviceProperties properties_;
  LinuxHardwareRegistry registry_;
  LinuxTelephony telephony_{properties_};
  LinuxCodeSigning code_signing_;
};

}  // namespace corvane
