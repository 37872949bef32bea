#pragma once

#include <string_view>

namespace corvane::fuzz {

/// Holds the readers, writers and `describe` to what they say, with the bytes of one file.
void try_property_list(std::string_view bytes);

}  // namespace corvane::fuzz
