#include <cstdio>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>

#include "daemon/corvane_admin.h"
#include "daemon/corvane_daemon.h"
#include "daemon/lockstart.h"
#include "daemon/log/cv_log.h"
#include "device/telephony.h"
#include "platform/ipc_listener.h"
#include "platform/linux/linux_device.h"
#include "platform/notifications.h"
#include "platform/process/start_up.h"
#include "platform/report.h"
#include "platform/run_loop.h"
#include "platform/simulated/simulated_device.h"
#include "platform/system/system_platform.h"
#include "platform/telephony.h"
#include "state/end_process.h"
#include "wire/messages.h"

namespace corvane {

namespace {

constexpr char out_of_memory[] = "out of memory";

// Null, and one line in `refusal`, where the daemon cannot run here.
std::unique_ptr<Device> open_device(const Environment& environment, std::string& refusal) {
  if (environment.simulated) return SimulatedDevice::open(environment.profile, refusal);
  return std::make_unique<LinuxDevice>(environment.root);
}

std::unique_ptr<Platform> start_platform(std::string& refusal) {
  const std::optional<Environment> environment = read_environment(refusal);
  if (!environment) return nullptr;
  try {
    std::unique_ptr<Device> device = open_device(*environment, refusal);
    if (device == nullptr || !prepare_process(environment->root, refusal)) return nullptr;
    return std::make_unique<SystemPlatform>(*environment, std::move(device));
  } catch (const std::system_error& error) {
    refusal = std::string("could not make the event loops: ") + error.what();
    return nullptr;
  }
}

void log_report(const char* text) noexcept { cv_log("platform", 0, "%s", text); }

// So that what a client or a restart sees is what the SIM says.
void store_changed_ark(data_ark* changed) {
  if (data_ark_dirty_count(changed) != 0) data_ark_store(changed);
}

// What lives as long as the process.
std::unique_ptr<CorvaneDaemon> daemon_object;
std::unique_ptr<CorvaneAdmin> admin_object;
DataArk ark;

std::unique_ptr<IpcListener> create_listener(std::string_view service_name, IpcAccess access) {
  try {
    return platform().create_listener(service_name, access);
  } catch (const std::system_error& error) {
    end_process("main", error.what());
  }
}

// Without its thread nothing will ever be served, and what is there by now waits for it to be taken down.
void create_request_queue() {
  try {
    platform().request_queue().create("CVPortHandler");
  } catch (const std::system_error& error) {
    end_process("main", error.what());
  }
}

struct Listeners {
  std::unique_ptr<IpcListener> admin, everyone;
};

void start_daemon(Listeners& listeners) {
  cv_log("main", 0, "____________________ Corvane startup _____________________");

  if (TelephonyCentre* centre = TelvoTelephonyCenterGetDefault()) {
    TelvoTelephonyCenterSetDefaultRunloop(*centre, platform().main_run_loop());
  }

  daemon_object = std::make_unique<CorvaneDaemon>();
  admin_object = std::make_unique<CorvaneAdmin>();
  set_radio_change_hook(store_changed_ark);
  ark = lockstart_local();
  daemon_object->setDark(ark.get());
  admin_object->set_ark(ark.get());

  listeners.admin = create_listener(wire::admin_service, IpcAccess::owner);
  listeners.everyone = create_listener(wire::public_service, IpcAccess::everyone);
  admin_object->set_listeners(*listeners.everyone, *listeners.admin);
  create_request_queue();
  listeners.admin->set_delegate(*admin_object);
  listeners.everyone->set_delegate(*daemon_object);
  platform().notifications().resume();
  listeners.admin->resume();
  listeners.everyone->resume();
}

int run_daemon() {
  Listeners listeners;
  try {
    start_daemon(listeners);
  } catch (const std::bad_alloc&) {
    end_process("main", out_of_memory);
  }
  platform().main_run_loop().run();
  return 0;
}

}  // namespace

}  // namespace corvane

int main() {
  std::string refusal;
  std::unique_ptr<corvane::Platform> platform;
  try {
    platform = corvane::start_platform(refusal);
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "corvaned: %s\n", corvane::out_of_memory);
    return 255;  // as where there is a log already: unlike a refusal, it may pass
  }
  if (platform == nullptr) {
    std::fprintf(stderr, "corvaned: %s\n", refusal.c_str());
    return 1;
  }
  corvane::install_platform(platform.get());
  corvane::set_report_sink(corvane::log_report);
  return corvane::run_daemon();
}
