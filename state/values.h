#pragma once

#include <concepts>
#include <cstdint>
#include <string_view>
#include <vector>

#include "plist/value.h"

/// Small operations on property-list values that the whole daemon uses.
///
/// Where its description says so, a function that runs out of memory logs one line and ends the process with exit
/// status -1. Its callers need not test its result.
namespace corvane {

/// A new empty mutable dictionary, owned; never null. Ends the process where memory is out.
plist::Ref<plist::MutableDictionary> create_dict();

/// A new empty mutable array, owned; never null. Ends the process where memory is out.
plist::Ref<plist::MutableArray> create_array();

/// A mutable copy, owned, of a dictionary (one level: the entries are shared) or of a data value. Consumes the
/// argument's reference. Ends the process for null, for every other kind, and where memory is out.
plist::Ref<plist::Value> make_mutable(plist::Ref<plist::Value> value);

/// Adds a number of 32-bit integer kind, only if the key is absent. Ends the process where memory is out.
void DictionaryAddInt(plist::MutableDictionary& dictionary, std::string_view key, int32_t value);

/// A new array, owned, of the dictionary's keys in its order; empty for null. Ends the process where memory
/// is out.
plist::Ref<plist::MutableArray> copy_keys(const plist::Dictionary* dictionary);

/// The value under the dictionary's first key, borrowed; null when the dictionary is empty.
plist::Value* _extract_first_item(const plist::Dictionary& dictionary);

/// Releases the value, if there is one, and leaves null behind. Always 0.
template <class T>
int release_if_set(plist::Ref<T>& value) {
  value = nullptr;
  return 0;
}

// The same value, borrowed, if it is of exactly that kind; otherwise null. Null gives null.
inline plist::Number* as_number(plist::Value* value) { return plist::cast<plist::Number>(value); }
inline plist::Dictionary* as_dictionary(plist::Value* value) { return plist::cast<plist::Dictionary>(value); }
inline plist::Array* as_array(plist::Value* value) { return plist::cast<plist::Array>(value); }
inline plist::String* as_string(plist::Value* value) { return plist::cast<plist::String>(value); }
inline plist::Data* as_data(plist::Value* value) { return plist::cast<plist::Data>(value); }
inline plist::Date* as_date(plist::Value* value) { return plist::cast<plist::Date>(value); }
inline plist::Boolean* as_boolean(plist::Value* value) { return plist::cast<plist::Boolean>(value); }

// Snapshot iteration: calls back once for each element that the container holds when the iteration begins, in the
// container's order. The callback borrows keys and values, and may change the container. Throws std::bad_alloc,
// before the first call, where memory is out.

template <std::invocable<plist::String*, plist::Value*> Callback>
void dict_apply_block(const plist::Dictionary& dictionary, Callback&& callback) {
  const auto entries = dictionary.entries();
  const std::vector<plist::Dictionary::Entry> snapshot(entries.begin(), entries.end());
  for (const plist::Dictionary::Entry& entry : snapshot) callback(entry.key.get(), entry.value.get());
}

template <std::invocable<plist::Value*> Callback>
void array_apply_block(const plist::Array& array, Callback&& callback) {
  const std::vector<plist::Ref<plist::Value>> snapshot(array.items().begin(), array.items().end());
  for (const plist::Ref<plist::Value>& item : snapshot) callback(item.get());
}

template <std::invocable<plist::Value*> Callback>
void set_apply_block(const plist::Set& set, Callback&& callback) {
  const std::vector<plist::Ref<plist::Value>> snapshot(set.items().begin(), set.items().end());
  for (const plist::Ref<plist::Value>& item : snapshot) callback(item.get());
}

}  // namespace corvane
