#pragma once

#include <cstddef>
#include <span>

namespace corvane {

/// How far decoding is: characters read and octets written.
struct B64Run {
  size_t read = 0;
  size_t written = 0;
};

/// Translation of plain runs, without padding or foreign characters, at one register width. Never reads or writes
/// a byte more than is stated.
struct B64Kernels {
  const char* name;
  /// Encodes `groups` times 3 octets to 4 characters.
  void (*encode)(const unsigned char* src, size_t groups, char* dest);
  /// Decodes whole groups of 4 characters to 3 octets, from where `run` is to the first group with a character
  /// outside the alphabet. At a line feed between groups it may go on or stop.
  B64Run (*decode)(const char* src, size_t length, unsigned char* dest, B64Run run);
};

inline constexpr char b64_chars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// What `b64_value` returns for a character outside the alphabet.
inline constexpr unsigned char b64_foreign = 0xFF;
unsigned char b64_value(char character);

/// The kernels that this processor can run, the fastest first.
std::span<const B64Kernels> b64_kernels();

}  // namespace corvane
