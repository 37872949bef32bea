#pragma once

#include <string>
#include <string_view>

#include "platform/hardware_registry.h"

namespace corvane {

/// The device tree of the running kernel. The node "HWTree:/baseband" is the folder baseband below
/// /sys/firmware/devicetree/base, and a property is a file of raw bytes in it. Without a device tree there are no
/// nodes. Any thread.
class LinuxHardwareRegistry final : public HardwareRegistry {
 public:
  /// `sys` is where sysfs is mounted.
  explicit LinuxHardwareRegistry(const std::string& sys) : tree_(sys + "/firmware/devicetree/base") {}

  bool has_node(std::string_view path) override;
  plist::Ref<plist::Value> copy_property(std::string_view path, std::string_view key) override;

 private:
  std::string folder_of(std::string_view path) const;

  const std::string tree_;
};

}  // namespace corvane
