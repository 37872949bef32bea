#pragma once

#include <string>

#include "plist/value.h"

namespace corvane::tools {

/// A value for a person to read: containers over several lines, indented, keys sorted; data cut short.
std::string to_text(const plist::Value& value);

}  // namespace corvane::tools
