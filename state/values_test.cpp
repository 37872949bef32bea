#include "state/values.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>
#include <string>

#include "tests/support/test_platform.h"

namespace {

// Counts down to the one allocation that fails; negative: none does.
int allocations_left = -1;
long live_allocations = 0;

}  // namespace

void* operator new(size_t size) {
  void* memory = allocations_left >= 0 && allocations_left-- == 0 ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  ++live_allocations;
  return memory;
}
// Inlined without its counterpart, g++ takes it for a mismatch.
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  if (memory != nullptr) --live_allocations;
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { operator delete(memory); }

namespace corvane {
namespace {

using testing::TestPlatform;

// The action, whose allocation number `failing` fails (negative: none), must log the one line and end the process.
void expect_end(const std::string& line, int failing, const std::function<void()>& action) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto die = [&] {
    TestPlatform::fresh().prepare_to_die();
    allocations_left = failing;
    action();
    allocations_left = -1;
  };
  EXPECT_EXIT(die(), ::testing::ExitedWithCode(255), "^7 " + line + "\n$") << failing;
}

TEST(ValuesDeathTest, WhatCannotBeMadeEndsTheProcessWithOneLine) {
  const auto dictionary = create_dict();
  const auto add = [&] { DictionaryAddInt(*dictionary, "new", 1); };
  const auto take_keys = [&] { copy_keys(dictionary.get()); };
  expect_end("create_dict: Could not create mutable dictionary! We are dead!", 0, [] { create_dict(); });
  expect_end("create_array: Could not create mutable dictionary! We are dead!", 0, [] { create_array(); });
  // The number, the key, the room for the entry.
  for (const int failing : {0, 1, 2}) expect_end("DictionaryAddInt: Out of Memory!", failing, add);
  DictionaryAddInt(*dictionary, "key", 1);
  expect_end("create_array: Could not create mutable dictionary! We are dead!", 0, take_keys);
  expect_end("copy_keys: Could not allocate key list. We are dead.", 1, take_keys);
  const std::string no_copy = "make_mutable: Could not create mutable copy! We are dead!";
  expect_end(no_copy, 0, [&] { make_mutable(dictionary); });
  for (const plist::Ref<plist::Value>& other : {plist::Ref<plist::Value>(create_array()), {}}) {
    expect_end(no_copy, -1, [&] { make_mutable(other); });
  }
}

TEST(MakeMutable, ConsumesItsArgumentAndCopiesOneLevel) {
  plist::Ref<plist::Value> value = plist::Data::create("bytes");
  const long before = live_allocations;
  value = make_mutable(std::move(value));
  EXPECT_EQ(live_allocations, before);
  EXPECT_TRUE(plist::cast<plist::MutableData>(value.get()));
  EXPECT_EQ(as_data(value.get())->bytes(), "bytes");

  const auto original = create_dict();
  original->set("inner", value);
  value = make_mutable(original);
  auto* copy = plist::cast<plist::MutableDictionary>(value.get());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->get("inner"), original->get("inner"));
  copy->remove("inner");
  EXPECT_EQ(original->size(), 1u);
  EXPECT_EQ(release_if_set(value), 0);
  EXPECT_EQ(release_if_set(value), 0);
}

TEST(Dictionaries, TakeA32BitNumberOnlyIfAbsentAndGiveTheirKeys) {
  TestPlatform& platform = TestPlatform::fresh();
  const auto dictionary = create_dict();
  EXPECT_EQ(copy_keys(nullptr)->size(), 0u);
  EXPECT_EQ(_extract_first_item(*dictionary), nullptr);
  DictionaryAddInt(*dictionary, "key", -7);
  DictionaryAddInt(*dictionary, "key", 8);
  EXPECT_EQ(as_number(_extract_first_item(*dictionary))->int64(), -7);
  EXPECT_EQ(as_number(dictionary->get("key"))->type(), plist::Number::Type::int32);
  ASSERT_EQ(copy_keys(dictionary.get())->size(), 1u);
  EXPECT_EQ(as_string(copy_keys(dictionary.get())->at(0))->view(), "key");
  EXPECT_TRUE(platform.take_lines().empty());
}

TEST(TypeTests, AreExact) {
  const plist::Ref<plist::Value> values[] = {
      plist::Number::create_int32(1), create_dict(),          create_array(),       plist::String::create("1"),
      plist::Data::create("1"),       plist::Date::create(1), plist::Boolean::no(), plist::MutableSet::create()};
  const auto tests = [](plist::Value* value) {
    return std::vector<plist::Value*>{as_number(value), as_dictionary(value), as_array(value),  as_string(value),
                                      as_data(value),   as_date(value),       as_boolean(value)};
  };
  for (size_t i = 0; i < std::size(values); ++i) {
    std::vector<plist::Value*> expected(7, nullptr);
    if (i < expected.size()) expected[i] = values[i].get();
    EXPECT_EQ(tests(values[i].get()), expected) << i;
  }
  EXPECT_EQ(tests(nullptr), std::vector<plist::Value*>(7, nullptr));
}

TEST(Iteration, RunsOverASnapshotWhileTheCallbackChangesTheContainer) {
  const auto dictionary = create_dict();
  for (const char* key : {"a", "b", "c"}) DictionaryAddInt(*dictionary, key, key[0]);
  const auto expected = copy_keys(dictionary.get());
  const auto seen = create_array();
  dict_apply_block(*dictionary, [&](plist::String* key, plist::Value* value) {
    for (const auto& old : expected->items()) dictionary->remove(as_string(old.get())->view());
    DictionaryAddInt(*dictionary, "new", 1);
    seen->append(key);
    EXPECT_EQ(as_number(value)->int64(), key->view()[0]);
  });
  EXPECT_TRUE(plist::equal(seen.get(), expected.get()));

  const auto set = plist::MutableSet::create();
  array_apply_block(*seen, [&](plist::Value* value) {
    for (int i = 0; i < 100; ++i) seen->append(value);
    set->add(value);
  });
  EXPECT_EQ(seen->size(), 303u);
  int calls = 0;
  set_apply_block(*set, [&](plist::Value*) { set->add(plist::Number::create_int32(calls++)); });
  EXPECT_EQ(calls, 3);
}

}  // namespace
}  // namespace corvane
