#pragma once

#include <absl/container/flat_hash_map.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <string_view>
#include <vector>

#include "plist/comparing.h"
#include "plist/hash_tables.h"
#include "plist/short_list.h"
#include "plist/value.h"

namespace corvane::plist {

/// Numbers the leaves of a binary property list, equal ones alike. The caller keeps the leaves in `objects` at
/// their numbers, and enters a new one there before the next call.
class LeafTable {
 public:
  /// As many as most responses have need no allocation.
  using Objects = ShortList<const Value*, 16>;

  explicit LeafTable(const Objects& objects) : objects_(objects) {}

  /// Up to `count` more leaves may follow: the table grows at once, not step by step. Many of them may be equal,
  /// so that it does so up to a limit only.
  void expect(size_t count) {
    if (objects_.size() + count > few) make_room_for(std::min(count, most_expected));
  }

  /// The number of the equal leaf seen before; otherwise `next`, which is the leaf's number from then on.
  uint32_t number_of(const Value& leaf, uint32_t next) {
    if (next > few || content_of(leaf) >= long_from) return number_in_tables(leaf, next);
    const uint64_t mark = mark_of(leaf);
    if ((marks_ & mark) != 0) return number_among_few(leaf, next);
    marks_ |= mark;
    return next;
  }

 private:
  /// Up to this many objects are compared one by one with a short leaf, which costs less than a table.
  static constexpr size_t few = 16;
  /// From this size on an object is also remembered by its address, so that many references to one long value do
  /// not hash it many times.
  static constexpr size_t long_from = 256;
  static constexpr size_t most_expected = 1 << 16;
  static constexpr uint32_t unknown = static_cast<uint32_t>(-1);

  /// A place of the table; free where the number is `unknown`. The hash is kept, so that the table grows without
  /// touching the leaves, and a search touches few.
  struct Slot {
    uint32_t hash;
    uint32_t number;
  };
  using ByContent = absl::flat_hash_map<std::string_view, uint32_t, BytesHash, std::equal_to<>>;
  using ByIdentity = absl::flat_hash_map<const Value*, uint32_t>;

  /// The data values of one size. The first is not hashed: there may be no other of its size.
  struct SameSize {
    std::string_view first;
    uint32_t number = 0;
    ByContent all;  // from the second on
  };

  /// Strings seen lately, by their address: the same keys come again and again.
  struct Recent {
    const Value* string = nullptr;
    uint32_t number = 0;
  };

  /// One of 64 bits, the same for equal leaves.
  static uint64_t mark_of(const Value& leaf) {
    uint64_t content = 0;
    if (leaf.kind() == Kind::string) {
      const std::string_view text = static_cast<const String&>(leaf).view();
      content = text.empty() ? 0 : text.size() << 8 | static_cast<uint8_t>(text.back());
    } else if (leaf.kind() == Kind::number) {
      content = bits_of(static_cast<const Number&>(leaf));
    }
    return uint64_t{1} << ((content << 3 | static_cast<uint64_t>(leaf.kind())) * 0x9E3779B97F4A7C15u >> 58);
  }
  static uint64_t bits_of(const Number& number) {
    return number.is_integer() ? number.uint64() : std::bit_cast<uint64_t>(number.real());
  }

  uint32_t number_among_few(const Value& leaf, uint32_t next) const;
  void make_room_for(size_t more);
  void enter_the_few();
  uint32_t number_in_tables(const Value& leaf, uint32_t next);
  uint32_t number_of_string(const String& string, uint32_t next);
  uint32_t number_of_long_string(const String& string, uint32_t next);
  uint32_t number_of_boolean(const Boolean& boolean, uint32_t next);
  uint32_t number_of_data(const Data& data, uint32_t next);
  uint32_t number_of_content(const Value& leaf, uint64_t hash, uint32_t next);

  const Objects& objects_;
  uint64_t marks_ = 0;  // of the first leaves: a leaf whose mark is not there equals none of them
  std::array<uint32_t, 2> booleans_{unknown, unknown};
  std::vector<Slot> slots_;     // a power of two; each search begins at the hash and goes on to a free slot
  size_t used_ = 0;             // at most half of them
  std::vector<Recent> recent_;  // empty while there are few objects
  ByIdentity long_ones_;
  absl::flat_hash_map<size_t, SameSize> data_;
};

}  // namespace corvane::plist
