// The file is a table of objects that refer to each other by number, so objects may be shared, lie across
// each other or contain themselves. What keeps the work linear in the input:
//
// - References followed are counted, a container's all at once before room is made for them. An immutable
//   container met again is not built again, but counts as if it were, because whoever walks the result walks
//   it again.
// - Each leaf is built once, and the contents of all leaves together are at most as long as the input.
// - Keys and members of sets are hashed and compared at every reference. `compare_limit_` bounds how many bytes
//   that is; only long keys shared by very many dictionaries come near it.
// - An object that contains itself runs into the depth limit.
//
// The reader keeps a reference to each object that it has built until it ends. Containers have references of their
// own, so that a value which a repeated key replaces can still be met again.

#include "plist/binary_reader.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "plist/big_endian.h"
#include "plist/comparing.h"
#include "plist/decoding_error.h"
#include "plist/short_list.h"

namespace corvane::plist {

namespace {

constexpr size_t header_size = 8;
constexpr size_t trailer_size = 32;
constexpr size_t slice_from = 4096;

// About what a value takes besides its content.
constexpr size_t usual_value_size = 40;

// A usual message has no more: for them no tables are allocated.
constexpr size_t usual_objects = 16;
constexpr size_t usual_containers = 4;

// A new reference to a value that no other thread has yet, or to a Boolean, which all threads share.
Ref<Value> referred(Value* value) {
  return value->kind() == Kind::boolean ? Ref<Value>(value) : Unpublished::share(value);
}

class BinaryReader {
 public:
  BinaryReader(const Ref<Data>& input, Containers containers, unsigned depth_limit)
      : input_(input),
        start_(input->bytes().data()),
        size_(input->bytes().size()),
        visit_limit_(std::min<uint64_t>(size_, std::numeric_limits<uint32_t>::max())),
        compare_limit_(size_ * compared_per_byte),
        depth_limit_(depth_limit),
        share_(containers == Containers::immutable) {}

  ~BinaryReader() {
    for (const Known& known : memo_) {
      if (known.object != nullptr) Unpublished::drop(Ref<Value>::adopt(known.object));
    }
    for (Value* container : unshared_) Unpublished::drop(Ref<Value>::adopt(container));
  }

  Decoded read();

 private:
  /// What each visit to a container counts for, with all that lies below it.
  struct Extent {
    unsigned height;
    uint64_t visits;
    uint64_t content;
    uint64_t compared;
  };

  /// An object that was built, or null. Booleans are not remembered, because they need not be built.
  struct Known {
    Value* object;
    uint32_t extent;
  };

  /// What follows a marker: so many references or units of text or data. No object lies at position 0.
  struct Content {
    size_t position = 0;
    size_t count = 0;
  };

  bool read_trailer();

  // These return a borrowed value, or null after an error.
  Value* read_value(uint64_t number, unsigned depth, bool share);
  Value* recall(uint64_t number, unsigned depth);
  Value* read_and_measure_container(uint64_t number, size_t offset, unsigned depth, bool share);
  Value* read_leaf(uint64_t number, size_t offset);
  String* read_key(uint64_t number, unsigned depth);

  Ref<Value> read_container(size_t offset, unsigned depth, bool share);
  Ref<Value> read_array(Content items, unsigned depth, bool share);
  Ref<Value> read_set(Content items, unsigned depth, bool share);
  Ref<Value> read_dictionary(Content entries, unsigned depth, bool share);

  Ref<Value> make_leaf(size_t offset);
  Ref<Value> read_integer(size_t offset);
  Ref<Value> read_wide_integer(size_t offset);
  Ref<Value> read_real(size_t offset);
  Ref<Value> read_date(size_t offset);
  Ref<Value> read_text_or_data(size_t offset);
  Ref<Value> read_ascii(size_t offset, std::string_view bytes);
  Ref<Value> read_utf16(size_t offset, std::string_view bytes);
  Ref<Value> read_data(std::string_view bytes);
  Content read_count(size_t offset);
  Content read_long_count(size_t offset);

  uint8_t marker(size_t offset) const { return static_cast<uint8_t>(start_[offset]); }
  uint64_t reference(size_t position, size_t index) const {
    return load_big_endian(start_ + position + index * reference_size_, reference_size_);
  }
  /// Whether `size` bytes of objects follow.
  bool has(size_t position, uint64_t size) const { return size <= objects_end_ - position; }
  bool charge_comparison(uint64_t bytes, size_t offset);

  [[gnu::cold]] std::nullptr_t fail(std::string_view what, uint64_t byte);
  [[gnu::cold]] std::nullptr_t fail_too_deep(uint64_t byte);

  const Ref<Data>& input_;
  const char* const start_;
  const size_t size_;
  const uint64_t visit_limit_;
  const uint64_t compare_limit_;
  const unsigned depth_limit_;
  const bool share_;

  size_t offset_size_ = 0;
  size_t reference_size_ = 0;
  size_t objects_end_ = 0;  // where the offset table begins
  uint64_t top_ = 0;

  ShortList<Known, usual_objects> memo_;         // objects that were built, by number; each owns a reference
  ShortList<Value*, 1> unshared_;                // mutable containers, which are not in `memo_`; the same
  ShortList<Extent, usual_containers> extents_;  // of the containers in `memo_`
  uint64_t visits_ = 1;                          // the top object's
  uint64_t visited_content_ = 0;                 // bytes in leaves, each counted at every visit
  uint64_t content_ = 0;                         // bytes in leaves, each counted once
  uint64_t compared_ = 0;
  unsigned deepest_ = 0;  // depth of the deepest container since the one being read began
  Ref<String> error_;
};

Decoded BinaryReader::read() {
  Value* value = nullptr;
  if (read_trailer()) {
    const ValueBlocks blocks(size_ + memo_.size() * usual_value_size);
    value = read_value(top_, 1, share_);
  }
  return {value == nullptr ? nullptr : referred(value), std::move(error_), Encoding::binary};
}

bool BinaryReader::read_trailer() {
  if (!input_->bytes().starts_with("bplist00")) {
    fail("this version of the binary encoding is not known", std::min<size_t>(size_, 6));
    return false;
  }
  if (size_ < header_size + trailer_size) {
    fail("the input is too short for its trailer", size_);
    return false;
  }
  const size_t trailer = size_ - trailer_size;
  offset_size_ = marker(trailer + 6);
  reference_size_ = marker(trailer + 7);
  const uint64_t objects = load_big_endian<8>(start_ + trailer + 8);
  top_ = load_big_endian<8>(start_ + trailer + 16);
  const uint64_t table = load_big_endian<8>(start_ + trailer + 24);
  if (offset_size_ < 1 || offset_size_ > 8 || reference_size_ < 1 || reference_size_ > 8) {
    fail("offsets and references have 1 to 8 bytes", trailer + 6);
  } else if (table <= header_size || table > trailer) {
    fail("the offset table lies outside of the input", trailer + 24);
  } else if (objects > (trailer - table) / offset_size_) {
    fail("the offset table is too short for its objects", trailer + 8);
  } else if (top_ >= objects) {
    fail("the top object is not there", trailer + 16);
  }
  if (error_) return false;
  objects_end_ = table;
  memo_.extend(objects);
  std::fill(memo_.begin(), memo_.end(), Known{nullptr, 0});
  return true;
}

std::nullptr_t BinaryReader::fail(std::string_view what, uint64_t byte) {
  if (!error_) error_ = error_at(std::string(what), byte);
  return nullptr;
}

std::nullptr_t BinaryReader::fail_too_deep(uint64_t byte) {
  return fail("nesting deeper than " + std::to_string(depth_limit_), byte);
}

// Precondition: the visit has been counted.
Value* BinaryReader::read_value(uint64_t number, unsigned depth, bool share) {
  if (number >= memo_.size()) return fail("a reference to an object that is not there", objects_end_);
  const Value* const known = memo_[number].object;
  if (known != nullptr && (share || !known->is_container())) return recall(number, depth);
  const uint64_t entry = objects_end_ + number * offset_size_;
  const uint64_t offset = load_big_endian(start_ + entry, offset_size_);
  if (offset < header_size || offset >= objects_end_) return fail("an offset outside of the objects", entry);
  if (marker(offset) >= 0xA0) return read_and_measure_container(number, offset, depth, share);
  return read_leaf(number, offset);
}

Value* BinaryReader::read_and_measure_container(uint64_t number, size_t offset, unsigned depth, bool share) {
  const uint64_t visits = visits_;
  const uint64_t content = visited_content_;
  const uint64_t compared = compared_;
  const unsigned deepest_before = std::exchange(deepest_, depth);
  Ref<Value> container = read_container(offset, depth, share);
  if (!container) return nullptr;
  const unsigned deepest = std::exchange(deepest_, std::max(deepest_before, deepest_));
  if (!share) {
    unshared_.push_back(container.get());
    return container.detach();
  }
  const auto extent = static_cast<uint32_t>(extents_.size());
  extents_.push_back({deepest - depth + 1, visits_ - visits, visited_content_ - content, compared_ - compared});
  memo_[number] = {container.detach(), extent};
  return memo_[number].object;
}

Value* BinaryReader::recall(uint64_t number, unsigned depth) {
  Value* const known = memo_[number].object;
  if (!known->is_container()) {
    visited_content_ += content_of(*known);
    return known;
  }
  const Extent& extent = extents_[memo_[number].extent];
  visited_content_ += extent.content;
  visits_ += extent.visits;
  if (visits_ > visit_limit_) return fail("more references than bytes", objects_end_);
  const unsigned deepest = depth + extent.height - 1;
  if (deepest > depth_limit_) return fail_too_deep(objects_end_);
  deepest_ = std::max(deepest_, deepest);
  return charge_comparison(extent.compared, objects_end_) ? known : nullptr;
}

bool BinaryReader::charge_comparison(uint64_t bytes, size_t offset) {
  compared_ += bytes;
  if (compared_ <= compare_limit_) return true;
  fail("long keys or members of sets are repeated too often", offset);
  return false;
}

// ---- containers ---------------------------------------------------------------------------------------

Ref<Value> BinaryReader::read_container(size_t offset, unsigned depth, bool share) {
  const uint8_t kind = marker(offset) >> 4;
  if (kind != 0xA && kind != 0xC && kind != 0xD) return fail("an unknown object marker", offset);
  if (depth > depth_limit_) return fail_too_deep(offset);
  const Content references = read_count(offset);
  if (references.position == 0) return nullptr;
  const size_t each = kind == 0xD ? 2 : 1;
  if (references.count > (objects_end_ - references.position) / (each * reference_size_)) {
    return fail("the object table ends inside a container", offset);
  }
  visits_ += references.count * each;
  if (visits_ > visit_limit_) return fail("more references than bytes", offset);
  if (kind == 0xA) return read_array(references, depth, share);
  if (kind == 0xC) return read_set(references, depth, share);
  return read_dictionary(references, depth, share);
}

Ref<Value> BinaryReader::read_array(Content items, unsigned depth, bool share) {
  Ref<MutableArray> array = MutableArray::create(items.count);
  for (size_t i = 0; i < items.count; ++i) {
    Value* const item = read_value(reference(items.position, i), depth + 1, share);
    if (item == nullptr) return nullptr;
    array->append(referred(item));
  }
  if (share) return MutableArray::freeze(std::move(array));
  return array;
}

Ref<Value> BinaryReader::read_set(Content items, unsigned depth, bool share) {
  Ref<MutableSet> set = MutableSet::create(items.count);
  for (size_t i = 0; i < items.count; ++i) {
    const uint64_t visited_content = visited_content_;
    Value* const item = read_value(reference(items.position, i), depth + 1, true);
    if (item == nullptr) return nullptr;
    if (!charge_comparison(visited_content_ - visited_content, items.position)) return nullptr;
    set->add(referred(item));
  }
  if (share) return MutableSet::freeze(std::move(set));
  return set;
}

Ref<Value> BinaryReader::read_dictionary(Content entries, unsigned depth, bool share) {
  Ref<MutableDictionary> dictionary = MutableDictionary::create(entries.count);
  for (size_t i = 0; i < entries.count; ++i) {
    String* const key = read_key(reference(entries.position, i), depth + 1);
    if (key == nullptr) return nullptr;
    Value* const value = read_value(reference(entries.position, entries.count + i), depth + 1, share);
    if (value == nullptr) return nullptr;
    dictionary->set(Unpublished::share(key), referred(value));
  }
  if (share) return MutableDictionary::freeze(std::move(dictionary));
  return dictionary;
}

String* BinaryReader::read_key(uint64_t number, unsigned depth) {
  Value* const key = read_value(number, depth, true);
  if (key == nullptr) return nullptr;
  const uint64_t entry = objects_end_ + number * offset_size_;
  if (key->kind() != Kind::string) return fail("a dictionary key is not a string", entry);
  auto* const string = static_cast<String*>(key);
  return charge_comparison(string->view().size(), entry) ? string : nullptr;
}

// ---- leaves -------------------------------------------------------------------------------------------

Value* BinaryReader::read_leaf(uint64_t number, size_t offset) {
  if (marker(offset) == 0x08) return Boolean::no();
  if (marker(offset) == 0x09) return Boolean::yes();
  Value* const leaf = make_leaf(offset).detach();
  if (leaf == nullptr) return nullptr;
  visited_content_ += content_of(*leaf);
  return memo_[number].object = leaf;
}

Ref<Value> BinaryReader::make_leaf(size_t offset) {
  switch (marker(offset) >> 4) {
    case 0x0:
      if (marker(offset) == 0x00) return fail("null objects are not supported", offset);
      break;
    case 0x1:
      return read_integer(offset);
    case 0x2:
      return read_real(offset);
    case 0x3:
      return read_date(offset);
    case 0x4:
    case 0x5:
    case 0x6:
      return read_text_or_data(offset);
    case 0x8:
      return fail("UID objects are not supported", offset);
  }
  return fail("an unknown object marker", offset);
}

Ref<Value> BinaryReader::read_integer(size_t offset) {
  const unsigned exponent = marker(offset) & 0xF;
  if (exponent > 4) return fail("an integer of unknown size", offset);
  const size_t size = size_t{1} << exponent;
  if (!has(offset + 1, size)) return fail("the object table ends inside an integer", offset);
  if (exponent == 4) return read_wide_integer(offset);
  return Number::create_int64(static_cast<int64_t>(load_big_endian(start_ + offset + 1, size)));
}

Ref<Value> BinaryReader::read_wide_integer(size_t offset) {
  const uint64_t high = load_big_endian<8>(start_ + offset + 1);
  const uint64_t low = load_big_endian<8>(start_ + offset + 9);
  if (high == 0) return Number::create_uint64(low);
  const auto negative = static_cast<int64_t>(low);
  if (~high == 0 && negative < 0) return Number::create_int64(negative);
  return fail("an integer out of range", offset);
}

Ref<Value> BinaryReader::read_real(size_t offset) {
  const uint8_t kind = marker(offset);
  if (kind != 0x22 && kind != 0x23) return fail("a real of unknown size", offset);
  if (!has(offset + 1, kind == 0x22 ? 4 : 8)) return fail("the object table ends inside a real", offset);
  if (kind == 0x23) return Number::create_real(std::bit_cast<double>(load_big_endian<8>(start_ + offset + 1)));
  const auto bits = static_cast<uint32_t>(load_big_endian<4>(start_ + offset + 1));
  return Number::create_real(static_cast<double>(std::bit_cast<float>(bits)));
}

Ref<Value> BinaryReader::read_date(size_t offset) {
  if (marker(offset) != 0x33) return fail("an unknown object marker", offset);
  if (!has(offset + 1, 8)) return fail("the object table ends inside a date", offset);
  const auto seconds = std::bit_cast<double>(load_big_endian<8>(start_ + offset + 1));
  if (!std::isfinite(seconds)) return fail("a date that is not finite", offset);
  return Date::create(seconds);
}

Ref<Value> BinaryReader::read_text_or_data(size_t offset) {
  const unsigned kind = marker(offset) >> 4;
  const Content units = read_count(offset);
  if (units.position == 0) return nullptr;
  const size_t room = objects_end_ - units.position;
  if (units.count > (kind == 0x6 ? room / 2 : room)) {
    return fail(kind == 0x4 ? "the object table ends inside data" : "the object table ends inside a string",
                offset);
  }
  const std::string_view bytes(start_ + units.position, kind == 0x6 ? 2 * units.count : units.count);
  content_ += bytes.size();
  if (content_ > size_) return fail("strings and data lie across each other", offset);
  if (kind == 0x4) return read_data(bytes);
  return kind == 0x5 ? read_ascii(offset, bytes) : read_utf16(offset, bytes);
}

Ref<Value> BinaryReader::read_ascii(size_t offset, std::string_view bytes) {
  Ref<String> string = String::create_from_ascii(bytes);
  if (!string) return fail("an ASCII string that is not ASCII", offset);
  return string;
}

Ref<Value> BinaryReader::read_utf16(size_t offset, std::string_view bytes) {
  Ref<String> string = String::create_from_utf16be(bytes);
  if (!string) return fail("a surrogate stands alone in a string", offset);
  return string;
}

Ref<Value> BinaryReader::read_data(std::string_view bytes) {
  if (bytes.size() < slice_from) return Data::create(bytes);
  return Data::slice(input_, static_cast<size_t>(bytes.data() - start_), bytes.size());
}

inline BinaryReader::Content BinaryReader::read_count(size_t offset) {
  const size_t count = marker(offset) & 0xF;
  return count < 0xF ? Content{offset + 1, count} : read_long_count(offset);
}

BinaryReader::Content BinaryReader::read_long_count(size_t offset) {
  const size_t position = offset + 1;
  const uint8_t size_marker = has(position, 1) ? marker(position) : uint8_t{0};
  const size_t size = size_t{1} << (size_marker & 0x3);
  if ((size_marker & 0xFC) != 0x10 || !has(position + 1, size)) {
    fail("an object without its count", offset);
    return {};
  }
  // A count too large for the input, as a negative one is when read unsigned, fails where the items are read.
  return {position + 1 + size, load_big_endian(start_ + position + 1, size)};
}

}  // namespace

Decoded decode_binary(const Ref<Data>& input, Containers containers, unsigned depth_limit) {
  return BinaryReader(input, containers, depth_limit).read();
}

}  // namespace corvane::plist
