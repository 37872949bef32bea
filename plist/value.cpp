#include "plist/value.h"

#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <tuple>

#include "plist/hash_tables.h"
#include "plist/unicode.h"

namespace corvane::plist {

namespace {

// Up to this many entries a scan beats a hash table and saves its memory.
constexpr size_t scan_limit = 8;

uint64_t mix(uint64_t a, uint64_t b) { return absl::Hash<std::tuple<uint64_t, uint64_t>>()({a, b}); }

uint64_t mix(Kind kind, uint64_t content) { return mix(static_cast<uint64_t>(kind), content); }

// Containers that died while another was being torn down wait here for their turn.
thread_local Container* dead_containers = nullptr;
thread_local bool burying = false;

}  // namespace

// ---- life and death -----------------------------------------------------------------------------------

void Value::destroy(Value* dead) {
  switch (dead->kind_) {
    case Kind::string:
      static_cast<String*>(dead)->~String();
      ::operator delete(dead);
      return;
    case Kind::data:
      if (auto* data = static_cast<Data*>(dead); data->secret_) explicit_bzero(data->start_, data->size_);
      static_cast<Data*>(dead)->~Data();
      ::operator delete(dead);
      return;
    case Kind::date:
      delete static_cast<Date*>(dead);
      return;
    case Kind::number:
      delete static_cast<Number*>(dead);
      return;
    case Kind::boolean:
      return;  // the two Booleans keep a reference of their own and never get here
    case Kind::dictionary:
    case Kind::array:
    case Kind::set:
      break;
  }

  auto* container = static_cast<Container*>(dead);
  if (burying) {
    container->next_dead_ = std::exchange(dead_containers, container);
    return;
  }
  burying = true;
  while (container != nullptr) {
    switch (container->kind_) {
      case Kind::dictionary:
        static_cast<Dictionary*>(container)->~Dictionary();
        break;
      case Kind::array:
        static_cast<Array*>(container)->~Array();
        break;
      default:
        static_cast<Set*>(container)->~Set();
        break;
    }
    ::operator delete(container);
    container = dead_containers;
    if (container != nullptr) dead_containers = container->next_dead_;
  }
  burying = false;
}

// ---- leaves -------------------------------------------------------------------------------------------

String* String::allocate(size_t size, bool ascii) {
  void* memory = ::operator new(sizeof(String) + size + 1);
  auto* string = new (memory) String(size, ascii);
  string->text()[size] = '\0';
  return string;
}

Ref<String> String::create(std::string_view utf8) {
  if (const bool ascii = unicode::is_ascii(utf8); ascii || unicode::is_utf8(utf8)) {
    String* string = allocate(utf8.size(), ascii);
    if (!utf8.empty()) std::memcpy(string->text(), utf8.data(), utf8.size());
    return Ref<String>::adopt(string);
  }
  return create(unicode::repaired_utf8(utf8));
}

Ref<String> String::create_from_utf16be(std::string_view bytes) {
  const std::optional<size_t> size = unicode::utf8_size_of_utf16be(bytes);
  if (!size) return nullptr;
  String* string = allocate(*size, *size == bytes.size() / 2);
  unicode::utf16be_to_utf8(bytes, string->text());
  return Ref<String>::adopt(string);
}

const char* String::c_string() const { return std::memchr(text(), '\0', size_) == nullptr ? text() : nullptr; }

Ref<MutableData> MutableData::create(size_t size) {
  if (size > std::numeric_limits<size_t>::max() - sizeof(MutableData)) throw std::bad_alloc();
  void* memory = ::operator new(sizeof(MutableData) + size);
  char* start = static_cast<char*>(memory) + sizeof(MutableData);
  return Ref<MutableData>::adopt(new (memory) MutableData(start, size, nullptr, true));
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
  void* memory = ::operator new(sizeof(Data));
  return Ref<Data>::adopt(new (memory) Data(start, size, std::move(owner), false));
}

Ref<Date> Date::create(double seconds_since_2001) { return Ref<Date>::adopt(new Date(seconds_since_2001)); }

Ref<Number> Number::create_int32(int32_t value) { return Ref<Number>::adopt(new Number(Type::int32, value)); }

Ref<Number> Number::create_int64(int64_t value) { return Ref<Number>::adopt(new Number(Type::int64, value)); }

Ref<Number> Number::create_uint64(uint64_t value) {
  const bool fits = value <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  return Ref<Number>::adopt(new Number(fits ? Type::int64 : Type::uint64, static_cast<int64_t>(value)));
}

Ref<Number> Number::create_real(double value) {
  return Ref<Number>::adopt(new Number(std::isnan(value) ? std::numeric_limits<double>::quiet_NaN() : value));
}

Boolean* Boolean::yes() {
  static Boolean value;
  return &value;
}

Boolean* Boolean::no() {
  static Boolean value;
  return &value;
}

// ---- containers ---------------------------------------------------------------------------------------

namespace {

// A container's memory, with room for elements behind it. Destroying it gives back the whole.
template <class Element, class Container>
void* allocate_with(size_t capacity) {
  static_assert(sizeof(Container) % alignof(Element) == 0);
  return ::operator new(ElementList<Element>::size_with(sizeof(Container), capacity));
}

}  // namespace

// ---- array --------------------------------------------------------------------------------------------

Ref<MutableArray> MutableArray::create(size_t capacity) {
  return Ref<MutableArray>::adopt(new (allocate_with<Ref<Value>, MutableArray>(capacity)) MutableArray(capacity));
}

Ref<Array> MutableArray::freeze(Ref<MutableArray> array) {
  array->drop_mutability();
  return array;
}

// ---- set ----------------------------------------------------------------------------------------------

// The positions of the items, found by their hashes.
struct Set::Index {
  struct Sought {
    uint64_t hash;
    const Value* value;
  };
  struct Hash {
    using is_transparent = void;
    size_t operator()(uint32_t position) const { return set->hashes_[position]; }
    size_t operator()(const Sought& sought) const { return sought.hash; }
    const Set* set;
  };
  struct Equal {
    using is_transparent = void;
    bool operator()(uint32_t a, uint32_t b) const { return a == b; }
    bool operator()(size_t position, const Sought& sought) const {
      return set->hashes_[position] == sought.hash && equal(set->items_[position].get(), sought.value);
    }
    const Set* set;
  };

  explicit Index(const Set& set) : positions(0, Hash{&set}, Equal{&set}) {
    make_room(positions, set.items_.capacity());
    for (uint32_t i = 0; i < set.size(); ++i) positions.insert(i);
  }

  absl::flat_hash_set<uint32_t, Hash, Equal> positions;
};

Set::Set(size_t capacity) : Container(Kind::set, true), items_(this + 1, capacity) {}
Set::~Set() = default;

bool Set::contains(const Value& value) const { return contains(value, hash(value)); }

bool Set::contains(const Value& value, uint64_t value_hash) const {
  const Index::Sought sought{value_hash, &value};
  if (index_ != nullptr) return index_->positions.contains(sought);
  for (size_t i = 0; i < items_.size(); ++i) {
    if (Index::Equal{this}(i, sought)) return true;
  }
  return false;
}

Ref<MutableSet> MutableSet::create(size_t capacity) {
  void* memory = allocate_with<Ref<Value>, MutableSet>(capacity);
  auto set = Ref<MutableSet>::adopt(new (memory) MutableSet(capacity));
  set->hashes_.reserve(capacity);
  return set;
}

Ref<Set> MutableSet::freeze(Ref<MutableSet> set) {
  set->drop_mutability();
  return set;
}

void MutableSet::add(Ref<Value> value) {
  const uint64_t value_hash = hash(*value);
  if (contains(*value, value_hash)) return;
  // Room first, so that nothing can fail once the item is there.
  if (hashes_.size() == hashes_.capacity()) hashes_.reserve(std::max<size_t>(4, 2 * hashes_.size()));
  if (index_ == nullptr && items_.size() >= scan_limit) index_ = std::make_unique<Index>(*this);
  if (index_ != nullptr) make_room(index_->positions);
  items_.push_back(std::move(value));
  hashes_.push_back(value_hash);
  if (index_ != nullptr) index_->positions.insert(static_cast<uint32_t>(items_.size() - 1));
  members_hash_ += value_hash;
}

// ---- dictionary ---------------------------------------------------------------------------------------

// The positions of the entries, found by their keys. A position takes the least room, and a lookup misses the
// cache least, that way.
struct Dictionary::Index {
  struct Slot {
    mutable uint32_t position;  // follows an entry that moves; its hash, which is the key's, stays
  };
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view key) const { return BytesHash()(key); }
    size_t operator()(Slot slot) const { return BytesHash()((*entries)[slot.position].key->view()); }
    const ElementList<Entry>* entries;
  };
  struct Equal {
    using is_transparent = void;
    bool operator()(Slot a, Slot b) const { return a.position == b.position; }
    bool operator()(Slot slot, std::string_view key) const {
      const Entry& entry = (*entries)[slot.position];
      // Whoever looks an entry up wants its value, which comes in while the keys are compared.
      __builtin_prefetch(entry.value.get());
      return entry.key->view() == key;
    }
    const ElementList<Entry>* entries;
  };

  explicit Index(const ElementList<Entry>& entries) : positions(0, Hash{&entries}, Equal{&entries}) {
    make_room(positions, entries.capacity());
    for (uint32_t i = 0; i < entries.size(); ++i) positions.insert({i});
  }

  absl::flat_hash_set<Slot, Hash, Equal> positions;
};

Dictionary::Dictionary(size_t capacity) : Container(Kind::dictionary, true), entries_(this + 1, capacity) {}
Dictionary::~Dictionary() = default;

size_t Dictionary::find(std::string_view key) const {
  if (index_ != nullptr) {
    const auto found = index_->positions.find(key);
    return found == index_->positions.end() ? not_found : found->position;
  }
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].key->view() == key) return i;
  }
  return not_found;
}

Value* Dictionary::get(std::string_view key) const {
  const size_t position = find(key);
  return position == not_found ? nullptr : entries_[position].value.get();
}

Ref<MutableDictionary> MutableDictionary::create(size_t capacity) {
  void* memory = allocate_with<Entry, MutableDictionary>(capacity);
  return Ref<MutableDictionary>::adopt(new (memory) MutableDictionary(capacity));
}

Ref<MutableDictionary> MutableDictionary::copy(const Dictionary& other) {
  Ref<MutableDictionary> dictionary = create(other.size());
  for (const Entry& entry : other.entries()) dictionary->entries_.push_back(entry);
  dictionary->build_index();
  return dictionary;
}

Ref<Dictionary> MutableDictionary::freeze(Ref<MutableDictionary> dictionary) {
  dictionary->drop_mutability();
  return dictionary;
}

void MutableDictionary::build_index() {
  if (entries_.size() > scan_limit) index_ = std::make_unique<Index>(entries_);
}

void MutableDictionary::set(Ref<String> key, Ref<Value> value) {
  if (index_ == nullptr) return set_without_index(std::move(key), std::move(value));
  if (entries_.size() == std::numeric_limits<uint32_t>::max()) throw std::bad_alloc();
  // Room first, so that nothing can fail once the index names the entry.
  make_room(index_->positions);
  if (entries_.size() == entries_.capacity()) entries_.reserve(2 * entries_.size());
  bool is_new = false;
  const auto entry = index_->positions.lazy_emplace(key->view(), [&](const auto& emplace) {
    emplace(Index::Slot{static_cast<uint32_t>(entries_.size())});
    is_new = true;
  });
  if (!is_new) {
    entries_[entry->position].value = std::move(value);
    return;
  }
  entries_.push_back({std::move(key), std::move(value)});
}

void MutableDictionary::set_without_index(Ref<String> key, Ref<Value> value) {
  const size_t position = find(key->view());
  if (position != not_found) {
    entries_[position].value = std::move(value);
    return;
  }
  entries_.push_back({std::move(key), std::move(value)});
  try {
    build_index();
  } catch (...) {
    entries_.pop_back();
    throw;
  }
}

void MutableDictionary::set(std::string_view key, Ref<Value> value) {
  if (Ref<Value>* entry = find_value(key)) {
    *entry = std::move(value);
  } else {
    set(String::create(key), std::move(value));
  }
}

Ref<Value>* MutableDictionary::find_value(std::string_view key) {
  const size_t position = find(key);
  return position == not_found ? nullptr : &entries_[position].value;
}

void MutableDictionary::add(std::string_view key, Ref<Value> value) {
  if (find(key) == not_found) set(String::create(key), std::move(value));
}

bool MutableDictionary::remove(std::string_view key) {
  const size_t position = find(key);
  if (position == not_found) return false;
  if (index_ != nullptr) index_->positions.erase(key);
  // The last entry takes the place, so that removal costs the same in every dictionary.
  if (position + 1 != entries_.size()) {
    if (index_ != nullptr) {
      index_->positions.find(entries_.back().key->view())->position = static_cast<uint32_t>(position);
    }
    std::swap(entries_[position], entries_.back());
  }
  entries_.pop_back();
  return true;
}

// ---- equality and hash --------------------------------------------------------------------------------

namespace {

bool equal_numbers(const Number& a, const Number& b) {
  if (a.is_integer() != b.is_integer()) return false;
  if (!a.is_integer()) return std::bit_cast<uint64_t>(a.real()) == std::bit_cast<uint64_t>(b.real());
  return a.int64() == b.int64() && (a.type() == Number::Type::uint64) == (b.type() == Number::Type::uint64);
}

uint64_t hash_number(const Number& number) {
  switch (number.type()) {
    case Number::Type::real:
      return mix(1, std::bit_cast<uint64_t>(number.real()));
    case Number::Type::uint64:
      return mix(2, number.uint64());
    default:
      return mix(3, number.uint64());
  }
}

bool equal_dictionaries(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size()) return false;
  for (const Dictionary::Entry& entry : a.entries()) {
    const Value* other = b.get(entry.key->view());
    if (other == nullptr || !equal(entry.value.get(), other)) return false;
  }
  return true;
}

bool equal_arrays(const Array& a, const Array& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (!equal(a.at(i), b.at(i))) return false;
  }
  return true;
}

bool equal_sets(const Set& a, const Set& b) {
  if (a.size() != b.size()) return false;
  for (const Ref<Value>& item : a.items()) {
    if (!b.contains(*item)) return false;
  }
  return true;
}

}  // namespace

bool equal(const Value* a, const Value* b) {
  if (a == b) return true;
  if (a == nullptr || b == nullptr || a->kind() != b->kind()) return false;
  switch (a->kind()) {
    case Kind::dictionary:
      return equal_dictionaries(*cast<Dictionary>(a), *cast<Dictionary>(b));
    case Kind::array:
      return equal_arrays(*cast<Array>(a), *cast<Array>(b));
    case Kind::set:
      return equal_sets(*cast<Set>(a), *cast<Set>(b));
    case Kind::string:
      return cast<String>(a)->view() == cast<String>(b)->view();
    case Kind::data:
      return cast<Data>(a)->bytes() == cast<Data>(b)->bytes();
    case Kind::date:
      return std::bit_cast<uint64_t>(cast<Date>(a)->seconds()) ==
             std::bit_cast<uint64_t>(cast<Date>(b)->seconds());
    case Kind::number:
      return equal_numbers(*cast<Number>(a), *cast<Number>(b));
    case Kind::boolean:
      return false;  // there are only two, told apart by identity above
  }
  return false;
}

uint64_t hash(const Value& value) {
  uint64_t content = 0;
  switch (value.kind()) {
    case Kind::dictionary:
      for (const Dictionary::Entry& entry : cast<Dictionary>(&value)->entries()) {
        content += mix(hash(*entry.key), hash(*entry.value));
      }
      break;
    case Kind::array:
      for (const Ref<Value>& item : cast<Array>(&value)->items()) content = mix(content, hash(*item));
      break;
    case Kind::set:
      content = cast<Set>(&value)->members_hash_;
      break;
    case Kind::string:
      content = BytesHash()(cast<String>(&value)->view());
      break;
    case Kind::data:
      content = BytesHash()(cast<Data>(&value)->bytes());
      break;
    case Kind::date:
      content = std::bit_cast<uint64_t>(cast<Date>(&value)->seconds());
      break;
    case Kind::number:
      content = hash_number(*cast<Number>(&value));
      break;
    case Kind::boolean:
      content = cast<Boolean>(&value)->value();
      break;
  }
  return mix(value.kind(), content);
}

}  // namespace corvane::plist
