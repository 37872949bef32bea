#include "platform/process/system_clock.h"

#include <ctime>

namespace corvane {

uint64_t SystemClock::ticks() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace corvane
