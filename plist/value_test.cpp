#include "plist/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "plist/big_endian.h"
#include "plist/describe.h"
#include "plist/unicode.h"

namespace corvane::plist {
namespace {

Ref<Value> integer(int64_t value) { return Number::create_int64(value); }

template <class... Items>
Ref<Array> array_of(const Items&... items) {
  Ref<MutableArray> array = MutableArray::create();
  (array->append(items), ...);
  return MutableArray::freeze(std::move(array));
}

template <class... Items>
Ref<Value> set_of(const Items&... items) {
  Ref<MutableSet> set = MutableSet::create();
  (set->add(items), ...);
  return MutableSet::freeze(std::move(set));
}

Ref<Value> dictionary_of(std::initializer_list<std::pair<std::string_view, int64_t>> entries) {
  Ref<MutableDictionary> dictionary = MutableDictionary::create();
  for (const auto& [key, value] : entries) dictionary->set(key, integer(value));
  return dictionary;
}

TEST(Value, EqualityAndHashGoByClass) {
  // Values in one row are equal to each other, and to nothing in another row.
  std::vector<std::vector<Ref<Value>>> rows = {
      {Number::create_int32(1), integer(1), Number::create_uint64(1)},
      {Number::create_real(-std::nan("")), Number::create_real(std::nan(""))},
      {String::create("abc"), String::create_from_utf16be(std::string_view("\0a\0b\0c", 6))},
      {Data::create("abc"), Data::slice(Data::slice(Data::create("xxabcx"), 1, 5), 1, 3)},
      {array_of(integer(1), integer(2)), array_of(Number::create_int32(1), integer(2))},
      {set_of(integer(1), integer(2)), set_of(integer(2), Number::create_int32(1), integer(2))},
      {set_of(set_of(integer(1), integer(2))), set_of(set_of(integer(2), integer(1)))},
      {dictionary_of({{"a", 1}, {"b", 2}}), dictionary_of({{"b", 2}, {"a", 0}, {"a", 1}})},
      {nullptr},
  };
  const Ref<Array> singles =
      array_of(Boolean::yes(), Boolean::no(), integer(0), integer(-1), Number::create_uint64(~uint64_t{0}),
               Number::create_real(0.0), Number::create_real(-0.0), Number::create_real(1), Date::create(0),
               Date::create(1), String::create(""), String::create("abc\1"), Data::create(""), array_of(),
               array_of(integer(2), integer(1)), set_of(), set_of(integer(1), integer(3)), dictionary_of({}),
               dictionary_of({{"a", 2}, {"b", 1}}), dictionary_of({{"a", 1}, {"c", 2}}));
  for (const Ref<Value>& single : singles->items()) rows.push_back({single});
  for (size_t i = 0; i < rows.size(); ++i) {
    for (size_t k = 0; k < rows.size(); ++k) {
      for (const Ref<Value>& a : rows[i]) {
        const Ref<Value>& b = rows[k].back();
        EXPECT_EQ(equal(a.get(), b.get()), i == k) << describe(a.get()) << " / " << describe(b.get());
        EXPECT_TRUE(!a || !b || (hash(*a) == hash(*b)) == (i == k)) << describe(a.get());
      }
    }
  }
}

TEST(Value, DictionaryAndSetAgreeWithMapWhileTheyGrowAndShrink) {
  std::mt19937 random(1);
  for (const unsigned keys : {4u, 9u, 300u}) {
    Ref<MutableDictionary> dictionary = MutableDictionary::create();
    Ref<MutableSet> set = MutableSet::create();
    std::map<std::string, Ref<Value>> entries, members;
    for (int64_t step = 0; step < 4000; ++step) {
      const Ref<Value> value = integer(step);
      const std::string key = "key" + std::to_string(random() % keys);
      const Ref<Value> member = String::create(key);
      ASSERT_EQ(set->contains(*member), !members.emplace(key, member).second);
      set->add(member);
      ASSERT_EQ(set->items().size(), members.size());
      ASSERT_EQ(dictionary->get(key), entries.contains(key) ? entries[key].get() : nullptr);
      if (random() % 2 == 0) {
        dictionary->set(key, value);
        entries[key] = value;
      } else if (random() % 2 == 0) {
        dictionary->add(key, value);
        entries.emplace(key, value);
      } else {
        ASSERT_EQ(dictionary->remove(key), entries.erase(key) == 1);
      }
      ASSERT_EQ(dictionary->entries().size(), entries.size());
      if (step % 500 == 0) dictionary = MutableDictionary::copy(*dictionary);
    }
  }
}

// Tearing a nest down by recursion once took the whole stack.
TEST(Value, FreezingEndsMutabilityAndDeepNestsDieInPlace) {
  Ref<Value> nest = integer(1);
  for (int level = 0; level < 500'000; ++level) {
    Ref<MutableDictionary> inner = MutableDictionary::create();
    inner->set("inner", nest);
    nest = array_of(inner, inner);
  }
  EXPECT_EQ(cast<MutableArray>(nest.get()), nullptr);
}

TEST(Value, DescriptionsAreOneLine) {
  Ref<Value> nest = integer(1);
  for (int level = 0; level < 1000; ++level) nest = array_of(nest);
  const std::pair<Ref<Value>, std::string> cases[] = {
      {nullptr, "(null)"},
      {String::create("bare \"text\""), "bare \"text\""},
      {array_of(String::create("a\"\\\n\x01\xC3\xA9"), Boolean::yes(), Boolean::no()),
       "[\"a\\\"\\\\\\n\\u0001\xC3\xA9\", true, false]"},
      {array_of(Number::create_real(2), Number::create_uint64(~uint64_t{0})), "[2.0, 18446744073709551615]"},
      {array_of(dictionary_of({{"b", 1}, {"a", 2}}), set_of(integer(1))), "[{\"a\": 2, \"b\": 1}, set(1)]"},
      {array_of(Data::create(""), Data::create(std::string(17, '\x89'))),
       "[<0 bytes>, <17 bytes: 89898989898989898989898989898989...>]"},
      {array_of(Date::create(0), Date::create(-0.5), Date::create(-63113904000), Date::create(252423993599.5)),
       "[2001-01-01T00:00:00Z, 2000-12-31T23:59:59Z, 0001-01-01T00:00:00Z, 9999-12-31T23:59:59Z]"},
      {array_of(Date::create(-63113904000.5), Date::create(252423993600)),
       "[date(-63113904000.5), date(252423993600.0)]"},
      {nest, std::string(128, '[') + "..." + std::string(128, ']')},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(describe(value.get()), text);
}

TEST(Unicode, IllFormedPartsAreReplacedOneByOne) {
  const std::string mark = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {
      {"a\x80z", "a" + mark + "z"},
      {"\xC0\xAF\xE0\x80\x80", mark + mark + mark + mark + mark},  // overlong
      {"\xED\xA0\x80", mark + mark + mark},                        // surrogate
      {"\xF4\x90\x80\x80", mark + mark + mark + mark},             // above U+10FFFF
      {"\xF0\x9F\x98z\xE2\x82", mark + "z" + mark},                // truncated: one part each
  };
  for (const auto& [bytes, repaired] : cases) {
    EXPECT_EQ(String::create(bytes)->view(), repaired);
    EXPECT_FALSE(unicode::is_utf8(bytes));
  }
}

TEST(Unicode, EveryCodePointGoesThroughBothForms) {
  std::string utf16, back;
  for (uint32_t unit = 0; unit < 0x10000; ++unit) {
    if (unit < 0xD800 || unit > 0xDFFF) append_big_endian(utf16, unit, 2);
  }
  for (uint32_t rest = 0; rest < 0x100000; ++rest) {
    append_big_endian(utf16, 0xD800DC00 + (rest >> 10 << 16) + (rest & 0x3FF), 4);
  }
  const Ref<String> string = String::create_from_utf16be(utf16);
  ASSERT_TRUE(string && unicode::is_utf8(string->view()));
  unicode::append_utf16be(back, string->view());
  EXPECT_TRUE(back == utf16);
  for (const char* lone : {"\xD8\x3D", "\xDE\x01", "\xD8\x3D\x01\x41", "\xD8\x3D\xD8\x3D"}) {
    EXPECT_FALSE(String::create_from_utf16be(lone));
  }
}

}  // namespace
}  // namespace corvane::plist
