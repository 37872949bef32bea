#pragma once

#include "state/data_ark.h"

namespace corvane {

/// Creates the state directory /private/var/mobile/Library/cvd and forces its mode to 0700; loads the data ark;
/// subscribes to the telephony notifications with it; and stores it once, so that what start-up changed is on disk
/// before any client is served. Every failure is logged, and start-up goes on. Null only where memory is out, and
/// then nothing after the load is done. Main thread, once.
DataArk lockstart_local();

}  // namespace corvane
