#pragma once

#include <cstddef>
#include <cstdint>

/// Base64 with the alphabet and padding of RFC 4648, section 4, between the caller's buffers. Nothing is
/// allocated or kept, nothing is NUL-terminated; any thread.
///
/// With a null `dest` every operation writes nothing and returns the size that a destination must have: for
/// encoding that is the exact size, for decoding a bound.
///
/// A broken precondition (a required out-pointer that is null, a line length that is no multiple of 4) prints
/// an assertion's diagnostic and aborts, in every build.
namespace corvane {

enum : uint32_t {
  B64_OK = 0,
  B64_SHORT_BUFFER = 1,
  B64_TRUNCATED = 2,  ///< reserved
  B64_BAD_DATA = 3,
};

/// How b64_encode2 breaks lines: the low four bits of its flags.
enum : uint32_t {
  B64_LINES_FROM_PARAM = 0,  ///< `lineLen` characters, 0 for none; 64 where it is negative
  B64_LINES_NONE = 1,
  B64_LINES_64 = 2,
  B64_LINES_76 = 3,
};

/// Where decoding stops. It always skips carriage return and line feed.
enum : uint32_t {
  B64_STOP_ON_UNKNOWN = 0x100,  ///< anything but the alphabet, "=" and what the next flag names
  B64_STOP_ON_SPACE = 0x200,    ///< blank, tab, backspace or vertical tab
};

/// b64_encode_ without line breaks.
size_t b64_encode(const void* src, size_t srcSize, char* dest, size_t destLen);

/// b64_encode_ with the line length that `flags` choose. `rc` may be null.
size_t b64_encode2(const void* src, size_t srcSize, char* dest, size_t destLen, uint32_t flags, int32_t lineLen,
                   uint32_t* rc);

/// Returns the encoded size, with a line feed between lines of `lineLen` characters (0: one line); 0, and
/// B64_SHORT_BUFFER in `rc`, where `destLen` is less.
///
/// A destination larger than the encoded size also takes a line feed after a full last line, just past the
/// returned count. Do not encode empty input with line breaks: its size wraps to the largest there is.
size_t b64_encode_(const void* src, size_t srcSize, char* dest, size_t destLen, size_t lineLen, uint32_t* rc);

/// b64_decode_ that skips everything that is not Base64.
size_t b64_decode(const char* src, size_t srcLen, void* dest, size_t destSize);

/// b64_decode_, where `badChar` and `rc` may be null.
size_t b64_decode2(const char* src, size_t srcLen, void* dest, size_t destSize, uint32_t flags,
                   const char** badChar, uint32_t* rc);

/// Returns the octets written, up to a padded group or the end; characters after the last whole group are
/// dropped. 0, with the reason in `rc`, where `destSize` is less than the bound, or at a character that `flags`
/// reject: `badChar` then points at it, and what was written before it stays.
size_t b64_decode_(const char* src, size_t srcLen, void* dest, size_t destSize, uint32_t flags,
                   const char** badChar, uint32_t* rc);

/// The text of a result code, empty for an unknown one, and its length.
const char* b64_getErrorString(uint32_t code);
size_t b64_getErrorStringLength(uint32_t code);

}  // namespace corvane
