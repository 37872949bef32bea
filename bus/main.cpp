// A client of the daemon and of the system bus, in one event loop. It ends with the bus, and the service manager
// starts it again; the daemon may come and go.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <systemd/sd-daemon.h>

#include "bus/report.h"
#include "bus/service.h"

namespace corvane::bus {

namespace {

constexpr int wrong_usage = 2;
constexpr char default_address[] = "unix:path=/run/dbus/system_bus_socket";
constexpr char help[] =
    "Usage: corvane-bus [--help|--version]\n"
    "Puts corvaned on the system bus, as com.norvane.corvaned.\n"
    "\n"
    "Environment:\n"
    "  DBUS_SYSTEM_BUS_ADDRESS  the bus, if it is not the system's own\n"
    "  CORVANE_ROOT             the folder below which the daemon's sockets are\n";

/// Throws std::system_error where the result is a negative errno.
void check(int result, const char* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
}

// No descriptors are taken from others: closing them may block.
BusPtr connect_to_bus() {
  sd_bus* bus = nullptr;
  check(sd_bus_new(&bus), "no system bus");
  BusPtr owned(bus);
  const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  check(sd_bus_set_address(bus, address != nullptr ? address : default_address), "DBUS_SYSTEM_BUS_ADDRESS");
  check(sd_bus_set_bus_client(bus, 1), "no system bus");
  check(sd_bus_negotiate_fds(bus, 0), "no system bus");
  check(sd_bus_start(bus), "no system bus");
  check(sd_bus_set_exit_on_disconnect(bus, 1), "no system bus");
  return owned;
}

LoopPtr make_loop() {
  sd_event* loop = nullptr;
  check(sd_event_new(&loop), "no event loop");
  LoopPtr owned(loop);
  for (const int signal : {SIGTERM, SIGINT}) {
    check(sd_event_add_signal(loop, nullptr, signal, nullptr, nullptr), "no event loop");
  }
  return owned;
}

// Before there are threads, which inherit what is blocked.
void prepare_process() {
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  // Large images go back to the system at once, and are not kept for the next ones.
  mallopt(M_MMAP_THRESHOLD, 1 << 20);
  // A new process has all that this one has.
  std::set_new_handler([] {
    std::fputs("corvane-bus: out of memory\n", stderr);
    std::_Exit(EXIT_FAILURE);
  });
}

int serve() {
  prepare_process();
  const LoopPtr loop = make_loop();
  const BusPtr bus = connect_to_bus();
  check(sd_bus_attach_event(bus.get(), loop.get(), SD_EVENT_PRIORITY_NORMAL), "no event loop");
  const Service service(*loop, *bus);
  check(sd_bus_request_name(bus.get(), bus_name, 0), "the name com.norvane.corvaned cannot be had");
  sd_notify(0, "READY=1");
  const int status = sd_event_loop(loop.get());
  check(status, "event loop");
  if (status != EXIT_SUCCESS) report("the system bus is gone");
  sd_notify(0, "STOPPING=1");
  return status;
}

// The exit status: a full disk is noticed when the text is written out.
int print(const char* text) {
  return std::fputs(text, stdout) < 0 || std::fflush(stdout) != 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

int run(int argc, char** argv) {
  const std::string_view option = argc == 2 ? argv[1] : "";
  if (option == "--version") return print("corvane-bus " CORVANE_VERSION "\n");
  if (option == "--help") return print(help);
  if (argc > 1) {
    report("unknown arguments; see --help");
    return wrong_usage;
  }
  try {
    return serve();
  } catch (const std::system_error& error) {
    report(error.what());
    return EXIT_FAILURE;
  }
}

}  // namespace

}  // namespace corvane::bus

int main(int argc, char** argv) { return corvane::bus::run(argc, argv); }
