#include "state/detached_value.h"

#include <algorithm>

namespace corvane {

using plist::cast;
using plist::Ref;

namespace {

// As deep as a property list may nest, which the readers bound.
bool holds_slices(const plist::Value& value) {
  const auto item_does = [](const Ref<plist::Value>& item) { return holds_slices(*item); };
  if (const auto* data = cast<plist::Data>(&value)) return data->is_slice();
  if (const auto* array = cast<plist::Array>(&value)) return std::ranges::any_of(array->items(), item_does);
  if (const auto* set = cast<plist::Set>(&value)) return std::ranges::any_of(set->items(), item_does);
  const auto* dictionary = cast<plist::Dictionary>(&value);
  return dictionary != nullptr &&
         std::ranges::any_of(dictionary->entries(), [](const auto& entry) { return holds_slices(*entry.value); });
}

Ref<plist::Value> copy(plist::Value& value) {
  if (const auto* data = cast<plist::Data>(&value)) return plist::Data::create(data->bytes());
  if (const auto* array = cast<plist::Array>(&value)) {
    Ref<plist::MutableArray> items = plist::MutableArray::create(array->size());
    for (const Ref<plist::Value>& item : array->items()) items->append(copy(*item));
    return plist::MutableArray::freeze(std::move(items));
  }
  if (const auto* set = cast<plist::Set>(&value)) {
    Ref<plist::MutableSet> members = plist::MutableSet::create(set->size());
    for (const Ref<plist::Value>& member : set->items()) members->add(copy(*member));
    return plist::MutableSet::freeze(std::move(members));
  }
  if (const auto* dictionary = cast<plist::Dictionary>(&value)) {
    Ref<plist::MutableDictionary> entries = plist::MutableDictionary::create(dictionary->size());
    for (const plist::Dictionary::Entry& entry : dictionary->entries())
      entries->set(entry.key, copy(*entry.value));
    return plist::MutableDictionary::freeze(std::move(entries));
  }
  return &value;
}

}  // namespace

Ref<plist::Value> detached_value(plist::Value& value) { return holds_slices(value) ? copy(value) : &value; }

}  // namespace corvane
