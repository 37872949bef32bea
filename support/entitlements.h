#pragma once

#include <cstdint>

#include "plist/value.h"

namespace corvane {

/// The entitlements that the system holds for a running process: a new dictionary, or null where it has none,
/// where they are no dictionary, and where they cannot be had, which is logged. Any thread.
plist::Ref<plist::Dictionary> copy_entitlements_for_pid(int32_t pid);

}  // namespace corvane
