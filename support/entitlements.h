#pragma once

#include <cstdint>

#include "plist/value.h"

namespace corvane {

/// The entitlements that the system holds for a running process, a new dictionary. Null where the process has
/// none, where they are not a dictionary, and where memory runs out. Null, and logged, where they cannot be read.
/// Any thread.
plist::Ref<plist::Dictionary> copy_entitlements_for_pid(int32_t pid);

}  // namespace corvane
