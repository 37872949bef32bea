#pragma once

#include "state/data_ark.h"

namespace corvane {

/// Prepares the state directory /private/var/mobile/Library/cvd, mode 0700, loads the data ark, subscribes it
/// to the telephony notifications and stores it once, so that what start-up changed is on disk before any client
/// is served. Every failure is logged, and start-up goes on. The ark is null only where memory is out. Main
/// thread, once.
DataArk lockstart_local();

}  // namespace corvane
