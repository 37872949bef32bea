#include "plist/value.h"

#include <absl/hash/hash.h>

#include <bit>
#include <cstring>
#include <new>
#include <tuple>
#include <utility>

#include "plist/hash_tables.h"

namespace corvane::plist {

// ---- end of life --------------------------------------------------------------------------------------

namespace {

// Containers to be destroyed after the one that is being destroyed.
thread_local Container* dead_containers = nullptr;
thread_local bool destroying = false;

}  // namespace

void Value::destroy(Value* dead) {
  const ValuePlace place{dead, dead->block_};
  switch (dead->kind_) {
    case Kind::data:
      if (auto* data = static_cast<Data*>(dead); data->secret_) explicit_bzero(data->start_, data->size_);
      static_cast<Data*>(dead)->~Data();
      return ValueBlocks::free(place);
    case Kind::string:
    case Kind::date:
    case Kind::number:
      return ValueBlocks::free(place);  // nothing to destroy in these
    case Kind::boolean:
      return;  // never: the two Booleans keep a reference of their own
    case Kind::dictionary:
    case Kind::array:
    case Kind::set:
      destroy_container(static_cast<Container*>(dead));
  }
}

// Destroying a container releases what it holds, which may come back here. One that does is only put on the list.
void Value::destroy_container(Container* dead) {
  if (destroying) {
    dead->next_dead_ = std::exchange(dead_containers, dead);
    return;
  }
  destroying = true;
  ValueBlocks::begin_freeing();
  while (dead != nullptr) {
    destroy_one(dead);
    dead = dead_containers;
    if (dead != nullptr) dead_containers = dead->next_dead_;
  }
  ValueBlocks::end_freeing();
  destroying = false;
}

void Value::destroy_one(Container* dead) {
  const ValuePlace place{dead, dead->block_};
  switch (dead->kind_) {
    case Kind::dictionary:
      static_cast<Dictionary*>(dead)->~Dictionary();
      break;
    case Kind::array:
      static_cast<Array*>(dead)->~Array();
      break;
    default:
      static_cast<Set*>(dead)->~Set();
      break;
  }
  ValueBlocks::free(place);
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
