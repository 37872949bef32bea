#pragma once

#include "platform/clock.h"

namespace corvane {

/// CLOCK_MONOTONIC, whose ticks are nanoseconds.
class SystemClock final : public Clock {
 public:
  uint64_t ticks() override;
  Ratio ratio() override { return {1, 1}; }
};

}  // namespace corvane
