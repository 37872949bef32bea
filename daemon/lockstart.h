#pragma once

namespace corvane {

/// Prepares the state directory /private/var/mobile/Library/cvd, mode 0700. Every failure is logged, and
/// start-up goes on. Main thread, once, before any client is served.
void lockstart_local();

}  // namespace corvane
