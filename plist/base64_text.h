#pragma once

#include <string>
#include <string_view>

namespace corvane::plist {

/// Base64 with the standard alphabet and padding (RFC 4648, section 4).
void append_base64(std::string& out, std::string_view bytes);

/// Replaces `out` by what `text` stands for. White space may be anywhere; false on any other stray character
/// and where padding is missing or wrong.
bool decode_base64(std::string_view text, std::string& out);

}  // namespace corvane::plist
