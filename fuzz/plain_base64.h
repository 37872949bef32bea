#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/b64.h"
#include "support/b64_kernels.h"

/// Base64 a character at a time, as plain as can be: the real one must agree with it.
namespace corvane::testing {

struct PlainDecoded {
  std::string octets;
  size_t bad = std::string::npos;
  bool operator==(const PlainDecoded&) const = default;
};

inline std::string plain_encode(const std::string& octets, size_t line, bool room_left) {
  std::string text;
  size_t column = 0;
  for (size_t i = 0; i < octets.size(); i += 3) {
    uint32_t group = 0;
    for (size_t k = i; k < i + 3; ++k)
      group = group << 8 | (k < octets.size() ? static_cast<uint8_t>(octets[k]) : 0u);
    for (size_t k = 0; k < 4; ++k) text += i + k > octets.size() ? '=' : b64_chars[group >> (18 - 6 * k) & 63];
    const bool last = i + 3 >= octets.size();
    if ((column += 4) != line) continue;
    if (!last || (room_left && i + 3 == octets.size())) text += '\n';
    column = 0;
  }
  return text;
}

inline PlainDecoded plain_decode(const std::string& text, uint32_t flags) {
  PlainDecoded decoded;
  std::vector<unsigned> slots;
  size_t pads = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const char* found = c == '\0' ? nullptr : std::strchr(b64_chars, c);
    if (c == '\r' || c == '\n') continue;
    if (c != '=' && found == nullptr) {
      const bool space = c == ' ' || c == '\t' || c == '\b' || c == '\v';
      if ((flags & (space ? B64_STOP_ON_SPACE : B64_STOP_ON_UNKNOWN)) == 0) continue;
      return {"", i};
    }
    slots.push_back(c == '=' ? 0 : static_cast<unsigned>(found - b64_chars));
    pads = c == '=' ? pads + 1 : 0;
    if (slots.size() < 4) continue;
    const unsigned group = slots[0] << 18 | slots[1] << 12 | slots[2] << 6 | slots[3];
    const size_t count = pads == 1 || pads == 2 ? 3 - pads : 3;
    for (size_t k = 0; k < count; ++k) decoded.octets += static_cast<char>(group >> (16 - 8 * k) & 0xFF);
    if (pads > 0) break;
    slots.clear();
  }
  return decoded;
}

}  // namespace corvane::testing
