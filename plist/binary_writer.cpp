// One pass numbers the objects, containers before what they hold, notes each container's references, and adds up
// what the objects take. The size of a reference is known only then, so a second pass writes, into a buffer of
// exactly the size that it has to have.

#include <absl/container/inlined_vector.h>

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>
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

// Of most responses; these need no allocation.
constexpr size_t usual_references = 32;
constexpr size_t usual_objects = 16;

constexpr std::string_view header = "bplist00";
constexpr size_t trailer_size = 32;

// So many values ahead are fetched into the cache: in a large document they lie far apart.
constexpr size_t fetched_ahead = 6;

size_t unsigned_size(uint64_t value) {
  return value <= 0xFF ? 1 : value <= 0xFFFF ? 2 : value <= 0xFFFFFFFF ? 4 : 8;
}

// Of a marker and the count that goes with it.
size_t count_size(size_t count) { return count < 15 ? 1 : 2 + unsigned_size(count); }

size_t number_size(const Number& number) {
  if (number.type() == Number::Type::uint64) return 1 + 16;
  if (!number.is_integer() || number.int64() < 0) return 1 + 8;
  return 1 + unsigned_size(number.uint64());
}

class BinaryWriter {
 public:
  BinaryWriter(ByteChain& out, size_t share_from) : out_(out), share_from_(share_from) {}

  Ref<String> write(const Value& value);

 private:
  uint32_t number(const Value& value, unsigned depth);
  uint32_t number_leaf(const Value& leaf);
  uint32_t add_object(const Value& value, size_t size);
  size_t leaf_size(const Value& leaf);
  size_t data_size(const Data& data);
  void number_dictionary(const Dictionary& dictionary, unsigned depth);
  void number_items(std::span<const Ref<Value>> items, unsigned depth);
  size_t measure();

  // What is still mutable may change before the chain is read.
  bool is_shared(const Data& data) const { return data.bytes().size() >= share_from_ && !data.is_mutable(); }
  void write_objects();
  void write_object(const Value& value);
  void write_references(uint8_t marker, size_t count, size_t references);
  void write_string(const String& string);
  void write_data(const Data& data);
  void write_number(const Number& number);
  void write_unsigned(uint64_t value);
  void write_eight(uint8_t marker, uint64_t bits);
  void write_count(uint8_t marker, size_t count);
  template <class Integer>
  void write_table(const Integer* integers, size_t count, size_t size);
  void write_trailer(size_t table);
  void move_written();

  void put(uint8_t byte) { *to_++ = static_cast<char>(byte); }
  void put(std::string_view bytes) { to_ = std::copy(bytes.begin(), bytes.end(), to_); }
  void put_integer(uint64_t value, size_t size) {
    store_big_endian(to_, value, size);
    to_ += size;
  }
  size_t position() const { return static_cast<size_t>(to_ - buffer_.data()) + shared_before_; }

  ByteChain& out_;
  const size_t share_from_;

  LeafTable::Objects objects_;
  LeafTable leaves_{objects_};
  absl::InlinedVector<uint32_t, usual_references> references_;  // of all containers, in the order of their numbers
  size_t objects_size_ = 0;                                     // without references and shared data
  size_t shared_size_ = 0;                                      // of shared data
  uint64_t visited_content_ = 0;                                // as the reader will count
  uint64_t compared_ = 0;
  Ref<String> error_;

  size_t reference_size_ = 0;
  size_t offset_size_ = 0;
  size_t next_reference_ = 0;  // to be written
  absl::InlinedVector<uint64_t, usual_objects> offsets_;
  std::string buffer_;
  char* to_ = nullptr;        // the next byte in it
  size_t moved_ = 0;          // bytes of it that are in the chain already, before shared data
  size_t shared_before_ = 0;  // bytes of shared data before that byte
};

Ref<String> BinaryWriter::write(const Value& value) {
  number(value, 1);
  if (error_) return std::move(error_);
  const size_t size = measure();
  if (compared_ > compared_per_byte * size) {
    return String::create("long keys or members of sets are repeated too often");
  }
  buffer_.resize(size - shared_size_);
  to_ = buffer_.data();
  write_objects();
  assert(to_ == buffer_.data() + buffer_.size() && "an object does not have the size that was measured");
  if (moved_ == 0) {
    out_.append(std::move(buffer_));
  } else {
    move_written();
  }
  return nullptr;
}

// ---- numbering ----------------------------------------------------------------------------------------

uint32_t BinaryWriter::number(const Value& value, unsigned depth) {
  if (!value.is_container()) return number_leaf(value);
  if (depth > max_depth && !error_) {
    error_ = String::create("nesting deeper than " + std::to_string(max_depth));
  }
  if (error_) return 0;
  if (const auto* dictionary = cast<Dictionary>(&value)) {
    const uint32_t number = add_object(value, count_size(dictionary->size()));
    number_dictionary(*dictionary, depth + 1);
    return number;
  }
  if (const auto* array = cast<Array>(&value)) {
    const uint32_t number = add_object(value, count_size(array->size()));
    number_items(array->items(), depth + 1);
    return number;
  }
  const auto* set = cast<Set>(&value);
  const uint32_t number = add_object(value, count_size(set->size()));
  const uint64_t content = visited_content_;
  number_items(set->items(), depth + 1);
  compared_ += visited_content_ - content;
  return number;
}

uint32_t BinaryWriter::number_leaf(const Value& leaf) {
  const auto next = static_cast<uint32_t>(objects_.size());
  visited_content_ += content_of(leaf);
  const uint32_t known = leaves_.number_of(leaf, next);
  return known != next ? known : add_object(leaf, leaf_size(leaf));
}

uint32_t BinaryWriter::add_object(const Value& value, size_t size) {
  if (objects_.size() == max_objects && !error_) error_ = String::create("too many objects for one encoding");
  objects_.push_back(&value);
  objects_size_ += size;
  return static_cast<uint32_t>(objects_.size() - 1);
}

size_t BinaryWriter::leaf_size(const Value& leaf) {
  switch (leaf.kind()) {
    case Kind::string: {
      const auto& string = static_cast<const String&>(leaf);
      if (string.is_ascii()) return count_size(string.view().size()) + string.view().size();
      const size_t units = unicode::utf16_units_of_utf8(string.view());
      return count_size(units) + 2 * units;
    }
    case Kind::number:
      return number_size(static_cast<const Number&>(leaf));
    case Kind::data:
      return data_size(static_cast<const Data&>(leaf));
    case Kind::date:
      return 1 + 8;
    default:
      return 1;
  }
}

size_t BinaryWriter::data_size(const Data& data) {
  const size_t size = data.bytes().size();
  if (!is_shared(data)) return count_size(size) + size;
  shared_size_ += size;
  return count_size(size);
}

void BinaryWriter::number_dictionary(const Dictionary& dictionary, unsigned depth) {
  const auto entries = dictionary.entries();
  size_t at = references_.size();
  references_.resize(at + 2 * entries.size());
  leaves_.expect(2 * entries.size());
  const uint64_t content = visited_content_;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i + fetched_ahead < entries.size()) __builtin_prefetch(entries[i + fetched_ahead].key.get());
    references_[at++] = number_leaf(*entries[i].key);
  }
  compared_ += visited_content_ - content;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i + fetched_ahead < entries.size()) __builtin_prefetch(entries[i + fetched_ahead].value.get());
    const uint32_t value = number(*entries[i].value, depth);
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

// Answers the size of the whole encoding.
size_t BinaryWriter::measure() {
  reference_size_ = unsigned_size(objects_.size() - 1);
  const size_t table = header.size() + objects_size_ + references_.size() * reference_size_ + shared_size_;
  offset_size_ = unsigned_size(table);
  return table + objects_.size() * offset_size_ + trailer_size;
}

// ---- writing ------------------------------------------------------------------------------------------

void BinaryWriter::write_objects() {
  put(header);
  offsets_.resize(objects_.size());
  for (size_t i = 0; i < objects_.size(); ++i) {
    if (i + fetched_ahead < objects_.size()) __builtin_prefetch(objects_[i + fetched_ahead]);
    offsets_[i] = position();
    write_object(*objects_[i]);
  }
  const size_t table = position();
  write_table(offsets_.data(), offsets_.size(), offset_size_);
  write_trailer(table);
}

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
  write_table(references_.data() + next_reference_, references, reference_size_);
  next_reference_ += references;
}

void BinaryWriter::write_string(const String& string) {
  const std::string_view text = string.view();
  if (string.is_ascii()) {
    write_count(0x50, text.size());
    put(text);
  } else {
    write_count(0x60, unicode::utf16_units_of_utf8(text));
    to_ = unicode::utf8_to_utf16be(text, to_);
  }
}

void BinaryWriter::write_data(const Data& data) {
  write_count(0x40, data.bytes().size());
  if (!is_shared(data)) return put(data.bytes());
  move_written();
  out_.append_shared(const_cast<Data*>(&data));
  shared_before_ += data.bytes().size();
}

void BinaryWriter::write_number(const Number& number) {
  if (!number.is_integer()) return write_eight(0x23, std::bit_cast<uint64_t>(number.real()));
  if (number.type() == Number::Type::uint64) {
    write_eight(0x14, 0);
    return put_integer(number.uint64(), 8);
  }
  if (number.int64() < 0) return write_eight(0x13, number.uint64());
  write_unsigned(number.uint64());
}

void BinaryWriter::write_unsigned(uint64_t value) {
  const size_t size = unsigned_size(value);
  put(static_cast<uint8_t>(0x10 + std::countr_zero(size)));
  put_integer(value, size);
}

void BinaryWriter::write_eight(uint8_t marker, uint64_t bits) {
  put(marker);
  put_integer(bits, 8);
}

void BinaryWriter::write_count(uint8_t marker, size_t count) {
  if (count < 15) return put(static_cast<uint8_t>(marker | count));
  put(marker | 15);
  write_unsigned(count);
}

// Writes the lowest `size` bytes of each.
template <class Integer>
void BinaryWriter::write_table(const Integer* integers, size_t count, size_t size) {
  for (size_t i = 0; i < count; ++i) put_integer(integers[i], size);
}

void BinaryWriter::write_trailer(size_t table) {
  to_ = std::fill_n(to_, 6, '\0');
  put(static_cast<uint8_t>(offset_size_));
  put(static_cast<uint8_t>(reference_size_));
  put_integer(objects_.size(), 8);
  put_integer(0, 8);  // the top object
  put_integer(table, 8);
}

void BinaryWriter::move_written() {
  const auto written = static_cast<size_t>(to_ - buffer_.data());
  out_.append(std::string_view(buffer_).substr(moved_, written - moved_));
  moved_ = written;
}

}  // namespace

Ref<String> encode_binary(const Value& value, ByteChain& out, size_t share_from) {
  return BinaryWriter(out, share_from).write(value);
}

}  // namespace corvane::plist
