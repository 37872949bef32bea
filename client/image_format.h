#pragma once

#include <string_view>

namespace corvane::client {

/// What the first bytes of a data value show.
struct ImageFormat {
  const char* name;        ///< for a person
  const char* media_type;  ///< RFC 6838
  const char* extension;   ///< the usual one of a file's name
  bool is_image;           ///< browsers show it as an image
};

/// What is not recognised is "data", of the type application/octet-stream, with the extension "bin".
const ImageFormat& image_format(std::string_view bytes);

}  // namespace corvane::client
