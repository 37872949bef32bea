#include <gtest/gtest.h>

#include <bit>
#include <fstream>
#include <malloc.h>
#include <set>
#include <string>
#include <vector>

#include "plist/big_endian.h"
#include "plist/describe.h"
#include "plist/reader.h"
#include "plist/writer.h"
#include "tools/json.h"

namespace corvane::plist {
namespace {

using namespace std::string_literals;

constexpr char repeated[] = "long keys or members of sets are repeated too often";

std::string test_file(const std::string& name) {
  std::ifstream file(CORVANE_SOURCE_DIR "/plist/testdata/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Decoded read(std::string_view bytes, Containers containers = Containers::immutable,
             unsigned depth_limit = max_depth) {
  return decode(Data::create(bytes), containers, depth_limit);
}

// What was read, or the error without its byte.
std::string outcome(const Decoded& decoded) {
  if (decoded.value) return describe(decoded.value.get());
  return std::string(decoded.error->view().substr(0, decoded.error->view().rfind(" at byte ")));
}

// The encoding, or the error behind "error: ".
std::string write(const Value& value, Encoding encoding) {
  std::string bytes;
  ByteChain chain;
  const Ref<String> error =
      encoding == Encoding::xml ? encode_xml(value, bytes) : encode_binary(value, chain, 1000);
  for (const std::string_view piece : chain.pieces()) bytes += piece;
  return error ? "error: " + describe(error.get()) : bytes;
}

// A binary property list of these objects, of which number 0 is the top one.
std::string binary(const std::vector<std::string>& objects) {
  std::string bytes = "bplist00", offsets;
  for (const std::string& object : objects) {
    append_big_endian(offsets, bytes.size(), 2);
    bytes += object;
  }
  const size_t table = bytes.size();
  bytes += offsets + std::string(6, '\0') + "\2\1";
  for (const size_t number : {objects.size(), size_t{0}, table}) append_big_endian(bytes, number, 8);
  return bytes;
}

std::string xml(const std::string& value) {
  return "<!DOCTYPE plist SYSTEM \"plist.dtd\"><plist version=\"1.0\">" + value + "</plist>";
}

void expect_kept(const Value& value, Encoding encoding) {
  const std::string bytes = write(value, encoding);
  ASSERT_TRUE(equal(read(bytes).value.get(), &value)) << describe(&value) << bytes;
}

TEST(Codec, EveryTestFileHoldsItsJson) {
  for (const char* name :
       {"ark.bin", "ark.xml", "data.bin", "data.xml", "dates.bin", "dates.xml", "entities.xml", "integers.bin",
        "integers.xml", "nested.bin", "nested.xml", "strings.bin", "strings.xml", "whitespace.xml"}) {
    const Decoded whole = read(test_file(name + ".plist"s));
    ASSERT_TRUE(whole.value) << name << ": " << describe(whole.error.get());
    EXPECT_EQ(tools::to_json(*whole.value), test_file(name + ".json"s)) << name;
  }
}

// On both sides of where a size or a form changes.
TEST(Codec, WhatIsWrittenComesBackEqual) {
  std::vector<Ref<Value>> values;
  for (int bit = 0; bit < 64; ++bit) {
    for (const uint64_t bits : {(uint64_t{1} << bit) - 1, uint64_t{1} << bit, ~(uint64_t{1} << bit)}) {
      const auto integer = static_cast<int64_t>(bits);
      values.insert(values.end(), {Number::create_uint64(bits), Number::create_int64(integer),
                                   Number::create_real(std::bit_cast<double>(bits)),
                                   Date::create(static_cast<double>(integer) / (1 << 28))});
    }
  }
  for (const unsigned size : {0u, 14u, 15u, 255u, 256u, 65535u, 65536u}) {
    const auto array = MutableArray::create();
    const auto dictionary = MutableDictionary::create();
    for (unsigned i = 0; i < size; ++i) {
      array->append(Number::create_uint64(i));
      dictionary->set(std::to_string(i), array->items().back());
    }
    const std::string text(size, 'x');
    values.insert(values.end(), {Data::create(text), String::create(text), array, dictionary,
                                 String::create(text + "\xF0\x9F\x98\x80\r\n\t&<]]>")});
  }
  for (const Ref<Value>& value : values) {
    for (const Encoding encoding : {Encoding::binary, Encoding::xml}) expect_kept(*value, encoding);
  }
}

TEST(Codec, NestingEndsAtTheLimitInEveryCodec) {
  Ref<Value> deepest, too_deep = Boolean::yes();
  for (unsigned depth = 0; depth <= max_depth; ++depth) {
    Ref<MutableArray> outer = MutableArray::create();
    outer->append(too_deep);
    deepest = std::exchange(too_deep, outer);
  }
  for (const Encoding encoding : {Encoding::binary, Encoding::xml}) {
    expect_kept(*deepest, encoding);
    EXPECT_EQ(outcome(read(write(*deepest, encoding), Containers::immutable, 127)), "nesting deeper than 127");
    EXPECT_EQ(write(*too_deep, encoding), "error: nesting deeper than 128");
  }
}

TEST(Codec, MutableResultsShareNoContainers) {
  // An array of a set of one array, and of that array twice.
  const std::string shared = binary({"\xA3\x02\x01\x01", "\xA1\x03", "\xC1\x01", "\x10\x07"});
  for (const std::string& bytes : {shared, write(*read(shared).value, Encoding::xml)}) {
    const Ref<Value> value = read(bytes, Containers::made_mutable).value;
    const auto* top = cast<Array>(value.get());
    ASSERT_TRUE(top->is_mutable() && top->at(0)->is_mutable() && top->at(1)->is_mutable());
    cast<MutableArray>(top->at(1))->append(Boolean::yes());
    EXPECT_EQ(describe(top), "[set([7]), [7, true], [7]]");
    EXPECT_FALSE(cast<Set>(top->at(0))->items()[0]->is_mutable());
  }
}

TEST(BinaryReader, ReadsOrRefuses) {
  const std::pair<std::string, std::string> cases[] = {
      {"-9223372036854775808", binary({"\x14" + std::string(8, '\xFF') + "\x80" + std::string(7, '\0')})},
      {"{\"k\": true}", binary({"\xD2\x01\x01\x02\x03", "\x51k", "\x08", "\x09"})},
      {"an integer out of range", binary({"\x14" + std::string(7, '\0') + "\1" + std::string(8, '\0')})},
      {"a date that is not finite", binary({"\x33\x7F\xF0\0\0\0\0\0\0"s})},
      {"the object table ends inside a string", binary({"\x5F\x13" + std::string(8, '\xFF')})},
      {"a dictionary key is not a string", binary({"\xD1\x01\x01", "\x10\x01"})},
      {"a reference to an object that is not there", binary({"\xA1\x01"})},
      {"nesting deeper than 128", binary({"\xD1\x01\x00"s, "\x51k" + std::string(300, '\x08')})},
  };
  for (const auto& [expected, bytes] : cases) EXPECT_EQ(outcome(read(bytes)), expected);
}

// Small files that stood for gigabytes of memory or hours of work.
TEST(BinaryReader, RefusesWhatCostsMoreThanItsBytes) {
  std::vector<std::string> doubling;
  for (char level = 1; level < 60; ++level) doubling.push_back({'\xA2', level, level});
  doubling.push_back("\xA0");
  EXPECT_EQ(outcome(read(binary(doubling))), "more references than bytes");
  const std::string text = "\x5F\x11\x20\x01" + std::string(0x2001, 'x');
  EXPECT_EQ(outcome(read(binary({"\xA2\x01\x02", text.substr(0, 4), text}))),
            "strings and data lie across each other");
  EXPECT_EQ(outcome(read(binary({"\xCF\x11\x30\x00"s + std::string(0x3000, '\1'), text}))), repeated);
}

TEST(BinaryReader, TakesOnlyAsciiForAscii) {
  for (size_t size = 1; size < 30; ++size) {
    const std::string marker = "\x5F\x10"s + static_cast<char>(size);
    EXPECT_TRUE(read(binary({marker + std::string(size, 'a')})).value) << size;
    for (size_t wrong = 0; wrong < size; ++wrong) {
      std::string text(size, 'a');
      text[wrong] = '\x80';
      EXPECT_EQ(outcome(read(binary({marker + text}))), "an ASCII string that is not ASCII") << text;
    }
  }
}

// The dictionary drops its first value and its second key, which the array has as well.
TEST(BinaryReader, MeetsAgainWhatARepeatedKeyReplaced) {
  const std::string bytes =
      binary({"\xA3\x01\x04\x03", "\xD2\x02\x03\x04\x05", "\x51k", "\x51k", "\x53old", "\x53new"});
  for (const Containers containers : {Containers::immutable, Containers::made_mutable}) {
    EXPECT_EQ(outcome(read(bytes, containers)), "[{\"k\": \"new\"}, \"old\", \"k\"]");
  }
}

// Values of one document share blocks of memory, and all go with the last of them.
TEST(BinaryReader, KeepsNoMemoryButTheBlockOfAKeptValue) {
  const auto document = MutableArray::create();
  for (int i = 0; i < 3000; ++i) {
    const auto record = MutableDictionary::create();
    record->set("key " + std::to_string(i), String::create("text " + std::to_string(i)));
    document->append(record);
  }
  document->append(read(binary({"\xA1\x01", "\xA1\x02", "\xA0"})).value);
  const Ref<Data> bytes = Data::create(write(*document, Encoding::binary));
  for (const Containers containers : {Containers::immutable, Containers::made_mutable}) {
    const size_t before = mallinfo2().uordblks;
    Ref<Value> kept = cast<Array>(decode(bytes, containers).value.get())->at(1500);
    EXPECT_LE(mallinfo2().uordblks, before + 2 * ValueBlocks::largest_block);
    EXPECT_EQ(describe(kept.get()), "{\"key 1500\": \"text 1500\"}");
    kept = nullptr;
    // What malloc keeps in its caches counts as used.
    EXPECT_LE(mallinfo2().uordblks, before + 8192);
    EXPECT_FALSE(decode(bytes, containers, 2).value) << "the last item is nested deeper";
    EXPECT_LE(mallinfo2().uordblks, before + 8192) << "after an error";
  }
}

TEST(XmlReader, ReadsOrRefuses) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"127", {"<integer> +0x7f\n</integer>"}},
      {"[2024-02-29T23:59:59Z]", {"<array><date> 2024-02-29T23:59:59.75Z </date></array>"}},
      {"{\"k\": false}", {"<dict a='&lt;&#65;'><key>k</key><true> </true><key>k</key><false/></dict>"}},
      {"an element inside a value that has none", {"<string>a<string/></string>", "<true><array/></true>"}},
      {"an undeclared entity", {"<string>&foo;</string>"}},
      {"an undeclared entity in an attribute", {"<string a='&amp;&foo;'/>"}},
      {"<integer> holds no integer, or one out of range", {"<integer>- 1</integer>", "<integer>1.0</integer>"}},
      {"<real> holds no real, or one out of range", {"<real>1,5</real>", "<real>0x1p3</real>"}},
      {"<date> holds no date", {"<date>2023-02-29T00:00:00Z</date>", "<date>2024-12-31T23:59:59.Z</date>"}},
      {"<data> holds no Base64", {"<data>QUI</data>", "<data>Q=UI</data>", "<data>QUJD====</data>"}},
  };
  for (const auto& [expected, values] : cases) {
    for (const std::string& value : values) EXPECT_EQ(outcome(read(xml(value))), expected) << value;
  }
  EXPECT_EQ(describe(read("").error.get()), "no element found at byte 0");
  EXPECT_EQ(outcome(read("<!DOCTYPE plist [<!ENTITY a 'b'>]><plist/>")),
            "declarations in the document are not supported");
}

// In small documents leaves are compared, in large ones they are looked up in tables.
TEST(BinaryWriter, WritesEqualLeavesOnce) {
  for (const int count : {2, 100}) {
    const auto leaves = MutableArray::create();
    for (int i = 0; i < 2 * count; ++i) {
      const std::string number = std::to_string(i % count);
      leaves->append(String::create("text " + number));
      leaves->append(String::create(std::string(300, 'x') + number));
      leaves->append(Number::create_int64(i % count));
      leaves->append(Date::create(i % count));
      leaves->append(Data::create(number));
    }
    const Ref<Value> decoded = read(write(*leaves, Encoding::binary)).value;
    ASSERT_TRUE(equal(decoded.get(), leaves.get()));
    std::set<const Value*> objects;
    for (const Ref<Value>& leaf : cast<Array>(decoded.get())->items()) objects.insert(leaf.get());
    EXPECT_EQ(objects.size(), leaves->size() / 2) << count;
  }
}

// A store would have written a file that no start can read.
TEST(BinaryWriter, RefusesWhatTheReaderWould) {
  const auto key = String::create(std::string(3000, 'k'));
  const Ref<MutableSet> set = MutableSet::create();
  for (int i = 0; i < 400; ++i) {
    Ref<MutableDictionary> member = MutableDictionary::create();
    member->set(key, Number::create_int32(i));
    set->add(MutableDictionary::freeze(std::move(member)));
    const std::string written = write(*set, Encoding::binary);
    const bool refused = written == "error: "s + repeated;
    ASSERT_TRUE(refused ? i > 50 : i < 350 && read(written).value) << i;
  }
}

// An answer waits for as long as its client does not read it.
TEST(BinaryWriter, KeepsNoMoreMemoryThanItsBytesTake) {
  for (const std::string letters : {"us", "\u00FCs"}) {  // written as ASCII and as UTF-16
    std::string text;
    for (int i = 0; i < 20'000; ++i) text += letters;
    ByteChain chain;
    ASSERT_FALSE(encode_binary(*String::create(text), chain));
    const std::string_view bytes = chain.pieces().front();
    EXPECT_LT(malloc_usable_size(const_cast<char*>(bytes.data())), bytes.size() + 1000) << letters;
  }
}

TEST(XmlWriter, SortsKeysAndKeepsItsLayout) {
  for (const std::string name : {"data", "dates", "integers", "strings"}) {
    EXPECT_EQ(write(*read(test_file(name + ".bin.plist")).value, Encoding::xml), test_file(name + ".xml.plist"));
  }
}

}  // namespace
}  // namespace corvane::plist
