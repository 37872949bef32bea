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

}  // namespace

void* operator new(size_t size) {
  void* memory = allocations_left >= 0 && allocations_left-- == 0 ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
// Inlined without its counterpart, g++ takes it for a mismatch.
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

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
  const std::string no_container = "Could not create mutable dictionary! We are dead!";
  expect_end("create_dict: " + no_container, 0, [] { create_dict(); });
  expect_end("create_array: " + no_container, 0, [] { create_array(); });
  // The number, the key, the room for the entry.
  for (const int failing : {0, 1, 2})
    expect_end("DictionaryAddInt: Out of Memory!", failing, [&] { DictionaryAddInt(*dictionary, "new", 1); });
  DictionaryAddInt(*dictionary, "key", 1);
  expect_end("copy_keys: Could not allocate key list. We are dead.", 1, [&] { copy_keys(dictionary.get()); });
  const std::string no_copy = "make_mutable: Could not create mutable copy! We are dead!";
  expect_end(no_copy, 0, [&] { make_mutable(dictionary); });
  expect_end(no_copy, -1, [] { make_mutable(create_array()); });
}

TEST(MakeMutable, CopiesOneLevel) {
  plist::Ref<plist::Value> value = plist::Data::create("bytes");
  value = make_mutable(std::move(value));
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
  EXPECT_EQ(release_if_set(value) + release_if_set(value), 0);
}

TEST(Dictionaries, TakeA32BitNumberOnlyIfAbsentAndGiveTheirKeys) {
  const auto dictionary = create_dict();
  EXPECT_EQ(copy_keys(nullptr)->size(), 0u);
  EXPECT_EQ(_extract_first_item(*dictionary), nullptr);
  DictionaryAddInt(*dictionary, "key", -7);
  DictionaryAddInt(*dictionary, "key", 8);
  EXPECT_EQ(as_number(_extract_first_item(*dictionary))->int64(), -7);
  EXPECT_EQ(as_number(dictionary->get("key"))->type(), plist::Number::Type::int32);
  EXPECT_EQ(as_string(copy_keys(dictionary.get())->at(0))->view(), "key");
}

TEST(Iteration, RunsOverASnapshotWhileTheCallbackChangesTheContainer) {
  const auto dictionary = create_dict();
  for (const char* key : {"a", "b", "c"}) DictionaryAddInt(*dictionary, key, key[0]);
  const auto expected = copy_keys(dictionary.get()), seen = create_array();
  const auto set = plist::MutableSet::create();
  dict_apply_block(*dictionary, [&](plist::String* key, plist::Value* value) {
    for (const auto& old : expected->items()) dictionary->remove(as_string(old.get())->view());
    DictionaryAddInt(*dictionary, "new", 1);
    seen->append(key);
    set->add(value);
    EXPECT_EQ(as_number(value)->int64(), key->view()[0]);
  });
  EXPECT_TRUE(plist::equal(seen.get(), expected.get()));
  array_apply_block(*seen, [&](plist::Value* value) {
    for (int i = 0; i < 100; ++i) seen->append(value);
  });
  EXPECT_EQ(seen->size(), 303u);
  int calls = 0;
  set_apply_block(*set, [&](plist::Value*) { set->add(plist::Number::create_int32(calls++)); });
  EXPECT_EQ(calls, 3);
}

}  // namespace
}  // namespace corvane
