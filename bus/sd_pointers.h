#pragma once

#include <memory>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

/// Owners of what libsystemd counts references of.
namespace corvane::bus {

struct SdDeleter {
  /// Without flushing, which would wait for a bus that does not read.
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
  void operator()(sd_event* loop) const { sd_event_unref(loop); }
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using BusPtr = std::unique_ptr<sd_bus, SdDeleter>;
using SlotPtr = std::unique_ptr<sd_bus_slot, SdDeleter>;
using MessagePtr = std::unique_ptr<sd_bus_message, SdDeleter>;
using LoopPtr = std::unique_ptr<sd_event, SdDeleter>;
using SourcePtr = std::unique_ptr<sd_event_source, SdDeleter>;

}  // namespace corvane::bus
