#include "tools/pixel_size.h"

#include <cstddef>

namespace corvane::tools {

namespace {

// Bytes as a number; 0 where they are not all there, which is no size of an image.
uint32_t number_at(std::string_view bytes, size_t offset, size_t length, bool big_endian) {
  if (offset + length > bytes.size()) return 0;
  uint32_t number = 0;
  for (size_t i = 0; i < length; ++i) {
    const size_t place = big_endian ? i : length - 1 - i;
    number = number << 8 | static_cast<unsigned char>(bytes[offset + place]);
  }
  return number;
}

std::optional<PixelSize> size_of(uint32_t width, uint32_t height) {
  if (width == 0 || height == 0) return std::nullopt;
  return PixelSize{width, height};
}

// Whether a JPEG segment starts a frame: markers C0 to CF, but for those of tables.
bool starts_frame(unsigned marker) {
  return marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

// Goes from segment to segment (ITU-T T.81, annex B) up to the one that starts the frame.
std::optional<PixelSize> jpeg_size(std::string_view bytes) {
  for (size_t at = 2; number_at(bytes, at, 1, true) == 0xFF;) {
    const unsigned marker = number_at(bytes, at + 1, 1, true);
    if (marker == 0xFF) {  // a byte that fills the space before a marker
      ++at;
      continue;
    }
    if (starts_frame(marker)) return size_of(number_at(bytes, at + 7, 2, true), number_at(bytes, at + 5, 2, true));
    const uint32_t length = number_at(bytes, at + 2, 2, true);
    if (length < 2) break;
    at += 2 + length;
  }
  return std::nullopt;
}

// A negative height means that the rows begin at the top.
std::optional<PixelSize> bmp_size(std::string_view bytes) {
  const auto height = static_cast<int32_t>(number_at(bytes, 22, 4, false));
  return size_of(number_at(bytes, 18, 4, false),
                 height < 0 ? 0 - static_cast<uint32_t>(height) : static_cast<uint32_t>(height));
}

}  // namespace

std::optional<PixelSize> pixel_size(std::string_view bytes) {
  if (bytes.starts_with("\x89PNG\r\n\x1a\n")) {
    return size_of(number_at(bytes, 16, 4, true), number_at(bytes, 20, 4, true));
  }
  if (bytes.starts_with("GIF8")) return size_of(number_at(bytes, 6, 2, false), number_at(bytes, 8, 2, false));
  if (bytes.starts_with("\xff\xd8\xff")) return jpeg_size(bytes);
  if (bytes.starts_with("BM")) return bmp_size(bytes);
  return std::nullopt;
}

}  // namespace corvane::tools
