// One pass numbers the objects, containers before what they hold, and notes each container's references. The
// size of a reference is known only then, so a second pass writes.

#include <bit>
#include <limits>

#include "plist/big_endian.h"
#include "plist/comparing.h"
#include "plist/leaf_table.h"
#include "plist/reader.h"
#include "plist/unicode.h"
#include "plist/writer.h"

namespace corvane::plist {

namespace {

constexpr size_t max_objects = std::numeric_limits<uint32_t>::max();

// As many as most responses have.
constexpr size_t usual_objects = 16;

constexpr size_t header_and_trailer = 8 + 32;

size_t unsigned_size(uint64_t value) {
  return value <= 0xFF ? 1 : value <= 0xFFFF ? 2 : value <= 0xFFFFFFFF ? 4 : 8;
}

class BinaryWriter {
 public:
  BinaryWriter(ByteChain& out, size_t share_from) : out_(out), base_(out.size()), share_from_(share_from) {
    objects_.reserve(usual_objects);
    references_.reserve(usual_objects);
  }

  Ref<String> write(const Value& value);

 private:
  uint32_t number(const Value& value, unsigned depth);
  size_t written_content(const Value& leaf) const;
  uint32_t add_object(const Value& value);
  void number_dictionary(const Dictionary& dictionary, unsigned depth);
  void number_items(std::span<const Ref<Value>> items, unsigned depth);

  // What is still mutable may change before the chain is read.
  bool is_shared(const Data& data) const { return data.bytes().size() >= share_from_ && !data.is_mutable(); }
  void write_object(const Value& value);
  void write_references(uint8_t marker, size_t count, size_t references);
  void write_string(const String& string);
  void write_data(const Data& data);
  void write_number(const Number& number);
  void write_unsigned(uint64_t value);
  void write_eight(uint8_t marker, uint64_t bits);
  void write_count(uint8_t marker, size_t count);
  template <class Integer>
  void append_table(const Integer* integers, size_t count, size_t size);
  void write_table_and_trailer();

  void put(uint8_t byte) { buffer_.push_back(static_cast<char>(byte)); }
  size_t position() const { return out_.size() - base_ + buffer_.size(); }
  void flush() {
    out_.append(std::move(buffer_));
    buffer_.clear();
  }

  ByteChain& out_;
  const size_t base_;
  const size_t share_from_;
  std::vector<const Value*> objects_;
  LeafTable leaves_{objects_};
  std::vector<uint32_t> references_;  // of all containers, in the order of their numbers
  size_t next_reference_ = 0;         // to be written
  size_t reference_size_ = 0;
  std::vector<uint64_t> offsets_;
  std::string buffer_;
  size_t unique_content_ = 0;     // without what may be shared
  uint64_t visited_content_ = 0;  // as the reader will count
  uint64_t compared_ = 0;
  Ref<String> error_;
};

Ref<String> BinaryWriter::write(const Value& value) {
  number(value, 1);
  if (error_) return std::move(error_);
  reference_size_ = unsigned_size(objects_.size() - 1);
  offsets_.reserve(objects_.size());
  // About the final size, reserved at once: a growth would copy everything and leave half of the buffer unused.
  buffer_.reserve(unique_content_ + references_.size() * reference_size_ + objects_.size() * 8 +
                  header_and_trailer);
  buffer_ = "bplist00";
  for (const Value* object : objects_) {
    offsets_.push_back(position());
    write_object(*object);
  }
  write_table_and_trailer();
  if (compared_ > compared_per_byte * position()) {
    return String::create("long keys or members of sets are repeated too often");
  }
  flush();
  return nullptr;
}

// ---- numbering ----------------------------------------------------------------------------------------

uint32_t BinaryWriter::number(const Value& value, unsigned depth) {
  const auto next = static_cast<uint32_t>(objects_.size());
  if (!value.is_container()) {
    visited_content_ += content_of(value);
    const uint32_t known = leaves_.number_of(value, next);
    if (known != next) return known;
    unique_content_ += written_content(value);
    return add_object(value);
  }
  if (depth > max_depth && !error_) {
    error_ = String::create("nesting deeper than " + std::to_string(max_depth));
  }
  if (error_) return 0;
  add_object(value);
  if (const auto* dictionary = cast<Dictionary>(&value)) {
    number_dictionary(*dictionary, depth + 1);
  } else if (const auto* array = cast<Array>(&value)) {
    number_items(array->items(), depth + 1);
  } else {
    const uint64_t content = visited_content_;
    number_items(cast<Set>(&value)->items(), depth + 1);
    compared_ += visited_content_ - content;
  }
  return next;
}

// The bytes of a leaf's content that the buffer takes.
size_t BinaryWriter::written_content(const Value& leaf) const {
  if (const auto* data = cast<Data>(&leaf)) return is_shared(*data) ? 0 : data->bytes().size();
  const auto* string = cast<String>(&leaf);
  if (string == nullptr) return 0;
  return string->is_ascii() ? string->view().size() : 2 * unicode::utf16_units_of_utf8(string->view());
}

uint32_t BinaryWriter::add_object(const Value& value) {
  if (objects_.size() == max_objects && !error_) error_ = String::create("too many objects for one encoding");
  objects_.push_back(&value);
  return static_cast<uint32_t>(objects_.size() - 1);
}

void BinaryWriter::number_dictionary(const Dictionary& dictionary, unsigned depth) {
  const size_t keys = references_.size();
  const size_t values = keys + dictionary.size();
  references_.resize(values + dictionary.size());
  leaves_.expect(2 * dictionary.size());
  size_t at = keys;
  const uint64_t content = visited_content_;
  for (const Dictionary::Entry& entry : dictionary.entries()) references_[at++] = number(*entry.key, depth);
  compared_ += visited_content_ - content;
  for (const Dictionary::Entry& entry : dictionary.entries()) {
    const uint32_t value = number(*entry.value, depth);
    references_[at++] = value;
    if (error_) return;
  }
}

void BinaryWriter::number_items(std::span<const Ref<Value>> items, unsigned depth) {
  size_t at = references_.size();
  references_.resize(at + items.size());
  leaves_.expect(items.size());
  for (const Ref<Value>& item : items) {
    const uint32_t value = number(*item, depth);
    references_[at++] = value;
    if (error_) return;
  }
}

// ---- writing ------------------------------------------------------------------------------------------

void BinaryWriter::write_object(const Value& value) {
  switch (value.kind()) {
    case Kind::dictionary: {
      const size_t size = cast<Dictionary>(&value)->size();
      return write_references(0xD0, size, 2 * size);
    }
    case Kind::array: {
      const size_t size = cast<Array>(&value)->size();
      return write_references(0xA0, size, size);
    }
    case Kind::set: {
      const size_t size = cast<Set>(&value)->size();
      return write_references(0xC0, size, size);
    }
    case Kind::string:
      return write_string(*cast<String>(&value));
    case Kind::data:
      return write_data(*cast<Data>(&value));
    case Kind::date:
      return write_eight(0x33, std::bit_cast<uint64_t>(cast<Date>(&value)->seconds()));
    case Kind::number:
      return write_number(*cast<Number>(&value));
    case Kind::boolean:
      return put(cast<Boolean>(&value)->value() ? 0x09 : 0x08);
  }
}

void BinaryWriter::write_references(uint8_t marker, size_t count, size_t references) {
  write_count(marker, count);
  append_table(references_.data() + next_reference_, references, reference_size_);
  next_reference_ += references;
}

void BinaryWriter::write_string(const String& string) {
  const std::string_view text = string.view();
  if (string.is_ascii()) {
    write_count(0x50, text.size());
    buffer_ += text;
  } else {
    write_count(0x60, unicode::utf16_units_of_utf8(text));
    unicode::append_utf16be(buffer_, text);
  }
}

void BinaryWriter::write_data(const Data& data) {
  write_count(0x40, data.bytes().size());
  if (!is_shared(data)) {
    buffer_ += data.bytes();
    return;
  }
  flush();
  out_.append_shared(const_cast<Data*>(&data));
}

void BinaryWriter::write_number(const Number& number) {
  if (!number.is_integer()) return write_eight(0x23, std::bit_cast<uint64_t>(number.real()));
  if (number.type() == Number::Type::uint64) {
    write_eight(0x14, 0);
    return append_big_endian(buffer_, number.uint64(), 8);
  }
  if (number.int64() < 0) return write_eight(0x13, number.uint64());
  write_unsigned(number.uint64());
}

void BinaryWriter::write_unsigned(uint64_t value) {
  const size_t size = unsigned_size(value);
  put(static_cast<uint8_t>(0x10 + std::countr_zero(size)));
  append_big_endian(buffer_, value, size);
}

void BinaryWriter::write_eight(uint8_t marker, uint64_t bits) {
  put(marker);
  append_big_endian(buffer_, bits, 8);
}

void BinaryWriter::write_count(uint8_t marker, size_t count) {
  if (count < 15) return put(static_cast<uint8_t>(marker | count));
  put(marker | 15);
  write_unsigned(count);
}

// Writes the lowest `size` bytes of each.
template <class Integer>
void BinaryWriter::append_table(const Integer* integers, size_t count, size_t size) {
  const size_t from = buffer_.size();
  buffer_.resize(from + count * size);
  char* to = buffer_.data() + from;
  for (size_t i = 0; i < count; ++i, to += size) store_big_endian(to, integers[i], size);
}

void BinaryWriter::write_table_and_trailer() {
  const size_t table = position();
  const size_t offset_size = unsigned_size(table);
  append_table(offsets_.data(), offsets_.size(), offset_size);
  buffer_.append(6, '\0');
  put(static_cast<uint8_t>(offset_size));
  put(static_cast<uint8_t>(reference_size_));
  append_big_endian(buffer_, objects_.size(), 8);
  append_big_endian(buffer_, 0, 8);  // the top object
  append_big_endian(buffer_, table, 8);
}

}  // namespace

Ref<String> encode_binary(const Value& value, ByteChain& out, size_t share_from) {
  return BinaryWriter(out, share_from).write(value);
}

}  // namespace corvane::plist
