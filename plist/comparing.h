#pragma once

#include <cstddef>
#include <cstdint>

#include "plist/value.h"

namespace corvane::plist {

/// How many bytes of keys and of members of sets, counted at each reference, a binary property list may have for
/// each of its own: reading it hashes and compares them. The reader holds its input to this, the writer what it
/// writes.
inline constexpr uint64_t compared_per_byte = 256;

/// The bytes that hashing or comparing a leaf takes.
inline size_t content_of(const Value& leaf) {
  if (leaf.kind() == Kind::string) return static_cast<const String&>(leaf).view().size();
  if (leaf.kind() == Kind::data) return static_cast<const Data&>(leaf).bytes().size();
  return 0;
}

}  // namespace corvane::plist
