#pragma once

#include <string>

namespace corvane::bus {

/// One line on standard error, which the service manager puts into the journal.
void report(const std::string& line);

/// Ends the process with status 1 and one line where `result` is a negative errno: for what fails only when the
/// system has no resources left, or the bus has stopped reading.
void require(int result, const char* what);

}  // namespace corvane::bus
