#include <absl/container/flat_hash_set.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "plist/hash_tables.h"
#include "plist/value.h"

namespace corvane::plist {

namespace {

// Up to this many entries a scan beats a hash table and saves its memory.
constexpr size_t scan_limit = 8;

// The bytes of elements behind a container.
template <class Element, class Container>
size_t size_of_elements(size_t capacity) {
  static_assert(sizeof(Container) % alignof(Element) == 0);
  return ElementList<Element>::size_with(0, capacity);
}

}  // namespace

// ---- array --------------------------------------------------------------------------------------------

Ref<MutableArray> MutableArray::create(size_t capacity) {
  return make<MutableArray>(size_of_elements<Ref<Value>, MutableArray>(capacity), capacity);
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
  Ref<MutableSet> set = make<MutableSet>(size_of_elements<Ref<Value>, MutableSet>(capacity), capacity);
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

// The positions of the entries, found by their keys. Positions alone keep the table small, and a lookup in the
// cache.
struct Dictionary::Index {
  struct Slot {
    mutable uint32_t position;  // changes where the entry moves; the hash, which is the key's, does not
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
      // The value is wanted next: it is fetched while the keys are compared.
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
  return make<MutableDictionary>(size_of_elements<Entry, MutableDictionary>(capacity), capacity);
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
  // The last entry takes its place, so that removal costs the same in every dictionary.
  if (position + 1 != entries_.size()) {
    if (index_ != nullptr) {
      index_->positions.find(entries_.back().key->view())->position = static_cast<uint32_t>(position);
    }
    std::swap(entries_[position], entries_.back());
  }
  entries_.pop_back();
  return true;
}

}  // namespace corvane::plist
