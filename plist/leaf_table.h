#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "plist/hash_tables.h"
#include "plist/value.h"

namespace corvane::plist {

/// The leaves that a binary property list holds, each equal one once. A leaf is found by its number among
/// `objects`, in which the caller enters it before the next call.
class LeafTable {
 public:
  explicit LeafTable(const std::vector<const Value*>& objects)
      : strings_(0, ByText{&objects}, SameText{&objects}) {}

  /// Says that up to `count` more strings may follow, so that the table need not grow step by step.
  void expect_strings(size_t count) { make_room(strings_, count); }

  /// The number of the equal leaf seen before; otherwise `next`, which is the leaf's number from then on.
  uint32_t number_of(const Value& leaf, uint32_t next);

 private:
  using Objects = std::vector<const Value*>;
  static std::string_view text_of(const Objects& objects, uint32_t number) {
    return static_cast<const String*>(objects[number])->view();
  }
  struct ByText {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return BytesHash()(text); }
    size_t operator()(uint32_t number) const { return BytesHash()(text_of(*objects, number)); }
    const Objects* objects;
  };
  struct SameText {
    using is_transparent = void;
    bool operator()(uint32_t a, uint32_t b) const { return a == b; }
    bool operator()(uint32_t number, std::string_view text) const { return text_of(*objects, number) == text; }
    const Objects* objects;
  };
  using ByContent = absl::flat_hash_map<std::string_view, uint32_t, BytesHash, std::equal_to<>>;
  using ByIdentity = absl::flat_hash_map<const Value*, uint32_t>;

  /// The data values of one size. A size that comes only once costs no pass over the bytes.
  struct SameSize {
    std::string_view first;
    uint32_t number = 0;
    ByContent all;  // from the second on
  };

  uint32_t number_of_string(const String& string, uint32_t next);
  uint32_t number_of_text(std::string_view text, uint32_t next);
  uint32_t number_of_data(const Data& data, uint32_t next);
  uint32_t number_of_bits(uint64_t bits, uint64_t kind, uint32_t next);

  absl::flat_hash_set<uint32_t, ByText, SameText> strings_;
  ByIdentity long_ones_;
  absl::flat_hash_map<size_t, SameSize> data_;
  absl::flat_hash_map<std::pair<uint64_t, uint64_t>, uint32_t> bits_;
};

}  // namespace corvane::plist
