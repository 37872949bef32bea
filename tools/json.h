#pragma once

#include <string>

#include "plist/value.h"

namespace corvane::tools {

/// A value as JSON (RFC 8259), indented, keys sorted. Strings, integers, reals, Booleans, arrays and dictionaries
/// are themselves. What JSON lacks is an object with one key:
///
///   data                         {"$data": "Base64"}
///   date                         {"$date": "2026-11-21T03:04:05Z"}
///   date with a fraction, or outside the years 0001 to 9999
///                                {"$date": seconds since 2001-01-01T00:00:00Z}
///   set                          {"$set": [...]}
///   real that is no JSON number  {"$real": "nan"}, "inf" or "-inf"
///   dictionary whose only key begins with "$"
///                                {"$dict": {...}}
std::string to_json(const plist::Value& value);

/// The value that such JSON stands for, equal to the one it was made from; containers are mutable. A number
/// without fraction and exponent that 64 bits cannot hold is a real. Throws std::invalid_argument with one line
/// where the text is not JSON or stands for no value (null, an unknown "$" key).
plist::Ref<plist::Value> from_json(const std::string& text);

}  // namespace corvane::tools
