#pragma once

#include <map>
#include <string_view>

#include "plist/value.h"

namespace corvane::tools {

/// The entries of a dictionary by key, in the order of the keys' bytes; borrowed from the dictionary.
using SortedEntries = std::map<std::string_view, const plist::Value*>;

SortedEntries sorted(const plist::Dictionary& dictionary);

}  // namespace corvane::tools
