// From exec to the first answer, and the memory that is held then, idle. Usage: start_bench [ROUNDS]

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "bench/child.h"
#include "bench/clients.h"

namespace corvane::bench {

namespace {

namespace fs = std::filesystem;

std::string program(const char* name) { return fs::read_symlink("/proc/self/exe").parent_path() / name; }

/// Kibibytes under a name of the process's smaps_rollup.
double kibibytes(pid_t process, const std::string& name) {
  std::ifstream rollup("/proc/" + std::to_string(process) + "/smaps_rollup");
  for (std::string word; rollup >> word;) {
    double value = 0;
    if (word == name + ":" && rollup >> value) return value;
  }
  die("smaps_rollup has no " + name);
}

/// Starts a program, waits until `answers`, and looks at its memory after a moment of idleness.
template <class Answers>
void start(const char* what, const std::vector<std::string>& command,
           const std::map<std::string, std::string>& environment, Answers answers) {
  const Child child(command, environment);
  answers();
  figure("start", what, "ms", nanoseconds_since(child.started()) / 1e6);
  usleep(50'000);
  figure("memory", what, "KiB resident", kibibytes(child.pid(), "Rss"));
  const double dirty = kibibytes(child.pid(), "Private_Dirty");
  figure("memory", what, "KiB private", dirty + kibibytes(child.pid(), "Private_Clean"));
  figure("memory", what, "KiB private and written", dirty);
}

/// Whether the service answers a ping that is sent through the bus at the socket.
bool answers_ping(const std::string& bus_socket, const char* service) {
  sd_bus* bus = nullptr;
  sd_bus_new(&bus);
  sd_bus_set_address(bus, ("unix:path=" + bus_socket).c_str());
  sd_bus_set_bus_client(bus, 1);
  const bool answered =
      sd_bus_start(bus) >= 0 &&
      sd_bus_call_method(bus, service, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, nullptr) >= 0;
  sd_bus_flush_close_unref(bus);
  return answered;
}

void start_daemon() {
  const testing::DeviceRoot root;
  auto environment = root.environment();
  environment["CORVANE_LOG_STDERR"] = "0";
  start("daemon", {program("corvaned")}, environment, [&] { images_frame(root.socket(wire::public_service)); });
}

void start_empty() {
  int ends[2];
  must(pipe(ends) == 0, "pipe");
  const int standard_output = dup(STDOUT_FILENO);
  std::fflush(stdout);
  dup2(ends[1], STDOUT_FILENO);
  start("empty C++ program", {program("empty")}, {}, [&] {
    dup2(standard_output, STDOUT_FILENO);
    close(standard_output);
    char byte;
    must(read(ends[0], &byte, 1) == 1, "read");
  });
  close(ends[0]);
  close(ends[1]);
}

void start_buses() {
  const std::string folder = testing::make_temporary_folder();
  const std::string socket = folder + "/bus";
  std::ofstream(folder + "/bus.conf") << bus_configuration(socket);
  const std::vector<std::string> command{"/usr/bin/dbus-daemon", "--nofork", "--nopidfile",
                                         "--config-file=" + folder + "/bus.conf"};
  start("dbus-daemon", command, {},
        [&] { until([&] { return answers_ping(socket, "org.freedesktop.DBus"); }, "dbus-daemon"); });
  const char hostnamed[] = "/lib/systemd/systemd-hostnamed";
  if (fs::exists(hostnamed)) {
    fs::remove(socket);
    const Child bus(command);
    until([&] { return answers_ping(socket, "org.freedesktop.DBus"); }, "dbus-daemon");
    start("systemd-hostnamed", {hostnamed}, {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + socket}},
          [&] { until([&] { return answers_ping(socket, "org.freedesktop.hostname1"); }, "systemd-hostnamed"); });
  }
  fs::remove_all(folder);
}

}  // namespace

}  // namespace corvane::bench

int main(int argc, char** argv) {
  using namespace corvane::bench;
  for (size_t round = count_argument(argc, argv, 1, 15); round > 0; --round) {
    start_daemon();
    start_empty();
    start_buses();
  }
}
