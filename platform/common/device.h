#pragma once

#include "platform/device_properties.h"

namespace corvane {

/// The facilities that depend on what the daemon runs on, which the rest of the platform is given.
class Device {
 public:
  virtual ~Device() = default;

  virtual DeviceProperties& properties() = 0;
};

}  // namespace corvane
