#include "state/values.h"

#include "plist/describe.h"
#include "tests/support/state_fixture.h"

namespace corvane {
namespace {

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

TEST(Dictionaries, TakeA32BitNumberOnlyIfItsKeyIsAbsent) {
  const auto dictionary = create_dict();
  EXPECT_EQ(_extract_first_item(*dictionary), nullptr);
  DictionaryAddInt(*dictionary, "key", -7);
  DictionaryAddInt(*dictionary, "key", 8);
  EXPECT_EQ(as_number(_extract_first_item(*dictionary))->int64(), -7);
  EXPECT_EQ(as_number(dictionary->get("key"))->type(), plist::Number::Type::int32);
  EXPECT_EQ(plist::describe(copy_keys(dictionary.get()).get()), R"(["key"])");
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
