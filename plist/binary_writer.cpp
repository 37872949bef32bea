// One pass numbers the objects, containers before what they hold, notes each container's references, and adds up
// what the objects take. The size of a reference is known only then, so a second pass writes, into a buffer of
// exactly the size that it has to have.

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>
#include <limits>

#include "plist/big_endian.h"
#include "plist/comparing.h"
#include "plist/leaf_table.h"
#include "plist/reader.h"
#include "plist/short_list.h"
#include "plist/unicode.h"
#include "plist/writer.h"

namespace corvane::plist {

namespace {

constexpr size_t max_objects = std::numeric_limits<uint32_t>::max();

// Of most responses; these need no allocation.
constexpr size_t usual_references = 32;

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

size_t string_size(const String& string) {
  const size_t units = string.is_ascii() ? string.view().size() : unicode::utf16_units_of_utf8(string.view());
  return count_size(units) + (string.is_ascii() ? units : 2 * units);
}

// These write at `to`, and return where that ends.

char* put(char* to, uint8_t byte) {
  *to = static_cast<char>(byte);
  return to + 1;
}

char* put(char* to, std::string_view bytes) {
  std::memcpy(to, bytes.data(), bytes.size());
  return to + bytes.size();
}

char* put_integer(char* to, uint64_t value, size_t size) {
  store_big_endian(to, value, size);
  return to + size;
}

// The low `size` bytes of each.
template <size_t size>
char* put_all(char* to, std::span<const uint32_t> integers) {
  for (const uint32_t integer : integers) to = put_integer(to, integer, size);
  return to;
}

char* put_unsigned(char* to, uint64_t value) {
  const size_t size = unsigned_size(value);
  to = put(to, static_cast<uint8_t>(0x10 + std::countr_zero(size)));
  return put_integer(to, value, size);
}

char* put_eight(char* to, uint8_t marker, uint64_t bits) { return put_integer(put(to, marker), bits, 8); }

char* put_count(char* to, uint8_t marker, size_t count) {
  if (count < 15) return put(to, static_cast<uint8_t>(marker | count));
  return put_unsigned(put(to, marker | 15), count);
}

char* put_string(char* to, const String& string) {
  const std::string_view text = string.view();
  if (string.is_ascii()) return put(put_count(to, 0x50, text.size()), text);
  return unicode::utf8_to_utf16be(text, put_count(to, 0x60, unicode::utf16_units_of_utf8(text)));
}

char* put_number(char* to, const Number& number) {
  if (!number.is_integer()) return put_eight(to, 0x23, std::bit_cast<uint64_t>(number.real()));
  if (number.type() == Number::Type::uint64) return put_integer(put_eight(to, 0x14, 0), number.uint64(), 8);
  if (number.int64() < 0) return put_eight(to, 0x13, number.uint64());
  return put_unsigned(to, number.uint64());
}

class BinaryWriter {
 public:
  BinaryWriter(ByteChain& out, size_t share_from, size_t size_limit)
      : out_(out), share_from_(share_from), size_limit_(size_limit) {}

  Ref<String> write(const Value& value);

 private:
  uint32_t number(const Value& value, unsigned depth) {
    return value.is_container() ? number_container(value, depth) : number_leaf(value);
  }
  uint32_t number_container(const Value& container, unsigned depth);
  void number_dictionary(const Dictionary& dictionary, unsigned depth);
  void number_items(std::span<const Ref<Value>> items, unsigned depth);
  uint32_t number_leaf(const Value& leaf);
  void add_object(const Value& value, size_t size);
  [[gnu::cold]] void fail(std::string_view what);
  [[gnu::cold]] void fail_too_deep();
  [[gnu::cold]] void fail_too_long();
  size_t leaf_size(const Value& leaf);
  size_t data_size(const Data& data);

  // What is still mutable may change before the chain is read.
  bool is_shared(const Data& data) const { return data.bytes().size() >= share_from_ && !data.is_mutable(); }
  void write_objects(char* buffer);
  char* write_object(char* to, const Value& value);
  char* write_references(char* to, uint8_t marker, size_t count, size_t references);
  char* write_data(char* to, const Data& data);
  void write_trailer(char* to);
  void move_written(const char* to);

  ByteChain& out_;
  const size_t share_from_;
  const size_t size_limit_;

  LeafTable::Objects objects_;
  LeafTable leaves_{objects_};
  ShortList<uint32_t, usual_references> references_;  // of all containers, in the order of their numbers
  size_t objects_size_ = 0;                           // without references and shared data
  size_t shared_size_ = 0;                            // of shared data
  uint64_t visited_content_ = 0;                      // as the reader will count
  uint64_t compared_ = 0;
  Ref<String> error_;

  size_t reference_size_ = 0;
  size_t next_reference_ = 0;  // to be written
  size_t table_ = 0;           // where the offset table begins
  size_t offset_size_ = 0;
  const char* buffer_ = nullptr;
  size_t moved_ = 0;          // bytes of it that are in the chain already, before shared data
  size_t shared_before_ = 0;  // bytes of shared data before the next byte
};

Ref<String> BinaryWriter::write(const Value& value) {
  number(value, 1);
  if (error_) return std::move(error_);
  reference_size_ = unsigned_size(objects_.size() - 1);
  table_ = header.size() + objects_size_ + references_.size() * reference_size_ + shared_size_;
  offset_size_ = unsigned_size(table_);
  const size_t size = table_ + objects_.size() * offset_size_ + trailer_size;
  if (size > size_limit_) fail_too_long();
  if (error_) return std::move(error_);
  if (compared_ > compared_per_byte * size) {
    return String::create("long keys or members of sets are repeated too often");
  }
  std::string buffer(size - shared_size_, '\0');
  write_objects(buffer.data());
  if (moved_ == 0) {
    out_.append(std::move(buffer));
  } else {
    move_written(buffer.data() + buffer.size());
  }
  return nullptr;
}

// ---- numbering ----------------------------------------------------------------------------------------

uint32_t BinaryWriter::number_container(const Value& container, unsigned depth) {
  if (depth > max_depth) fail_too_deep();
  // Containers that occur several times are written as often. The encoding will not be shorter than this.
  const size_t references_size = references_.size() * unsigned_size(objects_.size());
  if (objects_size_ + references_size + objects_.size() > size_limit_) fail_too_long();
  if (error_) return 0;
  const auto number = static_cast<uint32_t>(objects_.size());
  if (const auto* dictionary = cast<Dictionary>(&container)) {
    add_object(container, count_size(dictionary->size()));
    number_dictionary(*dictionary, depth + 1);
  } else if (const auto* array = cast<Array>(&container)) {
    add_object(container, count_size(array->size()));
    number_items(array->items(), depth + 1);
  } else {
    const auto* set = cast<Set>(&container);
    add_object(container, count_size(set->size()));
    const uint64_t content = visited_content_;
    number_items(set->items(), depth + 1);
    compared_ += visited_content_ - content;
  }
  return number;
}

void BinaryWriter::fail(std::string_view what) {
  if (!error_) error_ = String::create(what);
}

void BinaryWriter::fail_too_deep() { fail("nesting deeper than " + std::to_string(max_depth)); }

void BinaryWriter::fail_too_long() { fail("longer than " + std::to_string(size_limit_) + " bytes"); }

void BinaryWriter::number_dictionary(const Dictionary& dictionary, unsigned depth) {
  const auto entries = dictionary.entries();
  size_t at = references_.size();
  references_.extend(2 * entries.size());
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
  references_.extend(items.size());
  leaves_.expect(items.size());
  for (const Ref<Value>& item : items) {
    const uint32_t value = number(*item, depth);
    references_[at++] = value;
    if (error_) return;
  }
}

uint32_t BinaryWriter::number_leaf(const Value& leaf) {
  const auto next = static_cast<uint32_t>(objects_.size());
  visited_content_ += content_of(leaf);
  const uint32_t known = leaves_.number_of(leaf, next);
  if (known == next) add_object(leaf, leaf_size(leaf));
  return known;
}

inline void BinaryWriter::add_object(const Value& value, size_t size) {
  if (objects_.size() == max_objects) fail("too many objects for one encoding");
  objects_.push_back(&value);
  objects_size_ += size;
}

inline size_t BinaryWriter::leaf_size(const Value& leaf) {
  switch (leaf.kind()) {
    case Kind::string:
      return string_size(static_cast<const String&>(leaf));
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

// ---- writing ------------------------------------------------------------------------------------------

void BinaryWriter::write_objects(char* buffer) {
  buffer_ = buffer;
  char* const table = buffer + (table_ - shared_size_);
  char* offset = table;
  char* to = put(buffer, header);
  for (size_t i = 0; i < objects_.size(); ++i) {
    if (i + fetched_ahead < objects_.size()) __builtin_prefetch(objects_[i + fetched_ahead]);
    const size_t position = static_cast<size_t>(to - buffer) + shared_before_;
    // What is too much is overwritten by the next offset, or by the trailer.
    store_big_endian(offset, position << (64 - 8 * offset_size_), 8);
    offset += offset_size_;
    to = write_object(to, *objects_[i]);
  }
  assert(to == table && "an object does not have the size that was measured");
  write_trailer(offset);
}

char* BinaryWriter::write_object(char* to, const Value& value) {
  switch (value.kind()) {
    case Kind::dictionary: {
      const size_t size = cast<Dictionary>(&value)->size();
      return write_references(to, 0xD0, size, 2 * size);
    }
    case Kind::array: {
      const size_t size = cast<Array>(&value)->size();
      return write_references(to, 0xA0, size, size);
    }
    case Kind::set: {
      const size_t size = cast<Set>(&value)->size();
      return write_references(to, 0xC0, size, size);
    }
    case Kind::string:
      return put_string(to, *cast<String>(&value));
    case Kind::data:
      return write_data(to, *cast<Data>(&value));
    case Kind::date:
      return put_eight(to, 0x33, std::bit_cast<uint64_t>(cast<Date>(&value)->seconds()));
    case Kind::number:
      return put_number(to, *cast<Number>(&value));
    default:
      return put(to, cast<Boolean>(&value)->value() ? 0x09 : 0x08);
  }
}

char* BinaryWriter::write_references(char* to, uint8_t marker, size_t count, size_t references) {
  to = put_count(to, marker, count);
  const std::span<const uint32_t> numbers(references_.begin() + next_reference_, references);
  next_reference_ += references;
  if (reference_size_ == 1) return put_all<1>(to, numbers);
  return reference_size_ == 2 ? put_all<2>(to, numbers) : put_all<4>(to, numbers);
}

char* BinaryWriter::write_data(char* to, const Data& data) {
  to = put_count(to, 0x40, data.bytes().size());
  if (!is_shared(data)) return put(to, data.bytes());
  move_written(to);
  out_.append_shared(const_cast<Data*>(&data));
  shared_before_ += data.bytes().size();
  return to;
}

void BinaryWriter::write_trailer(char* to) {
  to = std::fill_n(to, 6, '\0');
  to = put(to, static_cast<uint8_t>(offset_size_));
  to = put(to, static_cast<uint8_t>(reference_size_));
  to = put_integer(to, objects_.size(), 8);
  to = put_integer(to, 0, 8);  // the top object
  put_integer(to, table_, 8);
}

void BinaryWriter::move_written(const char* to) {
  const auto written = static_cast<size_t>(to - buffer_);
  out_.append(std::string_view(buffer_ + moved_, written - moved_));
  moved_ = written;
}

}  // namespace

Ref<String> encode_binary(const Value& value, ByteChain& out, size_t share_from, size_t size_limit) {
  return BinaryWriter(out, share_from, size_limit).write(value);
}

}  // namespace corvane::plist
