#include "wire/frame.h"

namespace corvane::wire {

namespace {

constexpr char magic[2] = {0x43, 0x56};
constexpr char version = 1;

}  // namespace

std::array<char, header_size> encode_header(FrameHeader header) {
  const auto byte = [&](unsigned shift) { return static_cast<char>(header.length >> shift); };
  return {magic[0], magic[1], version, static_cast<char>(header.kind), byte(24), byte(16), byte(8), byte(0)};
}

std::optional<FrameHeader> decode_header(std::span<const char, header_size> bytes) {
  if (bytes[0] != magic[0] || bytes[1] != magic[1] || bytes[2] != version) return std::nullopt;
  FrameHeader header{static_cast<uint8_t>(bytes[3]), 0};
  for (const char byte : bytes.last<4>()) header.length = header.length << 8 | static_cast<uint8_t>(byte);
  return header;
}

}  // namespace corvane::wire
