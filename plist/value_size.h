#pragma once

#include <cstddef>

#include "plist/value.h"

namespace corvane::plist {

/// About how many bytes a value takes in the binary encoding, with what occurs several times in it counted each
/// time. Above `limit` the answer is only that: some number above it. Takes time for the bytes that it counts, so
/// that a value which repeats itself is measured in bounded time.
size_t estimate_size(const Value& value, size_t limit);

/// How many containers lie in one another in a value: 0 for a leaf. Walks what occurs several times each time.
unsigned nesting_depth(const Value& value);

}  // namespace corvane::plist
