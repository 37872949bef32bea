#pragma once

#include <string>
#include <vector>

#include "plist/value.h"

namespace corvane::tools {

/// Writes each data value found in `value` as a file into `folder` and returns the paths. A file is named after
/// the keys and positions that lead to the value, with "_" for every character but a-z, A-Z, 0-9, "-" and "_", cut
/// to 200 characters, and a number where that name is taken; its ending is that of the image format which the
/// first bytes show. Files of these names are overwritten. Throws std::runtime_error where a file could not be
/// written; those before it stay.
std::vector<std::string> save_data_values(const plist::Value& value, const std::string& folder);

}  // namespace corvane::tools
