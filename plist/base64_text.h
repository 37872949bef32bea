#pragma once

#include <string>
#include <string_view>

namespace corvane::plist {

/// Base64 with the standard alphabet and padding (RFC 4648, section 4).
void append_base64(std::string& out, std::string_view bytes);

/// Decodes `text` into `out`, in place of what that held. White space is skipped wherever it is. False where
/// another character is not of the alphabet, and where padding is missing or wrong; `out` then has no meaning.
bool decode_base64(std::string_view text, std::string& out);

}  // namespace corvane::plist
