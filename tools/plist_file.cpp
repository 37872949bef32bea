#include "tools/plist_file.h"

#include <stdexcept>

#include "plist/writer.h"

namespace corvane::tools {

using plist::Ref;

namespace {

plist::Decoded decode(const std::string& path, const std::string& bytes, plist::Containers containers) {
  plist::Decoded decoded = plist::decode(plist::Data::create(bytes), containers);
  if (decoded.error) throw FileFault(path, std::string(decoded.error->view()));
  return decoded;
}

}  // namespace

plist::Decoded read_plist_file(const std::string& path, plist::Containers containers) {
  return decode(path, read_file(path), containers);
}

Ref<plist::Value> read_plist_input(const std::string& path) {
  if (path != "-") return read_plist_file(path, plist::Containers::immutable).value;
  return decode("standard input", read_standard_input(), plist::Containers::immutable).value;
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
