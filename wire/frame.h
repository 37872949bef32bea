#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "plist/writer.h"

/// The frame: an 8-byte header (the bytes "CV", version 1, kind, the body's length as a big-endian 32-bit
/// number) and the body.
namespace corvane::wire {

inline constexpr size_t header_size = 8;
inline constexpr uint8_t raw_data_kind = 1;

struct FrameHeader {
  uint8_t kind;
  uint32_t length;
};

std::array<char, header_size> encode_header(FrameHeader header);

/// Nothing where the magic or the version is wrong.
std::optional<FrameHeader> decode_header(std::span<const char, header_size> bytes);

}  // namespace corvane::wire
