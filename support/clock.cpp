#include "support/clock.h"

#include "platform/clock.h"
#include "platform/platform.h"

namespace corvane {

uint64_t monotonic_seconds() {
  Clock& clock = platform().clock();
  static const Clock::Ratio ratio = clock.ratio();
  const double nanoseconds = static_cast<double>(clock.ticks()) * ratio.numerator / ratio.denominator;
  return static_cast<uint64_t>(nanoseconds / 1'000'000'000);
}

}  // namespace corvane
