#include "plist/leaf_table.h"

#include <bit>

namespace corvane::plist {

namespace {

// From this size on an object met again is known by its address, or each of many references to one long
// value would cost a hash of it all.
constexpr size_t long_from = 256;

}  // namespace

uint32_t LeafTable::number_of(const Value& leaf, uint32_t next) {
  switch (leaf.kind()) {
    case Kind::string:
      return number_of_string(*cast<String>(&leaf), next);
    case Kind::data:
      return number_of_data(*cast<Data>(&leaf), next);
    case Kind::date:
      return number_of_bits(std::bit_cast<uint64_t>(cast<Date>(&leaf)->seconds()), 0, next);
    case Kind::number: {
      const auto& number = *cast<Number>(&leaf);
      if (!number.is_integer()) return number_of_bits(std::bit_cast<uint64_t>(number.real()), 1, next);
      return number_of_bits(number.uint64(), number.type() == Number::Type::uint64 ? 2 : 3, next);
    }
    default:
      return number_of_bits(cast<Boolean>(&leaf)->value(), 4, next);
  }
}

uint32_t LeafTable::number_of_bits(uint64_t bits, uint64_t kind, uint32_t next) {
  make_room(bits_);
  return bits_.try_emplace({bits, kind}, next).first->second;
}

uint32_t LeafTable::number_of_string(const String& string, uint32_t next) {
  if (string.view().size() < long_from) return number_of_text(string.view(), next);
  make_room(long_ones_);
  const auto [known, is_new] = long_ones_.try_emplace(&string, next);
  if (is_new) known->second = number_of_text(string.view(), next);
  return known->second;
}

uint32_t LeafTable::number_of_text(std::string_view text, uint32_t next) {
  make_room(strings_);
  return *strings_.lazy_emplace(text, [next](const auto& emplace) { emplace(next); });
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
