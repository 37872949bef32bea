#pragma once

#include <cstddef>
#include <span>

namespace corvane {

/// How far decoding is: characters read and octets written.
struct B64Run {
  size_t read = 0;
  size_t written = 0;
};

/// Translation of clean runs, without padding or anything foreign, at one register width. What is read and
/// written is exactly what is stated, never a byte more.
struct B64Kernels {
  const char* name;
  /// Encodes `groups` times 3 octets to 4 characters.
  void (*encode)(const unsigned char* src, size_t groups, char* dest);
  /// Decodes whole groups of 4 characters to 3 octets, from where `run` is until one has a character outside
  /// the alphabet. A line feed between groups is passed over, or ends it.
  B64Run (*decode)(const char* src, size_t length, unsigned char* dest, B64Run run);
};

inline constexpr char b64_chars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// The value of an alphabet character, or this.
inline constexpr unsigned char b64_foreign = 0xFF;
unsigned char b64_value(char character);

/// Those that this processor runs, the fastest first.
std::span<const B64Kernels> b64_kernels();

}  // namespace corvane
