// Every operation composes its key and looks it up in hash tables: one for the values, one for the attributes, and
// one for each kind of watch. Tables, values and counts are changed in an order that leaves the ark consistent
// where an allocation fails.

#include "state/data_ark.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>
#include <new>
#include <utility>

#include "daemon/log/cv_log.h"
#include "platform/notifications.h"
#include "platform/platform.h"
#include "platform/run_loop.h"
#include "state/data_ark_state.h"
#include "state/end_process.h"
#include "state/values.h"

namespace corvane {

using plist::Ref;
using plist::String;

namespace {

// A change of an entry with one of these is not counted as unsaved.
constexpr uint16_t uncounted_attributes = transient_attributes | attribute_bit(ARK_CHANGE_UNCOUNTED);

// About what a string and its entry take besides the text.
constexpr size_t usual_value_size = 56;

void compose(std::string& composed, const String* domain, const String* key) {
  composed.clear();
  if (domain != nullptr) composed += domain->view();
  composed += '-';
  if (key != nullptr) composed += key->view();
}

/// A composed key and its domain's own key. All share one buffer, so that composing seldom allocates: a key is
/// valid until the next one is composed. Operations on the ark do not nest.
class ComposedKey {
 public:
  ComposedKey(const String* domain, const String* key)
      : domain_key_size_((domain == nullptr ? 0 : domain->view().size()) + 1) {
    compose(text_, domain, key);
  }

  std::string_view full() const { return text_; }
  std::string_view domain_key() const { return full().substr(0, domain_key_size_); }

 private:
  static inline thread_local std::string text_;
  const size_t domain_key_size_;
};

void post(data_ark& ark, ArkEvent event, std::string_view key) {
  const auto& names = ark.notifications[static_cast<size_t>(event)];
  if (names.empty()) return;
  const auto found = names.find(key);
  if (found != names.end()) platform().notifications().post(*found->second);
}

void schedule(data_ark& ark, ArkEvent event, std::string_view key) {
  const auto& callbacks = ark.callbacks[static_cast<size_t>(event)];
  if (callbacks.empty()) return;
  const auto found = callbacks.find(key);
  if (found == callbacks.end()) return;
  platform().main_queue().submit([callback = found->second] { (*callback)(); });
}

void notify_watches(data_ark& ark, ArkEvent event, const ComposedKey& key) {
  post(ark, event, key.full());
  post(ark, event, key.domain_key());
  schedule(ark, event, key.full());
  schedule(ark, event, key.domain_key());
}

void replace_attributes(data_ark& ark, std::string_view key, uint16_t attributes) {
  if (ark.attributes_of(key) == attributes) return;
  if (attributes == 0) {
    ark.attributes.erase(key);
  } else {
    std::string owned_key(key);
    plist::make_room(ark.attributes);
    ark.attributes.try_emplace(std::move(owned_key)).first->second = attributes;
  }
  ++ark.changes;
}

// -1, with nothing changed, where memory is out.
template <class Change>
int change_attributes(data_ark& ark, const String* domain, const String* key, Change change) {
  try {
    const ComposedKey composed(domain, key);
    const unsigned changed = change(ark.attributes_of(composed.full()));
    replace_attributes(ark, composed.full(), static_cast<uint16_t>(changed));
    return 0;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

// Answers whether the value differs from the previous one. Where it throws, nothing has changed.
bool store_value(data_ark& ark, const ComposedKey& key, plist::Value* value, bool inherits) {
  if (Ref<plist::Value>* entry = ark.values->find_value(key.full())) {
    const bool changed = !plist::equal(entry->get(), value);
    *entry = value;
    return changed;
  }
  const Ref<String> key_object = String::create(key.full());
  const uint16_t inherited = inherits ? ark.attributes_of(key.domain_key()) : uint16_t{0};
  std::string attributes_key;
  if (inherited != 0) {
    attributes_key = key.full();
    plist::make_room(ark.attributes);
  }
  if (ark.order != nullptr) ark.order->emplace(key_object->view(), static_cast<uint32_t>(ark.values->size()));
  try {
    ark.values->set(key_object, value);
  } catch (const std::bad_alloc&) {
    if (ark.order != nullptr) ark.order->erase(key_object->view());
    throw;
  }
  if (inherited != 0) ark.attributes.try_emplace(std::move(attributes_key)).first->second |= inherited;
  return true;
}

int set(data_ark& ark, const ComposedKey& key, plist::Value* value, bool inherits) {
  if (!ark.values) ark.values = plist::MutableDictionary::create();
  const bool changed = store_value(ark, key, value, inherits);
  const bool dirties = changed && (ark.attributes_of(key.full()) & uncounted_attributes) == 0;
  if (changed) ++ark.changes;
  if (dirties) ++ark.dirty;  // before the watches, for which memory may run out
  if (changed) notify_watches(ark, ArkEvent::change, key);
  notify_watches(ark, ArkEvent::set, key);
  if (dirties) cv_log("data_ark_set", 0, "dirtied by changing %@", String::create(key.full()));
  return 0;
}

template <class Create>
void set_number(const char* function, data_ark* ark, const String* domain, const String* key, Create create) {
  Ref<plist::Number> number;
  try {
    number = create();
  } catch (const std::bad_alloc&) {
    end_process(function, "Out of Memory!");
  }
  data_ark_set(ark, domain, key, number.get());
}

// Called before the entry is removed. The last entry takes its place.
void remove_from_order(data_ark& ark, std::string_view key) {
  if (ark.order == nullptr) return;
  const auto removed = ark.order->find(key);
  if (removed == ark.order->end()) return;
  ark.order->find(ark.values->entries().back().key->view())->second = removed->second;
  ark.order->erase(removed);
}

Ref<plist::Value> copy_domain(data_ark& ark, std::string_view prefix) {
  const KeyOrder& keys = ark.keys_in_order();
  const auto first = keys.lower_bound(prefix);
  auto last = first;
  size_t count = 0, size = 0;
  for (; last != keys.end() && last->first.starts_with(prefix); ++last) {
    ++count;
    size += last->first.size() - prefix.size();
  }
  const plist::ValueBlocks blocks(size + (count + 1) * usual_value_size);
  Ref<plist::MutableDictionary> domain = plist::MutableDictionary::create(count);
  for (auto next = first; next != last; ++next) {
    const plist::Dictionary::Entry& entry = ark.values->entries()[next->second];
    domain->set(String::create(next->first.substr(prefix.size())), entry.value);
  }
  return domain;
}

// ---- conversions --------------------------------------------------------------------------------------

template <class Integer>
Integer leading_integer(std::string_view text) {
  constexpr int64_t limit = int64_t{1} << 31;
  size_t at = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
  const bool negative = text.substr(at).starts_with('-');
  if (negative || text.substr(at).starts_with('+')) ++at;
  int64_t value = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    value = std::min(value * 10 + (text[at] - '0'), limit);
  }
  return static_cast<Integer>(negative ? -value : std::min(value, limit - 1));
}

template <class Integer>
Integer whole_part(double real) {
  if (std::isnan(real)) return 0;
  // The largest 64-bit integer is no double. The next power of two is.
  const double bound = std::ldexp(1.0, std::numeric_limits<Integer>::digits);
  if (real >= bound) return std::numeric_limits<Integer>::max();
  if (real < -bound) return std::numeric_limits<Integer>::min();
  return static_cast<Integer>(real);
}

template <class Integer>
Integer to_integer(plist::Value* value) {
  if (const auto* boolean = as_boolean(value)) return boolean->value() ? 1 : 0;
  if (const auto* string = as_string(value)) return leading_integer<Integer>(string->view());
  const auto* number = as_number(value);
  if (number == nullptr) return 0;
  return number->is_integer() ? static_cast<Integer>(number->int64()) : whole_part<Integer>(number->real());
}

template <class Integer>
Integer get_integer(data_ark* ark, const String* domain, const String* key) {
  assert_ark_owner();
  if (!ark->values) return 0;
  if (key == nullptr) return 0;  // data_ark_copy answers a dictionary, which is no integer
  return to_integer<Integer>(ark->values->get(ComposedKey(domain, key).full()));
}

// ---- watches ------------------------------------------------------------------------------------------

struct Registration {
  unsigned flag;
  ArkEvent event;
};

constexpr Registration registrations[] = {
    {ARK_WATCH_CHANGE, ArkEvent::change}, {ARK_WATCH_SET, ArkEvent::set}, {ARK_WATCH_REMOVE, ArkEvent::remove}};

template <class Watches, class Watch>
int register_watch(Watches& watches, const String* domain, const String* key, const Watch& watch, unsigned flags) {
  try {
    const ComposedKey composed(domain, key);
    for (const Registration& registration : registrations) {
      if ((flags & registration.flag) == 0) continue;
      auto& by_key = watches[static_cast<size_t>(registration.event)];
      std::string owned_key(composed.full());
      plist::make_room(by_key);
      by_key.insert_or_assign(std::move(owned_key), watch);
    }
    return 0;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

}  // namespace

const KeyOrder& data_ark::keys_in_order() {
  if (order == nullptr) {
    auto keys = std::make_unique<KeyOrder>();
    const auto entries = values->entries();
    for (uint32_t position = 0; position < entries.size(); ++position) {
      keys->emplace(entries[position].key->view(), position);
    }
    order = std::move(keys);
  }
  return *order;
}

void assert_ark_owner() {
  assert(platform().request_queue().is_current() && "the ark belongs to the request queue");
}

void DataArkDeleter::operator()(data_ark* ark) const { delete ark; }

int data_ark_set(data_ark* ark, const String* domain, const String* key, plist::Value* value) {
  assert_ark_owner();
  if (value == nullptr) {
    cv_log("data_ark_set", 0, "data_ark_set: value is NULL");
    return -1;
  }
  try {
    return set(*ark, ComposedKey(domain, key), value, key != nullptr);
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

void data_ark_set_int(data_ark* ark, const String* domain, const String* key, int32_t value) {
  set_number("data_ark_set_int", ark, domain, key, [value] { return plist::Number::create_int32(value); });
}

void data_ark_set_int64(data_ark* ark, const String* domain, const String* key, int64_t value) {
  set_number("data_ark_set_int64", ark, domain, key, [value] { return plist::Number::create_int64(value); });
}

Ref<plist::Value> data_ark_copy(data_ark* ark, const String* domain, const String* key) {
  assert_ark_owner();
  if (!ark->values) return nullptr;
  const ComposedKey composed(domain, key);
  if (key != nullptr) return ark->values->get(composed.full());
  return copy_domain(*ark, composed.full());
}

int32_t data_ark_get_int(data_ark* ark, const String* domain, const String* key) {
  return get_integer<int32_t>(ark, domain, key);
}

int64_t data_ark_get_int64(data_ark* ark, const String* domain, const String* key) {
  return get_integer<int64_t>(ark, domain, key);
}

int data_ark_remove(data_ark* ark, const String* domain, const String* key) {
  assert_ark_owner();
  if (!ark->values) return -1;
  const ComposedKey composed(domain, key);
  remove_from_order(*ark, composed.full());
  if (!ark->values->remove(composed.full())) return 0;
  const bool transient = (ark->attributes_of(composed.full()) & transient_attributes) != 0;
  ark->attributes.erase(composed.full());
  if (!transient) ++ark->dirty;
  ++ark->changes;
  post(*ark, ArkEvent::remove, composed.full());
  schedule(*ark, ArkEvent::remove, composed.full());
  return 0;
}

bool data_ark_exists(data_ark* ark, const String* domain, const String* key) {
  assert_ark_owner();
  return ark->values && ark->values->get(ComposedKey(domain, key).full()) != nullptr;
}

int data_ark_set_attribute(data_ark* ark, const String* domain, const String* key, unsigned index) {
  assert_ark_owner();
  if (index >= ark_attribute_count) return -1;
  return change_attributes(*ark, domain, key, [index](unsigned before) { return before | attribute_bit(index); });
}

bool data_ark_has_attribute(data_ark* ark, const String* domain, const String* key, unsigned index) {
  assert_ark_owner();
  if (index >= ark_attribute_count) return false;
  return (data_ark_attributes(ark, domain, key) & attribute_bit(index)) != 0;
}

int data_ark_clear_attribute(data_ark* ark, const String* domain, const String* key, unsigned index) {
  assert_ark_owner();
  if (index >= ark_attribute_count) return -1;
  return change_attributes(*ark, domain, key, [index](unsigned before) { return before & ~attribute_bit(index); });
}

uint16_t data_ark_attributes(data_ark* ark, const String* domain, const String* key) {
  assert_ark_owner();
  return ark->attributes_of(ComposedKey(domain, key).full());
}

int data_ark_replace_attributes(data_ark* ark, const String* domain, const String* key, uint16_t attributes) {
  assert_ark_owner();
  if (attributes >> ark_attribute_count != 0) return -1;
  return change_attributes(*ark, domain, key, [attributes](unsigned) { return attributes; });
}

uint64_t data_ark_change_count(data_ark* ark) {
  assert_ark_owner();
  return ark->changes;
}

uint32_t data_ark_dirty_count(data_ark* ark) {
  assert_ark_owner();
  return ark->dirty;
}

ArkStatus data_ark_status(data_ark* ark) {
  assert_ark_owner();
  return {ark->values ? ark->values->size() : 0, ark->dirty, ark->stores, ark->failed_stores, ark->was_unreadable};
}

int data_ark_watch(data_ark* ark, const String* domain, const String* key, Ref<String> notification_name,
                   unsigned flags) {
  assert_ark_owner();
  if (!notification_name) return -1;
  return register_watch(ark->notifications, domain, key, notification_name, flags);
}

int data_ark_watch_block(data_ark* ark, const String* domain, const String* key,
                         const std::function<void()>& callback, unsigned flags) {
  assert_ark_owner();
  if (!callback) return 0;
  const std::function<void()>* copy = nullptr;
  try {
    copy = &ark->callback_copies.emplace_back(callback);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return register_watch(ark->callbacks, domain, key, copy, flags);
}

}  // namespace corvane
