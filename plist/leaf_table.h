#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <string_view>
#include <utility>

#include "plist/bytes_hash.h"
#include "plist/value.h"

namespace corvane::plist {

/// The leaves that a binary property list holds, each equal one once. What it saw must outlive it.
class LeafTable {
 public:
  /// Says that up to `count` more strings may follow, so that the table need not grow step by step.
  void expect_strings(size_t count) { strings_.reserve(strings_.size() + count); }

  /// The number of the equal leaf seen before; otherwise `next`, which is the leaf's number from then on.
  uint32_t number_of(const Value& leaf, uint32_t next);

 private:
  using ByContent = absl::flat_hash_map<std::string_view, uint32_t, BytesHash, std::equal_to<>>;
  using ByIdentity = absl::flat_hash_map<const Value*, uint32_t>;

  /// The data values of one size. A size that comes only once costs no pass over the bytes.
  struct SameSize {
    std::string_view first;
    uint32_t number = 0;
    ByContent all;  // from the second on
  };

  uint32_t number_of_string(const String& string, uint32_t next);
  uint32_t number_of_data(const Data& data, uint32_t next);
  uint32_t number_of_bits(uint64_t bits, uint64_t kind, uint32_t next);

  ByContent strings_;
  ByIdentity long_ones_;
  absl::flat_hash_map<size_t, SameSize> data_;
  absl::flat_hash_map<std::pair<uint64_t, uint64_t>, uint32_t> bits_;
};

}  // namespace corvane::plist
