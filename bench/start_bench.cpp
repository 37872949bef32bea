// From exec to the first answer, and the memory that is held then, idle. Usage: start_bench [ROUNDS]

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "bench/child.h"
#include "bench/clients.h"

namespace corvane::bench {

namespace {

namespace fs = std::filesystem;

std::string program(const char* name) { return fs::read_symlink("/proc/self/exe").parent_path() / name; }

/// Kibibytes of a process's memory, from its smaps.
struct Memory {
  explicit Memory(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process);
    const std::string executable = fs::read_symlink(folder + "/exe");
    std::ifstream maps(folder + "/smaps");
    bool of_executable = false;
    for (std::string line; std::getline(maps, line);) {
      std::istringstream words(line);
      std::string name;
      double value = 0;
      if (!(words >> name) || name.back() != ':') {
        of_executable = line.ends_with(" " + executable);
        continue;
      }
      words >> value;
      if (name == "Rss:") resident += value;
      if (name == "Private_Clean:") (of_executable ? own_executable : others_clean) += value;
      if (name == "Private_Dirty:") written += value;
    }
    must(resident > 0, "smaps");
  }

  double resident = 0;
  double written = 0;
  double own_executable = 0;
  double others_clean = 0;
};

/// Starts a program, waits until `answers`, and looks at its memory after a moment of idleness.
template <class Answers>
void start(const char* what, const std::vector<std::string>& command,
           const std::map<std::string, std::string>& environment, Answers answers) {
  const Child child(command, environment, true);
  answers();
  figure("start", what, "ms", nanoseconds_since(child.started()) / 1e6);
  usleep(50'000);
  const Memory memory(child.pid());
  figure("memory", what, "KiB resident", memory.resident);
  figure("memory", what, "KiB private", memory.written + memory.own_executable + memory.others_clean);
  figure("memory", what, "KiB written", memory.written);
  figure("memory", what, "KiB executable", memory.own_executable);
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
    const Child bus(command, {}, true);
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
