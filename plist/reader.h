#pragma once

#include "plist/value.h"

namespace corvane::plist {

/// No reader accepts, and no writer produces, a container nested deeper than this. A top-level container has
/// depth 1.
inline constexpr unsigned max_depth = 128;

enum class Containers { immutable, made_mutable };
enum class Encoding { binary, xml };

struct Decoded {
  Ref<Value> value;     ///< null exactly when `error` is set
  Ref<String> error;    ///< one line: what is wrong, and at which byte of the input
  Encoding encoding{};  ///< what the input was read as
};

/// Reads one property list: the binary encoding, version 1.0 ("bplist00"), or XML in any character encoding
/// that Expat takes.
///
/// With `Containers::made_mutable` the dictionaries, arrays and sets of the result are mutable and no two
/// of them are the same object; members of a set stay immutable, whatever they are. Strings and data are
/// never mutable. Data values of 4 KiB and more share `bytes` instead of copying, so the buffer must not be
/// written to afterwards.
///
/// The input may come from anyone. Time and memory are linear in its size: nesting ends at `depth_limit`,
/// every count and offset is checked before anything is allocated for it, and the references followed,
/// those to shared objects each time, are at most as many as the input has bytes. Keys, and text and data in
/// sets, are compared at each reference; counted that often, they may have at most 256 bytes for each byte of the
/// input. Of equal keys in one dictionary the last one counts. Running out of memory is an error like the others.
Decoded decode(const Ref<Data>& bytes, Containers containers, unsigned depth_limit = max_depth);

}  // namespace corvane::plist
