#include "state/detached_value.h"

#include <absl/container/flat_hash_map.h>

#include <algorithm>

#include "plist/hash_tables.h"

namespace corvane {

using plist::cast;
using plist::Ref;

namespace {

bool holds_slices(const plist::Value& value) {
  const auto item_does = [](const Ref<plist::Value>& item) { return holds_slices(*item); };
  if (const auto* data = cast<plist::Data>(&value)) return data->is_slice();
  if (const auto* array = cast<plist::Array>(&value)) return std::ranges::any_of(array->items(), item_does);
  if (const auto* set = cast<plist::Set>(&value)) return std::ranges::any_of(set->items(), item_does);
  const auto* dictionary = cast<plist::Dictionary>(&value);
  return dictionary != nullptr &&
         std::ranges::any_of(dictionary->entries(), [](const auto& entry) { return holds_slices(*entry.value); });
}

/// Makes one copy of what occurs several times, so that the copy takes no more memory than the original. As deep
/// as a property list may nest, which the readers bound.
class Detaching {
 public:
  Ref<plist::Value> detached(plist::Value& value) {
    const auto* data = cast<plist::Data>(&value);
    if (!value.is_container() && (data == nullptr || !data->is_slice())) return &value;
    if (const auto known = made_.find(&value); known != made_.end()) return known->second;
    Ref<plist::Value> made = data != nullptr ? plist::Data::create(data->bytes()) : detached_container(value);
    plist::make_room(made_);
    made_.emplace(&value, made);
    return made;
  }

 private:
  // The container itself where nothing in it was copied.
  Ref<plist::Value> detached_container(plist::Value& value) {
    if (auto* array = cast<plist::Array>(&value)) return detached_array(*array);
    if (auto* set = cast<plist::Set>(&value)) return detached_set(*set);
    return detached_dictionary(*cast<plist::Dictionary>(&value));
  }

  Ref<plist::Value> detached_array(plist::Array& array) {
    Ref<plist::MutableArray> items = plist::MutableArray::create(array.size());
    bool is_copied = false;
    for (const Ref<plist::Value>& item : array.items()) items->append(noted(*item, is_copied));
    if (!is_copied) return &array;
    return plist::MutableArray::freeze(std::move(items));
  }

  Ref<plist::Value> detached_set(plist::Set& set) {
    Ref<plist::MutableSet> members = plist::MutableSet::create(set.size());
    bool is_copied = false;
    for (const Ref<plist::Value>& member : set.items()) members->add(noted(*member, is_copied));
    if (!is_copied) return &set;
    return plist::MutableSet::freeze(std::move(members));
  }

  Ref<plist::Value> detached_dictionary(plist::Dictionary& dictionary) {
    Ref<plist::MutableDictionary> entries = plist::MutableDictionary::create(dictionary.size());
    bool is_copied = false;
    for (const auto& [key, value] : dictionary.entries()) entries->set(key, noted(*value, is_copied));
    if (!is_copied) return &dictionary;
    return plist::MutableDictionary::freeze(std::move(entries));
  }

  Ref<plist::Value> noted(plist::Value& value, bool& is_copied) {
    Ref<plist::Value> made = detached(value);
    is_copied |= made.get() != &value;
    return made;
  }

  absl::flat_hash_map<const plist::Value*, Ref<plist::Value>> made_;
};

}  // namespace

Ref<plist::Value> detached_value(plist::Value& value) {
  return holds_slices(value) ? Detaching().detached(value) : &value;
}

}  // namespace corvane
