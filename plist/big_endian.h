#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace corvane::plist {

template <size_t size>
uint64_t load_big_endian(const char* bytes) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) value = value << 8 | static_cast<unsigned char>(bytes[i]);
  return value;
}

/// An unsigned integer of 1 to 8 bytes.
inline uint64_t load_big_endian(const char* bytes, size_t size) {
  // The sizes that writers choose get code without a loop.
  switch (size) {
    case 1:
      return load_big_endian<1>(bytes);
    case 2:
      return load_big_endian<2>(bytes);
    case 4:
      return load_big_endian<4>(bytes);
    default: {
      uint64_t value = 0;
      for (size_t i = 0; i < size; ++i) value = value << 8 | static_cast<unsigned char>(bytes[i]);
      return value;
    }
  }
}

/// Appends the low `size` bytes of `value`.
inline void append_big_endian(std::string& out, uint64_t value, size_t size) {
  char bytes[8];
  for (size_t i = size; i-- > 0; value >>= 8) bytes[i] = static_cast<char>(value & 0xFF);
  out.append(bytes, size);
}

}  // namespace corvane::plist
