#pragma once

#include <string>
#include <vector>

#include "plist/value.h"

namespace corvane::tools {

/// Writes each data value found in `value` as a file into `folder`, named after the keys and positions that
/// lead to it, with the ending of the image format that its first bytes show. The paths written. Throws
/// std::runtime_error with one line where a file could not be written.
std::vector<std::string> save_data_values(const plist::Value& value, const std::string& folder);

}  // namespace corvane::tools
