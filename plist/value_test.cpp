#include "plist/value.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "plist/describe.h"
#include "plist/unicode.h"

namespace corvane::plist {
namespace {

Ref<Array> array_of(std::initializer_list<Ref<Value>> items) {
  Ref<MutableArray> array = MutableArray::create();
  for (const Ref<Value>& item : items) array->append(item);
  return MutableArray::freeze(std::move(array));
}

Ref<Set> set_of(std::initializer_list<Ref<Value>> items) {
  Ref<MutableSet> set = MutableSet::create();
  for (const Ref<Value>& item : items) set->add(item);
  return MutableSet::freeze(std::move(set));
}

Ref<MutableDictionary> dictionary_of(std::initializer_list<std::pair<std::string_view, Ref<Value>>> entries) {
  Ref<MutableDictionary> dictionary = MutableDictionary::create();
  for (const auto& [key, value] : entries) dictionary->set(key, value);
  return dictionary;
}

Ref<Value> integer(int64_t value) { return Number::create_int64(value); }

TEST(Value, EqualityAndHashGoByClass) {
  const double other_nan = std::bit_cast<double>(0x7FF8000000001234u);
  Ref<Data> whole = Data::create("xabcx");
  // Values in one row are equal to each other, and to nothing in another row.
  const std::vector<std::vector<Ref<Value>>> rows = {
      {Number::create_int32(1), integer(1), Number::create_uint64(1)},
      {Number::create_int32(-1), integer(-1)},
      {Number::create_uint64(~uint64_t{0})},
      {Boolean::yes(), Boolean::of(true)},
      {Boolean::no()},
      {integer(0)},
      {Number::create_real(0.0)},
      {Number::create_real(-0.0)},
      {Number::create_real(1)},
      {Number::create_real(other_nan), Number::create_real(std::nan(""))},
      {Date::create(1)},
      {Date::create(0)},
      {String::create("")},
      {Data::create("")},
      {String::create("abc"), String::create_from_utf16be(std::string_view("\0a\0b\0c", 6))},
      {String::create(std::string_view("abc\0", 4))},
      {Data::create("abc"), Data::slice(whole, 1, 3), Data::slice(Data::slice(whole, 1, 4), 0, 3)},
      {array_of({}), MutableArray::create()},
      {set_of({}), MutableSet::create()},
      {dictionary_of({}), MutableDictionary::create(100)},
      {array_of({integer(1), integer(2)}), array_of({Number::create_int32(1), integer(2)})},
      {array_of({integer(2), integer(1)})},
      {set_of({integer(1), integer(2)}), set_of({integer(2), Number::create_int32(1), integer(2)})},
      {set_of({integer(1), integer(3)})},
      {set_of({set_of({integer(1), integer(2)})}), set_of({set_of({integer(2), integer(1)})})},
      {dictionary_of({{"a", integer(1)}, {"b", integer(2)}}),
       dictionary_of({{"b", integer(2)}, {"a", integer(0)}, {"a", integer(1)}})},
      {dictionary_of({{"a", integer(2)}, {"b", integer(1)}})},
      {dictionary_of({{"a", integer(1)}, {"c", integer(2)}})},
  };
  for (size_t i = 0; i < rows.size(); ++i) {
    for (size_t k = 0; k < rows.size(); ++k) {
      for (const Ref<Value>& a : rows[i]) {
        for (const Ref<Value>& b : rows[k]) {
          EXPECT_EQ(equal(a.get(), b.get()), i == k) << describe(a.get()) << " / " << describe(b.get());
          EXPECT_EQ(hash(*a) == hash(*b), i == k) << describe(a.get()) << " / " << describe(b.get());
        }
      }
    }
    EXPECT_FALSE(equal(rows[i][0].get(), nullptr));
  }
  EXPECT_TRUE(equal(nullptr, nullptr));
}

TEST(Value, DictionaryAgreesWithMapWhileItGrowsAndShrinks) {
  std::mt19937 random(1);
  for (const unsigned keys : {4u, 9u, 300u}) {
    Ref<MutableDictionary> dictionary = MutableDictionary::create();
    std::map<std::string, int64_t> expected;
    for (int64_t step = 0; step < 4000; ++step) {
      const std::string key = "key" + std::to_string(random() % keys);
      if (random() % 2 == 0) {
        dictionary->set(key, integer(step));
        expected[key] = step;
      } else if (random() % 2 == 0) {
        dictionary->add(key, integer(step));
        expected.emplace(key, step);
      } else {
        ASSERT_EQ(dictionary->remove(key), expected.erase(key) == 1);
      }
      ASSERT_EQ(dictionary->size(), expected.size());
    }
    Ref<MutableDictionary> copied = MutableDictionary::copy(*dictionary);
    for (const auto& [key, value] : expected) {
      EXPECT_TRUE(equal(copied->get(key), integer(value).get()));
      EXPECT_TRUE(dictionary->remove(key));
    }
    EXPECT_EQ(dictionary->entries().size(), 0u);
    for (const Dictionary::Entry& entry : copied->entries()) {
      EXPECT_EQ(expected.count(std::string(entry.key->view())), 1u);
    }
  }
}

TEST(Value, SetAgreesWithSetWhileItGrows) {
  std::mt19937 random(1);
  for (const unsigned members : {4u, 9u, 300u}) {
    Ref<MutableSet> set = MutableSet::create();
    std::set<int64_t> expected;
    for (int step = 0; step < 2000; ++step) {
      const int64_t member = static_cast<int64_t>(random() % members);
      ASSERT_EQ(set->contains(*array_of({integer(member)})), expected.count(member) == 1);
      set->add(array_of({integer(member)}));
      expected.insert(member);
      ASSERT_EQ(set->items().size(), expected.size());
    }
  }
}

TEST(Value, FreezingEndsMutability) {
  Ref<MutableArray> array = MutableArray::create();
  Ref<MutableData> data = MutableData::create(2);
  EXPECT_EQ(cast<MutableArray>(static_cast<Value*>(array.get())), array.get());
  EXPECT_TRUE(data->is_mutable());
  Ref<Value> frozen = MutableArray::freeze(std::move(array));
  EXPECT_FALSE(array);
  EXPECT_FALSE(frozen->is_mutable());
  EXPECT_EQ(cast<MutableArray>(frozen.get()), nullptr);
  EXPECT_EQ(cast<Array>(frozen.get()), frozen.get());
  EXPECT_EQ(cast<Dictionary>(frozen.get()), nullptr);
  EXPECT_FALSE(Data::create("x")->is_mutable());
}

// Tearing a nest down by recursion once took the whole stack.
TEST(Value, DeepNestsDieInPlace) {
  Ref<Value> nest = MutableArray::create();
  for (int level = 0; level < 1'000'000; ++level) {
    Ref<Value> outer;
    if (level % 2 == 0) {
      outer = array_of({nest, nest});
    } else {
      outer = dictionary_of({{"inner", nest}});
    }
    nest = std::move(outer);
  }
  nest = nullptr;
}

TEST(Value, DescriptionsAreOneLine) {
  Ref<Value> nest = integer(1);
  for (int level = 0; level < 1000; ++level) nest = array_of({nest});
  const struct {
    Ref<Value> value;
    std::string text;
  } cases[] = {
      {nullptr, "(null)"},
      {String::create("bare \"text\""), "bare \"text\""},
      {array_of({String::create("a\"\\\n\x01\xC3\xA9"), Boolean::yes(), Boolean::no()}),
       "[\"a\\\"\\\\\\n\\u0001\xC3\xA9\", true, false]"},
      {array_of({Number::create_real(2), Number::create_real(2.5), Number::create_real(-1e300),
                 Number::create_real(std::numeric_limits<double>::infinity()),
                 Number::create_uint64(~uint64_t{0})}),
       "[2.0, 2.5, -1e+300, inf, 18446744073709551615]"},
      {dictionary_of({{"b", set_of({integer(1)})}, {"a", dictionary_of({})}}), "{\"a\": {}, \"b\": set(1)}"},
      {array_of({Data::create(""), Data::create("\x89PNG"), Data::create(std::string(17, 'a'))}),
       "[<0 bytes>, <4 bytes: 89504e47>, <17 bytes: 61616161616161616161616161616161...>]"},
      {array_of({Date::create(0), Date::create(-0.5), Date::create(1e300)}),
       "[2001-01-01T00:00:00Z, 2000-12-31T23:59:59Z, date(1e+300)]"},
      {nest, std::string(128, '[') + "..." + std::string(128, ']')},
  };
  for (const auto& each : cases) EXPECT_EQ(describe(each.value.get()), each.text);
  EXPECT_EQ(date_text(*Date::create(-63113904000.0)), "0001-01-01T00:00:00Z");
  EXPECT_EQ(date_text(*Date::create(252423993599.5)), "9999-12-31T23:59:59Z");
  EXPECT_EQ(date_text(*Date::create(-63113904000.5)), "");
  EXPECT_EQ(date_text(*Date::create(252423993600.0)), "");
}

TEST(Unicode, IllFormedPartsAreReplacedOneByOne) {
  const std::string mark = "\xEF\xBF\xBD";
  const struct {
    std::string bytes, repaired;
  } cases[] = {
      {"a\x80z", "a" + mark + "z"},
      {"\xC0\xAF", mark + mark},                        // overlong
      {"\xE0\x80\x80", mark + mark + mark},             // overlong
      {"\xED\xA0\x80", mark + mark + mark},             // surrogate
      {"\xF4\x90\x80\x80", mark + mark + mark + mark},  // above U+10FFFF
      {"\xF0\x9F\x98z", mark + "z"},                    // truncated: one part
      {"\xE2\x82", mark},
      {"\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF", "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF"},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(unicode::repaired_utf8(each.bytes), each.repaired);
    EXPECT_EQ(String::create(each.bytes)->view(), each.repaired);
    EXPECT_EQ(unicode::is_utf8(each.bytes), each.bytes == each.repaired);
  }
}

TEST(Unicode, EveryCodePointGoesThroughBothForms) {
  std::string utf16;
  for (char32_t point = 0; point <= 0x10FFFF; ++point) {
    if (point >= 0xD800 && point <= 0xDFFF) continue;
    const char32_t rest = point - 0x10000;
    const std::vector<char32_t> units =
        point < 0x10000 ? std::vector<char32_t>{point}
                        : std::vector<char32_t>{0xD800 + (rest >> 10), 0xDC00 + (rest & 0x3FF)};
    for (const char32_t unit : units) {
      utf16.push_back(static_cast<char>(unit >> 8));
      utf16.push_back(static_cast<char>(unit & 0xFF));
    }
  }
  Ref<String> string = String::create_from_utf16be(utf16);
  ASSERT_TRUE(string);
  EXPECT_TRUE(unicode::is_utf8(string->view()));
  EXPECT_EQ(unicode::utf16_units_of_utf8(string->view()) * 2, utf16.size());
  std::string back;
  unicode::append_utf16be(back, string->view());
  EXPECT_TRUE(back == utf16);
  for (const char* lone : {"\xD8\x3D", "\xDE\x01", "\xD8\x3D\x01\x41", "\xD8\x3D\xD8\x3D"}) {
    EXPECT_FALSE(String::create_from_utf16be(lone));
  }
}

}  // namespace
}  // namespace corvane::plist
