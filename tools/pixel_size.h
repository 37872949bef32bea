#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace corvane::tools {

struct PixelSize {
  uint32_t width;
  uint32_t height;
};

/// The size that the header of a PNG, GIF, JPEG or BMP image tells; nothing where it is cut short, tells none or
/// is of another format.
std::optional<PixelSize> pixel_size(std::string_view bytes);

}  // namespace corvane::tools
