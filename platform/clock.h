#pragma once

#include <cstdint>

namespace corvane {

/// The system's monotonic tick counter, which no setting of the time of day moves. Any thread.
class Clock {
 public:
  /// From ticks to nanoseconds.
  struct Ratio {
    uint32_t numerator;
    uint32_t denominator;
  };

  virtual ~Clock() = default;

  virtual uint64_t ticks() = 0;
  /// The same for the life of the process.
  virtual Ratio ratio() = 0;
};

}  // namespace corvane
