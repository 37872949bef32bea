#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace corvane {

/// What the daemon's process takes now. What cannot be read is 0.
struct ProcessStatus {
  int32_t pid = 0;
  int64_t started = 0;          ///< Unix time, by the clock as it is set now
  uint64_t uptime_seconds = 0;  ///< while the device slept included
  uint64_t resident_bytes = 0;
  uint64_t private_bytes = 0;  ///< those of them that no file backs
  size_t descriptors = 0;
  uint64_t descriptor_limit = 0;
};

struct DeviceStatus {
  std::string_view platform;          ///< "linux" or "simulated"
  bool has_telephony = false;         ///< the telephony service can be asked
  std::optional<bool> bus_connected;  ///< nothing where the device has no bus
};

}  // namespace corvane
