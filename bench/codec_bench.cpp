// The property-list codec beside what others offer for the same: RapidJSON, MessagePack, Expat and libxml2, each
// with the same document of about 40,000 nodes and a megabyte. Usage: codec_bench [ROUNDS [MILLISECONDS]]

#include <expat.h>

#include <cstring>
#include <libxml/parser.h>
#include <msgpack.hpp>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <string>

#include "bench/measure.h"
#include "platform/process/start_up.h"
#include "plist/reader.h"
#include "plist/writer.h"

namespace corvane::bench {

namespace {

using plist::Ref;

constexpr int records = 3640;

/// Records as a device keeps them: keys that repeat, texts that mostly do not, numbers of all sizes.
Ref<plist::Array> make_document() {
  const auto document = plist::MutableArray::create();
  uint64_t random = 1;
  for (int i = 0; i < records; ++i) {
    random = random * 6364136223846793005u + 1442695040888963407u;
    const auto text = [&](const char* before, uint64_t number) {
      return plist::String::create(before + std::to_string(number));
    };
    const auto record = plist::MutableDictionary::create();
    record->set("Identifier", text("com.norvane.component.", static_cast<uint64_t>(i)));
    record->set("DisplayName", text("A component of the system, number ", random >> 48));
    record->set("Region", text("region ", (random >> 32) % 40));
    record->set("Version", plist::Number::create_int64(static_cast<int64_t>((random >> 40) % 100)));
    record->set("ByteCount", plist::Number::create_int64(static_cast<int64_t>(random >> 16)));
    record->set("Enabled", plist::Boolean::of((random >> 33) % 2 == 0));
    record->set("Share", plist::Number::create_real(static_cast<double>(random >> 11) / 9007199254740992.0));
    const auto tags = plist::MutableArray::create();
    tags->append(text("tag ", (random >> 20) % 200));
    tags->append(text("hash ", random));
    record->set("Tags", plist::MutableArray::freeze(tags));
    document->append(plist::MutableDictionary::freeze(record));
  }
  return plist::MutableArray::freeze(document);
}

size_t nodes(const plist::Value& value) {
  size_t count = 1;
  if (const auto* array = plist::cast<plist::Array>(&value)) {
    for (const auto& item : array->items()) count += nodes(*item);
  } else if (const auto* dictionary = plist::cast<plist::Dictionary>(&value)) {
    for (const auto& entry : dictionary->entries()) count += nodes(*entry.value);
  }
  return count;
}

/// Gives the document to a RapidJSON writer.
template <class Writer>
void tell(const plist::Value& value, Writer& writer) {
  const auto string = [&](std::string_view text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  };
  if (const auto* array = plist::cast<plist::Array>(&value)) {
    writer.StartArray();
    for (const auto& item : array->items()) tell(*item, writer);
    writer.EndArray();
  } else if (const auto* dictionary = plist::cast<plist::Dictionary>(&value)) {
    writer.StartObject();
    for (const auto& entry : dictionary->entries()) {
      string(entry.key->view());
      tell(*entry.value, writer);
    }
    writer.EndObject();
  } else if (const auto* text = plist::cast<plist::String>(&value)) {
    string(text->view());
  } else if (const auto* number = plist::cast<plist::Number>(&value)) {
    if (number->is_integer())
      writer.Int64(number->int64());
    else
      writer.Double(number->real());
  } else {
    writer.Bool(plist::cast<plist::Boolean>(&value)->value());
  }
}

/// Packs a document of RapidJSON's.
void pack_json(const rapidjson::Value& value, msgpack::packer<msgpack::sbuffer>& packer) {
  const auto string = [&](const rapidjson::Value& text) {
    packer.pack_str(text.GetStringLength());
    packer.pack_str_body(text.GetString(), text.GetStringLength());
  };
  if (value.IsArray()) {
    packer.pack_array(value.Size());
    for (const auto& item : value.GetArray()) pack_json(item, packer);
  } else if (value.IsObject()) {
    packer.pack_map(value.MemberCount());
    for (const auto& member : value.GetObject()) {
      string(member.name);
      pack_json(member.value, packer);
    }
  } else if (value.IsString()) {
    string(value);
  } else if (value.IsInt64()) {
    packer.pack(value.GetInt64());
  } else if (value.IsNumber()) {
    packer.pack(value.GetDouble());
  } else {
    packer.pack(value.GetBool());
  }
}

void ignore_start(void*, const XML_Char*, const XML_Char**) {}
void ignore_end(void*, const XML_Char*) {}
void ignore_text(void*, const XML_Char*, int) {}

void scan_with_expat(const std::string& xml) {
  const XML_Parser parser = XML_ParserCreate(nullptr);
  XML_SetElementHandler(parser, ignore_start, ignore_end);
  XML_SetCharacterDataHandler(parser, ignore_text);
  must(XML_Parse(parser, xml.data(), static_cast<int>(xml.size()), 1) == XML_STATUS_OK, "Expat");
  XML_ParserFree(parser);
}

class Bench {
 public:
  explicit Bench(milliseconds slice) : slice_(slice), document_(make_document()) {
    plist::ByteChain chain;
    must(!plist::encode_binary(*document_, chain), "encode_binary");
    std::string bytes;
    for (const std::string_view piece : chain.pieces()) bytes += piece;
    binary_ = plist::Data::create(bytes);
    must(!plist::encode_xml(*document_, xml_), "encode_xml");
    xml_data_ = plist::Data::create(xml_);
    rapidjson::StringBuffer json;
    rapidjson::Writer<rapidjson::StringBuffer> writer(json);
    tell(*document_, writer);
    json_.assign(json.GetString(), json.GetSize());
    json_document_.Parse(json_.data(), json_.size());
    msgpack::packer<msgpack::sbuffer> packer(packed_);
    pack_json(json_document_, packer);
    unpacked_ = msgpack::unpack(packed_.data(), packed_.size());
    check();
  }

  void round() {
    figure("document", "nodes", "count", static_cast<double>(nodes(*document_)));
    figure("document", "binary property list", "bytes", static_cast<double>(binary_->bytes().size()));
    figure("document", "XML property list", "bytes", static_cast<double>(xml_.size()));
    figure("document", "JSON", "bytes", static_cast<double>(json_.size()));
    figure("document", "MessagePack", "bytes", static_cast<double>(packed_.size()));
    decoding("decode", "binary property list", [&] { return decode(binary_); });
    decoding("decode", "RapidJSON", [&] { return parse_json(); });
    decoding("decode", "msgpack-cxx", [&] { return msgpack::unpack(packed_.data(), packed_.size()); });
    once("encode", "binary property list", [&] {
      plist::ByteChain chain;
      plist::encode_binary(*document_, chain);
      keep(chain);
    });
    once("encode", "RapidJSON", [&] {
      rapidjson::StringBuffer out;
      rapidjson::Writer<rapidjson::StringBuffer> writer(out);
      json_document_.Accept(writer);
      keep(out);
    });
    once("encode", "msgpack-cxx", [&] {
      msgpack::sbuffer out;
      msgpack::pack(out, unpacked_.get());
      keep(out);
    });
    decoding("XML", "XML property list", [&] { return decode(xml_data_); });
    once("XML", "Expat, a bare scan", [&] { scan_with_expat(xml_); });
    decoding("XML", "libxml2, a tree", [&] { return parse_xml(); });
    once("XML encode", "XML property list", [&] {
      std::string out;
      plist::encode_xml(*document_, out);
      keep(out);
    });
  }

 private:
  static Ref<plist::Value> decode(const Ref<plist::Data>& bytes) {
    return plist::decode(bytes, plist::Containers::immutable).value;
  }
  rapidjson::Document parse_json() const {
    rapidjson::Document document;
    document.Parse(json_.data(), json_.size());
    return document;
  }
  std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> parse_xml() const {
    return {xmlReadMemory(xml_.data(), static_cast<int>(xml_.size()), nullptr, nullptr, XML_PARSE_HUGE),
            xmlFreeDoc};
  }

  /// Checks that each library has read the whole document.
  void check() {
    must(plist::equal(decode(binary_).get(), document_.get()), "the binary document");
    must(plist::equal(decode(xml_data_).get(), document_.get()), "the XML document");
    must(json_document_.IsArray() && json_document_.Size() == records, "the JSON document");
    must(unpacked_.get().via.array.size == records, "the packed document");
    must(parse_xml() != nullptr, "the libxml2 tree");
  }

  template <class Operation>
  void once(const char* row, const char* what, Operation operation) {
    figure(row, what, "us", time_of_each(slice_, operation) / 1e3);
  }

  /// The time to build the tree and to free it again.
  template <class Make>
  void decoding(const std::string& row, const char* what, Make make) {
    double made = 0;
    size_t count = 0;
    const auto start = steady_clock::now();
    for (; steady_clock::now() - start < slice_; ++count) {
      const auto one = steady_clock::now();
      const auto tree = make();
      keep(tree);
      made += nanoseconds_since(one);
    }
    figure(row, what, "us", made / 1e3 / static_cast<double>(count));
    figure(row + " and free", what, "us", nanoseconds_since(start) / 1e3 / static_cast<double>(count));
  }

  const milliseconds slice_;
  const Ref<plist::Array> document_;
  Ref<plist::Data> binary_;
  Ref<plist::Data> xml_data_;
  std::string xml_;
  std::string json_;
  rapidjson::Document json_document_;
  msgpack::sbuffer packed_;
  msgpack::object_handle unpacked_;
};

}  // namespace

}  // namespace corvane::bench

int main(int argc, char** argv) {
  using namespace corvane::bench;
  corvane::set_memory_thresholds();
  Bench bench{milliseconds(count_argument(argc, argv, 2, 100))};
  for (size_t round = count_argument(argc, argv, 1, 7); round > 0; --round) bench.round();
}
