#pragma once

#include "plist/reader.h"

namespace corvane::plist {

/// The binary half of `decode`. Throws std::bad_alloc.
Decoded decode_binary(const Ref<Data>& input, Containers containers, unsigned depth_limit);

}  // namespace corvane::plist
