#pragma once

#include <string_view>

#include "plist/value.h"

namespace corvane {

/// The preference store: values by domain and key. Any thread.
class Preferences {
 public:
  virtual ~Preferences() = default;

  /// An owned value as it is at this moment, or null where none is set.
  virtual plist::Ref<plist::Value> copy_value(std::string_view domain, std::string_view key) = 0;
};

}  // namespace corvane
