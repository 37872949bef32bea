#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace corvane::plist {

template <size_t size>
uint64_t load_big_endian(const char* bytes) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) value = value << 8 | static_cast<unsigned char>(bytes[i]);
  return value;
}

template <>
inline uint64_t load_big_endian<8>(const char* bytes) {
  uint64_t value;
  std::memcpy(&value, bytes, sizeof value);
  return std::endian::native == std::endian::little ? __builtin_bswap64(value) : value;
}

/// An unsigned integer of 1 to 8 bytes. Precondition: 8 bytes can be read.
inline uint64_t load_big_endian(const char* bytes, size_t size) {
  return load_big_endian<8>(bytes) >> (64 - 8 * size);
}

/// Writes the low `size` bytes of `value`, 1 to 8.
inline void store_big_endian(char* to, uint64_t value, size_t size) {
  value <<= 64 - 8 * size;
  if (std::endian::native == std::endian::little) value = __builtin_bswap64(value);
  switch (size) {  // a copy of known size takes one instruction
    case 1:
      return void(std::memcpy(to, &value, 1));
    case 2:
      return void(std::memcpy(to, &value, 2));
    case 4:
      return void(std::memcpy(to, &value, 4));
    case 8:
      return void(std::memcpy(to, &value, 8));
    default:
      std::memcpy(to, &value, size);
  }
}

/// Appends the low `size` bytes of `value`.
inline void append_big_endian(std::string& out, uint64_t value, size_t size) {
  char bytes[8];
  store_big_endian(bytes, value, size);
  out.append(bytes, size);
}

}  // namespace corvane::plist
