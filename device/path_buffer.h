#pragma once

#include <cstddef>

namespace corvane {

/// The size of the buffers that paths are formatted into with snprintf, the terminator counted: what is
/// longer is cut, and then refused by whoever opens it.
inline constexpr size_t path_buffer_size = 1024;

}  // namespace corvane
