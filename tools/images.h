#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"

namespace corvane::tools {

/// A data value and where it was found; borrowed from the value that holds it.
struct FoundData {
  std::string_view bytes;
  const std::vector<std::string>& path;  ///< the keys and positions that lead to it
  const plist::Dictionary* owner;        ///< the dictionary that it is an entry of; null in an array or set
};

/// Calls `visit` for each data value in `value`. Keys of a dictionary come in their order as text.
void for_each_data(const plist::Value& value, const std::function<void(const FoundData&)>& visit);

/// Writes each data value found in `value` as a file into `folder` and returns the paths. A file is named after
/// the keys and positions that lead to the value, with "_" for every character but a-z, A-Z, 0-9, "-" and "_", cut
/// to 200 characters, and a number where that name is taken; its ending is that of the image format which the
/// first bytes show. Files of these names are overwritten; a symbolic link is not followed. Throws
/// std::runtime_error where a file could not be written; those before it stay.
std::vector<std::string> save_data_values(const plist::Value& value, const std::string& folder);

}  // namespace corvane::tools
