#include "plist/value_size.h"

#include <algorithm>

namespace corvane::plist {

namespace {

// A reference, a marker, and a part of the offset table.
constexpr size_t value_overhead = 4;

void add(const Value& value, size_t limit, size_t& size);

template <class Items>
void add_items(const Items& items, size_t limit, size_t& size) {
  for (const auto& item : items) {
    if (size > limit) return;
    add(*item, limit, size);
  }
}

void add_entries(const Dictionary& dictionary, size_t limit, size_t& size) {
  for (const Dictionary::Entry& entry : dictionary.entries()) {
    if (size > limit) return;
    add(*entry.key, limit, size);
    add(*entry.value, limit, size);
  }
}

void add(const Value& value, size_t limit, size_t& size) {
  size += value_overhead;
  if (const auto* string = cast<String>(&value)) size += string->view().size();
  if (const auto* data = cast<Data>(&value)) size += data->bytes().size();
  if (const auto* array = cast<Array>(&value)) add_items(array->items(), limit, size);
  if (const auto* set = cast<Set>(&value)) add_items(set->items(), limit, size);
  if (const auto* dictionary = cast<Dictionary>(&value)) add_entries(*dictionary, limit, size);
}

template <class Items>
unsigned depth_of_items(const Items& items) {
  unsigned deepest = 0;
  for (const auto& item : items) deepest = std::max(deepest, nesting_depth(*item));
  return deepest + 1;
}

unsigned depth_of_entries(const Dictionary& dictionary) {
  unsigned deepest = 0;
  for (const Dictionary::Entry& entry : dictionary.entries()) {
    deepest = std::max(deepest, nesting_depth(*entry.value));
  }
  return deepest + 1;
}

}  // namespace

unsigned nesting_depth(const Value& value) {
  if (const auto* array = cast<Array>(&value)) return depth_of_items(array->items());
  if (const auto* set = cast<Set>(&value)) return depth_of_items(set->items());
  const auto* dictionary = cast<Dictionary>(&value);
  return dictionary == nullptr ? 0 : depth_of_entries(*dictionary);
}

size_t estimate_size(const Value& value, size_t limit) {
  size_t size = 0;
  add(value, limit, size);
  return size;
}

}  // namespace corvane::plist
