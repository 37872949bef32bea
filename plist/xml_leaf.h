#pragma once

#include <optional>
#include <string_view>

#include "plist/value.h"

/// Parsers for the text of leaf elements. White space around it is ignored. The result is nothing where the text
/// has another form or its value is out of range.
namespace corvane::plist {

std::string_view trimmed(std::string_view text);

/// Decimal, or hexadecimal behind 0x; -2^63 to 2^64-1.
Ref<Number> parse_integer(std::string_view text);
/// Decimal, or nan, inf, infinity in any case.
Ref<Number> parse_real(std::string_view text);
/// "2026-11-21T03:04:05Z", years 0001 to 9999; a decimal fraction may follow the seconds. The result is in
/// seconds since 2001.
std::optional<double> parse_date(std::string_view text);

}  // namespace corvane::plist
