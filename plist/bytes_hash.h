#pragma once

#include <absl/hash/hash.h>
#include <absl/strings/string_view.h>

#include <cstddef>
#include <string_view>

namespace corvane::plist {

/// Seeded per process, so that nobody can choose keys that collide.
struct BytesHash {
  using is_transparent = void;
  size_t operator()(std::string_view bytes) const {
    return absl::Hash<absl::string_view>()(absl::string_view(bytes.data(), bytes.size()));
  }
};

}  // namespace corvane::plist
