#include "bench/hostile_documents.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "plist/value.h"
#include "plist/writer.h"

namespace corvane {

namespace {

std::string number(size_t value, int digits) {
  std::string text = std::to_string(value);
  return text.insert(0, static_cast<size_t>(digits) - std::min(text.size(), static_cast<size_t>(digits)), '0');
}

/// Head, pieces by their number, tail.
std::string xml(size_t size, const std::string& head, const std::function<std::string(size_t)>& piece,
                const std::string& tail) {
  std::string text = "<plist>" + head;
  const std::string end = tail + "</plist>";
  for (size_t i = 0;; ++i) {
    const std::string next = piece(i);
    if (text.size() + next.size() + end.size() > size) return text + end;
    text += next;
  }
}
std::string xml(size_t size, const std::string& head, const std::string& piece, const std::string& tail) {
  return xml(
      size, head, [&](size_t) { return piece; }, tail);
}
std::string filled(size_t size, const std::string& head, char c, const std::string& tail) {
  return head + std::string(size - head.size() - tail.size(), c) + tail;
}

/// A binary file, object by object, with references of two or of one byte; beyond 64 Ki objects of three.
class Binary {
 public:
  explicit Binary(size_t reference_size = 2, size_t offset_size = 3)
      : reference_size_(reference_size), offset_size_(offset_size) {}

  size_t size() const { return objects_.size() + offsets_.size() * offset_size_ + 40; }
  size_t next() const { return offsets_.size(); }

  size_t add(std::string_view object) {
    offsets_.push_back(8 + objects_.size());
    objects_ += object;
    return offsets_.size() - 1;
  }
  size_t again(size_t object) {
    offsets_.push_back(offsets_[object]);
    return offsets_.size() - 1;
  }
  size_t content(uint8_t kind, size_t count, std::string_view bytes) {
    return add(head(kind, count).append(bytes));
  }
  size_t text(std::string_view ascii) { return content(0x50, ascii.size(), ascii); }
  size_t integer(size_t value) { return add(std::string("\x12") + big_endian(value, 4)); }
  size_t container(uint8_t kind, const std::vector<size_t>& references) {
    std::string object = head(kind, kind == 0xD0 ? references.size() / 2 : references.size());
    for (const size_t each : references) object += big_endian(each, reference_size_);
    return add(object);
  }
  size_t array(const std::vector<size_t>& items) { return container(0xA0, items); }
  size_t set(const std::vector<size_t>& items) { return container(0xC0, items); }
  /// Keys, then values.
  size_t dictionary(const std::vector<size_t>& entries) { return container(0xD0, entries); }

  std::string finish(size_t top) const {
    std::string file = "bplist00" + objects_;
    for (const size_t each : offsets_) file += big_endian(each, offset_size_);
    file += std::string(6, '\0') + static_cast<char>(offset_size_) + static_cast<char>(reference_size_);
    return file + big_endian(offsets_.size(), 8) + big_endian(top, 8) + big_endian(8 + objects_.size(), 8);
  }

  static std::string big_endian(size_t value, size_t bytes) {
    std::string text(bytes, '\0');
    for (; bytes > 0; value >>= 8) text[--bytes] = static_cast<char>(value);
    return text;
  }
  static std::string head(uint8_t kind, size_t count) {
    if (count < 15) return std::string(1, static_cast<char>(kind | count));
    return std::string(1, static_cast<char>(kind | 15)) + "\x13" + big_endian(count, 8);
  }

 private:
  const size_t reference_size_;
  const size_t offset_size_;
  std::string objects_;
  std::vector<size_t> offsets_;
};

/// An array of objects that `add` makes, as many as fit, each of at most `room` bytes.
std::string binary_array(size_t size, const std::function<size_t(Binary&, size_t)>& add, size_t room = 32) {
  Binary file(3, 3);
  std::vector<size_t> items;
  while (file.size() + (items.size() + 2) * 3 + room < size) items.push_back(add(file, items.size()));
  return file.finish(file.array(items));
}

plist::Ref<plist::Dictionary> normal_document(size_t records) {
  auto array = plist::MutableArray::create();
  for (size_t i = 0; i < records; ++i) {
    auto record = plist::MutableDictionary::create();
    record->set("Name", plist::String::create("record number " + std::to_string(i)));
    record->set("Number", plist::Number::create_int64(static_cast<int64_t>(i * 7919)));
    record->set("Share", plist::Number::create_real(static_cast<double>(i) / 7));
    record->set("Date", plist::Date::create(static_cast<double>(i) * 1e5));
    record->set("Content", plist::Data::create("content of " + std::to_string(i)));
    record->set("Valid", plist::Boolean::of(i % 2 == 0));
    array->append(record);
  }
  auto document = plist::MutableDictionary::create();
  document->set("Records", array);
  return document;
}

std::string normal_binary(size_t size) {
  plist::ByteChain chain;
  plist::encode_binary(*normal_document(size / 113), chain);
  std::string bytes;
  for (const std::string_view piece : chain.pieces()) bytes += piece;
  return bytes;
}

std::string normal_xml(size_t size) {
  std::string text;
  plist::encode_xml(*normal_document(size / 345), text);
  return text;
}

std::string entries(size_t size, const std::function<std::string(size_t)>& key) {
  return xml(
      size, "<dict>", [&](size_t i) { return "<key>" + key(i) + "</key><true/>"; }, "</dict>");
}

// "Aa" and "BB" have one value in many unseeded hashes, and so have all strings made of them.
std::string colliding(size_t i) {
  std::string key;
  for (int bit = 0; bit < 16; ++bit) key += (i >> bit & 1) != 0 ? "Aa" : "BB";
  return key;
}

// Nine keys or members that differ in their last byte only, in containers that are one object under many numbers,
// until nearly all is used up that may be compared.
std::string long_contents(size_t size, uint8_t kind) {
  Binary file(2, 3);
  const size_t length = size / 20;
  std::vector<size_t> contents;
  for (char last = 'a'; last < 'j'; ++last) contents.push_back(file.text(std::string(length, 'k') + last));
  std::vector<size_t> references = contents;
  if (kind == 0xD0) references.insert(references.end(), contents.size(), contents[0]);
  std::vector<size_t> containers{file.container(kind, references)};
  while (containers.size() < 250 * size / (9 * length)) containers.push_back(file.again(containers[0]));
  const std::string rest(size - file.size() - 2 * containers.size() - 100, 'd');
  file.content(0x40, rest.size(), rest);
  return file.finish(file.array(containers));
}

constexpr HostileDocument binary_documents[] = {
    {"a normal document", normal_binary},
    {"many keys in one dictionary",
     [](size_t size) {
       Binary file(3, 3);
       std::vector<size_t> keys;
       while (file.size() + (keys.size() + 2) * 6 + 32 < size) keys.push_back(file.text(number(keys.size(), 6)));
       keys.insert(keys.end(), keys.size(), keys[0]);
       return file.finish(file.dictionary(keys));
     }},
    {"keys that collide in unseeded hashes",
     [](size_t size) {
       Binary file(3, 3);
       std::vector<size_t> keys;
       while (file.size() + (keys.size() + 8) * 6 + 32 < size) keys.push_back(file.text(colliding(keys.size())));
       keys.insert(keys.end(), keys.size(), keys[0]);
       return file.finish(file.dictionary(keys));
     }},
    {"one key many times in one dictionary",
     [](size_t size) {
       Binary file(1, 1);
       const size_t key = file.text("key");
       return file.finish(file.dictionary(std::vector<size_t>((size - 80) / 2 * 2, key)));
     }},
    {"equal keys that are different objects",
     [](size_t size) {
       Binary file(3, 1);
       std::vector<size_t> keys{file.text("key")};
       while (file.size() + (keys.size() + 2) * 6 + 32 < size) keys.push_back(file.again(keys[0]));
       keys.insert(keys.end(), keys.size(), keys[0]);
       return file.finish(file.dictionary(keys));
     }},
    {"nesting to the limit, over and over",
     [](size_t size) {
       return binary_array(
           size,
           [](Binary& file, size_t) {
             size_t inner = file.array({});
             for (int depth = 2; depth < 120; ++depth) inner = file.array({inner});
             return inner;
           },
           1000);
     }},
    {"nesting beyond the limit",
     [](size_t size) {
       Binary file(3, 3);
       size_t inner = file.array({});
       while (file.size() + 16 < size) inner = file.array({inner});
       return file.finish(inner);
     }},
    {"an array that holds itself",
     [](size_t size) {
       Binary file(1, 1);
       return file.finish(file.array(std::vector<size_t>(size - 60, 0)));
     }},
    {"shared arrays of shared arrays, ever more",
     [](size_t size) {
       Binary file(1, 3);
       size_t inner = file.array({});
       while (file.size() + 30 < size && file.next() < 120) inner = file.array(std::vector<size_t>(10, inner));
       return file.finish(inner);
     }},
    {"shared as often as may be: two levels",
     [](size_t size) {
       Binary file(1, 3);
       const size_t leaf = file.integer(1);
       size_t wide = 1;
       while ((wide + 1) * (wide + 1) < size - 1000) ++wide;
       const size_t inner = file.array(std::vector<size_t>(wide, leaf));
       file.content(0x40, size - 2 * wide - 200, std::string(size - 2 * wide - 200, 'd'));
       return file.finish(file.array(std::vector<size_t>(wide, inner)));
     }},
    {"shared as often as may be: empty dictionaries",
     [](size_t size) {
       Binary file(1, 1);
       const size_t empty = file.dictionary({});
       return file.finish(file.array(std::vector<size_t>(size - 60, empty)));
     }},
    {"shared as often as may be: sets of one",
     [](size_t size) {
       Binary file(1, 3);
       const size_t one = file.set({file.add("\x09")});
       file.content(0x40, size / 2, std::string(size / 2, 'd'));
       return file.finish(file.array(std::vector<size_t>(size / 2 - 100, one)));
     }},
    {"shared as often as may be: dictionaries of nine",
     [](size_t size) {
       Binary file(1, 3);
       std::vector<size_t> keys;
       for (size_t i = 0; i < 9; ++i) keys.push_back(file.text(number(i, 1)));
       keys.insert(keys.end(), 9, keys[0]);
       const size_t nine = file.dictionary(keys);
       file.content(0x40, size * 9 / 10, std::string(size * 9 / 10, 'd'));
       return file.finish(file.array(std::vector<size_t>(size / 20, nine)));
     }},
    {"shared as often as may be: sets of nine",
     [](size_t size) {
       Binary file(1, 3);
       std::vector<size_t> members;
       for (size_t i = 0; i < 9; ++i) members.push_back(file.integer(i));
       const size_t nine = file.set(members);
       file.content(0x40, size * 17 / 20, std::string(size * 17 / 20, 'd'));
       return file.finish(file.array(std::vector<size_t>(size / 11, nine)));
     }},
    {"a set of one under many numbers",
     [](size_t size) {
       Binary file(3, 1);
       const size_t one = file.set({file.add("\x09")});
       std::vector<size_t> items{one};
       while (file.size() + (items.size() + 2) * 3 + 32 < size) items.push_back(file.again(one));
       return file.finish(file.array(items));
     }},
    {"an integer under many numbers",
     [](size_t size) {
       Binary file(3, 1);
       std::vector<size_t> items{file.integer(1)};
       while (file.size() + (items.size() + 2) * 3 + 32 < size) items.push_back(file.again(items[0]));
       return file.finish(file.array(items));
     }},
    {"an offset table and little else",
     [](size_t size) {
       Binary file(3, 1);
       const size_t top = file.array({});
       while (file.size() + 2 < size) file.again(top);
       return file.finish(top);
     }},
    {"long keys repeated in many dictionaries", [](size_t size) { return long_contents(size, 0xD0); }},
    {"long strings repeated in many sets", [](size_t size) { return long_contents(size, 0xC0); }},
    {"a set of data",
     [](size_t size) {
       Binary file(3, 3);
       std::vector<size_t> items;
       while (file.size() + (items.size() + 2) * 3 + 48 < size) {
         items.push_back(file.content(0x40, 14, "data data " + Binary::big_endian(items.size(), 4)));
       }
       return file.finish(file.set(items));
     }},
    {"a set of equal nests of sets",
     [](size_t size) {
       Binary file(3, 3);
       std::vector<size_t> items;
       while (file.size() + (items.size() + 2) * 3 + 1500 < size) {
         size_t inner = file.set({});
         for (int depth = 3; depth < 118; ++depth)
           inner = depth % 2 == 0 ? file.set({inner}) : file.array({inner});
         items.push_back(inner);
       }
       return file.finish(file.set(items));
     }},
    {"a huge count",
     [](size_t size) {
       Binary file(3, 3);
       file.content(0x40, size - 100, std::string(size - 100, 'd'));
       return file.finish(file.add("\xAF\x13" + Binary::big_endian(size_t{1} << 62, 8)));
     }},
    {"a huge number of objects",
     [](size_t size) {
       std::string file = Binary(1, 1).finish(0);
       file.replace(file.size() - 24, 8, Binary::big_endian(~size_t{0}, 8));
       return file.insert(8, size - file.size(), '\0');
     }},
    {"dates",
     [](size_t size) {
       return binary_array(size, [](Binary& file, size_t i) {
         return file.add("\x33" + std::string("\x41\xc0") + Binary::big_endian(i, 6));
       });
     }},
    {"strings of one character",
     [](size_t size) { return binary_array(size, [](Binary& file, size_t) { return file.text("s"); }); }},
    {"one UTF-16 string",
     [](size_t size) {
       Binary file(1, 3);
       std::string units;
       while (units.size() + 100 < size) units += "\x20\xac";
       return file.finish(file.content(0x60, units.size() / 2, units));
     }},
    {"UTF-16 strings of one character",
     [](size_t size) {
       return binary_array(size, [](Binary& file, size_t) { return file.content(0x60, 1, "\x20\xac"); });
     }},
    {"an ASCII string that is not ASCII",
     [](size_t size) {
       Binary file(1, 3);
       return file.finish(file.content(0x50, size - 100, std::string(size - 100, '\xff')));
     }},
    {"a selector of that length",
     [](size_t size) {
       Binary file(1, 3);
       const size_t key = file.text("Request");
       return file.finish(file.dictionary({key, file.text(std::string(size - 100, 's'))}));
     }},
};

constexpr HostileDocument xml_documents[] = {
    {"a normal document", normal_xml},
    {"many keys in one dictionary",
     [](size_t size) { return entries(size, [](size_t i) { return number(i, 6); }); }},
    {"keys that collide in unseeded hashes", [](size_t size) { return entries(size, colliding); }},
    {"one key many times in one dictionary",
     [](size_t size) { return entries(size, [](size_t) { return std::string(); }); }},
    {"nesting to the limit, over and over",
     [](size_t size) {
       std::string nest;
       for (int i = 2; i < 120; ++i) nest = "<array>" + nest + "</array>";
       return xml(size, "<array>", nest, "</array>");
     }},
    {"nesting beyond the limit", [](size_t size) { return xml(size, "", "<array>", ""); }},
    {"Booleans", [](size_t size) { return xml(size, "<array>", "<true/>", "</array>"); }},
    {"empty dictionaries", [](size_t size) { return xml(size, "<array>", "<dict/>", "</array>"); }},
    {"sets of one", [](size_t size) { return xml(size, "<array>", "<set><true/></set>", "</array>"); }},
    {"sets of nine",
     [](size_t size) {
       std::string nine;
       for (size_t i = 0; i < 9; ++i) nine += "<data>" + std::string(2, static_cast<char>('A' + i)) + "==</data>";
       return xml(size, "<array>", "<set>" + nine + "</set>", "</array>");
     }},
    {"empty strings", [](size_t size) { return xml(size, "<array>", "<string/>", "</array>"); }},
    {"integers", [](size_t size) { return xml(size, "<array>", "<integer>1</integer>", "</array>"); }},
    {"an element with many attributes",
     [](size_t size) {
       std::string tag = "<plist><dict ";
       for (size_t i = 0; tag.size() + 40 < size; ++i) tag += "a" + std::to_string(i) + "='' ";
       return tag + "/></plist>";
     }},
    {"an element with an attribute defined twice at the end",
     [](size_t size) {
       std::string tag = "<plist><dict ";
       for (size_t i = 0; tag.size() + 60 < size; ++i) tag += "a" + std::to_string(i) + "='' ";
       return tag + "a0='' /></plist>";
     }},
    {"many elements with attributes",
     [](size_t size) { return xml(size, "<array>", "<true a='' b='&amp;'/>", "</array>"); }},
    {"many elements with names of attributes of their own",
     [](size_t size) {
       return xml(
           size, "<array>", [](size_t i) { return "<true a" + std::to_string(i) + "=''/>"; }, "</array>");
     }},
    {"one long attribute", [](size_t size) { return filled(size, "<plist><dict a='", 'a', "'/></plist>"); }},
    {"one long attribute of references",
     [](size_t size) { return "<plist>" + xml(size - 60, "<dict a='", "&#65;", "'/>").substr(7); }},
    {"one long string", [](size_t size) { return filled(size, "<plist><string>", 's', "</string></plist>"); }},
    {"one long key",
     [](size_t size) { return filled(size, "<plist><dict><key>", 'k', "</key><true/></dict></plist>"); }},
    {"one long name", [](size_t size) { return filled(size, "<plist><", 'n', "/></plist>"); }},
    {"a long comment", [](size_t size) { return filled(size, "<plist><!--", 'c', "--><true/></plist>"); }},
    {"many comments", [](size_t size) { return xml(size, "", "<!---->", "<true/>"); }},
    {"many processing instructions", [](size_t size) { return xml(size, "", "<?p?>", "<true/>"); }},
    {"a token without an end", [](size_t size) { return filled(size, "<plist><!--", 'c', ""); }},
    {"one long line-feed string",
     [](size_t size) { return filled(size, "<plist><string>", '\n', "</string></plist>"); }},
    {"character references", [](size_t size) { return xml(size, "<string>", "&#65;", "</string>"); }},
    {"character references of three bytes",
     [](size_t size) { return xml(size, "<string>", "&#x20AC;", "</string>"); }},
    {"a character reference with many digits",
     [](size_t size) { return filled(size, "<plist><string>&#", '0', "65;</string></plist>"); }},
    {"CDATA sections", [](size_t size) { return xml(size, "<string>", "<![CDATA[c]]>", "</string>"); }},
    {"dates", [](size_t size) { return xml(size, "<array>", "<date>2026-11-21T03:04:05Z</date>", "</array>"); }},
    {"a date with a long fraction",
     [](size_t size) { return filled(size, "<plist><date>2026-11-21T03:04:05.", '3', "Z</date></plist>"); }},
    {"a real with many digits",
     [](size_t size) { return filled(size, "<plist><real>0.", '3', "</real></plist>"); }},
    {"an integer with many zeros",
     [](size_t size) { return filled(size, "<plist><integer>", '0', "1</integer></plist>"); }},
    {"Base64 between spaces", [](size_t size) { return xml(size, "<data>", "AAAA    ", "</data>"); }},
    {"a set of data",
     [](size_t size) {
       return xml(
           size, "<set>", [](size_t i) { return "<data>" + number(i, 8) + "</data>"; }, "</set>");
     }},
    {"entities that multiply",
     [](size_t size) {
       std::string text = "<!DOCTYPE plist [<!ENTITY a 'aaaaaaaaaa'>";
       for (char name = 'b'; name < 'j'; ++name) {
         std::string references;
         for (int i = 0; i < 10; ++i) references += std::string("&") + static_cast<char>(name - 1) + ";";
         text += std::string("<!ENTITY ") + name + " '" + references + "'>";
       }
       return text + "]>" + xml(size - text.size() - 2, "<string>", "&i;", "</string>");
     }},
    {"entities that are declared nowhere",
     [](size_t size) {
       const std::string head = "<!DOCTYPE plist SYSTEM 'file:///dev/zero'>";
       return head + xml(size - head.size(), "<string>", "&a;", "</string>");
     }},
    {"a DOCTYPE with a long name for its outside",
     [](size_t size) { return filled(size, "<!DOCTYPE plist SYSTEM '", 's', "'><plist><true/></plist>"); }},
    {"UTF-16",
     [](size_t size) {
       std::string wide = "\xfe\xff";
       for (const char c : xml(size / 2 - 1, "<array>", "<string>\x7f</string>", "</array>")) {
         wide += '\0';
         wide += c;
       }
       return wide;
     }},
    {"a selector of that length",
     [](size_t size) {
       return filled(size, "<plist><dict><key>Request</key><string>", 's', "</string></dict></plist>");
     }},
};

}  // namespace

std::span<const HostileDocument> hostile_binary_documents() { return binary_documents; }
std::span<const HostileDocument> hostile_xml_documents() { return xml_documents; }

}  // namespace corvane
