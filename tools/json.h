#pragma once

#include <string>

#include "plist/value.h"

namespace corvane::tools {

/// A value as JSON (RFC 8259), indented, keys sorted; docs/json.md has the mapping. Two values have the same JSON
/// only where they are equal, but for the order of a set's members.
std::string to_json(const plist::Value& value);

/// The same in one line, without spaces.
std::string to_json_line(const plist::Value& value);

/// The value that such JSON stands for, equal to the one it was made from; containers are mutable. A number
/// without fraction and exponent that 64 bits cannot hold is a real. Throws std::invalid_argument with one line
/// where the text is not JSON or stands for no value (null, an unknown "$" key).
plist::Ref<plist::Value> from_json(const std::string& text);

}  // namespace corvane::tools
