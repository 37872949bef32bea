#include "plist/leaf_table.h"

#include <absl/hash/hash.h>

#include <bit>

namespace corvane::plist {

namespace {

constexpr size_t recent_strings = 64;

// Nearly all leaves are strings.
bool equal_leaves(const Value& a, const Value& b) {
  if (a.kind() != Kind::string || b.kind() != Kind::string) return equal(&a, &b);
  return static_cast<const String&>(a).view() == static_cast<const String&>(b).view();
}

}  // namespace

uint32_t LeafTable::number_among_few(const Value& leaf, uint32_t next) const {
  for (uint32_t known = 0; known < next; ++known) {
    if (equal_leaves(*objects_[known], leaf)) return known;
  }
  return next;
}

void LeafTable::enter_the_few() {
  recent_.resize(recent_strings);
  for (uint32_t number = 0; number < objects_.size(); ++number) {
    const Value& object = *objects_[number];
    if (!object.is_container() && content_of(object) < long_from) number_in_tables(object, number);
  }
}

uint32_t LeafTable::number_in_tables(const Value& leaf, uint32_t next) {
  if (next > few && recent_.empty()) enter_the_few();
  switch (leaf.kind()) {
    case Kind::string:
      return number_of_string(static_cast<const String&>(leaf), next);
    case Kind::data:
      return number_of_data(static_cast<const Data&>(leaf), next);
    case Kind::number:
      return number_of_content(leaf, absl::Hash<uint64_t>()(bits_of(static_cast<const Number&>(leaf))), next);
    case Kind::boolean:
      return number_of_boolean(static_cast<const Boolean&>(leaf), next);
    default:
      return number_of_content(leaf, hash(leaf), next);
  }
}

uint32_t LeafTable::number_of_boolean(const Boolean& boolean, uint32_t next) {
  uint32_t& known = booleans_[boolean.value() ? 1 : 0];
  if (known == unknown) known = next;
  return known;
}

uint32_t LeafTable::number_of_content(const Value& leaf, uint64_t hash, uint32_t next) {
  make_room_for(1);
  const auto kept_hash = static_cast<uint32_t>(hash);
  const size_t mask = slots_.size() - 1;
  size_t at = kept_hash & mask;
  for (; slots_[at].number != unknown; at = (at + 1) & mask) {
    if (slots_[at].hash == kept_hash && equal_leaves(*objects_[slots_[at].number], leaf)) return slots_[at].number;
  }
  slots_[at] = {kept_hash, next};
  ++used_;
  return next;
}

void LeafTable::make_room_for(size_t more) {
  if (2 * (used_ + more) <= slots_.size()) return;
  std::vector<Slot> larger(std::bit_ceil(2 * (used_ + more) + 1), Slot{0, unknown});
  const size_t mask = larger.size() - 1;
  for (const Slot slot : slots_) {
    if (slot.number == unknown) continue;
    size_t at = slot.hash & mask;
    while (larger[at].number != unknown) at = (at + 1) & mask;
    larger[at] = slot;
  }
  slots_.swap(larger);
}

uint32_t LeafTable::number_of_string(const String& string, uint32_t next) {
  if (string.view().size() >= long_from) return number_of_long_string(string, next);
  Recent& recent = recent_[reinterpret_cast<uintptr_t>(&string) / 32 % recent_strings];
  if (recent.string != &string) recent = {&string, number_of_content(string, BytesHash()(string.view()), next)};
  return recent.number;
}

uint32_t LeafTable::number_of_long_string(const String& string, uint32_t next) {
  make_room(long_ones_);
  const auto [known, is_new] = long_ones_.try_emplace(&string, next);
  if (is_new) known->second = number_of_content(string, BytesHash()(string.view()), next);
  return known->second;
}

uint32_t LeafTable::number_of_data(const Data& data, uint32_t next) {
  make_room(long_ones_);
  const auto [known, is_new] = long_ones_.try_emplace(&data, next);
  if (!is_new) return known->second;
  const std::string_view bytes = data.bytes();
  make_room(data_);
  const auto [same_size, is_first] = data_.try_emplace(bytes.size());
  SameSize& others = same_size->second;
  if (is_first) {
    others.first = bytes;
    others.number = next;
    return next;
  }
  make_room(others.all, 2);
  if (others.all.empty()) others.all.emplace(others.first, others.number);
  known->second = others.all.try_emplace(bytes, next).first->second;
  return known->second;
}

}  // namespace corvane::plist
