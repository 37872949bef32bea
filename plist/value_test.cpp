#include "plist/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "plist/describe.h"
#include "plist/reader.h"

namespace corvane::plist {
namespace {

Ref<Value> integer(int64_t value) { return Number::create_int64(value); }

Ref<Value> from_xml(const std::string& value) {
  return decode(Data::create("<plist>" + value + "</plist>"), Containers::immutable).value;
}

TEST(Value, EqualityAndHashGoByClass) {
  // The values of one class are equal to each other, and to nothing in another class.
  const std::vector<std::vector<Ref<Value>>> classes = {
      {Boolean::yes()},
      {Number::create_int32(1), integer(1), Number::create_uint64(1)},
      {Number::create_uint64(~uint64_t{0})},
      {Number::create_real(1)},
      {Number::create_real(-0.0)},
      {Number::create_real(0.0)},
      {Number::create_real(-std::nan("")), Number::create_real(std::nan(""))},
      {String::create("abc"), String::create_from_utf16be(std::string_view("\0a\0b\0c", 6))},
      {Data::create("abc"), Data::slice(Data::slice(Data::create("xxabcx"), 1, 5), 1, 3)},
      {from_xml("<array><true/><false/></array>"), from_xml("<array><true/><false/></array>")},
      {from_xml("<array><false/><true/></array>")},
      {from_xml("<set><true/><false/></set>"), from_xml("<set><false/><true/><false/></set>")},
      {from_xml("<set><set><true/><false/></set></set>"), from_xml("<set><set><false/><true/></set></set>")},
      {from_xml("<dict><key>a</key><true/><key>b</key><false/></dict>"),
       from_xml("<dict><key>b</key><false/><key>a</key><true/></dict>")},
      {from_xml("<dict><key>a</key><false/><key>b</key><true/></dict>")},
  };
  for (const auto& one : classes) {
    for (const auto& other : classes) {
      const Ref<Value>&a = one.front(), &b = other.back();
      SCOPED_TRACE(describe(a.get()) + " and " + describe(b.get()));
      EXPECT_EQ(equal(a.get(), b.get()), &one == &other);
      EXPECT_EQ(hash(*a) == hash(*b), &one == &other);
    }
  }
}

TEST(Value, DictionaryAndSetAgreeWithAMapWhileTheyGrowAndShrink) {
  std::mt19937 random(1);
  for (const unsigned keys : {4u, 9u, 300u}) {
    Ref<MutableDictionary> dictionary = MutableDictionary::create();
    Ref<MutableSet> set = MutableSet::create();
    std::map<std::string, Ref<Value>> entries, members;
    for (int64_t step = 0; step < 4000; ++step) {
      const std::string key = "key" + std::to_string(random() % keys);
      const Ref<Value> value = integer(step), member = String::create(key);
      ASSERT_EQ(set->contains(*member), !members.emplace(key, member).second);
      set->add(member);
      ASSERT_EQ(set->size(), members.size());
      ASSERT_EQ(dictionary->get(key), entries.contains(key) ? entries[key].get() : nullptr);
      if (random() % 3 == 0) {
        ASSERT_EQ(dictionary->remove(key), entries.erase(key) == 1);
      } else {
        dictionary->set(key, value);
        entries[key] = value;
      }
      ASSERT_EQ(dictionary->size(), entries.size());
      if (step % 500 == 0) dictionary = MutableDictionary::copy(*dictionary);
    }
  }
}

TEST(Unicode, IllFormedPartsAreReplacedOneByOne) {
  const std::string mark = "\xEF\xBF\xBD";
  const auto repaired = [](const char* bytes) { return std::string(String::create(bytes)->view()); };
  EXPECT_EQ(repaired("a\x80z"), "a" + mark + "z");
  EXPECT_EQ(repaired("\xC0\xAF"), mark + mark) << "overlong";
  EXPECT_EQ(repaired("\xED\xA0\x80"), mark + mark + mark) << "a surrogate";
  EXPECT_EQ(repaired("\xF0\x9F\x98z\xE2\x82"), mark + "z" + mark) << "cut short: one part each";
  EXPECT_FALSE(String::create_from_utf16be("\xD8\x3D\x01\x41")) << "half a surrogate pair";
}

}  // namespace
}  // namespace corvane::plist
