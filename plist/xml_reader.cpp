// Expat reports where elements begin and end. Each value that is read goes on one stack, `values_`. Where a
// container ends, its elements are on top of that stack, and the container takes their place. `frames_` holds the
// open containers.

#include "plist/xml_reader.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <unistd.h>
#include <vector>

#include "plist/base64_text.h"
#include "plist/decoding_error.h"
#include "plist/hash_tables.h"
#include "plist/xml_leaf.h"

namespace corvane::plist {

namespace {

enum class Element { none, plist, dict, array, set, key, string, data, date, integer, real, yes, no };

// A name as one integer; 0 for one that is longer than any of ours.
constexpr uint64_t word_of(const char* name) {
  uint64_t word = 0;
  for (size_t length = 0; *name != '\0'; ++name) {
    if (++length > sizeof word) return 0;
    word = word << 8 | static_cast<unsigned char>(*name);
  }
  return word;
}

Element element_of(const char* name) {
  switch (word_of(name)) {
    case word_of("plist"):
      return Element::plist;
    case word_of("dict"):
      return Element::dict;
    case word_of("array"):
      return Element::array;
    case word_of("set"):
      return Element::set;
    case word_of("key"):
      return Element::key;
    case word_of("string"):
      return Element::string;
    case word_of("data"):
      return Element::data;
    case word_of("date"):
      return Element::date;
    case word_of("integer"):
      return Element::integer;
    case word_of("real"):
      return Element::real;
    case word_of("true"):
      return Element::yes;
    case word_of("false"):
      return Element::no;
    default:
      return Element::none;
  }
}

bool is_container(Element element) {
  return element == Element::dict || element == Element::array || element == Element::set;
}

// Whether every reference in a tag is to a character or to one of the five entities that need no declaration.
bool has_known_references_only(std::string_view tag) {
  for (size_t at = tag.find('&'); at != std::string_view::npos; at = tag.find('&', at + 1)) {
    const std::string_view rest = tag.substr(at + 1);
    bool known = rest.starts_with('#');
    for (const std::string_view name : {"lt;", "gt;", "amp;", "apos;", "quot;"}) {
      known = known || rest.starts_with(name);
    }
    if (!known) return false;
  }
  return true;
}

// Seeds Expat's hash tables. Expat would ask the system for a seed of each document's own, as it does where this
// is 0.
unsigned long hash_salt() {
  static const unsigned long salt = [] {
    unsigned long random = 0;
    return getentropy(&random, sizeof random) == 0 ? random : 0;
  }();
  return salt;
}

class XmlReader {
 public:
  XmlReader(Containers containers, unsigned depth_limit);

  Decoded read(std::string_view input);

 private:
  struct Frame {
    Element element;
    bool is_mutable;
    size_t first;  // the position in `values_` of what it holds
  };

  void begin_doctype(int has_internal_subset);
  void begin(const char* name, const char** attributes);
  void begin_value(Element element);
  void text(const char* start, int size);
  void end();
  void end_container();

  Ref<Value> make_leaf(Element element);
  Ref<String> make_key();
  Ref<Value> make_container(const Frame& frame);
  Ref<Value> make_array(const Frame& frame);
  Ref<Value> make_set(const Frame& frame);
  Ref<Value> make_dictionary(const Frame& frame);

  bool key_is_due() const {
    return !frames_.empty() && frames_.back().element == Element::dict &&
           (values_.size() - frames_.back().first) % 2 == 0;
  }
  void check_attributes();
  void fail(std::string what);

  // Nothing may be thrown through Expat, which is C. It may go on calling after it was stopped.
  template <class Action>
  static void guarded(void* self, Action action) {
    auto& reader = *static_cast<XmlReader*>(self);
    if (reader.stopped_) return;
    try {
      action(reader);
    } catch (const std::bad_alloc&) {
      reader.out_of_memory_ = true;
      reader.stop();
    }
  }
  void stop() {
    stopped_ = true;
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  struct FreeParser {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
  };
  const std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser> parser_;
  const bool make_mutable_;
  const unsigned depth_limit_;

  bool in_plist_ = false;
  Element leaf_ = Element::none;
  std::vector<Frame> frames_;
  std::vector<Ref<Value>> values_;
  std::array<Ref<String>, 64> recent_keys_;  // by a part of their hash
  std::string text_;                         // of the leaf that is open
  std::string bytes_;                        // of the last data element
  std::string tag_;
  bool stopped_ = false;
  bool out_of_memory_ = false;
  Ref<String> error_;
};

XmlReader::XmlReader(Containers containers, unsigned depth_limit)
    : parser_(XML_ParserCreate(nullptr)),
      make_mutable_(containers == Containers::made_mutable),
      depth_limit_(depth_limit) {
  if (parser_ == nullptr) throw std::bad_alloc();
  XML_SetHashSalt(parser_.get(), hash_salt());
  XML_Parser parser = parser_.get();
  XML_SetUserData(parser, this);
  XML_SetStartDoctypeDeclHandler(
      parser, [](void* self, const char*, const char*, const char*, int has_internal_subset) {
        guarded(self, [&](XmlReader& reader) { reader.begin_doctype(has_internal_subset); });
      });
  // After a DOCTYPE with an external part Expat takes undeclared entities for ones declared there.
  XML_SetSkippedEntityHandler(parser, [](void* self, const char*, int) {
    guarded(self, [](XmlReader& reader) { reader.fail("an undeclared entity"); });
  });
  XML_SetElementHandler(
      parser,
      [](void* self, const char* name, const char** attributes) {
        guarded(self, [&](XmlReader& reader) { reader.begin(name, attributes); });
      },
      [](void* self, const char*) { guarded(self, [](XmlReader& reader) { reader.end(); }); });
  XML_SetCharacterDataHandler(parser, [](void* self, const char* start, int size) {
    guarded(self, [&](XmlReader& reader) { reader.text(start, size); });
  });
}

Decoded XmlReader::read(std::string_view input) {
  // In one piece where possible: Expat scans a token anew for each piece that it reaches into.
  constexpr size_t piece_limit = std::numeric_limits<int>::max() / 2;
  XML_Status status = XML_STATUS_OK;
  do {
    const std::string_view piece = input.substr(0, piece_limit);
    input.remove_prefix(piece.size());
    status = XML_Parse(parser_.get(), piece.data(), static_cast<int>(piece.size()), input.empty());
  } while (status == XML_STATUS_OK && !input.empty());

  const XML_Error code = XML_GetErrorCode(parser_.get());
  if (out_of_memory_ || code == XML_ERROR_NO_MEMORY) throw std::bad_alloc();
  if (!error_ && status != XML_STATUS_OK) fail(XML_ErrorString(code));
  if (error_) return {nullptr, std::move(error_), Encoding::xml};
  return {std::move(values_.front()), nullptr, Encoding::xml};
}

void XmlReader::fail(std::string what) {
  // Of an empty input some versions of Expat know no place (-1).
  const XML_Index byte = std::max<XML_Index>(0, XML_GetCurrentByteIndex(parser_.get()));
  error_ = error_at(std::move(what), static_cast<uint64_t>(byte));
  stop();
}

void XmlReader::begin_doctype(int has_internal_subset) {
  if (has_internal_subset != 0) fail("declarations in the document are not supported");
}

void XmlReader::begin(const char* name, const char** attributes) {
  if (*attributes != nullptr) check_attributes();
  if (stopped_) return;
  const Element element = element_of(name);
  if (leaf_ != Element::none) return fail("an element inside a value that has none");
  if (element == Element::none) return fail("an unknown element");
  if (in_plist_ != (element != Element::plist)) {
    return fail(in_plist_ ? "<plist> inside <plist>" : "the outermost element is not <plist>");
  }
  if (element == Element::plist) {
    in_plist_ = true;
    return;
  }
  begin_value(element);
}

void XmlReader::begin_value(Element element) {
  if (frames_.empty() && !values_.empty()) return fail("a second value in <plist>");
  if ((element == Element::key) != key_is_due()) {
    return fail(element == Element::key ? "<key> in place of a value" : "a dictionary value without its key");
  }
  if (!is_container(element)) {
    leaf_ = element;
    text_.clear();
    return;
  }
  if (frames_.size() >= depth_limit_) return fail("nesting deeper than " + std::to_string(depth_limit_));
  const bool in_immutable =
      !frames_.empty() && (!frames_.back().is_mutable || frames_.back().element == Element::set);
  frames_.push_back({element, make_mutable_ && !in_immutable, values_.size()});
}

void XmlReader::check_attributes() {
  // Attributes mean nothing here, but an undeclared entity in one is an error. After a DOCTYPE with an external
  // part Expat does not report it, so the tag itself is searched.
  tag_.clear();
  XML_SetDefaultHandler(parser_.get(), [](void* self, const char* start, int size) {
    guarded(self, [&](XmlReader& reader) { reader.tag_.append(start, static_cast<size_t>(size)); });
  });
  XML_DefaultCurrent(parser_.get());
  XML_SetDefaultHandler(parser_.get(), nullptr);
  if (!stopped_ && !has_known_references_only(tag_)) fail("an undeclared entity in an attribute");
}

void XmlReader::text(const char* start, int size) {
  const std::string_view piece(start, static_cast<size_t>(size));
  if (leaf_ != Element::none) {
    text_ += piece;
  } else if (!trimmed(piece).empty()) {
    fail("text outside of a value");
  }
}

void XmlReader::end() {
  if (leaf_ != Element::none) {
    Ref<Value> value = make_leaf(std::exchange(leaf_, Element::none));
    if (value) values_.push_back(std::move(value));
  } else if (!frames_.empty()) {
    end_container();
  } else if (values_.empty()) {
    fail("<plist> without a value");
  }
}

// ---- values -------------------------------------------------------------------------------------------

Ref<Value> XmlReader::make_leaf(Element element) {
  switch (element) {
    case Element::yes:
    case Element::no:
      if (trimmed(text_).empty()) return Boolean::of(element == Element::yes);
      fail("text in a Boolean");
      return nullptr;
    case Element::integer:
      if (Ref<Number> number = parse_integer(text_)) return number;
      fail("<integer> holds no integer, or one out of range");
      return nullptr;
    case Element::real:
      if (Ref<Number> number = parse_real(text_)) return number;
      fail("<real> holds no real, or one out of range");
      return nullptr;
    case Element::date:
      if (const std::optional<double> seconds = parse_date(text_)) return Date::create(*seconds);
      fail("<date> holds no date");
      return nullptr;
    case Element::data:
      if (decode_base64(text_, bytes_)) return Data::create(bytes_);
      fail("<data> holds no Base64");
      return nullptr;
    case Element::key:
      return make_key();
    default:
      return String::create(text_);
  }
}

// Many dictionaries have the same keys, and share them.
Ref<String> XmlReader::make_key() {
  Ref<String>& recent = recent_keys_[BytesHash()(text_) % recent_keys_.size()];
  if (!recent || recent->view() != text_) recent = String::create(text_);
  return Unpublished::share(recent.get());
}

void XmlReader::end_container() {
  const Frame frame = frames_.back();
  if (frame.element == Element::dict && !key_is_due()) return fail("a key without its value");
  frames_.pop_back();
  Ref<Value> container = make_container(frame);
  values_.resize(frame.first);
  values_.push_back(std::move(container));
}

Ref<Value> XmlReader::make_container(const Frame& frame) {
  if (frame.element == Element::dict) return make_dictionary(frame);
  return frame.element == Element::set ? make_set(frame) : make_array(frame);
}

Ref<Value> XmlReader::make_array(const Frame& frame) {
  Ref<MutableArray> array = MutableArray::create(values_.size() - frame.first);
  for (size_t i = frame.first; i < values_.size(); ++i) array->append(std::move(values_[i]));
  if (frame.is_mutable) return array;
  return MutableArray::freeze(std::move(array));
}

Ref<Value> XmlReader::make_set(const Frame& frame) {
  Ref<MutableSet> set = MutableSet::create(values_.size() - frame.first);
  for (size_t i = frame.first; i < values_.size(); ++i) set->add(std::move(values_[i]));
  if (frame.is_mutable) return set;
  return MutableSet::freeze(std::move(set));
}

Ref<Value> XmlReader::make_dictionary(const Frame& frame) {
  Ref<MutableDictionary> dictionary = MutableDictionary::create((values_.size() - frame.first) / 2);
  for (size_t i = frame.first; i < values_.size(); i += 2) {
    auto key = Ref<String>::adopt(static_cast<String*>(values_[i].detach()));
    dictionary->set(std::move(key), std::move(values_[i + 1]));
  }
  if (frame.is_mutable) return dictionary;
  return MutableDictionary::freeze(std::move(dictionary));
}

}  // namespace

Decoded decode_xml(std::string_view input, Containers containers, unsigned depth_limit) {
  return XmlReader(containers, depth_limit).read(input);
}

}  // namespace corvane::plist
