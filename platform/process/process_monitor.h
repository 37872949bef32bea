#pragma once

#include <ctime>

#include "platform/status.h"

namespace corvane {

/// Tells what this process takes. Made at start-up, where its uptime begins. Any thread; never throws.
class ProcessMonitor {
 public:
  ProcessMonitor();

  ProcessStatus status() const;

 private:
  const time_t started_;  ///< in seconds since the boot, while the device slept included
};

}  // namespace corvane
