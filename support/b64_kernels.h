#pragma once

#include <cstddef>
#include <span>

namespace corvane {

/// Translation of clean runs, without line breaks, padding or anything foreign, at one register width. What is
/// read and written is exactly what is stated, never a byte more.
struct B64Kernels {
  const char* name;
  /// Encodes `groups` times 3 octets to 4 characters.
  void (*encode)(const unsigned char* src, size_t groups, char* dest);
  /// Decodes whole groups of 4 characters to 3 octets until one has a character outside the alphabet. Returns
  /// the characters read, a multiple of 4.
  size_t (*decode)(const char* src, size_t length, unsigned char* dest);
};

inline constexpr char b64_chars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// The value of an alphabet character, or this.
inline constexpr unsigned char b64_foreign = 0xFF;
unsigned char b64_value(char character);

/// Those that this processor runs, the fastest first.
std::span<const B64Kernels> b64_kernels();

}  // namespace corvane
