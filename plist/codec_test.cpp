#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
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

constexpr char test_files[] = CORVANE_SOURCE_DIR "/plist/testdata";
constexpr Encoding encodings[] = {Encoding::binary, Encoding::xml};

std::string contents(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Decoded read(std::string_view bytes, Containers containers = Containers::immutable,
             unsigned depth_limit = max_depth) {
  Decoded decoded = decode(Data::create(bytes), containers, depth_limit);
  EXPECT_NE(decoded.value.get() == nullptr, decoded.error.get() == nullptr);
  return decoded;
}

// What was read, or the error.
std::string read_text(std::string_view bytes, Containers containers = Containers::immutable,
                      unsigned depth_limit = max_depth) {
  const Decoded decoded = read(bytes, containers, depth_limit);
  return describe(decoded.value ? decoded.value.get() : decoded.error.get());
}

void expect_found(const std::string& part, const std::string& text) {
  EXPECT_NE(text.find(part), std::string::npos) << part << " / " << text;
}

// The encoding, or the error behind "error: ".
std::string write(const Value& value, Encoding encoding, size_t share_from = 4096) {
  std::string bytes;
  Ref<String> error;
  if (encoding == Encoding::xml) {
    error = encode_xml(value, bytes);
  } else {
    ByteChain chain;
    error = encode_binary(value, chain, share_from);
    for (const std::string_view piece : chain.pieces()) bytes += piece;
    EXPECT_EQ(chain.size(), bytes.size());
  }
  return error ? "error: " + describe(error.get()) : bytes;
}

// A binary property list of these objects, of which number 0 is the top one and the last one has more numbers.
std::string binary(const std::vector<std::string>& objects, size_t more_numbers = 0) {
  std::string bytes = "bplist00", offsets;
  for (const std::string& object : objects) {
    append_big_endian(offsets, bytes.size(), 2);
    bytes += object;
  }
  const size_t table = bytes.size();
  for (size_t i = 0; i < more_numbers; ++i) offsets += offsets.substr(2 * objects.size() - 2, 2);
  bytes += offsets + std::string(6, '\0') + "\2\1";
  for (const size_t number : {objects.size() + more_numbers, size_t{0}, table})
    append_big_endian(bytes, number, 8);
  return bytes;
}

std::string xml(const std::string& value) {
  return "<?xml version=\"1.0\"?><!DOCTYPE plist SYSTEM \"plist.dtd\"><plist version=\"1.0\">" + value +
         "</plist>";
}

void expect_kept(const Value& value, Encoding encoding) {
  for (const size_t share_from : {1, 4096}) {
    const std::string bytes = write(value, encoding, share_from);
    const Decoded back = read(bytes, share_from == 1 ? Containers::immutable : Containers::made_mutable);
    ASSERT_TRUE(equal(back.value.get(), &value)) << describe(&value) << bytes << describe(back.error.get());
    EXPECT_EQ(hash(*back.value), hash(value));
  }
}

void expect_refused_or_sound(const std::string& bytes) {
  const Decoded decoded = read(bytes);
  if (decoded.value) expect_kept(*decoded.value, decoded.encoding);
}

TEST(Codec, EveryTestFileHoldsItsJsonAndIsRefusedOrSoundWhenDamaged) {
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(test_files)) {
    std::filesystem::path path = entry.path();
    if (path.extension() != ".plist") continue;
    std::string file = contents(path);
    const Decoded decoded = read(file);
    ASSERT_TRUE(decoded.value) << path << ": " << describe(decoded.error.get());
    EXPECT_EQ(decoded.encoding == Encoding::xml, path.stem().extension() == ".xml");
    EXPECT_EQ(tools::to_json(*decoded.value), contents(path.replace_extension(".json"))) << path;
    ++files;
    if (file.size() > 1000) continue;
    for (size_t length = 0; length < file.size(); ++length) {
      expect_refused_or_sound(file.substr(0, length));
      // A trailer at every length gets past the first checks.
      expect_refused_or_sound(file.substr(0, length) + file.substr(file.size() - 32));
    }
    for (size_t bit = 0; bit < file.size() * 8; ++bit) {
      file[bit / 8] ^= static_cast<char>(1 << bit % 8);
      expect_refused_or_sound(file);
      file[bit / 8] ^= static_cast<char>(1 << bit % 8);
    }
  }
  EXPECT_GT(files, 10u);
}

// On both sides of where a size or a form changes.
TEST(Codec, WhatIsWrittenComesBackEqual) {
  std::vector<Ref<Value>> values;
  for (int bit = 0; bit < 64; ++bit) {
    const uint64_t power = uint64_t{1} << bit;
    for (const uint64_t bits : {power - 1, power, 0 - power, ~power}) {
      const auto integer = static_cast<int64_t>(bits);
      values.insert(values.end(), {Number::create_uint64(bits), Number::create_int64(integer),
                                   Number::create_real(std::bit_cast<double>(bits)),
                                   Date::create(std::ldexp(static_cast<double>(integer), -28))});
    }
  }
  for (const size_t size : {0, 1, 14, 15, 255, 256, 4096, 65535, 65536}) {
    const std::string bytes(size, 'x');
    values.insert(values.end(), {Data::create(bytes), String::create(bytes),
                                 String::create(bytes + "\xF0\x9F\x98\x80\r\n\t&<]]>")});
    const auto array = MutableArray::create();
    const auto set = MutableSet::create();
    const auto dictionary = MutableDictionary::create();
    for (size_t i = 0; i < size; ++i) {
      array->append(Number::create_uint64(i));
      set->add(array->items().back());
      dictionary->set(std::to_string(i), array->items().back());
    }
    values.insert(values.end(), {array, set, dictionary});
  }
  for (const Ref<Value>& value : values) {
    for (const Encoding encoding : encodings) expect_kept(*value, encoding);
  }
}

TEST(Codec, NestingEndsAtTheLimitInEveryCodec) {
  Ref<Value> deepest, too_deep = Boolean::yes();
  for (unsigned depth = 0; depth <= max_depth; ++depth) {
    Ref<MutableArray> outer = MutableArray::create();
    outer->append(too_deep);
    deepest = std::exchange(too_deep, outer);
  }
  for (const Encoding encoding : encodings) {
    expect_kept(*deepest, encoding);
    const std::string bytes = write(*deepest, encoding);
    expect_found("deeper than 127", read_text(bytes, Containers::immutable, max_depth - 1));
    EXPECT_EQ(write(*too_deep, encoding), "error: nesting deeper than 128");
  }
  // Object 2 is met first where there is room for what it holds, and then where there is none.
  const std::string shared = binary({"\xA2\x02\x01", "\xA1\x02", "\xA1\x03", "\xA0"});
  for (const Containers containers : {Containers::immutable, Containers::made_mutable}) {
    EXPECT_EQ(read_text(shared, containers, 4), "[[[]], [[[]]]]");
    expect_found("deeper than 3", read_text(shared, containers, 3));
  }
}

TEST(Codec, MutableResultsShareNoContainers) {
  // An array of one array twice and of a set that holds it.
  const std::string shared = binary({"\xA3\x01\x01\x02", "\xA1\x03", "\xC1\x01", "\x10\x07"});
  for (const std::string& bytes : {shared, write(*read(shared).value, Encoding::xml)}) {
    const Ref<Value> value = read(bytes, Containers::made_mutable).value;
    const auto* top = cast<MutableArray>(value.get());
    ASSERT_NE(top, nullptr);
    ASSERT_NE(cast<MutableArray>(top->at(0)), nullptr);
    EXPECT_NE(top->at(0), top->at(1));
    cast<MutableArray>(top->at(0))->append(Boolean::yes());
    EXPECT_EQ(describe(value.get()), "[[7, true], [7], set([7])]");
    ASSERT_NE(cast<MutableSet>(top->at(2)), nullptr);
    EXPECT_FALSE(cast<Set>(top->at(2))->items()[0]->is_mutable());
    EXPECT_FALSE(read(bytes).value->is_mutable());
  }
}

TEST(BinaryReader, ReadsOrRefuses) {
  const std::pair<std::string, std::string> cases[] = {
      {"bplist01" + std::string(40, '\0'), "version of the binary encoding is not known at byte 6"},
      {binary({"\0"s}), "null objects are not supported at byte 8"},
      {binary({"\x0F"}), "unknown object marker"},
      {binary({"\x80\x01"}), "UID objects are not supported"},
      {binary({"\xB0"}), "unknown object marker"},
      {binary({"\x13\x01"}), "ends inside an integer"},
      {binary({"\x14" + std::string(8, '\xFF') + "\x80" + std::string(7, '\0')}), "-9223372036854775808"},
      {binary({"\x14" + std::string(8, '\xFF') + "\x7F" + std::string(7, '\xFF')}), "an integer out of range"},
      {binary({"\x14" + std::string(7, '\0') + "\1" + std::string(8, '\0')}), "an integer out of range"},
      {binary({"\x22\xC0\x20\0\0"s}), "-2.5"},
      {binary({"\x33\x7F\xF0\0\0\0\0\0\0"s}), "a date that is not finite"},
      {binary({"\x52\x61"}), "ends inside a string at byte 8"},
      {binary({"\x52\xC3\xA9"}), "not ASCII"},
      {binary({"\x61\xD8\x00"s}), "a surrogate stands alone"},
      {binary({"\x5F\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}), "ends inside a string"},
      {binary({"\xD2\x01\x01\x02\x03", "\x51k", "\x08", "\x09"}), "{\"k\": true}"},
      {binary({"\xD1\x01\x01", "\x10\x01"}), "a dictionary key is not a string"},
      {binary({"\xA1\x01"}), "a reference to an object that is not there"},
      {binary({"\xD1\x01\x00"s, "\x51k" + std::string(300, '\x08')}), "nesting deeper than 128"},
  };
  for (const auto& [bytes, text] : cases) expect_found(text, read_text(bytes));
}

// Small files that stood for gigabytes of memory or hours of work.
TEST(BinaryReader, SharedAndOverlappingObjectsAreBounded) {
  std::vector<std::string> doubling;
  for (char level = 1; level < 60; ++level) doubling.push_back({'\xA2', level, level});
  doubling.push_back("\xA0");
  std::string numbers;
  for (int i = 1; i < 256; ++i) numbers += static_cast<char>(i);
  const std::string text = "\x5F\x11\x20\x01" + std::string(0x2001, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {binary(doubling), "more references than bytes"},
      {binary({"\xAF\x10\xFF" + numbers, text}, 254), "strings and data lie across each other"},
      {binary({"\xAF\x11\x30\x00"s + std::string(0x3000, '\1'), "\xA1\x02", text}), "more references"},
      {binary({"\xCF\x11\x30\x00"s + std::string(0x3000, '\1'), text}), "repeated too often"},
      {binary({"\xAF\x11\x18\x00"s + std::string(0x1800, '\1'), "\xC1\x02", text}), "repeated too often"},
  };
  for (const auto& [bytes, error] : cases) {
    for (const Containers containers : {Containers::immutable, Containers::made_mutable}) {
      expect_found(error, read_text(bytes, containers));
    }
  }
}

TEST(XmlReader, ReadsWhatItShould) {
  const std::pair<std::string, std::string> cases[] = {
      {"<integer> +0x7f\n</integer>", "127"},
      {"<integer>-0X8000000000000000</integer>", "-9223372036854775808"},
      {"<real> +1.5e2 </real>", "150.0"},
      {"<real>-INFinity</real>", "-inf"},
      {"<real>-nan</real>", "nan"},
      {"<string> a<![CDATA[<b>]]><!-- c --><?pi?>&#13;&amp;</string>", " a<b>\r&"},
      {"<array><date> 2024-02-29T23:59:59.75Z </date></array>", "[2024-02-29T23:59:59Z]"},
      {"<data> QU I=\n</data>", "<2 bytes: 4142>"},
      {"<dict a='&lt;&#65;'><key>k</key><true> </true><key>k</key><false/></dict>", "{\"k\": false}"},
      {"<set><integer>1</integer><integer>0x1</integer></set>", "set(1)"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(read_text(xml(value)), text) << value;
}

TEST(XmlReader, RefusesWhatItShould) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"<plist> without a value", {""}},
      {"a second value", {"<true/><true/>"}},
      {"text outside", {"<true/>x", "<array>x</array>"}},
      {"<plist> inside", {"<plist><true/></plist>"}},
      {"an unknown element", {"<null/>"}},
      {"<key> in place of a value", {"<key>k</key>", "<dict><key>k</key><key>l</key></dict>"}},
      {"without its key", {"<dict><true/></dict>"}},
      {"a key without its value", {"<dict><key>k</key></dict>"}},
      {"an element inside", {"<string>a<string/></string>", "<true><array/></true>"}},
      {"text in a Boolean", {"<true>x</true>"}},
      {"an undeclared entity", {"<string>&foo;</string>", "<string a='&amp;&foo;'/>"}},
      {"mismatched tag", {"<string>"}},
  };
  for (const auto& [error, values] : cases) {
    for (const std::string& value : values) expect_found(error, read_text(xml(value)));
  }
  const std::pair<std::string, std::vector<std::string>> leaves[] = {
      {"integer", {"", "- 1", "18446744073709551616", "-9223372036854775809", "0x-1", "1.0"}},
      {"real", {"", "1,5", "0x1p3", "+-1", "nan(1)"}},
      {"date",
       {"2023-02-29T00:00:00Z", "2024-12-31T23:59:60Z", "0000-01-01T00:00:00Z", "2024-12-31T23:59:59.Z",
        "2024-12-31T23:59:59", "2024-00-31T23:59:59Z"}},
      {"data", {"QUI", "QUI==", "Q=UI", "QUJD====", "QU-D"}},
  };
  for (const auto& [name, texts] : leaves) {
    for (const std::string& text : texts) {
      expect_found("<" + name + "> holds no", read_text(xml("<" + name + ">" + text + "</" + name + ">")));
    }
  }
  EXPECT_EQ(read_text(""), "no element found at byte 0");
  expect_found("outermost element", read_text("<true/>"));
  expect_found("declarations", read_text("<!DOCTYPE plist [<!ENTITY a 'b'>]><plist><string>&a;</string></plist>"));
}

TEST(BinaryWriter, WritesEachEqualLeafOnceInTheSmallestForm) {
  const Ref<Value> leaves[] = {Number::create_int32(255),  Number::create_int64(255), String::create("\xC3\xA9"),
                               String::create("\xC3\xA9"), Data::create("one"),       Data::create("one"),
                               Data::create("two")};
  Ref<MutableArray> array = MutableArray::create();
  for (size_t i = 0; i < 2 * std::size(leaves); ++i) array->append(leaves[i % std::size(leaves)]);
  EXPECT_EQ(write(*array, Encoding::binary),
            "bplist00\xAE\1\1\2\2\3\3\4\1\1\2\2\3\3\4\x10\xFF\x61\0\xE9\x43one\x43two\x08\x17\x19\x1C\x20"
            "\0\0\0\0\0\0\1\1\0\0\0\0\0\0\0\5\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x24"s);
}

// A store would have written a file that no start can read.
TEST(BinaryWriter, RefusesWhatTheReaderWould) {
  const auto key = String::create(std::string(3000, 'k'));
  const Ref<MutableSet> set = MutableSet::create();
  int refused = 0;
  for (int i = 0; i < 400; ++i) {
    Ref<MutableDictionary> member = MutableDictionary::create();
    member->set(key, Number::create_int32(i));
    set->add(MutableDictionary::freeze(std::move(member)));
    const std::string written = write(*set, Encoding::binary);
    refused += written.starts_with("error: long keys");
    ASSERT_TRUE(refused > 0 || !read(written).error) << i;
  }
  EXPECT_TRUE(refused > 50 && refused < 350) << refused;
}

TEST(XmlWriter, KeepsItsLayoutAndRefusesWhatXmlCannotHold) {
  for (const char* name : {"/data.xml.plist", "/dates.xml.plist", "/integers.xml.plist"}) {
    const std::string file = contents(test_files + std::string(name));
    EXPECT_EQ(write(*read(file).value, Encoding::xml), file);
  }
  const std::string unsorted = "<dict><key>b&#13;</key><dict/><key>a</key><real>-inf</real></dict>";
  expect_found(
      "<dict>\n\t<key>a</key>\n\t<real>-infinity</real>\n\t<key>b&#13;</key>\n\t<dict/>\n</dict>\n</plist>\n",
      write(*read(xml(unsorted)).value, Encoding::xml));
  expect_found(">2023-03-08T20:26:40.1Z<", write(*Date::create(700000000.1), Encoding::xml));
  for (const Ref<Value>& value : {Ref<Value>(String::create("a\x1F")), Ref<Value>(String::create("\xEF\xBF\xBE")),
                                  Ref<Value>(Date::create(1e12)), Ref<Value>(Date::create(-0.0))}) {
    EXPECT_EQ(write(*value, Encoding::xml).substr(0, 7), "error: ") << describe(value.get());
  }
}

}  // namespace
}  // namespace corvane::plist
