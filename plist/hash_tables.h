#pragma once

#include <absl/hash/hash.h>
#include <absl/strings/string_view.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace corvane::plist {

/// Seeded per process, so that nobody can choose keys that collide.
struct BytesHash {
  using is_transparent = void;
  size_t operator()(std::string_view bytes) const {
    return absl::Hash<absl::string_view>()(absl::string_view(bytes.data(), bytes.size()));
  }
};

/// Makes room for `more` insertions into a table. To be called before each insertion, because an allocation that
/// fails while an Abseil table grows leaves the table broken; this leaves it as it was and throws std::bad_alloc.
/// For the same reason the constructor of what is inserted must not allocate.
template <class Table>
void make_room(Table& table, size_t more = 1) {
  // Below two thirds of its capacity a table with more than one group only cleans up in place.
  if (table.size() + more <= table.capacity() / 32 * 21) return;
  Table larger(std::max<size_t>(32, 2 * (table.size() + more)), table.hash_function(), table.key_eq());
  larger.merge(table);
  table.swap(larger);
}

}  // namespace corvane::plist
