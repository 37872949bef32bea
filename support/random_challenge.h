#pragma once

#include <cstddef>

#include "plist/value.h"

namespace corvane {

/// A new data value of exactly `size` bytes from the system's random device. Null where memory is out. Null, and
/// logged, where a single read of the device gives fewer bytes. Any thread.
plist::Ref<plist::Data> create_random_challenge(size_t size);

}  // namespace corvane
