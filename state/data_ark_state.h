#pragma once

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "plist/hash_tables.h"
#include "plist/value.h"
#include "state/data_ark.h"

// What an ark consists of. Only the sources that implement it include this.

namespace corvane {

template <class T>
using ByComposedKey = absl::flat_hash_map<std::string, T, plist::BytesHash, std::equal_to<>>;

/// The composed keys in order, each with the position of its entry among the `entries` of the values.
using KeyOrder = absl::btree_map<std::string_view, uint32_t>;

/// What can happen to an entry, in the order in which the watches for it are registered.
enum class ArkEvent { change, set, remove };

struct data_ark {
  /// Null until something was loaded or set. Whoever adds or removes an entry updates `order` too.
  plist::Ref<plist::MutableDictionary> values;
  uint32_t dirty = 0;
  uint64_t changes = 0;  ///< of values and attributes, whether or not they are counted as unsaved

  /// One bit for each attribute. A key without attributes is absent.
  ByComposedKey<uint16_t> attributes;
  std::array<ByComposedKey<plist::Ref<plist::String>>, 3> notifications;  ///< by ArkEvent
  std::array<ByComposedKey<const std::function<void()>*>, 3> callbacks;   ///< by ArkEvent
  std::deque<std::function<void()>> callback_copies;                      ///< its elements never move

  /// Built at the first copy of a domain or of a page. Its keys point into the key objects of `values`.
  std::unique_ptr<KeyOrder> order;

  uint64_t stores = 0, failed_stores = 0;
  bool was_unreadable = false;  ///< at the load there was a file, but none that could be read
  /// The ark's file could be neither read nor renamed, and must not be deleted.
  bool unreadable_in_place = false;

  /// `order`, which is built where it is not there yet. Precondition: there are `values`.
  const KeyOrder& keys_in_order();

  uint16_t attributes_of(std::string_view composed_key) const {
    if (attributes.empty()) return 0;
    const auto found = attributes.find(composed_key);
    return found == attributes.end() ? uint16_t{0} : found->second;
  }
};

constexpr uint16_t attribute_bit(unsigned index) { return static_cast<uint16_t>(1u << index); }

/// Asserts that the calling thread may use the ark.
void assert_ark_owner();

/// Entries with one of these are not stored.
inline constexpr uint16_t transient_attributes =
    attribute_bit(ARK_NOT_STORED) | attribute_bit(ARK_ALSO_NOT_STORED);

}  // namespace corvane
