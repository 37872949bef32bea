#include "tools/plist_file.h"

#include <stdexcept>

#include "plist/writer.h"

namespace corvane::tools {

using plist::Ref;

plist::Decoded read_plist_file(const std::string& path, plist::Containers containers) {
  plist::Decoded decoded = plist::decode(plist::Data::create(read_file(path)), containers);
  if (decoded.error) throw FileFault(path, std::string(decoded.error->view()));
  return decoded;
}

std::string encode_plist(const plist::Value& value, plist::Encoding encoding) {
  std::string bytes;
  Ref<plist::String> fault;
  if (encoding == plist::Encoding::xml) {
    fault = plist::encode_xml(value, bytes);
  } else {
    plist::ByteChain chain;
    fault = plist::encode_binary(value, chain);
    bytes.reserve(chain.size());
    for (const std::string_view piece : chain.pieces()) bytes += piece;
  }
  if (fault) throw std::invalid_argument(std::string(fault->view()));
  return bytes;
}

}  // namespace corvane::tools
