#pragma once

#include <string_view>

#include "plist/reader.h"

namespace corvane::plist {

/// The XML half of `decode`. Throws std::bad_alloc.
Decoded decode_xml(std::string_view input, Containers containers, unsigned depth_limit);

}  // namespace corvane::plist
