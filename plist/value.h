#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "plist/element_list.h"
#include "plist/value_blocks.h"

/// Property-list values: dictionary, array, set, string, data, date, number and Boolean.
///
/// Values are reference-counted; `Ref<T>` owns a reference, a plain pointer borrows one. The counts are
/// atomic, so values may cross threads, but a mutable container must not be changed while another thread
/// reads it. Values are immutable; containers and data created through a `Mutable...` class can be changed
/// until `freeze` takes the right away.
///
/// Everything here throws std::bad_alloc where memory is out, and nothing else.
namespace corvane::plist {

enum class Kind : uint8_t { dictionary, array, set, string, data, date, number, boolean };

class Container;
template <class T>
class Ref;

class Value {
 public:
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;

  Kind kind() const { return kind_; }
  bool is_container() const { return kind_ == Kind::dictionary || kind_ == Kind::array || kind_ == Kind::set; }
  /// True for a container or data value that was created mutable and has not been frozen.
  bool is_mutable() const { return mutable_; }

 protected:
  explicit Value(Kind kind, bool is_mutable = false) : kind_(kind), mutable_(is_mutable) {}
  ~Value() = default;

  void drop_mutability() { mutable_ = false; }

  /// A new value with `behind` bytes of memory behind the object.
  template <class T, class... Arguments>
  static Ref<T> make(size_t behind, Arguments&&... arguments);

 private:
  template <class T>
  friend class Ref;
  friend class Unpublished;

  class Teardown;

  void retain() { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() {
    if (drop_reference()) destroy(this);
  }
  // Answers whether it was the last one. The only reference is dropped without a locked instruction.
  bool drop_reference() {
    return references_.load(std::memory_order_acquire) == 1 ||
           references_.fetch_sub(1, std::memory_order_acq_rel) == 1;
  }
  static void destroy(Value* dead);

  std::atomic<uint32_t> references_{1};
  const Kind kind_;
  bool mutable_;
  uint16_t block_ = 0;  // as a ValuePlace has it
};

/// Owns one reference to a value, or none.
template <class T>
class Ref {
 public:
  Ref() = default;
  Ref(std::nullptr_t) {}
  /// Retains a borrowed value; null is allowed.
  Ref(T* borrowed) : value_(borrowed) {
    if (value_ != nullptr) as_value(value_)->retain();
  }
  /// Takes over a reference that the caller owns.
  static Ref adopt(T* owned) {
    Ref ref;
    ref.value_ = owned;
    return ref;
  }

  Ref(const Ref& other) : Ref(other.value_) {}
  Ref(Ref&& other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ref(const Ref<U>& other) : Ref(other.get()) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ref(Ref<U>&& other)
  noexcept : value_(other.detach()) {}
  Ref& operator=(Ref other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  ~Ref() {
    if (value_ != nullptr) as_value(value_)->release();
  }

  T* get() const { return value_; }
  T* operator->() const { return value_; }
  T& operator*() const { return *value_; }
  explicit operator bool() const { return value_ != nullptr; }
  /// Gives the reference to the caller, who must `adopt` it somewhere.
  T* detach() noexcept { return std::exchange(value_, nullptr); }

 private:
  static Value* as_value(T* value) { return value; }

  T* value_ = nullptr;
};

// The constructors do not throw: what they allocate is there already.
template <class T, class... Arguments>
Ref<T> Value::make(size_t behind, Arguments&&... arguments) {
  const ValuePlace place = ValueBlocks::allocate(sizeof(T) + behind);
  T* value = new (place.memory) T(std::forward<Arguments>(arguments)...);
  value->block_ = place.block;
  return Ref<T>::adopt(value);
}

/// Counts references without locked instructions, for values that no other thread has yet. Not for Booleans, which
/// all threads share.
class Unpublished {
 public:
  template <class T>
  static Ref<T> share(T* borrowed) {
    Value* value = borrowed;
    value->references_.store(value->references_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return Ref<T>::adopt(borrowed);
  }
  template <class T>
  static void drop(Ref<T> ref) {
    Value* value = ref.detach();
    const uint32_t left = value->references_.load(std::memory_order_relaxed) - 1;
    if (left == 0) return Value::destroy(value);
    value->references_.store(left, std::memory_order_relaxed);
  }
};

/// Deep equality. A Boolean never equals a number; integers compare by value whatever their kind, reals and
/// dates by their bits, and a real never equals an integer. Two nulls are equal.
bool equal(const Value* a, const Value* b);

/// A hash that agrees with `equal`, seeded per process. Linear in the value, except that a set answers with
/// the hash it keeps.
uint64_t hash(const Value& value);

// ---- leaves -----------------------------------------------------------------------------------------

/// Text, held as UTF-8 with a terminating NUL behind it; U+0000 may occur inside.
class String final : public Value {
 public:
  /// Ill-formed UTF-8 is replaced by U+FFFD, one for each maximal part as the Unicode standard advises.
  static Ref<String> create(std::string_view utf8);
  /// Null when a byte is not ASCII.
  static Ref<String> create_from_ascii(std::string_view bytes);
  /// From UTF-16 code units in big-endian byte order; null when a surrogate stands alone.
  static Ref<String> create_from_utf16be(std::string_view bytes);

  std::string_view view() const { return {text(), size_}; }
  bool is_ascii() const { return ascii_; }
  /// The text as a C string, or null where a NUL inside would cut it short.
  const char* c_string() const;

 private:
  friend class Value;
  String(size_t size, bool ascii) : Value(Kind::string), ascii_(ascii), size_(size) {}
  static inline Ref<String> allocate(size_t size, bool ascii);
  static inline Ref<String> copy(std::string_view utf8, bool ascii);
  char* text() { return reinterpret_cast<char*>(this + 1); }
  const char* text() const { return reinterpret_cast<const char*>(this + 1); }

  const bool ascii_;
  const size_t size_;
};

/// Bytes: its own, or a part of another data value that it keeps alive.
class Data : public Value {
 public:
  static Ref<Data> create(std::string_view bytes);
  /// A part of `whole` without copying. Precondition: offset + size <= whole's size.
  static Ref<Data> slice(Ref<Data> whole, size_t offset, size_t size);

  std::string_view bytes() const { return {start_, size_}; }
  /// Whether the bytes are a part of other data, which it keeps in memory.
  bool is_slice() const { return owner_.get() != nullptr; }

 protected:
  friend class Value;
  Data(char* start, size_t size, Ref<Data> owner, bool is_mutable)
      : Value(Kind::data, is_mutable), start_(start), size_(size), owner_(std::move(owner)) {}

  bool secret_ = false;
  char* const start_;
  size_t size_;
  const Ref<Data> owner_;
};

/// Data whose bytes may be written in place; its size is fixed.
class MutableData final : public Data {
 public:
  /// `size` bytes of unspecified content.
  static Ref<MutableData> create(size_t size);
  /// Like `create`, but null where memory is out.
  static Ref<MutableData> create_or_null(size_t size);
  /// Like `create_or_null`, for what may be a secret: its bytes are wiped when it is released.
  static Ref<MutableData> create_secret(size_t size);
  static Ref<Data> freeze(Ref<MutableData> data);
  /// Keeps the first `size` bytes. Precondition: it has so many.
  static Ref<Data> freeze(Ref<MutableData> data, size_t size);

  char* mutable_bytes() { return start_; }

 private:
  friend class Value;
  /// The bytes lie behind the object.
  explicit MutableData(size_t size) : Data(reinterpret_cast<char*>(this + 1), size, nullptr, true) {}
};

/// A point in time: seconds, fractions included, since 2001-01-01T00:00:00Z. Always finite in what readers
/// return.
class Date final : public Value {
 public:
  static Ref<Date> create(double seconds_since_2001);

  double seconds() const { return seconds_; }

 private:
  friend class Value;
  explicit Date(double seconds) : Value(Kind::date), seconds_(seconds) {}

  const double seconds_;
};

class Number final : public Value {
 public:
  /// `uint64` holds only what lies above INT64_MAX; readers meet it in files.
  enum class Type : uint8_t { int32, int64, uint64, real };

  static Ref<Number> create_int32(int32_t value);
  static Ref<Number> create_int64(int64_t value);
  /// Of type int64 where the value fits.
  static Ref<Number> create_uint64(uint64_t value);
  /// Every NaN becomes the one quiet NaN, so that text and binary hold the same values.
  static Ref<Number> create_real(double value);

  Type type() const { return type_; }
  bool is_integer() const { return type_ != Type::real; }
  /// The value of an int32 or int64; of a uint64 its two's complement bits.
  int64_t int64() const { return integer_; }
  uint64_t uint64() const { return static_cast<uint64_t>(integer_); }
  /// Precondition: type real.
  double real() const { return real_; }

 private:
  friend class Value;
  Number(Type type, int64_t value) : Value(Kind::number), type_(type), integer_(value) {}
  explicit Number(double value) : Value(Kind::number), type_(Type::real), real_(value) {}

  const Type type_;
  union {
    const int64_t integer_;
    const double real_;
  };
};

/// One of two process-wide objects, so that identity can be tested.
class Boolean final : public Value {
 public:
  static Boolean* yes();
  static Boolean* no();
  static Boolean* of(bool value) { return value ? yes() : no(); }

  bool value() const { return this == yes(); }

 private:
  Boolean() : Value(Kind::boolean) {}
};

// ---- containers -------------------------------------------------------------------------------------

/// The base of the containers. The link serves to destroy nests of any depth without recursion.
class Container : public Value {
 protected:
  using Value::Value;

 private:
  friend class Value;
  Container* next_dead_ = nullptr;
};

class Array : public Container {
 public:
  size_t size() const { return items_.size(); }
  /// Borrowed. Precondition: index < size().
  Value* at(size_t index) const { return items_[index].get(); }
  std::span<const Ref<Value>> items() const { return items_; }

 protected:
  friend class Value;
  explicit Array(size_t capacity) : Container(Kind::array, true), items_(this + 1, capacity) {}

  ElementList<Ref<Value>> items_;
};

class MutableArray final : public Array {
 public:
  static Ref<MutableArray> create(size_t capacity = 4);
  static Ref<Array> freeze(Ref<MutableArray> array) {
    array->drop_mutability();
    return array;
  }

  /// Precondition, here and in the other containers: values are not null.
  void append(Ref<Value> value) { items_.push_back(std::move(value)); }

 private:
  friend class Value;
  explicit MutableArray(size_t capacity) : Array(capacity) {}
};

/// Unordered values, no two of them equal. Members must not change: add only deeply immutable values.
class Set : public Container {
 public:
  size_t size() const { return items_.size(); }
  bool contains(const Value& value) const;
  std::span<const Ref<Value>> items() const { return items_; }

 protected:
  friend class Value;
  friend uint64_t hash(const Value& value);
  struct Index;
  explicit Set(size_t capacity);
  ~Set();
  bool contains(const Value& value, uint64_t value_hash) const;

  std::vector<uint64_t> hashes_;  // of the items
  std::unique_ptr<Index> index_;
  uint64_t members_hash_ = 0;
  ElementList<Ref<Value>> items_;
};

class MutableSet final : public Set {
 public:
  static Ref<MutableSet> create(size_t capacity = 0);
  static Ref<Set> freeze(Ref<MutableSet> set) {
    set->drop_mutability();
    return set;
  }

  /// Leaves the set as it is when it holds an equal value.
  void add(Ref<Value> value);

 private:
  friend class Value;
  explicit MutableSet(size_t capacity) : Set(capacity) {}
};

/// Strings to values. The order of its entries is its own.
class Dictionary : public Container {
 public:
  struct Entry {
    Ref<String> key;
    Ref<Value> value;
  };

  size_t size() const { return entries_.size(); }
  /// Borrowed, or null.
  Value* get(std::string_view key) const;
  /// Valid until the dictionary changes.
  std::span<const Entry> entries() const { return entries_; }

 protected:
  friend class Value;
  struct Index;
  static constexpr size_t not_found = static_cast<size_t>(-1);
  explicit Dictionary(size_t capacity);
  ~Dictionary();
  size_t find(std::string_view key) const;
  inline size_t scan(std::string_view key) const;

  std::unique_ptr<Index> index_;
  ElementList<Entry> entries_;
};

class MutableDictionary final : public Dictionary {
 public:
  static Ref<MutableDictionary> create(size_t capacity = 4);
  /// One level: the entries are shared, not copied.
  static Ref<MutableDictionary> copy(const Dictionary& other);
  static Ref<Dictionary> freeze(Ref<MutableDictionary> dictionary) {
    dictionary->drop_mutability();
    return dictionary;
  }
  /// The entries for which `wanted` is true, immutable. It has no index: walk it, a lookup scans it.
  template <class Wanted>
  static Ref<Dictionary> select(const Dictionary& other, Wanted wanted) {
    Ref<MutableDictionary> selection = create(other.size());
    for (const Entry& entry : other.entries()) {
      if (wanted(entry)) selection->entries_.push_back(entry);
    }
    return freeze(std::move(selection));
  }

  /// Replaces the value of an equal key; the key object that was there stays. A new entry becomes the last one.
  void set(Ref<String> key, Ref<Value> value);
  void set(std::string_view key, Ref<Value> value);
  /// The value of an entry, which may be replaced there; null where there is no entry. Valid until an entry is
  /// added or removed.
  Ref<Value>* find_value(std::string_view key);
  /// Adds only if the key is absent.
  void add(std::string_view key, Ref<Value> value);
  /// Answers whether there was an entry. The last one takes its place, and no other moves.
  bool remove(std::string_view key);

 private:
  friend class Value;
  explicit MutableDictionary(size_t capacity) : Dictionary(capacity) {}
  void set_with_index(Ref<String> key, Ref<Value> value);
  void build_index_for_last();
};

// ---- checked downcasts ------------------------------------------------------------------------------

template <class T>
constexpr Kind kind_of() {
  if constexpr (std::is_base_of_v<Dictionary, T>)
    return Kind::dictionary;
  else if constexpr (std::is_base_of_v<Array, T>)
    return Kind::array;
  else if constexpr (std::is_base_of_v<Set, T>)
    return Kind::set;
  else if constexpr (std::is_same_v<String, T>)
    return Kind::string;
  else if constexpr (std::is_base_of_v<Data, T>)
    return Kind::data;
  else if constexpr (std::is_same_v<Date, T>)
    return Kind::date;
  else if constexpr (std::is_same_v<Number, T>)
    return Kind::number;
  else
    return Kind::boolean;
}

/// The same value, borrowed, where it is of exactly that kind (and, for a `Mutable...` class, still
/// mutable); otherwise null. Null gives null.
template <class T>
T* cast(Value* value) {
  constexpr bool asks_mutable = std::is_same_v<T, MutableDictionary> || std::is_same_v<T, MutableArray> ||
                                std::is_same_v<T, MutableSet> || std::is_same_v<T, MutableData>;
  if (value == nullptr || value->kind() != kind_of<T>()) return nullptr;
  if (asks_mutable && !value->is_mutable()) return nullptr;
  return static_cast<T*>(value);
}
template <class T>
const T* cast(const Value* value) {
  return cast<T>(const_cast<Value*>(value));
}

}  // namespace corvane::plist
