#pragma once

#include <string>

#include "plist/value.h"

namespace corvane::tools {

/// A value as JSON (RFC 8259), indented, keys sorted. What JSON lacks is written as an object with one key:
/// data {"$data": Base64}, date {"$date": "2026-11-21T03:04:05Z"}, set {"$set": [...]}, and reals that are no
/// JSON numbers {"$real": "nan"}, "inf" or "-inf". A date outside the years 0001 to 9999, for which that form
/// has no text, is {"$date": seconds since 2001-01-01T00:00:00Z}.
std::string to_json(const plist::Value& value);

/// The value that such JSON stands for, containers mutable; integers of 64-bit kind. Throws std::invalid_argument
/// with one line where the text is no JSON, or no value (a null, an integer out of range).
plist::Ref<plist::Value> from_json(const std::string& text);

/// Text as a JSON string, quotes included.
std::string json_quoted(std::string_view text);

}  // namespace corvane::tools
