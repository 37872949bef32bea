#pragma once

#include <cstddef>

namespace corvane::fuzz {

/// The most that the heap has grown by since this object was made. Zero in builds without the address sanitizer.
/// One at a time.
class HeapGrowth {
 public:
  HeapGrowth();
  ~HeapGrowth();
  size_t most() const;
};

}  // namespace corvane::fuzz
