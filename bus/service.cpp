// sd-bus keeps what the bus does not take yet, without a bound worth the name. So nothing large is made, and no
// notification is read, while it keeps anything. Whether it does is asked after each event and each notification.
// Small answers are made all the same, up to a limit.

#include "bus/service.h"

#include <cerrno>

#include "bus/report.h"

namespace corvane::bus {

/// What sd-bus calls.
struct Table {
  static Service& service(void* data) { return *static_cast<Service*>(data); }

  static int copy_images(sd_bus_message* call, void* data, sd_bus_error* error) {
    service(data).daemon_.connect();
    return service(data).image_calls_.add(call, error);
  }
  static int get_version(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* data,
                         sd_bus_error*) {
    return sd_bus_message_append(reply, "s", service(data).daemon_.version().c_str());
  }
  static int get_available(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* data,
                           sd_bus_error*) {
    return sd_bus_message_append(reply, "b", service(data).daemon_.is_available() ? 1 : 0);
  }

  static const sd_bus_vtable entries[];
};

const sd_bus_vtable Table::entries[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("CopyRegulatoryImages", SD_BUS_NO_ARGS, SD_BUS_RESULT("a{sv}", images), copy_images,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Version", "s", get_version, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Available", "b", get_available, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_SIGNAL_WITH_ARGS("Notification", SD_BUS_ARGS("s", name), 0),
    SD_BUS_SIGNAL_WITH_ARGS("Missed", SD_BUS_ARGS("t", count), 0),
    SD_BUS_VTABLE_END,
};

Service::Service(sd_event& loop, sd_bus& bus)
    : bus_(bus),
      daemon_(loop, {.changed = [this] { announce_change(); },
                     .notified = [this](const std::string& name) { notify(name); },
                     .missed = [this](uint64_t count) { tell_missed(count); }}),
      image_calls_(loop) {
  sd_bus_slot* slot = nullptr;
  require(sd_bus_add_object_vtable(&bus, &slot, object_path, interface_name, Table::entries, this),
          "sd_bus_add_object_vtable");
  object_.reset(slot);
  const auto after_event = [](sd_event_source*, void* self) {
    static_cast<Service*>(self)->go_on();
    return 0;
  };
  sd_event_source* source = nullptr;
  require(sd_event_add_post(&loop, &source, after_event, this), "sd_event_add_post");
  after_events_.reset(source);
  daemon_.connect();
}

bool Service::is_queue_empty() const {
  uint64_t queued = 0;
  sd_bus_get_n_queued_write(&bus_, &queued);
  require(queued > queue_limit ? -ENOBUFS : 0, "the bus takes no messages any more");
  return queued == 0;
}

void Service::go_on() {
  const bool is_idle = is_queue_empty();
  daemon_.set_reading(is_idle);
  if (!is_idle) return;
  if (untold_ > 0) tell_missed(0);
  image_calls_.go_on();
}

void Service::announce_change() {
  sd_bus_emit_properties_changed(&bus_, object_path, interface_name, "Available", "Version", nullptr);
}

// A name that D-Bus cannot carry is missed.
void Service::notify(const std::string& name) {
  const bool is_whole = name.find('\0') == std::string::npos;
  const bool is_sent =
      is_whole && sd_bus_emit_signal(&bus_, object_path, interface_name, "Notification", "s", name.c_str()) >= 0;
  if (!is_sent) return tell_missed(1);
  if (!is_queue_empty()) daemon_.set_reading(false);
}

// What cannot be told now is told when the bus has taken all that was sent.
void Service::tell_missed(uint64_t count) {
  untold_ += count;
  if (sd_bus_emit_signal(&bus_, object_path, interface_name, "Missed", "t", untold_) >= 0) untold_ = 0;
  if (!is_queue_empty()) daemon_.set_reading(false);
}

}  // namespace corvane::bus
