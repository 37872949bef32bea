#include "state/value_size.h"

namespace corvane {

using plist::cast;

namespace {

// A reference, a marker, and a part of the offset table.
constexpr size_t value_overhead = 4;

void add(const plist::Value& value, size_t limit, size_t& size);

template <class Items>
void add_items(const Items& items, size_t limit, size_t& size) {
  for (const auto& item : items) {
    if (size > limit) return;
    add(*item, limit, size);
  }
}

void add_entries(const plist::Dictionary& dictionary, size_t limit, size_t& size) {
  for (const plist::Dictionary::Entry& entry : dictionary.entries()) {
    if (size > limit) return;
    add(*entry.key, limit, size);
    add(*entry.value, limit, size);
  }
}

void add(const plist::Value& value, size_t limit, size_t& size) {
  size += value_overhead;
  if (const auto* string = cast<plist::String>(&value)) size += string->view().size();
  if (const auto* data = cast<plist::Data>(&value)) size += data->bytes().size();
  if (const auto* array = cast<plist::Array>(&value)) add_items(array->items(), limit, size);
  if (const auto* set = cast<plist::Set>(&value)) add_items(set->items(), limit, size);
  if (const auto* dictionary = cast<plist::Dictionary>(&value)) add_entries(*dictionary, limit, size);
}

}  // namespace

size_t estimate_size(const plist::Value& value, size_t limit) {
  size_t size = 0;
  add(value, limit, size);
  return size;
}

}  // namespace corvane
