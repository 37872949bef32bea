#include "plist/value_size.h"

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

}  // namespace

size_t estimate_size(const Value& value, size_t limit) {
  size_t size = 0;
  add(value, limit, size);
  return size;
}

}  // namespace corvane::plist
