// The connection is opened again by a timer after it was refused or lost, never inside a callback of the
// connection itself. sd-event arms its timers and sd-bus its writes when an iteration begins, so that `run` must
// go on until there is nothing left; after many iterations it lets the run loop do other work, and has itself
// called again.

#include "platform/linux/system_bus.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <system_error>
#include <utility>

#include "platform/descriptor.h"

namespace corvane {

namespace {

constexpr char default_address[] = "unix:path=/run/dbus/system_bus_socket";
constexpr int iterations_at_once = 100;

void require(int result) {
  if (result < 0) throw std::system_error(-result, std::generic_category());
}

sd_event* create_loop() {
  sd_event* loop = nullptr;
  require(sd_event_new(&loop));
  return loop;
}

int drain(sd_event_source*, int descriptor, uint32_t, void*) {
  eventfd_t count = 0;
  eventfd_read(descriptor, &count);
  return 0;
}

int match_local(sd_bus* bus, const char* member, sd_bus_message_handler_t handler, void* data) {
  return sd_bus_match_signal(bus, nullptr, "org.freedesktop.DBus.Local", "/org/freedesktop/DBus/Local",
                             "org.freedesktop.DBus.Local", member, handler, data);
}

}  // namespace

BusTimer::BusTimer(sd_event& loop, std::function<void()> ready) : ready_(std::move(ready)) {
  const auto run_out = [](sd_event_source*, uint64_t, void* self) {
    auto& timer = *static_cast<BusTimer*>(self);
    if (!run_in_callback(timer.ready_)) timer.arm(bus_retry);
    return 0;
  };
  constexpr uint64_t accuracy = 1000;
  sd_event_source* source = nullptr;
  require(sd_event_add_time(&loop, &source, CLOCK_MONOTONIC, UINT64_MAX, accuracy, run_out, this));
  source_.reset(source);
  disarm();
}

void BusTimer::arm(std::chrono::milliseconds delay) {
  const std::chrono::microseconds microseconds = delay;
  sd_event_source_set_time_relative(source_.get(), static_cast<uint64_t>(microseconds.count()));
  sd_event_source_set_enabled(source_.get(), SD_EVENT_ONESHOT);
}

void BusTimer::disarm() { sd_event_source_set_enabled(source_.get(), SD_EVENT_OFF); }

SystemBus::SystemBus() : loop_(create_loop()), retry_(*loop_, [this] { connect(); }) {}

void SystemBus::start(RunLoop& run_loop, Handlers handlers) {
  handlers_ = std::move(handlers);
  Descriptor wake_up(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake_up.is_open()) require(-errno);
  sd_event_source* source = nullptr;
  require(sd_event_add_io(loop_.get(), &source, wake_up.number(), EPOLLIN, drain, nullptr));
  wake_source_.reset(source);
  sd_event_source_set_io_fd_own(source, 1);
  wake_up_ = wake_up.detach();

  Descriptor watched(fcntl(sd_event_get_fd(loop_.get()), F_DUPFD_CLOEXEC, 0));
  if (!watched.is_open()) require(-errno);
  run_loop.watch(watched.number(), [this] { run(); });
  watched.detach();
}

void SystemBus::run() {
  if (!std::exchange(is_started_, true)) connect();
  for (int i = 0; i < iterations_at_once; ++i) {
    if (sd_event_run(loop_.get(), 0) <= 0) return;
  }
  eventfd_write(wake_up_, 1);
}

void SystemBus::connect() {
  bus_.reset();
  const int result = open();
  if (result < 0) lose(result);
}

int SystemBus::open() {
  sd_bus* bus = nullptr;
  int result = sd_bus_new(&bus);
  if (result < 0) return result;
  bus_.reset(bus);
  const auto on_connected = [](sd_bus_message*, void* self, sd_bus_error*) {
    auto& system_bus = *static_cast<SystemBus*>(self);
    system_bus.is_missed_ = false;
    system_bus.is_connected_ = true;
    if (!run_in_callback([&] { system_bus.handlers_.connected(*system_bus.bus_); })) system_bus.lose(-ENOMEM);
    return 0;
  };
  const auto on_disconnected = [](sd_bus_message*, void* self, sd_bus_error*) {
    static_cast<SystemBus*>(self)->lose(-ECONNRESET);
    return 0;
  };
  const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  if ((result = sd_bus_set_address(bus, address != nullptr ? address : default_address)) < 0) return result;
  if ((result = sd_bus_set_bus_client(bus, 1)) < 0) return result;
  if ((result = sd_bus_negotiate_fds(bus, 0)) < 0) return result;
  if ((result = sd_bus_set_connected_signal(bus, 1)) < 0) return result;
  if ((result = match_local(bus, "Connected", on_connected, this)) < 0) return result;
  if ((result = match_local(bus, "Disconnected", on_disconnected, this)) < 0) return result;
  if ((result = sd_bus_attach_event(bus, loop_.get(), SD_EVENT_PRIORITY_NORMAL)) < 0) return result;
  return sd_bus_start(bus);
}

// One line for each time that a bus is missed, however often it is tried again.
void SystemBus::lose(int error) {
  is_connected_ = false;
  if (!std::exchange(is_missed_, true)) {
    report("no system bus: %s; the radio is unknown until there is one", std::strerror(-error));
  }
  run_in_callback([this] { handlers_.lost(); });
  retry_.arm(bus_retry);
}

}  // namespace corvane
