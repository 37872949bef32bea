#pragma once

#include <string_view>

namespace corvane::fuzz {

/// Checks the promises of the readers, the writers and `describe` on one file.
void try_property_list(std::string_view bytes);

}  // namespace corvane::fuzz
