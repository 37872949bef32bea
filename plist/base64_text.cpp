#include "plist/base64_text.h"

#include <array>
#include <cstdint>

namespace corvane::plist {

namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

enum : uint8_t { space = 64, pad = 65, stray = 66 };

constexpr std::array<uint8_t, 256> classes = [] {
  std::array<uint8_t, 256> table{};
  for (uint8_t& entry : table) entry = stray;
  for (size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<uint8_t>(alphabet[i])] = static_cast<uint8_t>(i);
  }
  for (const char c : {' ', '\t', '\n', '\r'}) table[static_cast<uint8_t>(c)] = space;
  table['='] = pad;
  return table;
}();

}  // namespace

void append_base64(std::string& out, std::string_view bytes) {
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t have = bytes.size() - i < 3 ? bytes.size() - i : 3;
    uint32_t group = 0;
    for (size_t k = 0; k < 3; ++k) group = group << 8 | (k < have ? static_cast<uint8_t>(bytes[i + k]) : 0u);
    for (size_t k = 0; k < 4; ++k) out += k <= have ? alphabet[group >> (18 - 6 * k) & 63] : '=';
  }
}

bool decode_base64(std::string_view text, std::string& out) {
  out.clear();
  out.reserve(text.size() / 4 * 3);
  uint32_t group = 0;
  unsigned digits = 0;
  unsigned pads = 0;
  for (const char c : text) {
    const uint8_t digit = classes[static_cast<uint8_t>(c)];
    if (digit == space) continue;
    if (digit == stray) return false;
    if (digit == pad) {
      ++pads;
      continue;
    }
    if (pads > 0) return false;
    group = group << 6 | digit;
    if (++digits < 4) continue;
    for (const unsigned shift : {16u, 8u, 0u}) out += static_cast<char>(group >> shift & 0xFF);
    group = 0;
    digits = 0;
  }
  if (digits == 0) return pads == 0;
  if (digits == 1 || digits + pads != 4) return false;
  group <<= 6 * pads;
  for (unsigned i = 0; i + 1 < digits; ++i) out += static_cast<char>(group >> (16 - 8 * i) & 0xFF);
  return true;
}

}  // namespace corvane::plist
