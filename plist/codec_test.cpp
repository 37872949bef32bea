#include <gtest/gtest.h>

#include <bit>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "plist/describe.h"
#include "plist/reader.h"
#include "plist/writer.h"
#include "tools/json.h"

namespace corvane::plist {
namespace {

using namespace std::string_literals;

constexpr Encoding encodings[] = {Encoding::binary, Encoding::xml};

std::string contents(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string testdata(const std::string& name) { return contents(CORVANE_SOURCE_DIR "/plist/testdata/" + name); }

Decoded read(std::string_view bytes, Containers containers = Containers::immutable,
             unsigned depth_limit = max_depth) {
  Decoded decoded = decode(Data::create(bytes), containers, depth_limit);
  EXPECT_NE(decoded.value.get() == nullptr, decoded.error.get() == nullptr);
  return decoded;
}

std::string error_of(std::string_view bytes) { return describe(read(bytes).error.get()); }

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
  std::string bytes = "bplist00", offset, offsets;
  for (const std::string& object : objects) {
    offset = {static_cast<char>(bytes.size() >> 8), static_cast<char>(bytes.size() & 0xFF)};
    offsets += offset;
    bytes += object;
  }
  const size_t table = bytes.size();
  for (size_t i = 0; i < more_numbers; ++i) offsets += offset;
  bytes += offsets + std::string(6, '\0') + "\2\1";
  for (const size_t number : {objects.size() + more_numbers, size_t{0}, table}) {
    for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift & 0xFF);
  }
  return bytes;
}

std::string xml(const std::string& value) {
  return "<?xml version=\"1.0\"?><!DOCTYPE plist SYSTEM \"plist.dtd\"><plist version=\"1.0\">" + value +
         "</plist>";
}

TEST(Codec, EveryTestFileHoldsItsJson) {
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(CORVANE_SOURCE_DIR "/plist/testdata")) {
    std::filesystem::path path = entry.path();
    if (path.extension() != ".plist") continue;
    const Decoded decoded = read(contents(path));
    ASSERT_TRUE(decoded.value) << path << ": " << describe(decoded.error.get());
    EXPECT_EQ(decoded.encoding == Encoding::xml, path.stem().extension() == ".xml");
    EXPECT_EQ(tools::to_json(*decoded.value), contents(path.replace_extension(".json"))) << path;
    ++files;
  }
  EXPECT_GT(files, 10u);
}

// What decodes must also be writable and read back equal, in the same encoding.
void expect_sound(const std::string& bytes) {
  for (const Containers containers : {Containers::immutable, Containers::made_mutable}) {
    const Decoded decoded = read(bytes, containers);
    if (!decoded.value) {
      EXPECT_EQ(decoded.error->view().find('\n'), std::string_view::npos);
      continue;
    }
    const std::string again = write(*decoded.value, decoded.encoding);
    EXPECT_TRUE(equal(read(again).value.get(), decoded.value.get())) << describe(decoded.value.get()) << again;
  }
}

TEST(Codec, DamagedInputIsRefusedOrSound) {
  std::vector<std::string> files = {binary({"\xC2\x01\x02", "\x23\x40\x09\x21\xFB\x54\x44\x2D\x18", "\xA1\x02"}),
                                    xml("<set><real>2.5e3</real><dict><key>a</key><set/></dict></set>")};
  for (const char* name : {"ark", "dates", "integers", "nested", "strings"}) {
    for (const char* encoding : {".bin.plist", ".xml.plist"}) files.push_back(testdata(name + ""s + encoding));
  }
  for (const std::string& file : files) {
    ASSERT_GT(file.size(), 40u);
    for (size_t length = 0; length < file.size(); ++length) {
      const std::string cut = file.substr(0, length);
      expect_sound(cut);
      // A trailer at every length gets past the first checks.
      if (length >= 8) expect_sound(cut + file.substr(file.size() - 32));
    }
    for (size_t bit = 0; bit < file.size() * 8; ++bit) {
      std::string flipped = file;
      flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
      expect_sound(flipped);
    }
  }
}

class RandomValues {
 public:
  explicit RandomValues(unsigned seed) : random_(seed) {}

  Ref<Value> next(int depth) {
    const size_t size = random_() % 40 == 0 ? random_() % 600 : random_() % 5;
    switch (random_() % (depth > 0 ? 12 : 8)) {
      case 0:
        return Boolean::of(random_() % 2 == 0);
      case 1:
        return Number::create_uint64(bits() >> random_() % 64);
      case 2:
        return Number::create_int64(-static_cast<int64_t>(bits() >> (1 + random_() % 63)));
      case 3:
        return Number::create_real(std::bit_cast<double>(bits()));
      case 4:
        return Date::create(static_cast<double>(static_cast<int64_t>(bits()) >> 28) / 4096);
      case 5: {
        const std::string bytes(size * 16, static_cast<char>(random_()));
        return Data::create(bytes);
      }
      case 6:
      case 7:
        return text(size);
      case 8:
      case 9: {
        Ref<MutableArray> array = MutableArray::create();
        for (size_t i = 0; i < size; ++i) array->append(next(depth - 1));
        return array;
      }
      case 10: {
        Ref<MutableSet> set = MutableSet::create();
        for (size_t i = 0; i < size; ++i) set->add(next(depth - 1));
        return set;
      }
      default: {
        Ref<MutableDictionary> dictionary = MutableDictionary::create();
        for (size_t i = 0; i < size; ++i) dictionary->set(text(1 + i % 5), next(depth - 1));
        return dictionary;
      }
    }
  }

 private:
  uint64_t bits() { return uint64_t{random_()} << 32 | random_(); }
  Ref<String> text(size_t size) {
    static const char* const parts[] = {
        "a", "Zz", " ", "\n", "\r\n", "\t", "&<>]]>\"'", "\xC3\xA9", "\xF0\x9F\x98\x80"};
    std::string text;
    for (size_t i = 0; i < size; ++i) text += parts[random_() % std::size(parts)];
    return String::create(text);
  }

  std::mt19937 random_;
};

TEST(Codec, RandomValuesComeBackEqual) {
  for (unsigned seed = 0; seed < 1500; ++seed) {
    const Ref<Value> value = RandomValues(seed).next(5);
    for (const Encoding encoding : encodings) {
      const std::string bytes = write(*value, encoding, seed % 3 == 0 ? 1 : 4096);
      const Decoded back = read(bytes, seed % 2 == 0 ? Containers::immutable : Containers::made_mutable);
      ASSERT_TRUE(equal(back.value.get(), value.get())) << seed << bytes << describe(back.error.get());
      EXPECT_EQ(hash(*back.value), hash(*value));
    }
  }
}

TEST(Codec, NestingEndsAtTheLimitInEveryCodec) {
  for (const Encoding encoding : encodings) {
    Ref<Value> nest = Boolean::yes();
    for (unsigned depth = 1; depth <= max_depth; ++depth) {
      Ref<MutableArray> outer = MutableArray::create();
      outer->append(nest);
      nest = outer;
    }
    const std::string bytes = write(*nest, encoding);
    EXPECT_TRUE(equal(read(bytes).value.get(), nest.get()));
    EXPECT_TRUE(read(bytes, Containers::made_mutable, max_depth + 1).value);
    EXPECT_NE(describe(read(bytes, Containers::immutable, max_depth - 1).error.get()).find("deeper than 127"),
              std::string::npos);
    Ref<MutableArray> outer = MutableArray::create();
    outer->append(nest);
    EXPECT_EQ(write(*outer, encoding), "error: nesting deeper than 128");
  }
  // Object 2 is met first where there is room for what it holds, and then where there is none.
  const std::string shared = binary({"\xA2\x02\x01", "\xA1\x02", "\xA1\x03", "\xA0"});
  EXPECT_TRUE(read(shared, Containers::immutable, 4).value);
  EXPECT_FALSE(read(shared, Containers::immutable, 3).value);
  EXPECT_FALSE(read(shared, Containers::made_mutable, 3).value);
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

TEST(BinaryReader, RefusesWhatItShould) {
  const struct {
    std::string bytes, error;
  } cases[] = {
      {"bplist", "version of the binary encoding is not known at byte 6"},
      {"bplist01" + std::string(40, '\0'), "not known at byte 6"},
      {binary({"\0"s}), "null objects are not supported at byte 8"},
      {binary({"\x0F"}), "unknown object marker"},
      {binary({"\x80\x01"}), "UID objects are not supported"},
      {binary({"\x70"}), "unknown object marker"},
      {binary({"\xB0"}), "unknown object marker"},
      {binary({"\x13\x01"}), "ends inside an integer"},
      {binary({"\x14" + std::string(7, '\0') + "\1" + std::string(8, '\0')}), "an integer out of range"},
      {binary({"\x14" + std::string(8, '\xFF') + "\x7F" + std::string(7, '\xFF')}), "an integer out of range"},
      {binary({"\x33\x7F\xF0\0\0\0\0\0\0"s}), "a date that is not finite"},
      {binary({"\x52\x61"}), "ends inside a string at byte 8"},
      {binary({"\x52\xC3\xA9"}), "not ASCII"},
      {binary({"\x61\xD8\x00"s}), "a surrogate stands alone"},
      {binary({"\x5F\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}), "ends inside a string"},
      {binary({"\x4F\x51\x61"}), "an object without its count"},
      {binary({"\xD1\x01\x01", "\x10\x01"}), "a dictionary key is not a string"},
      {binary({"\xA1\x01"}), "a reference to an object that is not there"},
      {binary({"\xA1\x00"s, std::string(200, '\x08')}), "nesting deeper than 128"},
      {binary({"\xD1\x01\x00"s, "\x51k" + std::string(300, '\x08')}), "nesting deeper than 128"},
  };
  for (const auto& each : cases)
    EXPECT_NE(error_of(each.bytes).find(each.error), std::string::npos) << each.error << error_of(each.bytes);
  EXPECT_EQ(describe(read(binary({"\xD2\x01\x01\x02\x03", "\x51k", "\x08", "\x09"})).value.get()),
            "{\"k\": true}");
  EXPECT_EQ(describe(read(binary({"\x14" + std::string(8, '\xFF') + "\x80" + std::string(7, '\0')})).value.get()),
            "-9223372036854775808");
  EXPECT_EQ(describe(read(binary({"\x22\xC0\x20\0\0"s})).value.get()), "-2.5");
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
      const std::string found = describe(read(bytes, containers).error.get());
      EXPECT_NE(found.find(error), std::string::npos) << found;
    }
  }
}

TEST(XmlReader, ReadsWhatItShould) {
  const struct {
    std::string value, text;
  } cases[] = {
      {"<integer> +0x7f\n</integer>", "127"},
      {"<integer>-0X8000000000000000</integer>", "-9223372036854775808"},
      {"<integer>18446744073709551615</integer>", "18446744073709551615"},
      {"<real> +1.5e2 </real>", "150.0"},
      {"<real>-INFinity</real>", "-inf"},
      {"<real>-nan</real>", "nan"},
      {"<string> a<![CDATA[<b>]]><!-- c --><?pi?>&#13;&amp;</string>", " a<b>\r&"},
      {"<array><date> 2024-02-29T23:59:59.75Z </date></array>", "[2024-02-29T23:59:59Z]"},
      {"<data> QU I=\n</data>", "<2 bytes: 4142>"},
      {"<dict a='&lt;&#65;'><key>k</key><true> </true><key>k</key><false/></dict>", "{\"k\": false}"},
      {"<set><integer>1</integer><integer>0x1</integer></set>", "set(1)"},
  };
  for (const auto& each : cases) EXPECT_EQ(describe(read(xml(each.value)).value.get()), each.text) << each.value;
  std::string utf16;
  for (const char c : "<plist><string>\xE9</string></plist>"s) utf16 += {'\0', c};
  EXPECT_EQ(describe(read("\xFE\xFF" + utf16).value.get()), "\xC3\xA9");
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
      {"no integer",
       {"<integer/>", "<integer>- 1</integer>", "<integer>18446744073709551616</integer>",
        "<integer>-9223372036854775809</integer>", "<integer>0x-1</integer>", "<integer>1.0</integer>"}},
      {"no real",
       {"<real/>", "<real>1,5</real>", "<real>0x1p3</real>", "<real>+-1</real>", "<real>nan(1)</real>"}},
      {"no date",
       {"<date>2023-02-29T00:00:00Z</date>", "<date>2024-12-31T23:59:60Z</date>",
        "<date>0000-01-01T00:00:00Z</date>", "<date>2024-12-31T23:59:59.Z</date>",
        "<date>2024-12-31T23:59:59</date>", "<date>2024-00-31T23:59:59Z</date>"}},
      {"no Base64",
       {"<data>QUI</data>", "<data>QUI==</data>", "<data>Q=UI</data>", "<data>QUJD====</data>",
        "<data>QU-D</data>"}},
      {"an undeclared entity", {"<string>&foo;</string>", "<string a='&amp;&foo;'/>"}},
      {"mismatched tag", {"<string>"}},
  };
  for (const auto& [error, values] : cases) {
    for (const std::string& value : values) {
      const std::string found = error_of(xml(value));
      EXPECT_NE(found.find(error), std::string::npos) << value << ": " << found;
      EXPECT_NE(found.find(" at byte "), std::string::npos);
    }
  }
  EXPECT_EQ(error_of(""), "no element found at byte 0");
  EXPECT_NE(error_of("<true/>").find("outermost element"), std::string::npos);
  EXPECT_NE(error_of("<!DOCTYPE plist [<!ENTITY a 'b'>]><plist><string>&a;</string></plist>").find("declarations"),
            std::string::npos);
}

TEST(BinaryWriter, WritesEachEqualLeafOnceInTheSmallestForm) {
  Ref<MutableArray> array = MutableArray::create();
  for (int round = 0; round < 3; ++round) {
    array->append(Number::create_int32(255));
    array->append(Number::create_int64(255 + round / 2));
    array->append(String::create("\xC3\xA9"));
    array->append(Data::create("one"));
    array->append(Data::create(round == 0 ? "one" : "two"));
    array->append(Boolean::yes());
  }
  const std::string expected = binary({"\xAF\x10\x12\1\1\2\3\3\4\1\1\2\3\5\4\1\6\2\3\5\4", "\x10\xFF",
                                       "\x61\0\xE9"s, "\x43one", "\x09", "\x43two", "\x11\1\0"s});
  // The helper's offsets have two bytes, where one is enough.
  const std::string written = write(*array, Encoding::binary);
  EXPECT_EQ(written.substr(0, 0x2E), expected.substr(0, 0x2E));
  EXPECT_EQ(written.size(), expected.size() - 7);
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
  for (const char* name : {"data.xml.plist", "dates.xml.plist", "integers.xml.plist"}) {
    EXPECT_EQ(write(*read(testdata(name)).value, Encoding::xml), testdata(name));
  }
  Ref<MutableDictionary> dictionary = MutableDictionary::create();
  dictionary->set("b\r", MutableDictionary::create());
  dictionary->set("a", Date::create(700000000.1));
  dictionary->set("c", Number::create_real(-std::numeric_limits<double>::infinity()));
  const std::string written = write(*dictionary, Encoding::xml);
  EXPECT_EQ(written.substr(written.find("<dict>")),
            "<dict>\n\t<key>a</key>\n\t<date>2023-03-08T20:26:40.1Z</date>\n\t<key>b&#13;</key>\n\t<dict/>\n"
            "\t<key>c</key>\n\t<real>-infinity</real>\n</dict>\n</plist>\n");
  for (const Ref<Value>& value : {Ref<Value>(String::create("a\x1F")), Ref<Value>(String::create("\xEF\xBF\xBE")),
                                  Ref<Value>(Date::create(1e12)), Ref<Value>(Date::create(-0.0))}) {
    EXPECT_EQ(write(*value, Encoding::xml).substr(0, 7), "error: ") << describe(value.get());
  }
}

}  // namespace
}  // namespace corvane::plist
