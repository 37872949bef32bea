#pragma once

#include <cstdint>
#include <string>

#include "plist/value.h"

namespace corvane::plist {

inline Ref<String> error_at(std::string what, uint64_t byte) {
  return String::create(std::move(what) + " at byte " + std::to_string(byte));
}

}  // namespace corvane::plist
