#pragma once

#include <string>

#include "plist/value.h"
#include "tools/table.h"

namespace corvane::tools {

/// A dictionary as tables for a person: its own leaves first, then a section for each container in it. What lies
/// deeper in a section is a row with the keys that lead there. Sorted by key; strings are not quoted.
std::string report(const plist::Dictionary& dictionary, const Screen& screen);

}  // namespace corvane::tools
