#pragma once

#include <cstdint>
#include <systemd/sd-bus.h>

#include "bus/daemon_link.h"
#include "bus/image_calls.h"
#include "bus/sd_pointers.h"

namespace corvane::bus {

inline constexpr char bus_name[] = "com.norvane.corvaned";
inline constexpr char object_path[] = "/com/norvane/corvaned";
inline constexpr char interface_name[] = "com.norvane.corvaned1";

/// How many messages may wait for the bus. With more the process ends, because the bus is stuck.
inline constexpr uint64_t queue_limit = 16'384;

/// The object on the bus: what it answers, and the signals that it sends. docs/dbus.md describes it.
class Service {
 public:
  /// Puts the object on the bus, which must be attached to the loop, and begins to look for the daemon. Both must
  /// outlive this. Throws std::system_error where the system refuses a thread.
  Service(sd_event& loop, sd_bus& bus);

 private:
  friend struct Table;

  bool is_queue_empty() const;
  void go_on();
  void announce_change();
  void notify(const std::string& name);
  void tell_missed(uint64_t count);

  sd_bus& bus_;
  DaemonLink daemon_;
  ImageCalls image_calls_;
  uint64_t untold_ = 0;  ///< missed notifications of which the bus has not been told
  SlotPtr object_;
  SourcePtr after_events_;
};

}  // namespace corvane::bus
