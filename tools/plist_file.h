#pragma once

#include <string>

#include "plist/reader.h"
#include "plist/value.h"
#include "tools/files.h"

namespace corvane::tools {

/// Reads a property-list file. Throws FileFault.
plist::Decoded read_plist_file(const std::string& path, plist::Containers containers);
/// The immutable value in a property-list file, or on standard input for the path "-". Throws FileFault.
plist::Ref<plist::Value> read_plist_input(const std::string& path);

/// The bytes of a property list. Throws std::invalid_argument with one line where the value cannot be encoded.
std::string encode_plist(const plist::Value& value, plist::Encoding encoding);

}  // namespace corvane::tools
