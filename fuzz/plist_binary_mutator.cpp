// A random change of an object's size leaves the offset table wrong. So some mutations change the objects alone,
// and then make a new table and trailer for the objects that can be found from the first to the last.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <string_view>

#include "plist/big_endian.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* bytes, size_t size, size_t limit);

namespace {

using corvane::plist::append_big_endian;
using corvane::plist::load_big_endian;

constexpr size_t header_size = 8;
constexpr size_t trailer_size = 32;

uint64_t load(std::string_view bytes) {
  uint64_t value = 0;
  for (const char byte : bytes) value = value << 8 | static_cast<uint8_t>(byte);
  return value;
}

// The length of the object at the beginning of `rest`.
size_t object_size(std::string_view rest, size_t reference_size) {
  const auto marker = static_cast<uint8_t>(rest[0]);
  size_t count = marker & 0xF;
  size_t head = 1;
  if (marker >> 4 >= 4 && count == 0xF && rest.size() > 1) {
    const size_t size = size_t{1} << (rest[1] & 3);
    if (rest.size() < 2 + size) return rest.size();
    count = std::min<uint64_t>(load(rest.substr(2, size)), rest.size());
    head += 1 + size;
  }
  switch (marker >> 4) {
    case 0x1:
    case 0x2:
      return 1 + (size_t{1} << (count & 7));
    case 0x3:
      return 9;
    case 0x4:
    case 0x5:
      return head + count;
    case 0x6:
      return head + 2 * count;
    case 0xA:
    case 0xC:
      return head + reference_size * count;
    case 0xD:
      return head + 2 * reference_size * count;
    default:
      return 1;
  }
}

std::string with_table(const std::string& objects, size_t reference_size, bool top_is_last) {
  std::string file = "bplist00" + objects;
  const size_t table = file.size();
  const size_t offset_size = table <= 0xFF ? 1 : 2;
  size_t count = 0;
  for (size_t at = header_size; at < table; ++count) {
    append_big_endian(file, at, offset_size);
    const size_t size = object_size(std::string_view(file).substr(at, table - at), reference_size);
    at += std::min(size, table - at);
  }
  file += std::string(6, '\0') + static_cast<char>(offset_size) + static_cast<char>(reference_size);
  append_big_endian(file, count, 8);
  append_big_endian(file, top_is_last && count > 0 ? count - 1 : 0, 8);
  append_big_endian(file, table, 8);
  return file;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* bytes, size_t size, size_t limit, unsigned seed) {
  std::minstd_rand random(seed);
  std::string_view file(reinterpret_cast<const char*>(bytes), size);
  if (random() % 4 == 0 || !file.starts_with("bplist00") || size < header_size + trailer_size || limit > 0xFFFF)
    return LLVMFuzzerMutate(bytes, size, limit);
  const char* const trailer = file.data() + size - trailer_size;
  const uint64_t table = load_big_endian<8>(trailer + 24);
  const size_t objects_end = table > header_size && table < size ? table : size - trailer_size;
  const size_t reference_size = trailer[7] == 2 ? 2 : 1;

  std::string objects(file.substr(header_size, objects_end - header_size));
  const size_t kept = objects.size();
  objects.resize(kept + kept / 4 + 64);
  objects.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(objects.data()), kept, objects.size()));
  const std::string mutated = with_table(objects, reference_size, random() % 8 == 0);
  if (mutated.size() > limit) return LLVMFuzzerMutate(bytes, size, limit);
  std::memcpy(bytes, mutated.data(), mutated.size());
  return mutated.size();
}
