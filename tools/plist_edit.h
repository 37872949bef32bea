#pragma once

#include <string>
#include <string_view>

#include "plist/reader.h"
#include "plist/value.h"
#include "tools/files.h"

namespace corvane::tools {

/// Reads a property-list file. Throws FileFault.
plist::Decoded read_plist_file(const std::string& path, plist::Containers containers);

/// Edits the dictionary in a property-list file: `key_path` is the keys that lead to an entry, joined by dots.
/// The file is replaced as a whole, by a rename, in the encoding that it had and with its mode; a link stays
/// one. `set_entry` makes the dictionaries that are missing on the way. Throw FileFault, and leave the file as
/// it was; for `unset_entry` an entry that is not there is none.
void set_entry(const std::string& path, std::string_view key_path, plist::Ref<plist::Value> value);
void unset_entry(const std::string& path, std::string_view key_path);

}  // namespace corvane::tools
