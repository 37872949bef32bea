#include "fuzz/property_list.h"

#include <string>

#include "fuzz/ensure.h"
#include "fuzz/heap.h"
#include "plist/describe.h"
#include "plist/reader.h"
#include "plist/writer.h"

namespace corvane::fuzz {

using namespace plist;

namespace {

// How much memory a value may take for each byte of its file, and any file at all. The most expensive byte is a
// reference to an empty dictionary in a mutable result, where each becomes an object of its own.
constexpr size_t heap_per_byte = 512;
constexpr size_t heap_anyway = 64 * 1024;

Decoded read(const Ref<Data>& file, Containers containers) {
  const HeapGrowth heap;
  Decoded decoded = decode(file, containers);
  ENSURE(heap.most() <= heap_anyway + heap_per_byte * file->bytes().size());
  ENSURE((decoded.value.get() == nullptr) == (decoded.error.get() != nullptr));
  if (decoded.error) {
    const std::string_view text = decoded.error->view();
    ENSURE(!text.empty() && text.size() < 200 && text.find('\n') == text.npos);
  }
  return decoded;
}

void expect_same(std::string_view file, const Value& value, Encoding encoding) {
  const Decoded again = read(Data::create(file), Containers::immutable);
  ENSURE(again.value && again.encoding == encoding);
  ENSURE(equal(again.value.get(), &value) && hash(*again.value) == hash(value));
}

void expect_written_and_read_back(const Value& value, Encoding came_as) {
  ByteChain chain;
  ENSURE(!encode_binary(value, chain));
  std::string file;
  for (const std::string_view piece : chain.pieces()) file += piece;
  ENSURE(file.size() == chain.size());
  expect_same(file, value, Encoding::binary);

  std::string text;
  const Ref<String> fault = encode_xml(value, text);
  ENSURE(!fault || came_as == Encoding::binary);
  if (!fault) expect_same(text, value, Encoding::xml);
}

}  // namespace

void try_property_list(std::string_view bytes) {
  const Ref<Data> file = Data::create(bytes);
  const Decoded decoded = read(file, Containers::immutable);
  const Decoded changeable = read(file, Containers::made_mutable);
  ENSURE((decoded.value.get() == nullptr) == (changeable.value.get() == nullptr));
  if (!decoded.value) return;

  ENSURE(equal(decoded.value.get(), changeable.value.get()));
  ENSURE(hash(*decoded.value) == hash(*changeable.value));
  if (decoded.value->is_container()) {
    ENSURE(!decoded.value->is_mutable() && changeable.value->is_mutable());
    ENSURE(describe(decoded.value.get()).find('\n') == std::string::npos);
  }
  ENSURE(describe(decoded.value.get()) == describe(changeable.value.get()));
  expect_written_and_read_back(*decoded.value, decoded.encoding);
  expect_written_and_read_back(*changeable.value, decoded.encoding);
}

}  // namespace corvane::fuzz
