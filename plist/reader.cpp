#include "plist/reader.h"

#include <algorithm>
#include <new>

#include "plist/binary_reader.h"
#include "plist/xml_reader.h"

namespace corvane::plist {

namespace {

// Made at program start, because there is no memory left for it when it is needed.
const Ref<String> out_of_memory = String::create("out of memory");

}  // namespace

Decoded decode(const Ref<Data>& bytes, Containers containers, unsigned depth_limit) {
  const Encoding encoding = bytes->bytes().starts_with("bplist") ? Encoding::binary : Encoding::xml;
  depth_limit = std::min(depth_limit, max_depth);
  try {
    return encoding == Encoding::binary ? decode_binary(bytes, containers, depth_limit)
                                        : decode_xml(bytes->bytes(), containers, depth_limit);
  } catch (const std::bad_alloc&) {
    return {nullptr, out_of_memory, encoding};
  }
}

}  // namespace corvane::plist
