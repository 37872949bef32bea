// A random change of a body's size leaves the length in its header wrong. So most mutations change the body of one
// frame and then correct its length.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "plist/big_endian.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* bytes, size_t size, size_t limit);

namespace {

using corvane::plist::load_big_endian;

// Where the frames of a stream begin, up to the first that is not whole.
std::vector<size_t> frames_of(std::string_view stream) {
  std::vector<size_t> frames;
  size_t at = 1;
  while (at + 8 <= stream.size() && stream.substr(at).starts_with("CV\1")) {
    const uint64_t length = load_big_endian<4>(stream.data() + at + 4);
    if (length > stream.size() - at - 8) break;
    frames.push_back(at);
    at += 8 + length;
  }
  return frames;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* bytes, size_t size, size_t limit, unsigned seed) {
  std::minstd_rand random(seed);
  const std::string_view stream(reinterpret_cast<const char*>(bytes), size);
  const std::vector<size_t> frames = frames_of(stream);
  if (frames.empty() || random() % 4 == 0) return LLVMFuzzerMutate(bytes, size, limit);
  const size_t frame = frames[random() % frames.size()];
  const size_t length = load_big_endian<4>(stream.data() + frame + 4);
  const std::string_view rest = stream.substr(frame + 8 + length);

  std::string body(stream.substr(frame + 8, length));
  body.resize(std::min(length + length / 4 + 64, limit - (size - length)));
  if (body.size() < length) return LLVMFuzzerMutate(bytes, size, limit);
  body.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(body.data()), length, body.size()));
  std::string mutated(stream.substr(0, frame + 4));
  corvane::plist::append_big_endian(mutated, body.size(), 4);
  mutated.append(body).append(rest);
  std::memcpy(bytes, mutated.data(), mutated.size());
  return mutated.size();
}
