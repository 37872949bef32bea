#pragma once

#include <cstdint>

namespace corvane {

/// Whole seconds of a monotonic clock, which stands still while the device is suspended. Any thread.
/// Precondition: a platform is installed (install_platform in platform/platform.h), and stays the same one.
uint64_t monotonic_seconds();

}  // namespace corvane
