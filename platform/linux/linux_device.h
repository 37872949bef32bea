#pragma once

#include <string>

#include "platform/device.h"
#include "platform/linux/linux_code_signing.h"
#include "platform/linux/linux_device_properties.h"
#include "platform/linux/linux_hardware_registry.h"
#include "platform/linux/no_telephony.h"

namespace corvane {

/// The device that a Linux system runs on.
class LinuxDevice final : public Device {
 public:
  explicit LinuxDevice(const std::string& root) : properties_(root, sys), registry_(sys) {}

  DeviceProperties& properties() override { return properties_; }
  HardwareRegistry& registry() override { return registry_; }
  Telephony& telephony() override { return telephony_; }
  CodeSigning& code_signing() override { return code_signing_; }

 private:
  static constexpr char sys[] = "/sys";

  LinuxDeviceProperties properties_;
  LinuxHardwareRegistry registry_;
  NoTelephony telephony_;
  LinuxCodeSigning code_signing_;
};

}  // namespace corvane
