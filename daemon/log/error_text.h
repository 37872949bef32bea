#pragma once

#include <cstring>

namespace corvane {

/// What strerror(3) says of an errno without a locale. Does not look for a translation, as strerror does each
/// time.
inline const char* error_text(int error) {
  const char* const text = strerrordesc_np(error);
  return text != nullptr ? text : std::strerror(error);
}

}  // namespace corvane
