#include "plist/unicode.h"

#include <cstdint>
#include <cstring>

namespace corvane::plist::unicode {

namespace {

uint8_t byte_at(std::string_view bytes, size_t index) { return static_cast<uint8_t>(bytes[index]); }

// What a first byte asks for. The range of the second byte excludes overlong forms, surrogates and code points
// above U+10FFFF.
struct Lead {
  size_t length;  // 0: no sequence begins with that byte
  uint8_t second_min = 0x80;
  uint8_t second_max = 0xBF;
};

Lead lead_of(uint8_t first) {
  if (first < 0x80) return {1};
  if (first < 0xC2) return {0};
  if (first < 0xE0) return {2};
  if (first == 0xE0) return {3, 0xA0, 0xBF};
  if (first == 0xED) return {3, 0x80, 0x9F};
  if (first < 0xF0) return {3};
  if (first == 0xF0) return {4, 0x90, 0xBF};
  if (first < 0xF4) return {4};
  if (first == 0xF4) return {4, 0x80, 0x8F};
  return {0};
}

uint64_t word_at(const char* bytes) {
  uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

struct Scan {
  size_t length;  // of the sequence, or of the maximal ill-formed part: at least 1
  bool complete;
};

// Precondition: bytes are not empty.
Scan scan(std::string_view bytes, char32_t& code_point) {
  const uint8_t first = byte_at(bytes, 0);
  const Lead lead = lead_of(first);
  if (lead.length == 0) return {1, false};
  char32_t bits = lead.length == 1 ? first : first & (0x7Fu >> lead.length);
  for (size_t i = 1; i < lead.length; ++i) {
    if (i == bytes.size()) return {i, false};
    const uint8_t next = byte_at(bytes, i);
    const uint8_t min = i == 1 ? lead.second_min : uint8_t{0x80};
    const uint8_t max = i == 1 ? lead.second_max : uint8_t{0xBF};
    if (next < min || next > max) return {i, false};
    bits = bits << 6 | (next & 0x3Fu);
  }
  code_point = bits;
  return {lead.length, true};
}

uint32_t unit_at(std::string_view bytes, size_t index) {
  return static_cast<uint32_t>(byte_at(bytes, index) << 8 | byte_at(bytes, index + 1));
}

bool is_surrogate(uint32_t unit) { return (unit & 0xF800) == 0xD800; }
bool is_high_surrogate(uint32_t unit) { return (unit & 0xFC00) == 0xD800; }
bool is_low_surrogate(uint32_t unit) { return (unit & 0xFC00) == 0xDC00; }

char* write_unit(char* out, uint32_t unit) {
  out[0] = static_cast<char>(unit >> 8);
  out[1] = static_cast<char>(unit & 0xFF);
  return out + 2;
}

char* write_utf8(char* out, uint32_t code_point) {
  const auto tail = [&](unsigned shift) { return static_cast<char>(0x80 | (code_point >> shift & 0x3F)); };
  if (code_point < 0x80) {
    *out++ = static_cast<char>(code_point);
  } else if (code_point < 0x800) {
    *out++ = static_cast<char>(0xC0 | code_point >> 6);
    *out++ = tail(0);
  } else if (code_point < 0x10000) {
    *out++ = static_cast<char>(0xE0 | code_point >> 12);
    *out++ = tail(6);
    *out++ = tail(0);
  } else {
    *out++ = static_cast<char>(0xF0 | code_point >> 18);
    *out++ = tail(12);
    *out++ = tail(6);
    *out++ = tail(0);
  }
  return out;
}

}  // namespace

bool is_ascii(std::string_view bytes) {
  constexpr uint64_t high_bits = 0x8080808080808080u;
  uint64_t seen = 0;
  if (bytes.size() < sizeof seen) {
    for (const char byte : bytes) seen |= static_cast<uint8_t>(byte);
    return (seen & high_bits) == 0;
  }
  const char* const last = bytes.data() + bytes.size() - sizeof seen;
  for (const char* at = bytes.data(); at < last; at += sizeof seen) seen |= word_at(at);
  return ((seen | word_at(last)) & high_bits) == 0;  // the last word may overlap the one before
}

bool is_utf8(std::string_view bytes) {
  char32_t ignored;
  while (!bytes.empty()) {
    const Scan found = scan(bytes, ignored);
    if (!found.complete) return false;
    bytes.remove_prefix(found.length);
  }
  return true;
}

size_t decode_utf8(std::string_view bytes, char32_t& code_point) {
  if (bytes.empty()) return 0;
  const Scan found = scan(bytes, code_point);
  return found.complete ? found.length : 0;
}

std::string repaired_utf8(std::string_view bytes) {
  std::string repaired;
  char32_t ignored;
  while (!bytes.empty()) {
    const Scan found = scan(bytes, ignored);
    repaired.append(found.complete ? bytes.substr(0, found.length) : "\xEF\xBF\xBD");
    bytes.remove_prefix(found.length);
  }
  return repaired;
}

size_t utf16_units_of_utf8(std::string_view utf8) {
  size_t units = 0;
  for (size_t i = 0; i < utf8.size(); ++i) {
    const uint8_t byte = byte_at(utf8, i);
    units += (byte & 0xC0) != 0x80;
    units += byte >= 0xF0;
  }
  return units;
}

char* utf8_to_utf16be(std::string_view utf8, char* out) {
  char32_t code_point = 0;
  while (!utf8.empty()) {
    utf8.remove_prefix(scan(utf8, code_point).length);
    if (code_point < 0x10000) {
      out = write_unit(out, code_point);
    } else {
      out = write_unit(out, 0xD800 + ((code_point - 0x10000) >> 10));
      out = write_unit(out, 0xDC00 + (code_point & 0x3FF));
    }
  }
  return out;
}

std::optional<size_t> utf8_size_of_utf16be(std::string_view bytes) {
  size_t size = 0;
  for (size_t i = 0; i < bytes.size(); i += 2) {
    const uint32_t unit = unit_at(bytes, i);
    if (!is_surrogate(unit)) {
      size += unit < 0x80 ? 1 : unit < 0x800 ? 2 : 3;
      continue;
    }
    i += 2;
    if (!is_high_surrogate(unit) || i == bytes.size() || !is_low_surrogate(unit_at(bytes, i))) {
      return std::nullopt;
    }
    size += 4;
  }
  return size;
}

void utf16be_to_utf8(std::string_view bytes, char* out) {
  for (size_t i = 0; i < bytes.size(); i += 2) {
    uint32_t code_point = unit_at(bytes, i);
    if (is_surrogate(code_point)) {
      i += 2;
      code_point = 0x10000 + ((code_point & 0x3FF) << 10) + (unit_at(bytes, i) & 0x3FF);
    }
    out = write_utf8(out, code_point);
  }
}

}  // namespace corvane::plist::unicode
