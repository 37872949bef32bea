// The values of corvane.h.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>
#include <vector>

#include "client/boundary.h"
#include "plist/comparing.h"
#include "plist/reader.h"
#include "plist/unicode.h"
#include "wire/limits.h"

using corvane::client::from_c;
using corvane::client::hand_over;
using corvane::client::to_c;
using corvane::client::without_exceptions;
using corvane::plist::cast;
using corvane::plist::Ref;
namespace plist = corvane::plist;

namespace {

constexpr double unix_time_of_2001 = 978307200;

std::span<const Ref<plist::Value>> items_of(const plist::Value* value) {
  if (const auto* array = cast<plist::Array>(value)) return array->items();
  if (const auto* set = cast<plist::Set>(value)) return set->items();
  return {};
}

const char* text_of(const plist::String* string, size_t* length) {
  if (length != nullptr) *length = string == nullptr ? 0 : string->view().size();
  return string == nullptr ? nullptr : string->view().data();
}

template <class T>
corvane_status store(T value, T* place) {
  if (place != nullptr) *place = value;
  return CORVANE_OK;
}

// The value that `create` makes; null where it makes none or memory is out.
template <class Create>
corvane_value* new_value(Create create) {
  return without_exceptions([&] { return hand_over(create()); },
                            [] { return static_cast<corvane_value*>(nullptr); });
}

Ref<plist::Value> string(const char* text, size_t length) {
  if (text == nullptr || !plist::unicode::is_utf8({text, length})) return nullptr;
  return plist::String::create({text, length});
}

// The values that a new container takes over. Those that do not get into it are released.
class Owned {
 public:
  Owned(corvane_value* const* values, size_t count) : values_(values), count_(values == nullptr ? 0 : count) {}
  ~Owned() {
    while (next_ < count_) corvane_value_release(values_[next_++]);
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;

  bool are_complete() const {
    return std::none_of(values_, values_ + count_, [](const corvane_value* value) { return value == nullptr; });
  }
  Ref<plist::Value> take() { return Ref<plist::Value>::adopt(reinterpret_cast<plist::Value*>(values_[next_++])); }
  size_t size() const { return count_; }

 private:
  corvane_value* const* const values_;
  const size_t count_;
  size_t next_ = 0;
};

// A set hashes its members, which takes stack for each level, and time for each time that a value occurs.
bool can_be_hashed(const plist::Value& value, unsigned depth_limit, size_t& bytes_left) {
  const size_t size = 1 + (value.is_container() ? 0 : plist::content_of(value));
  if (size > bytes_left) return false;
  bytes_left -= size;
  if (!value.is_container()) return true;
  if (depth_limit == 0) return false;
  const auto fits = [&](const auto& item) { return can_be_hashed(*item, depth_limit - 1, bytes_left); };
  if (const auto* dictionary = cast<plist::Dictionary>(&value)) {
    return std::ranges::all_of(dictionary->entries(),
                               [&](const auto& entry) { return fits(entry.key) && fits(entry.value); });
  }
  return std::ranges::all_of(items_of(&value), fits);
}

Ref<plist::Value> array(Owned& items) {
  Ref<plist::MutableArray> array = plist::MutableArray::create();
  for (size_t i = 0; i < items.size(); ++i) array->append(items.take());
  return plist::MutableArray::freeze(std::move(array));
}

Ref<plist::Value> set(Owned& members) {
  Ref<plist::MutableSet> set = plist::MutableSet::create();
  size_t bytes_left = corvane::wire::admin_request_limit;
  for (size_t i = 0; i < members.size(); ++i) {
    Ref<plist::Value> member = members.take();
    if (!can_be_hashed(*member, plist::max_depth, bytes_left)) return nullptr;
    set->add(std::move(member));
  }
  return plist::MutableSet::freeze(std::move(set));
}

Ref<plist::Value> dictionary(const char* const* keys, const size_t* key_lengths, Owned& values) {
  Ref<plist::MutableDictionary> dictionary = plist::MutableDictionary::create();
  for (size_t i = 0; i < values.size(); ++i) {
    if (keys == nullptr || keys[i] == nullptr) return nullptr;
    const std::string_view key(keys[i], key_lengths == nullptr ? std::strlen(keys[i]) : key_lengths[i]);
    if (!plist::unicode::is_utf8(key)) return nullptr;
    dictionary->set(key, values.take());
  }
  return plist::MutableDictionary::freeze(std::move(dictionary));
}

// The container that `create` makes of the values.
template <class Create>
corvane_value* new_container(corvane_value* const* values, size_t count, Create create) {
  Owned owned(values, count);
  const bool is_whole = (values != nullptr || count == 0) && owned.are_complete();
  return is_whole ? new_value([&] { return create(owned); }) : nullptr;
}

}  // namespace

// ---- looking at values --------------------------------------------------------------------------------

corvane_kind corvane_value_kind(const corvane_value* value) {
  if (value == nullptr) return CORVANE_NONE;
  switch (from_c(value)->kind()) {
    case plist::Kind::dictionary:
      return CORVANE_DICTIONARY;
    case plist::Kind::array:
      return CORVANE_ARRAY;
    case plist::Kind::set:
      return CORVANE_SET;
    case plist::Kind::string:
      return CORVANE_STRING;
    case plist::Kind::data:
      return CORVANE_DATA;
    case plist::Kind::date:
      return CORVANE_DATE;
    case plist::Kind::number:
      return cast<plist::Number>(from_c(value))->is_integer() ? CORVANE_INTEGER : CORVANE_REAL;
    case plist::Kind::boolean:
      return CORVANE_BOOLEAN;
  }
  return CORVANE_NONE;
}

corvane_value* corvane_value_retain(const corvane_value* value) {
  return hand_over(const_cast<plist::Value*>(from_c(value)));
}

void corvane_value_release(corvane_value* value) {
  Ref<plist::Value>::adopt(reinterpret_cast<plist::Value*>(value));
}

size_t corvane_value_count(const corvane_value* value) {
  const auto* dictionary = cast<plist::Dictionary>(from_c(value));
  return dictionary != nullptr ? dictionary->size() : items_of(from_c(value)).size();
}

const corvane_value* corvane_value_at(const corvane_value* value, size_t position) {
  if (position >= corvane_value_count(value)) return nullptr;
  const auto* dictionary = cast<plist::Dictionary>(from_c(value));
  return to_c(dictionary != nullptr ? dictionary->entries()[position].value.get()
                                    : items_of(from_c(value))[position].get());
}

const char* corvane_value_key_at(const corvane_value* value, size_t position, size_t* length) {
  const auto* dictionary = cast<plist::Dictionary>(from_c(value));
  const bool is_there = dictionary != nullptr && position < dictionary->size();
  return text_of(is_there ? dictionary->entries()[position].key.get() : nullptr, length);
}

const corvane_value* corvane_value_get(const corvane_value* value, const char* key) {
  const auto* dictionary = cast<plist::Dictionary>(from_c(value));
  return dictionary == nullptr || key == nullptr ? nullptr : to_c(dictionary->get(key));
}

const char* corvane_value_string(const corvane_value* value, size_t* length) {
  return text_of(cast<plist::String>(from_c(value)), length);
}

const void* corvane_value_data(const corvane_value* value, size_t* length) {
  const auto* data = cast<plist::Data>(from_c(value));
  if (length != nullptr) *length = data == nullptr ? 0 : data->bytes().size();
  if (data == nullptr) return nullptr;
  return data->bytes().empty() ? "" : data->bytes().data();
}

corvane_status corvane_value_int64(const corvane_value* value, int64_t* integer) {
  const auto* number = cast<plist::Number>(from_c(value));
  const bool fits = number != nullptr && number->is_integer() && number->type() != plist::Number::Type::uint64;
  return fits ? store(number->int64(), integer) : CORVANE_WRONG_KIND;
}

corvane_status corvane_value_uint64(const corvane_value* value, uint64_t* integer) {
  const auto* number = cast<plist::Number>(from_c(value));
  const bool fits = number != nullptr && number->is_integer() &&
                    (number->type() == plist::Number::Type::uint64 || number->int64() >= 0);
  return fits ? store(number->uint64(), integer) : CORVANE_WRONG_KIND;
}

corvane_status corvane_value_real(const corvane_value* value, double* real) {
  const auto* number = cast<plist::Number>(from_c(value));
  return number != nullptr && !number->is_integer() ? store(number->real(), real) : CORVANE_WRONG_KIND;
}

corvane_status corvane_value_boolean(const corvane_value* value, bool* boolean) {
  const auto* found = cast<plist::Boolean>(from_c(value));
  return found != nullptr ? store(found->value(), boolean) : CORVANE_WRONG_KIND;
}

corvane_status corvane_value_date(const corvane_value* value, double* seconds_since_2001) {
  const auto* date = cast<plist::Date>(from_c(value));
  return date != nullptr ? store(date->seconds(), seconds_since_2001) : CORVANE_WRONG_KIND;
}

corvane_status corvane_value_unix_time(const corvane_value* value, double* seconds_since_1970) {
  const auto* date = cast<plist::Date>(from_c(value));
  return date != nullptr ? store(date->seconds() + unix_time_of_2001, seconds_since_1970) : CORVANE_WRONG_KIND;
}

// ---- new values ---------------------------------------------------------------------------------------

corvane_value* corvane_string_new(const char* text) {
  return corvane_string_new_with_length(text, text == nullptr ? 0 : std::strlen(text));
}

corvane_value* corvane_string_new_with_length(const char* text, size_t length) {
  return new_value([&] { return string(text, length); });
}

corvane_value* corvane_data_new(const void* bytes, size_t length) {
  if (bytes == nullptr && length > 0) return nullptr;
  return new_value([&] { return plist::Data::create({static_cast<const char*>(bytes), length}); });
}

corvane_value* corvane_int64_new(int64_t integer) {
  return new_value([&] { return plist::Number::create_int64(integer); });
}

corvane_value* corvane_uint64_new(uint64_t integer) {
  return new_value([&] { return plist::Number::create_uint64(integer); });
}

corvane_value* corvane_real_new(double real) {
  return new_value([&] { return plist::Number::create_real(real); });
}

corvane_value* corvane_boolean_new(bool boolean) {
  return hand_over(static_cast<plist::Value*>(plist::Boolean::of(boolean)));
}

corvane_value* corvane_date_new(double seconds_since_2001) {
  if (!std::isfinite(seconds_since_2001)) return nullptr;
  return new_value([&] { return plist::Date::create(seconds_since_2001); });
}

corvane_value* corvane_date_new_from_unix_time(double seconds_since_1970) {
  return corvane_date_new(seconds_since_1970 - unix_time_of_2001);
}

corvane_value* corvane_array_new(corvane_value* const* items, size_t count) {
  return new_container(items, count, array);
}

corvane_value* corvane_set_new(corvane_value* const* members, size_t count) {
  return new_container(members, count, set);
}

corvane_value* corvane_dictionary_new(const char* const* keys, const size_t* key_lengths,
                                      corvane_value* const* values, size_t count) {
  return new_container(values, count, [&](Owned& owned) { return dictionary(keys, key_lengths, owned); });
}
