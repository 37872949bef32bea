// Base64 at every width against the plain one, between buffers of exactly the sizes asked for.

#include "support/b64.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/mman.h>

#include "fuzz/ensure.h"
#include "fuzz/plain_base64.h"

namespace corvane::fuzz {

using testing::plain_decode;
using testing::plain_encode;
using testing::PlainDecoded;

namespace {

/// Of exactly this size on the heap.
struct Buffer {
  explicit Buffer(size_t bytes) : start(new char[bytes]), size(bytes) { std::memset(start.get(), 0, bytes); }
  explicit Buffer(const std::string& bytes) : Buffer(bytes.size()) { bytes.copy(start.get(), size); }
  std::string text(size_t count) const { return {start.get(), count}; }
  const std::unique_ptr<char[]> start;
  const size_t size;
};

/// Memory before a page that cannot be accessed: sanitizers do not check NEON's loads and stores.
class FencedMemory {
 public:
  FencedMemory() { ENSURE(mprotect(bytes_ + size, largest_page, PROT_NONE) == 0); }
  /// A copy, of at most 1 MiB, that ends at that page.
  unsigned char* copy(const std::string& text) {
    return static_cast<unsigned char*>(std::memcpy(bytes_ + size - text.size(), text.data(), text.size()));
  }

 private:
  static constexpr size_t largest_page = 1 << 16, size = 16 * largest_page;
  unsigned char* const bytes_ = static_cast<unsigned char*>(
      mmap(nullptr, size + largest_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
};

std::string encode(const std::string& octets, size_t line, size_t spare) {
  const Buffer input(octets);
  uint32_t rc = 7;
  const size_t size = b64_encode_(input.start.get(), input.size, nullptr, 0, line, &rc);
  const Buffer text(size + spare);
  ENSURE(b64_encode_(input.start.get(), input.size, text.start.get(), text.size, line, &rc) == size);
  ENSURE(rc == B64_OK);
  const Buffer narrow(size - 1);
  ENSURE(b64_encode_(input.start.get(), input.size, narrow.start.get(), narrow.size, line, &rc) == 0);
  ENSURE(rc == B64_SHORT_BUFFER);
  const std::string written = text.text(text.size);
  return written.substr(0, written.find('\0'));
}

PlainDecoded decode(const std::string& text, uint32_t flags) {
  const Buffer input(text);
  const char* bad = nullptr;
  uint32_t rc = 7;
  const size_t bound = b64_decode_(input.start.get(), input.size, nullptr, 0, flags, &bad, &rc);
  ENSURE(bound == (text.size() + 3) / 4 * 3);
  const Buffer octets(bound);
  const size_t count = b64_decode_(input.start.get(), input.size, octets.start.get(), bound, flags, &bad, &rc);
  ENSURE(rc == (bad == nullptr ? B64_OK : B64_BAD_DATA));
  const size_t at = bad == nullptr ? std::string::npos : static_cast<size_t>(bad - input.start.get());
  return {octets.text(count), at};
}

void encode_and_decode(const std::string& octets, size_t line, size_t spare) {
  if (octets.empty()) return;
  const std::string text = encode(octets, line, spare);
  ENSURE(text == plain_encode(octets, line, spare != 0));
  ENSURE(decode(text, B64_STOP_ON_UNKNOWN | B64_STOP_ON_SPACE) == PlainDecoded{octets});
}

// The kernels alone, with no character to skip.
void try_kernels(const std::string& octets, const std::string& text) {
  static FencedMemory source, destination;
  const std::string whole = octets.substr(0, octets.size() / 3 * 3);
  const std::string encoded = plain_encode(whole, 0, false);
  const size_t clean = std::min(text.size(), text.find_first_not_of(b64_chars)) / 4 * 4;
  for (const B64Kernels& kernels : b64_kernels()) {
    auto* characters = reinterpret_cast<char*>(destination.copy(std::string(encoded.size(), '\0')));
    kernels.encode(source.copy(whole), whole.size() / 3, characters);
    ENSURE(std::string(characters, encoded.size()) == encoded);

    unsigned char* decoded = destination.copy(std::string((text.size() + 3) / 4 * 3, '\0'));
    characters = reinterpret_cast<char*>(source.copy(text));
    const B64Run run = kernels.decode(characters, text.size(), decoded, {});
    ENSURE(run.read >= clean && run.read <= text.size());
    ENSURE(plain_decode(text.substr(0, run.read), 0) == PlainDecoded{std::string(decoded, decoded + run.written)});
  }
}

}  // namespace
}  // namespace corvane::fuzz

// The first byte chooses the length of lines and how much larger than needed the buffer is. The rest is encoded,
// and also decoded as if it were Base64.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  using namespace corvane;
  if (size == 0) return 0;
  const std::string input(reinterpret_cast<const char*>(bytes) + 1, size - 1);
  fuzz::encode_and_decode(input, (bytes[0] & 31) * 4, bytes[0] >> 5);
  for (const uint32_t flags : {0u, 0x100u, 0x200u, 0x300u}) {
    ENSURE(fuzz::decode(input, flags) == testing::plain_decode(input, flags));
  }
  fuzz::try_kernels(input, input);
  return 0;
}
