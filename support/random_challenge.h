#pragma once

#include <cstddef>

#include "plist/value.h"

namespace corvane {

/// A new data value of exactly `size` bytes from the system's random device. Null where memory is out, and
/// where the device, which is read once, gives fewer, which is logged. Any thread.
plist::Ref<plist::Data> create_random_challenge(size_t size);

}  // namespace corvane
