#include "plist/value.h"

#include <absl/hash/hash.h>

#include <bit>
#include <cassert>
#include <cstring>
#include <new>
#include <tuple>
#include <utility>

#include "plist/hash_tables.h"

namespace corvane::plist {

// ---- end of life --------------------------------------------------------------------------------------

/// Destroys a container and what only it holds. Containers in it wait on a list for their turn, so that nests of
/// any depth take no recursion.
class Value::Teardown {
 public:
  void run(Container* dead) {
    while (dead != nullptr) {
      destroy(dead);
      dead = waiting_;
      if (dead != nullptr) waiting_ = dead->next_dead_;
    }
  }

  void destroy_leaf(Value* dead) {
    assert(dead->kind_ != Kind::boolean && "the two Booleans keep a reference of their own");
    const ValuePlace place{dead, dead->block_};
    if (dead->kind_ == Kind::data) destroy_data(static_cast<Data*>(dead));
    freed_.add(place);  // there is nothing to destroy in other leaves
  }

 private:
  void destroy(Container* dead);
  static void destroy_data(Data* dead);

  void release(Value* value) {
    if (!value->drop_reference()) return;
    if (!value->is_container()) return destroy_leaf(value);
    auto* const container = static_cast<Container*>(value);
    container->next_dead_ = std::exchange(waiting_, container);
  }

  Container* waiting_ = nullptr;
  ValueBlocks::FreedValues freed_;
};

void Value::destroy(Value* dead) {
  Teardown teardown;
  if (dead->is_container()) {
    teardown.run(static_cast<Container*>(dead));
  } else {
    teardown.destroy_leaf(dead);
  }
}

void Value::Teardown::destroy(Container* dead) {
  const ValuePlace place{dead, dead->block_};
  const auto release_item = [this](Ref<Value> item) { release(item.detach()); };
  if (dead->kind_ == Kind::dictionary) {
    auto* const dictionary = static_cast<Dictionary*>(dead);
    dictionary->entries_.take_all([this](Dictionary::Entry entry) {
      release(entry.key.detach());
      release(entry.value.detach());
    });
    dictionary->~Dictionary();
  } else if (dead->kind_ == Kind::array) {
    static_cast<Array*>(dead)->items_.take_all(release_item);
    static_cast<Array*>(dead)->~Array();
  } else {
    static_cast<Set*>(dead)->items_.take_all(release_item);
    static_cast<Set*>(dead)->~Set();
  }
  freed_.add(place);
}

void Value::Teardown::destroy_data(Data* dead) {
  if (dead->secret_) explicit_bzero(dead->start_, dead->size_);
  dead->~Data();
}

// ---- equality and hash --------------------------------------------------------------------------------

namespace {

uint64_t mix(uint64_t a, uint64_t b) { return absl::Hash<std::tuple<uint64_t, uint64_t>>()({a, b}); }

uint64_t mix(Kind kind, uint64_t content) { return mix(static_cast<uint64_t>(kind), content); }

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
