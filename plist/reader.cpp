#include "plist/reader.h"

#include <algorithm>
#include <new>

#include "plist/binary_reader.h"
#include "plist/xml_reader.h"

namespace corvane::plist {

Decoded decode(const Ref<Data>& bytes, Containers containers, unsigned depth_limit) {
  // Made while there is memory.
  static const Ref<String> out_of_memory = String::create("out of memory");
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
