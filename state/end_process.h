#pragma once

namespace corvane {

/// Logs `reason` under the function's name and ends the process with exit status -1, without running destructors.
[[noreturn]] void end_process(const char* function, const char* reason);

}  // namespace corvane
