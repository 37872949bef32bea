#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// Conversions between UTF-8 and UTF-16 in big-endian byte order (RFC 3629, RFC 2781). Surrogates that stand
/// alone, overlong forms and code points above U+10FFFF are ill-formed.
namespace corvane::plist::unicode {

bool is_ascii(std::string_view bytes);
bool is_utf8(std::string_view bytes);

/// The length in bytes of the well-formed UTF-8 sequence that `bytes` begins with, or 0. The code point goes
/// to `code_point`.
size_t decode_utf8(std::string_view bytes, char32_t& code_point);

/// Each maximal ill-formed part replaced by U+FFFD.
std::string repaired_utf8(std::string_view bytes);

/// The number of UTF-16 code units of well-formed UTF-8.
size_t utf16_units_of_utf8(std::string_view utf8);
/// Writes well-formed UTF-8 as that many units, and returns where they end.
char* utf8_to_utf16be(std::string_view utf8, char* out);

/// The size in UTF-8, or nothing where a surrogate stands alone. Precondition: an even number of bytes.
std::optional<size_t> utf8_size_of_utf16be(std::string_view bytes);
/// Writes exactly `utf8_size_of_utf16be(bytes)` bytes. Precondition: that had a value.
void utf16be_to_utf8(std::string_view bytes, char* out);

}  // namespace corvane::plist::unicode
