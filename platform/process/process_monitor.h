#pragma once

#include <cstdint>

#include "platform/status.h"

namespace corvane {

/// Tells what this process takes. Made at start-up, where its uptime begins. Any thread; never throws.
class ProcessMonitor {
 public:
  ProcessMonitor();

  ProcessStatus status() const;

 private:
  // In nanoseconds. The time since the boot includes that while the device slept.
  const int64_t started_since_boot_;
  const int64_t started_;
};

}  // namespace corvane
