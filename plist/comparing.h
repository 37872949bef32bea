#pragma once

#include <cstddef>
#include <cstdint>

#include "plist/value.h"

namespace corvane::plist {

/// Reading a binary property list hashes and compares keys and members of sets at every reference to them. Counted
/// that often, they may have this many bytes for each byte of the file: the reader refuses a file with more, and
/// the writer does not write one.
inline constexpr uint64_t compared_per_byte = 256;

/// The bytes that hashing or comparing a leaf takes.
inline size_t content_of(const Value& leaf) {
  if (leaf.kind() == Kind::string) return static_cast<const String&>(leaf).view().size();
  if (leaf.kind() == Kind::data) return static_cast<const Data&>(leaf).bytes().size();
  return 0;
}

}  // namespace corvane::plist
