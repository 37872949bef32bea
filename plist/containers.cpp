#include <absl/container/flat_hash_set.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <memory>
#include <new>
#include <utility>
#include <vector>

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

// The positions of the entries, found by their keys. A search begins at the slot that the key's hash names, and
// goes on to a free one. A slot holds the hash too: a lookup then touches no other key as a rule, and the table
// grows without touching any.
struct Dictionary::Index {
  static constexpr uint32_t none = std::numeric_limits<uint32_t>::max();
  struct Slot {
    uint32_t hash = 0;
    uint32_t position = none;  // of a free slot
  };

  static uint32_t hash_of(std::string_view key) { return static_cast<uint32_t>(BytesHash()(key)); }

  explicit Index(const ElementList<Entry>& list) : entries(list) {
    make_room_for(entries.capacity());
    for (uint32_t i = 0; i < entries.size(); ++i) add({hash_of(entries[i].key->view()), i});
  }

  // At most four fifths of the slots are taken, so that searches are short.
  void make_room_for(size_t count) {
    if (5 * count <= 4 * slots.size()) return;
    std::vector<Slot> smaller(std::bit_ceil(5 * count / 4 + 1));
    slots.swap(smaller);
    for (const Slot slot : smaller) {
      if (slot.position != none) add(slot);
    }
  }

  // Precondition: the key is not there yet.
  void add(Slot slot) {
    size_t at = slot.hash & mask();
    while (slots[at].position != none) at = (at + 1) & mask();
    slots[at] = slot;
  }

  // A free one where the key is not there.
  Slot& slot_of(std::string_view key, uint32_t hash) {
    size_t at = hash & mask();
    while (slots[at].position != none && !(slots[at].hash == hash && is_at(slots[at].position, key))) {
      at = (at + 1) & mask();
    }
    return slots[at];
  }
  Slot& slot_of(std::string_view key) { return slot_of(key, hash_of(key)); }

  bool is_at(uint32_t position, std::string_view key) const {
    const Entry& entry = entries[position];
    // The value is wanted next: it is fetched while the keys are compared.
    __builtin_prefetch(entry.value.get());
    return entry.key->view() == key;
  }

  // A search ends at a free slot. So the next slot whose search begins at or before the gap moves there, and
  // leaves the gap behind it.
  void free(Slot& slot) {
    auto gap = static_cast<size_t>(&slot - slots.data());
    for (size_t at = (gap + 1) & mask(); slots[at].position != none; at = (at + 1) & mask()) {
      const size_t from_start = (at - slots[at].hash) & mask(), from_gap = (at - gap) & mask();
      if (from_start < from_gap) continue;
      slots[gap] = slots[at];
      gap = at;
    }
    slots[gap].position = none;
  }

  size_t mask() const { return slots.size() - 1; }

  const ElementList<Entry>& entries;
  std::vector<Slot> slots;  // a power of two
};

Dictionary::Dictionary(size_t capacity) : Container(Kind::dictionary, true), entries_(this + 1, capacity) {}
Dictionary::~Dictionary() = default;

size_t Dictionary::scan(std::string_view key) const {
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].key->view() == key) return i;
  }
  return not_found;
}

size_t Dictionary::find(std::string_view key) const {
  if (index_ != nullptr) {
    const uint32_t position = index_->slot_of(key).position;
    return position == Index::none ? not_found : position;
  }
  return scan(key);
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
  if (dictionary->size() > scan_limit) dictionary->index_ = std::make_unique<Index>(dictionary->entries_);
  return dictionary;
}

void MutableDictionary::set(Ref<String> key, Ref<Value> value) {
  if (index_ != nullptr) return set_with_index(std::move(key), std::move(value));
  const size_t position = scan(key->view());
  if (position != not_found) {
    entries_[position].value = std::move(value);
    return;
  }
  entries_.push_back({std::move(key), std::move(value)});
  if (entries_.size() > scan_limit) build_index_for_last();
}

void MutableDictionary::set_with_index(Ref<String> key, Ref<Value> value) {
  if (entries_.size() == Index::none) throw std::bad_alloc();
  // Room first, so that the slot stays where it is, and nothing can fail once it names the entry.
  index_->make_room_for(entries_.size() + 1);
  if (entries_.size() == entries_.capacity()) entries_.reserve(2 * entries_.size());
  const uint32_t hash = Index::hash_of(key->view());
  Index::Slot& slot = index_->slot_of(key->view(), hash);
  if (slot.position != Index::none) {
    entries_[slot.position].value = std::move(value);
    return;
  }
  slot = {hash, static_cast<uint32_t>(entries_.size())};
  entries_.push_back({std::move(key), std::move(value)});
}

// Where that fails the last entry is taken back.
void MutableDictionary::build_index_for_last() {
  try {
    index_ = std::make_unique<Index>(entries_);
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
  if (index_ != nullptr) index_->free(index_->slot_of(key));
  // The last entry takes its place, so that removal costs the same in every dictionary.
  if (position + 1 != entries_.size()) {
    if (index_ != nullptr) {
      index_->slot_of(entries_.back().key->view()).position = static_cast<uint32_t>(position);
    }
    std::swap(entries_[position], entries_.back());
  }
  entries_.pop_back();
  return true;
}

}  // namespace corvane::plist
