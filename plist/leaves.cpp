#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <utility>

#include "plist/unicode.h"
#include "plist/value.h"

namespace corvane::plist {

Ref<String> String::allocate(size_t size, bool ascii) {
  Ref<String> string = make<String>(size + 1, size, ascii);
  string->text()[size] = '\0';
  return string;
}

Ref<String> String::copy(std::string_view utf8, bool ascii) {
  Ref<String> string = allocate(utf8.size(), ascii);
  if (!utf8.empty()) std::memcpy(string->text(), utf8.data(), utf8.size());
  return string;
}

Ref<String> String::create(std::string_view utf8) {
  if (unicode::is_ascii(utf8)) return copy(utf8, true);
  return unicode::is_utf8(utf8) ? copy(utf8, false) : create(unicode::repaired_utf8(utf8));
}

Ref<String> String::create_from_ascii(std::string_view bytes) {
  return unicode::is_ascii(bytes) ? copy(bytes, true) : nullptr;
}

Ref<String> String::create_from_utf16be(std::string_view bytes) {
  const std::optional<size_t> size = unicode::utf8_size_of_utf16be(bytes);
  if (!size) return nullptr;
  Ref<String> string = allocate(*size, *size == bytes.size() / 2);
  unicode::utf16be_to_utf8(bytes, string->text());
  return string;
}

const char* String::c_string() const { return std::memchr(text(), '\0', size_) == nullptr ? text() : nullptr; }

Ref<MutableData> MutableData::create(size_t size) {
  if (size > std::numeric_limits<size_t>::max() - sizeof(MutableData)) throw std::bad_alloc();
  return make<MutableData>(size, size);
}

Ref<MutableData> MutableData::create_or_null(size_t size) {
  try {
    return create(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

Ref<MutableData> MutableData::create_secret(size_t size) {
  Ref<MutableData> data = create_or_null(size);
  if (data) data->secret_ = true;
  return data;
}

Ref<Data> MutableData::freeze(Ref<MutableData> data) {
  data->drop_mutability();
  return data;
}

Ref<Data> MutableData::freeze(Ref<MutableData> data, size_t size) {
  if (data->secret_) explicit_bzero(data->start_ + size, data->size_ - size);
  data->size_ = size;
  return freeze(std::move(data));
}

Ref<Data> Data::create(std::string_view bytes) {
  Ref<MutableData> data = MutableData::create(bytes.size());
  if (!bytes.empty()) std::memcpy(data->mutable_bytes(), bytes.data(), bytes.size());
  return MutableData::freeze(std::move(data));
}

Ref<Data> Data::slice(Ref<Data> whole, size_t offset, size_t size) {
  char* start = whole->start_ + offset;
  // The slice holds the data value that owns the bytes, so that slices of slices form no chain.
  Ref<Data> owner = whole->owner_ ? whole->owner_ : std::move(whole);
  return make<Data>(0, start, size, std::move(owner), false);
}

Ref<Date> Date::create(double seconds_since_2001) { return make<Date>(0, seconds_since_2001); }

Ref<Number> Number::create_int32(int32_t value) { return make<Number>(0, Type::int32, value); }

Ref<Number> Number::create_int64(int64_t value) { return make<Number>(0, Type::int64, value); }

Ref<Number> Number::create_uint64(uint64_t value) {
  const bool fits = value <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  return make<Number>(0, fits ? Type::int64 : Type::uint64, static_cast<int64_t>(value));
}

Ref<Number> Number::create_real(double value) {
  return make<Number>(0, std::isnan(value) ? std::numeric_limits<double>::quiet_NaN() : value);
}

Boolean* Boolean::yes() {
  static Boolean value;
  return &value;
}

Boolean* Boolean::no() {
  static Boolean value;
  return &value;
}

}  // namespace corvane::plist
