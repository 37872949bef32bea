#pragma once

#include "platform/code_signing.h"
#include "platform/device_properties.h"
#include "platform/hardware_registry.h"
#include "platform/status.h"
#include "platform/telephony.h"

namespace corvane {

/// The facilities that depend on the device. Each kind of device implements them, and the platform is given one.
class Device {
 public:
  virtual ~Device() = default;

  virtual DeviceProperties& properties() = 0;
  virtual HardwareRegistry& registry() = 0;
  virtual Telephony& telephony() = 0;
  virtual CodeSigning& code_signing() = 0;

  /// Any thread.
  virtual DeviceStatus status() = 0;
};

}  // namespace corvane
