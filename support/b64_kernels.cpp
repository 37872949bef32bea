#include "support/b64_kernels.h"

#include <array>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

// The x86 translations follow W. Mula and D. Lemire, "Faster Base64 Encoding and Decoding Using AVX2
// Instructions" (2018): encoding spreads 3 octets over 4 lanes with two multiplications and finds each
// character's offset from the alphabet's range that it lies in; decoding classifies characters by their two
// nibbles. NEON does to 16 groups at once what the portable loop does to one: its loads put the first octets of
// all groups into one register, the second octets into another, and so on, and its look-ups take tables of 64
// bytes. What one width leaves over goes to the next narrower one.

namespace corvane {

namespace {

constexpr std::array<unsigned char, 256> make_values() {
  std::array<unsigned char, 256> values{};
  values.fill(b64_foreign);
  for (unsigned char value = 0; value < 64; ++value) {
    values[static_cast<unsigned char>(b64_chars[value])] = value;
  }
  return values;
}

constexpr std::array<unsigned char, 256> values = make_values();

void encode_portable(const unsigned char* src, size_t groups, char* dest) {
  for (; groups > 0; --groups, src += 3, dest += 4) {
    dest[0] = b64_chars[src[0] >> 2];
    dest[1] = b64_chars[(src[0] & 3) << 4 | src[1] >> 4];
    dest[2] = b64_chars[(src[1] & 15) << 2 | src[2] >> 6];
    dest[3] = b64_chars[src[2] & 63];
  }
}

B64Run decode_portable(const char* src, size_t length, unsigned char* dest, B64Run run) {
  for (; length - run.read >= 4; run.read += 4, run.written += 3) {
    const uint32_t s0 = b64_value(src[run.read]);
    const uint32_t s1 = b64_value(src[run.read + 1]);
    const uint32_t s2 = b64_value(src[run.read + 2]);
    const uint32_t s3 = b64_value(src[run.read + 3]);
    if ((s0 | s1 | s2 | s3) > 63) break;
    const uint32_t octets = s0 << 18 | s1 << 12 | s2 << 6 | s3;
    dest[run.written] = static_cast<unsigned char>(octets >> 16);
    dest[run.written + 1] = static_cast<unsigned char>(octets >> 8);
    dest[run.written + 2] = static_cast<unsigned char>(octets);
  }
  return run;
}

#if defined(__x86_64__)

#define CORVANE_SSE4 __attribute__((target("sse4.1")))
#define CORVANE_AVX2 __attribute__((target("avx2")))

template <class T>
T load(const void* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

CORVANE_SSE4 __m128i load_16(const void* from) { return _mm_loadu_si128(static_cast<const __m128i*>(from)); }

// Per 32-bit lane of the octets s1 s0 s2 s1, the four indices into the alphabet.
CORVANE_SSE4 __m128i spread_sse4(__m128i octets) {
  const __m128i high =
      _mm_mulhi_epu16(_mm_and_si128(octets, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
  const __m128i low =
      _mm_mullo_epi16(_mm_and_si128(octets, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
  return _mm_or_si128(high, low);
}

CORVANE_AVX2 __m256i spread_avx2(__m256i octets) {
  const __m256i high =
      _mm256_mulhi_epu16(_mm256_and_si256(octets, _mm256_set1_epi32(0x0FC0FC00)), _mm256_set1_epi32(0x04000040));
  const __m256i low =
      _mm256_mullo_epi16(_mm256_and_si256(octets, _mm256_set1_epi32(0x003F03F0)), _mm256_set1_epi32(0x01000010));
  return _mm256_or_si256(high, low);
}

// What to add to an index, by range: 0 for a to z, 1 to 10 for the digits, 11 for +, 12 for /, 13 for A to Z.
CORVANE_SSE4 __m128i offsets() {
  return _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                       '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
}

CORVANE_SSE4 __m128i to_characters_sse4(__m128i indices) {
  const __m128i upper = _mm_and_si128(_mm_cmpgt_epi8(_mm_set1_epi8(26), indices), _mm_set1_epi8(13));
  const __m128i range = _mm_or_si128(_mm_subs_epu8(indices, _mm_set1_epi8(51)), upper);
  return _mm_add_epi8(_mm_shuffle_epi8(offsets(), range), indices);
}

CORVANE_AVX2 __m256i to_characters_avx2(__m256i indices) {
  const __m256i upper = _mm256_and_si256(_mm256_cmpgt_epi8(_mm256_set1_epi8(26), indices), _mm256_set1_epi8(13));
  const __m256i range = _mm256_or_si256(_mm256_subs_epu8(indices, _mm256_set1_epi8(51)), upper);
  return _mm256_add_epi8(_mm256_shuffle_epi8(_mm256_broadcastsi128_si256(offsets()), range), indices);
}

CORVANE_SSE4 void encode_sse4(const unsigned char* src, size_t groups, char* dest) {
  const __m128i order = _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
  for (; groups >= 4; groups -= 4, src += 12, dest += 16) {
    const __m128i octets = _mm_set_epi64x(load<uint32_t>(src + 8), load<int64_t>(src));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dest),
                     to_characters_sse4(spread_sse4(_mm_shuffle_epi8(octets, order))));
  }
  encode_portable(src, groups, dest);
}

// Zeroes the upper register halves before it calls the narrower kernel, which would be much slower otherwise. The
// compiler does not add that here.
CORVANE_AVX2 void encode_avx2(const unsigned char* src, size_t groups, char* dest) {
  // The upper lane is loaded from 4 octets before its first, so that no octet past the last is read.
  const __m256i order = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10,  //
                                         5, 4, 6, 5, 8, 7, 9, 8, 11, 10, 12, 11, 14, 13, 15, 14);
  for (; groups >= 8; groups -= 8, src += 24, dest += 32) {
    const __m256i octets = _mm256_set_m128i(load_16(src + 8), load_16(src));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dest),
                        to_characters_avx2(spread_avx2(_mm256_shuffle_epi8(octets, order))));
  }
  _mm256_zeroupper();
  encode_sse4(src, groups, dest);
}

// A character is in the alphabet when the classes of its two nibbles have no bit in common.
CORVANE_SSE4 __m128i low_classes() {
  return _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B,
                       0x1A);
}

CORVANE_SSE4 __m128i high_classes() {
  return _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10,
                       0x10);
}

// From a character to its value, by its upper nibble; "/" has the place before "+".
CORVANE_SSE4 __m128i rolls() { return _mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0); }

CORVANE_SSE4 B64Run decode_sse4(const char* src, size_t length, unsigned char* dest, B64Run run) {
  const __m128i slash = _mm_set1_epi8('/');
  const __m128i pack = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  while (length - run.read >= 16) {
    if (src[run.read] == '\n') {
      ++run.read;
      continue;
    }
    const __m128i text = load_16(src + run.read);
    const __m128i high = _mm_and_si128(_mm_srli_epi32(text, 4), slash);
    const __m128i low = _mm_and_si128(text, slash);
    if (!_mm_testz_si128(_mm_shuffle_epi8(low_classes(), low), _mm_shuffle_epi8(high_classes(), high))) break;
    const __m128i roll = _mm_shuffle_epi8(rolls(), _mm_add_epi8(_mm_cmpeq_epi8(text, slash), high));
    const __m128i pairs = _mm_maddubs_epi16(_mm_add_epi8(text, roll), _mm_set1_epi32(0x01400140));
    const __m128i octets = _mm_shuffle_epi8(_mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000)), pack);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dest + run.written), octets);
    const int last = _mm_extract_epi32(octets, 2);
    std::memcpy(dest + run.written + 8, &last, sizeof last);
    run.read += 16;
    run.written += 12;
  }
  return decode_portable(src, length, dest, run);
}

CORVANE_AVX2 B64Run decode_avx2(const char* src, size_t length, unsigned char* dest, B64Run run) {
  const __m256i slash = _mm256_set1_epi8('/');
  const __m256i pack =
      _mm256_broadcastsi128_si256(_mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
  const __m256i low_class = _mm256_broadcastsi128_si256(low_classes());
  const __m256i high_class = _mm256_broadcastsi128_si256(high_classes());
  const __m256i roll_of = _mm256_broadcastsi128_si256(rolls());
  const __m256i join = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
  while (length - run.read >= 32) {
    if (src[run.read] == '\n') {
      ++run.read;
      continue;
    }
    const __m256i text = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + run.read));
    const __m256i high = _mm256_and_si256(_mm256_srli_epi32(text, 4), slash);
    const __m256i low = _mm256_and_si256(text, slash);
    if (!_mm256_testz_si256(_mm256_shuffle_epi8(low_class, low), _mm256_shuffle_epi8(high_class, high))) break;
    const __m256i roll = _mm256_shuffle_epi8(roll_of, _mm256_add_epi8(_mm256_cmpeq_epi8(text, slash), high));
    const __m256i pairs = _mm256_maddubs_epi16(_mm256_add_epi8(text, roll), _mm256_set1_epi32(0x01400140));
    const __m256i lanes = _mm256_shuffle_epi8(_mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000)), pack);
    const __m256i octets = _mm256_permutevar8x32_epi32(lanes, join);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dest + run.written), _mm256_castsi256_si128(octets));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dest + run.written + 16), _mm256_extracti128_si256(octets, 1));
    run.read += 32;
    run.written += 24;
  }
  _mm256_zeroupper();
  return decode_sse4(src, length, dest, run);
}

#elif defined(__aarch64__)

void encode_neon(const unsigned char* src, size_t groups, char* dest) {
  const uint8x16x4_t alphabet = vld1q_u8_x4(reinterpret_cast<const unsigned char*>(b64_chars));
  const uint8x16_t low_six_bits = vdupq_n_u8(63);
  for (; groups >= 16; groups -= 16, src += 48, dest += 64) {
    const auto [s0, s1, s2] = vld3q_u8(src).val;
    const uint8x16_t second = vandq_u8(vsliq_n_u8(vshrq_n_u8(s1, 4), s0, 4), low_six_bits);
    const uint8x16_t third = vandq_u8(vsliq_n_u8(vshrq_n_u8(s2, 6), s1, 2), low_six_bits);
    const uint8x16x4_t characters = {vqtbl4q_u8(alphabet, vshrq_n_u8(s0, 2)), vqtbl4q_u8(alphabet, second),
                                     vqtbl4q_u8(alphabet, third),
                                     vqtbl4q_u8(alphabet, vandq_u8(s2, low_six_bits))};
    vst4q_u8(reinterpret_cast<unsigned char*>(dest), characters);
  }
  encode_portable(src, groups, dest);
}

// Each character's value. An index outside the table leaves what the look-up before it found.
uint8x16_t values_neon(uint8x16x4_t below_64, uint8x16x4_t from_64, uint8x16_t characters) {
  const uint8x16_t value = vqtbx4q_u8(vdupq_n_u8(b64_foreign), below_64, characters);
  return vqtbx4q_u8(value, from_64, vsubq_u8(characters, vdupq_n_u8(64)));
}

B64Run decode_neon(const char* src, size_t length, unsigned char* dest, B64Run run) {
  const uint8x16x4_t below_64 = vld1q_u8_x4(values.data());
  const uint8x16x4_t from_64 = vld1q_u8_x4(values.data() + 64);
  while (length - run.read >= 64) {
    if (src[run.read] == '\n') {
      ++run.read;
      continue;
    }
    const uint8x16x4_t text = vld4q_u8(reinterpret_cast<const unsigned char*>(src + run.read));
    const uint8x16_t s0 = values_neon(below_64, from_64, text.val[0]);
    const uint8x16_t s1 = values_neon(below_64, from_64, text.val[1]);
    const uint8x16_t s2 = values_neon(below_64, from_64, text.val[2]);
    const uint8x16_t s3 = values_neon(below_64, from_64, text.val[3]);
    if (vmaxvq_u8(vorrq_u8(vorrq_u8(s0, s1), vorrq_u8(s2, s3))) > 63) break;
    const uint8x16x3_t octets = {vsliq_n_u8(vshrq_n_u8(s1, 4), s0, 2), vsliq_n_u8(vshrq_n_u8(s2, 2), s1, 4),
                                 vsliq_n_u8(s3, s2, 6)};
    vst3q_u8(dest + run.written, octets);
    run.read += 64;
    run.written += 48;
  }
  return decode_portable(src, length, dest, run);
}

#endif

constexpr B64Kernels widest_first[] = {
#if defined(__x86_64__)
    {"AVX2", encode_avx2, decode_avx2},
    {"SSE4.1", encode_sse4, decode_sse4},
#elif defined(__aarch64__)
    {"NEON", encode_neon, decode_neon},
#endif
    {"portable", encode_portable, decode_portable},
};

size_t first_supported() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2")) return 0;
  if (__builtin_cpu_supports("sse4.1")) return 1;
  return 2;
#else
  return 0;
#endif
}

}  // namespace

unsigned char b64_value(char character) { return values[static_cast<unsigned char>(character)]; }

std::span<const B64Kernels> b64_kernels() { return std::span(widest_first).subspan(first_supported()); }

}  // namespace corvane
