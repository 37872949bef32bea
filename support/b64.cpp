#include "support/b64.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "support/b64_kernels.h"

// Runs of plain Base64 go through the kernels. Line breaks, padding, foreign characters and the ends of the input
// are handled here, a group or a character at a time.

// Active in every build. The file is named without the folder that it was built in.
#define ASSERT(condition) ((condition) ? void(0) : assertion_failed(#condition, __func__, __LINE__))

namespace corvane {

namespace {

constexpr size_t NUM_PLAIN_DATA_BYTES = 3;
constexpr size_t NUM_ENCODED_DATA_BYTES = 4;

[[noreturn]] void assertion_failed(const char* expression, const char* function, int line) {
  std::fprintf(stderr, "Assertion failed: (%s), function %s, file b64.cpp, line %d.\n", expression, function,
               line);
  std::abort();
}

const B64Kernels& kernels() {
  static const B64Kernels& fastest = b64_kernels().front();
  return fastest;
}

constexpr std::string_view error_text(uint32_t code) {
  switch (code) {
    case B64_OK:
      return "Operation was successful";
    case B64_SHORT_BUFFER:
      return "The given translation buffer was not of sufficient size";
    case B64_TRUNCATED:
      return "The input did not represent a fully formed stream of octet couplings";
    case B64_BAD_DATA:
      return "Invalid data";
    default:
      return "";
  }
}

// Whether decoding with `flags` skips a character that is neither in the alphabet nor padding.
bool may_skip(char character, uint32_t flags) {
  switch (character) {
    case '\r':
    case '\n':
      return true;
    case ' ':
    case '\t':
    case '\b':
    case '\v':
      return (flags & B64_STOP_ON_SPACE) == 0;
    default:
      return (flags & B64_STOP_ON_UNKNOWN) == 0;
  }
}

// Writes the octets of a group, fewer where it is padded, and returns how many.
size_t write_group(const unsigned char (&slots)[NUM_ENCODED_DATA_BYTES], size_t pads, unsigned char* dest) {
  dest[0] = static_cast<unsigned char>(slots[0] << 2 | (slots[1] >> 4 & 3));
  if (pads == 2) return 1;
  dest[1] = static_cast<unsigned char>(slots[1] << 4 | (slots[2] >> 2 & 15));
  if (pads == 1) return 2;
  dest[2] = static_cast<unsigned char>((slots[2] << 6) + slots[3]);
  return 3;
}

}  // namespace

size_t b64_encode(const void* src, size_t srcSize, char* dest, size_t destLen) {
  uint32_t rc = B64_OK;
  return b64_encode_(src, srcSize, dest, destLen, 0, &rc);
}

size_t b64_encode2(const void* src, size_t srcSize, char* dest, size_t destLen, uint32_t flags, int32_t lineLen,
                   uint32_t* rc) {
  size_t length = 64;
  switch (flags & 0xF) {
    case B64_LINES_FROM_PARAM:
      if (lineLen < 0) break;
      ASSERT(0 == (lineLen % 4));
      length = static_cast<size_t>(lineLen);
      break;
    case B64_LINES_NONE:
      length = 0;
      break;
    case B64_LINES_64:
      break;
    case B64_LINES_76:
      length = 76;
      break;
    default:
      assertion_failed("!\"Bad line length flag specified to b64_encode2()\"", __func__, __LINE__);
  }
  uint32_t unused = B64_OK;
  return b64_encode_(src, srcSize, dest, destLen, length, rc == nullptr ? &unused : rc);
}

size_t b64_encode_(const void* src, size_t srcSize, char* dest, size_t destLen, size_t lineLen, uint32_t* rc) {
  ASSERT(NULL != rc);
  *rc = B64_OK;
  size_t total = (srcSize + 2) / NUM_PLAIN_DATA_BYTES * NUM_ENCODED_DATA_BYTES;
  if (lineLen != 0) total += (total + lineLen - 1) / lineLen - 1;
  if (dest == nullptr) return total;
  if (destLen < total) {
    *rc = B64_SHORT_BUFFER;
    return 0;
  }

  const auto* octets = static_cast<const unsigned char*>(src);
  size_t groups = srcSize / NUM_PLAIN_DATA_BYTES;
  size_t written = 0;
  while (groups > 0) {
    const size_t run = lineLen == 0 ? groups : std::min(groups, lineLen / NUM_ENCODED_DATA_BYTES);
    kernels().encode(octets, run, dest + written);
    octets += run * NUM_PLAIN_DATA_BYTES;
    groups -= run;
    const size_t len = run * NUM_ENCODED_DATA_BYTES;
    written += len;
    // The line would end inside the next group.
    if (groups > 0 && lineLen % NUM_ENCODED_DATA_BYTES != 0)
      assertion_failed("len != lineLen", __func__, __LINE__);
    if (written != destLen && len == lineLen) dest[written++] = '\n';
  }

  if (const size_t rest = srcSize % NUM_PLAIN_DATA_BYTES; rest != 0) {
    unsigned char scratch[NUM_PLAIN_DATA_BYTES] = {};
    std::memcpy(scratch, octets, rest);
    b64_encode_(scratch, sizeof scratch, dest + written, 12, 0, rc);
    std::memset(dest + written + rest + 1, '=', NUM_PLAIN_DATA_BYTES - rest);
  }
  return total;
}

size_t b64_decode(const char* src, size_t srcLen, void* dest, size_t destSize) {
  return b64_decode2(src, srcLen, dest, destSize, 0, nullptr, nullptr);
}

size_t b64_decode2(const char* src, size_t srcLen, void* dest, size_t destSize, uint32_t flags,
                   const char** badChar, uint32_t* rc) {
  const char* unused_character = nullptr;
  uint32_t unused_code = B64_OK;
  return b64_decode_(src, srcLen, dest, destSize, flags, badChar == nullptr ? &unused_character : badChar,
                     rc == nullptr ? &unused_code : rc);
}

size_t b64_decode_(const char* src, size_t srcLen, void* dest, size_t destSize, uint32_t flags,
                   const char** badChar, uint32_t* rc) {
  ASSERT(NULL != badChar);
  ASSERT(NULL != rc);
  *badChar = nullptr;
  *rc = B64_OK;
  const size_t bound =
      (srcLen / NUM_ENCODED_DATA_BYTES + (srcLen % NUM_ENCODED_DATA_BYTES != 0 ? 1 : 0)) * NUM_PLAIN_DATA_BYTES;
  if (dest == nullptr) return bound;
  if (destSize < bound) {
    *rc = B64_SHORT_BUFFER;
    return 0;
  }

  auto* octets = static_cast<unsigned char*>(dest);
  size_t written = 0;
  unsigned char slots[NUM_ENCODED_DATA_BYTES];
  size_t currIndex = 0;
  size_t pads = 0;
  for (size_t at = 0; at < srcLen; ++at) {
    if (currIndex == 0) {
      const B64Run run = kernels().decode(src, srcLen, octets, {at, written});
      at = run.read;
      written = run.written;
      if (at == srcLen) break;
    }
    const unsigned char value = b64_value(src[at]);
    const bool pad = src[at] == '=';
    if (!pad && value == b64_foreign) {
      if (may_skip(src[at], flags)) continue;
      *badChar = src + at;
      *rc = B64_BAD_DATA;
      return 0;
    }
    ASSERT(currIndex < NUM_ENCODED_DATA_BYTES);
    slots[currIndex++] = pad ? 0 : value;
    pads = pad ? pads + 1 : 0;
    if (currIndex < NUM_ENCODED_DATA_BYTES) continue;
    written += write_group(slots, pads, octets + written);
    if (pads != 0) break;
    currIndex = 0;
  }
  return written;
}

const char* b64_getErrorString(uint32_t code) { return error_text(code).data(); }

size_t b64_getErrorStringLength(uint32_t code) { return error_text(code).size(); }

}  // namespace corvane
