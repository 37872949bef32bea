#include "plist/leaf_table.h"

namespace corvane::plist {

namespace {

// From this size on an object is also remembered by its address, so that many references to one long value do
// not hash it many times.
constexpr size_t long_from = 256;

constexpr size_t recent_strings = 64;

bool is_long(const Value& leaf) {
  if (const auto* string = cast<String>(&leaf)) return string->view().size() >= long_from;
  const auto* data = cast<Data>(&leaf);
  return data != nullptr && data->bytes().size() >= long_from;
}

}  // namespace

uint32_t LeafTable::number_of(const Value& leaf, uint32_t next) {
  if (next > few && recent_.empty()) enter_the_few();
  if (next > few || is_long(leaf)) return number_in_tables(leaf, next);
  uint32_t known = 0;
  while (known < next && !equal(objects_[known], &leaf)) ++known;
  return known;
}

void LeafTable::enter_the_few() {
  recent_.resize(recent_strings);
  for (uint32_t number = 0; number < objects_.size(); ++number) {
    const Value& object = *objects_[number];
    if (!object.is_container() && !is_long(object)) number_in_tables(object, number);
  }
}

uint32_t LeafTable::number_in_tables(const Value& leaf, uint32_t next) {
  if (leaf.kind() == Kind::string) return number_of_string(*cast<String>(&leaf), next);
  if (leaf.kind() == Kind::data) return number_of_data(*cast<Data>(&leaf), next);
  return number_of_content(leaf, hash(leaf), next);
}

uint32_t LeafTable::number_of_content(const Value& leaf, uint64_t hash, uint32_t next) {
  make_room(leaves_);
  const Sought sought{static_cast<uint32_t>(hash), &leaf};
  return leaves_.lazy_emplace(sought, [&](const auto& emplace) { emplace(Slot{sought.hash, next}); })->number;
}

uint32_t LeafTable::number_of_string(const String& string, uint32_t next) {
  if (string.view().size() >= long_from) return number_of_long_string(string, next);
  Recent& recent = recent_[reinterpret_cast<uintptr_t>(&string) / 32 % recent_.size()];
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
