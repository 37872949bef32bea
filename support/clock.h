#pragma once

#include <cstdint>

namespace corvane {

/// Whole seconds of a clock that no setting of the time of day moves. It stands still while the device is
/// suspended. Any thread.
uint64_t monotonic_seconds();

}  // namespace corvane
