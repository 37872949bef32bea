#pragma once

#include <string_view>

#include "plist/value.h"

namespace corvane {

/// The hardware registry's device-tree plane. Any thread.
class HardwareRegistry {
 public:
  virtual ~HardwareRegistry() = default;

  /// Whether there is a node at `path`, such as "HWTree:/baseband".
  virtual bool has_node(std::string_view path) = 0;
  /// A property of a node, owned, or null where the node or the property is missing. Bytes are data.
  virtual plist::Ref<plist::Value> copy_property(std::string_view path, std::string_view key) = 0;
};

}  // namespace corvane
