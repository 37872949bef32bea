#pragma once

#include <string>

#include "plist/value.h"

namespace corvane::tools {

/// A value for a person to read: containers over several lines, indented, keys sorted; data cut short; strings
/// quoted, with nothing in them that a terminal acts on.
std::string to_text(const plist::Value& value);

/// The same in one line.
std::string to_line(const plist::Value& value);

}  // namespace corvane::tools
