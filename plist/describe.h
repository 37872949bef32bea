#pragma once

#include <string>

#include "plist/value.h"

namespace corvane::plist {

/// The text of a value for a log line: a string is itself, everything else one line in the manner of
/// {"Key": [1, 2.5, true], "Image": <4096 bytes: 89504e47...>, "At": 2026-11-21T03:04:05Z}. Keys are
/// sorted, strings inside containers are quoted and escaped (`append_quoted`). Nests deeper than `max_depth` are
/// cut short. Null gives "(null)".
std::string describe(const Value* value);

/// The Gregorian UTC form of a date, years 0001 to 9999, "2026-11-21T03:04:05Z" (ISO 8601): whole seconds,
/// rounded towards minus infinity. Empty outside these years.
std::string date_text(const Date& date);

}  // namespace corvane::plist
