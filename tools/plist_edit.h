#pragma once

#include <string>
#include <string_view>

#include "plist/value.h"
#include "tools/files.h"

namespace corvane::tools {

/// Edit the dictionary in a property-list file. `key_path` is the keys that lead to the entry, joined by dots.
/// `set_entry` creates the dictionaries that are missing above the entry. Where there is no
/// such entry, `unset_entry` leaves the file alone and returns false.
///
/// The file is replaced as a whole, by a rename, and keeps its encoding and its mode; a symbolic link stays a link
/// to it. Throw FileFault, and then the file is as it was.
void set_entry(const std::string& path, std::string_view key_path, plist::Ref<plist::Value> value);
bool unset_entry(const std::string& path, std::string_view key_path);

}  // namespace corvane::tools
