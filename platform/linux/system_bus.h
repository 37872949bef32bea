#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "platform/report.h"
#include "platform/run_loop.h"

namespace corvane {

struct BusDeleter {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
  void operator()(sd_event* loop) const { sd_event_unref(loop); }
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using BusPtr = std::unique_ptr<sd_bus, BusDeleter>;
using BusSlot = std::unique_ptr<sd_bus_slot, BusDeleter>;  ///< a pending call or a match, which ends with it
using BusMessage = std::unique_ptr<sd_bus_message, BusDeleter>;

/// How long after a failure, a lost connection or a call without an answer it is tried again.
inline constexpr std::chrono::seconds bus_retry{3};
/// How long a call may take.
inline constexpr std::chrono::seconds bus_call_timeout{5};

/// Runs `work` inside a callback of sd-bus or sd-event, through which no exception may pass. False where memory
/// ran out.
template <class Work>
bool run_in_callback(Work work) noexcept {
  try {
    work();
    return true;
  } catch (const std::bad_alloc&) {
    report("out of memory: an event of the system bus was dropped");
    return false;
  }
}

/// A timer of the bus's event loop. It takes no memory to arm it.
class BusTimer {
 public:
  /// `ready` is called each time that the timer has run out; where memory runs out in it, again after `bus_retry`.
  /// Throws std::system_error where the system refuses.
  BusTimer(sd_event& loop, std::function<void()> ready);

  /// Runs out after `delay`, and not when it would have before.
  void arm(std::chrono::milliseconds delay);
  void disarm();

 private:
  const std::function<void()> ready_;
  std::unique_ptr<sd_event_source, BusDeleter> source_;
};

/// A connection to the system bus (DBUS_SYSTEM_BUS_ADDRESS), found again by itself after each loss. It lives in an
/// event loop of its own, of which a run loop watches one descriptor, the same for good. It never blocks. Main
/// thread.
class SystemBus {
 public:
  struct Handlers {
    std::function<void(sd_bus& bus)> connected;  ///< calls can be made, and are sent as soon as the bus takes them
    std::function<void()> lost;                  ///< no call of that connection will be answered
  };

  /// Throws std::system_error where the system refuses an event loop.
  SystemBus();
  SystemBus(const SystemBus&) = delete;
  SystemBus& operator=(const SystemBus&) = delete;

  /// Connects as soon as the run loop runs. Once. Throws std::system_error where the system refuses the
  /// descriptors.
  void start(RunLoop& run_loop, Handlers handlers);

  /// Any thread.
  bool is_connected() const { return is_connected_; }

  /// For timers.
  sd_event& loop() { return *loop_; }

 private:
  void run();
  void connect();
  int open();
  void lose(int error);

  std::unique_ptr<sd_event, BusDeleter> loop_;
  BusTimer retry_;
  int wake_up_ = -1;  ///< makes the loop's descriptor readable; its source closes it
  std::unique_ptr<sd_event_source, BusDeleter> wake_source_;
  Handlers handlers_;
  BusPtr bus_;
  bool is_started_ = false;
  std::atomic<bool> is_connected_{false};
  bool is_missed_ = false;  ///< that there is no bus has been reported
};

}  // namespace corvane
