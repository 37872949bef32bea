// Base64 beside OpenSSL's, a plain loop and memcpy, each with the same octets. The figures are decoded octets a
// nanosecond. Usage: b64_bench [ROUNDS [MILLISECONDS]]

#include <openssl/evp.h>

#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "support/b64.h"

namespace corvane::bench {

namespace {

using Octets = std::vector<unsigned char>;

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Base64 as one writes it without thinking of speed.
size_t plain_encode(const unsigned char* src, size_t size, char* dest) {
  const char* const start = dest;
  for (; size >= 3; size -= 3, src += 3) {
    *dest++ = alphabet[src[0] >> 2];
    *dest++ = alphabet[(src[0] & 3) << 4 | src[1] >> 4];
    *dest++ = alphabet[(src[1] & 15) << 2 | src[2] >> 6];
    *dest++ = alphabet[src[2] & 63];
  }
  if (size > 0) {
    const unsigned second = size == 2 ? src[1] : 0u;
    *dest++ = alphabet[src[0] >> 2];
    *dest++ = alphabet[(src[0] & 3u) << 4 | second >> 4];
    *dest++ = size == 2 ? alphabet[(second & 15) << 2] : '=';
    *dest++ = '=';
  }
  return static_cast<size_t>(dest - start);
}

size_t plain_decode(const char* src, size_t size, unsigned char* dest) {
  static const std::array<signed char, 256> values = [] {
    std::array<signed char, 256> table{};
    table.fill(-1);
    for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(alphabet[i])] = static_cast<signed char>(i);
    return table;
  }();
  const unsigned char* const start = dest;
  unsigned bits = 0;
  int count = 0;
  for (size_t i = 0; i < size && src[i] != '='; ++i) {
    const int value = values[static_cast<unsigned char>(src[i])];
    if (value < 0) continue;
    bits = bits << 6 | static_cast<unsigned>(value);
    if (++count % 4 == 0) {
      *dest++ = static_cast<unsigned char>(bits >> 16);
      *dest++ = static_cast<unsigned char>(bits >> 8);
      *dest++ = static_cast<unsigned char>(bits);
    }
  }
  if (count % 4 == 3) {
    *dest++ = static_cast<unsigned char>(bits >> 10);
    *dest++ = static_cast<unsigned char>(bits >> 2);
  } else if (count % 4 == 2) {
    *dest++ = static_cast<unsigned char>(bits >> 4);
  }
  return static_cast<size_t>(dest - start);
}

unsigned char* octets(char* text) { return reinterpret_cast<unsigned char*>(text); }
const unsigned char* octets(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

class Bench {
 public:
  Bench(std::string size_name, size_t size, milliseconds slice)
      : name_(std::move(size_name)), slice_(slice), plain_(size) {
    std::mt19937 random(1);
    for (unsigned char& octet : plain_) octet = static_cast<unsigned char>(random());
    text_.resize(b64_encode(plain_.data(), size, nullptr, 0));
    b64_encode(plain_.data(), size, text_.data(), text_.size());
    uint32_t rc = B64_OK;
    lines_.resize(b64_encode_(plain_.data(), size, nullptr, 0, 64, &rc));
    b64_encode_(plain_.data(), size, lines_.data(), lines_.size(), 64, &rc);
    lines_ += '\n';
    // EVP_EncodeBlock and EVP_DecodeBlock write a NUL and up to two octets more.
    text_out_.resize(text_.size() + 1);
    octets_out_.resize(lines_.size() + 64);
  }

  void round() {
    const size_t size = plain_.size();
    wrote_ = 0;
    measure("encode", "b64_encode",
            [&] { wrote_ = b64_encode(plain_.data(), size, text_out_.data(), text_.size()); });
    check_text();
    measure("encode", "EVP_EncodeBlock", [&] {
      wrote_ =
          static_cast<size_t>(EVP_EncodeBlock(octets(text_out_.data()), plain_.data(), static_cast<int>(size)));
    });
    check_text();
    measure("encode", "plain loop", [&] { wrote_ = plain_encode(plain_.data(), size, text_out_.data()); });
    check_text();
    measure("encode", "memcpy", [&] { std::memcpy(text_out_.data(), plain_.data(), size); });

    measure("decode", "b64_decode",
            [&] { wrote_ = b64_decode(text_.data(), text_.size(), octets_out_.data(), octets_out_.size()); });
    check_octets();
    measure("decode", "EVP_DecodeBlock", [&] {
      EVP_DecodeBlock(octets_out_.data(), octets(text_), static_cast<int>(text_.size()));
      wrote_ = size;  // it counts the padding as well
    });
    check_octets();
    measure("decode", "plain loop",
            [&] { wrote_ = plain_decode(text_.data(), text_.size(), octets_out_.data()); });
    check_octets();
    measure("decode", "memcpy", [&] { std::memcpy(octets_out_.data(), plain_.data(), size); });

    measure("decode of 64 columns", "b64_decode",
            [&] { wrote_ = b64_decode(lines_.data(), lines_.size(), octets_out_.data(), octets_out_.size()); });
    check_octets();
    EVP_ENCODE_CTX* context = EVP_ENCODE_CTX_new();
    measure("decode of 64 columns", "EVP_DecodeUpdate", [&] {
      int first = 0;
      int last = 0;
      EVP_DecodeInit(context);
      EVP_DecodeUpdate(context, octets_out_.data(), &first, octets(lines_), static_cast<int>(lines_.size()));
      EVP_DecodeFinal(context, octets_out_.data() + first, &last);
      wrote_ = static_cast<size_t>(first + last);
    });
    EVP_ENCODE_CTX_free(context);
    check_octets();
    measure("decode of 64 columns", "plain loop",
            [&] { wrote_ = plain_decode(lines_.data(), lines_.size(), octets_out_.data()); });
    check_octets();
  }

 private:
  template <class Operation>
  void measure(const char* row, const char* what, Operation operation) {
    const double nanoseconds = time_of_each(slice_, [&] {
      operation();
      keep(text_out_);
      keep(octets_out_);
    });
    figure(std::string(row) + ", " + name_, what, "octets/ns", static_cast<double>(plain_.size()) / nanoseconds);
  }
  /// Checks that the work was done, and wipes the result for the next one.
  void check_text() {
    must(wrote_ == text_.size() && text_out_.compare(0, wrote_, text_) == 0, "the encoded text");
    std::fill(text_out_.begin(), text_out_.end(), '\0');
  }
  void check_octets() {
    must(wrote_ == plain_.size() && std::equal(plain_.begin(), plain_.end(), octets_out_.begin()),
         "the decoded octets");
    std::fill(octets_out_.begin(), octets_out_.end(), static_cast<unsigned char>(0));
  }

  const std::string name_;
  const milliseconds slice_;
  Octets plain_;
  std::string text_;
  std::string lines_;
  std::string text_out_;
  Octets octets_out_;
  size_t wrote_ = 0;
};

}  // namespace

}  // namespace corvane::bench

int main(int argc, char** argv) {
  using namespace corvane::bench;
  const milliseconds slice(count_argument(argc, argv, 2, 30));
  std::vector<Bench> sizes;
  sizes.emplace_back("48 B", 48, slice);
  sizes.emplace_back("1 KiB", 1 << 10, slice);
  sizes.emplace_back("64 KiB", 64 << 10, slice);
  sizes.emplace_back("1 MiB", 1 << 20, slice);
  sizes.emplace_back("16 MiB", 16 << 20, slice);
  for (size_t round = count_argument(argc, argv, 1, 7); round > 0; --round) {
    for (Bench& bench : sizes) bench.round();
  }
}
