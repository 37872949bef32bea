#pragma once

#include <string>

#include "plist/value.h"
#include "tools/table.h"

namespace corvane::tools {

/// The daemon's status as tables for a person. Entries that this version does not know are shown as well.
std::string status_report(const plist::Dictionary& status, const Screen& screen);

}  // namespace corvane::tools
