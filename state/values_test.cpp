#include "state/values.h"

#include "plist/describe.h"
#include "state/detached_value.h"
#include "tests/support/state_fixture.h"

namespace corvane {
namespace {

// Ends the process, after one line.
void create_dict_without_memory() {
  testing::TestPlatform::installed().prepare_to_die();
  testing::run_with_failing_allocation(0, [] { create_dict(); });
}
void make_an_array_mutable() {
  testing::TestPlatform::installed().prepare_to_die();
  make_mutable(create_array());
}

TEST(ValuesDeathTest, WhatCannotBeMadeEndsTheProcessWithOneLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(create_dict_without_memory(), ::testing::ExitedWithCode(255),
              "^7 create_dict: Could not create mutable dictionary! We are dead!\n$");
  EXPECT_EXIT(make_an_array_mutable(), ::testing::ExitedWithCode(255),
              "^7 make_mutable: Could not create mutable copy! We are dead!\n$");
}

TEST(MakeMutable, CopiesDataAndOneLevelOfADictionary) {
  const auto data = make_mutable(plist::Data::create("bytes"));
  EXPECT_TRUE(plist::cast<plist::MutableData>(data.get()));
  EXPECT_EQ(as_data(data.get())->bytes(), "bytes");

  const auto original = create_dict();
  original->set("inner", data);
  const auto copy = make_mutable(original);
  EXPECT_EQ(as_dictionary(copy.get())->get("inner"), data.get());
  plist::cast<plist::MutableDictionary>(copy.get())->remove("inner");
  EXPECT_EQ(original->size(), 1u);
}

TEST(Detached, KeepsNothingOfTheMessage) {
  const auto message = plist::Data::create("a message");
  const auto array = create_array();
  array->append(plist::Data::slice(message, 2, 7));
  const auto value = create_dict();
  value->set("inner", array);
  value->set("text", plist::String::create("text"));
  const plist::Ref<plist::Value> detached = detached_value(*value);
  EXPECT_TRUE(plist::equal(detached.get(), value.get()));
  const auto* inner = as_array(as_dictionary(detached.get())->get("inner"));
  EXPECT_FALSE(plist::cast<plist::Data>(inner->items()[0].get())->is_slice());
  EXPECT_EQ(detached_value(*detached).get(), detached.get()) << "copied although it holds no slice";
  // What occurs several times occurs as often in the copy, and is copied once.
  const auto twice = plist::MutableArray::create();
  for (int i = 0; i < 2; ++i) twice->append(value);
  const auto copied = detached_value(*twice);
  EXPECT_EQ(as_array(copied.get())->at(0), as_array(copied.get())->at(1));
  for (int number = 0, failed = 1; failed != 0; ++number) {
    failed = testing::run_with_failing_allocation(number, [&] {
      try {
        detached_value(*value);
      } catch (const std::bad_alloc&) {
      }
    });
  }
}

TEST(Iteration, RunsOverASnapshotWhileTheCallbackChangesTheContainer) {
  const auto dictionary = create_dict();
  DictionaryAddInt(*dictionary, "a", 1);
  DictionaryAddInt(*dictionary, "b", 2);
  std::string seen;
  dict_apply_block(*dictionary, [&](plist::String* key, plist::Value* value) {
    dictionary->remove("a");
    dictionary->remove("b");
    seen += std::string(key->view()) + "=" + plist::describe(value) + " ";
  });
  EXPECT_EQ(seen, "a=1 b=2 ");

  const auto array = create_array();
  array->append(plist::Boolean::yes());
  array_apply_block(*array, [&](plist::Value* value) { array->append(value); });
  EXPECT_EQ(array->size(), 2u);
}

}  // namespace
}  // namespace corvane
