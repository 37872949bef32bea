#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace corvane::tools {

/// What the first bytes of a data value show.
struct ImageFormat {
  const char* name;        ///< for a person
  const char* ending;      ///< of a file's name
  const char* media_type;  ///< null where browsers do not show it as an image (RFC 6838)
};

/// What is not recognised is "data", with the ending ".bin".
const ImageFormat& image_format(std::string_view bytes);

struct PixelSize {
  uint32_t width;
  uint32_t height;
};

/// The size that the header of a PNG, GIF, JPEG or BMP image tells; nothing where it is cut short, tells none or
/// is of another format.
std::optional<PixelSize> pixel_size(std::string_view bytes);

}  // namespace corvane::tools
