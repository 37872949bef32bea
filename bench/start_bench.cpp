// From exec to the first answer, and the memory that is held then, idle. Usage: start_bench [ROUNDS]

#include <cerrno>
#include <cstdlib>
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

/// Starts a program, waits until `answers`, and looks at its memory after a moment of idleness, when it is
/// `settled`.
template <class Answers, class Settled>
void start(const char* what, const std::vector<std::string>& command,
           const std::map<std::string, std::string>& environment, Answers answers, Settled settled) {
  const Child child(command, environment, true);
  answers();
  figure("start", what, "ms", nanoseconds_since(child.started()) / 1e6);
  usleep(50'000);
  settled();
  const Memory memory(child.pid());
  figure("memory", what, "KiB resident", memory.resident);
  figure("memory", what, "KiB private", memory.written + memory.own_executable + memory.others_clean);
  figure("memory", what, "KiB written", memory.written);
  figure("memory", what, "KiB executable", memory.own_executable);
}

template <class Answers>
void start(const char* what, const std::vector<std::string>& command,
           const std::map<std::string, std::string>& environment, Answers answers) {
  start(what, command, environment, answers, [] {});
}

/// A dbus-daemon with a socket and a folder of its own.
class Bus {
 public:
  Bus() : folder_(testing::make_temporary_folder()) {
    std::ofstream(folder_ + "/bus.conf") << bus_configuration(socket());
  }
  ~Bus() { fs::remove_all(folder_); }

  std::string socket() const { return folder_ + "/bus"; }
  std::string address() const { return "unix:path=" + socket(); }
  std::vector<std::string> command() const {
    return {"/usr/bin/dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + folder_ + "/bus.conf"};
  }
  void await() const {
    until([&] { return answers_ping("org.freedesktop.DBus"); }, "dbus-daemon");
  }
  bool answers_ping(const char* service) const {
    return ask([&](sd_bus* bus) {
      return sd_bus_call_method(bus, service, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, nullptr);
    });
  }
  /// Whether somebody is connected besides the bus itself and the one who asks.
  bool has_client() const {
    return ask([](sd_bus* bus) {
      char** names = nullptr;
      if (const int failure = sd_bus_list_names(bus, &names, nullptr); failure < 0) return failure;
      int count = 0;
      for (char** name = names; *name != nullptr; ++name) {
        ++count;
        std::free(*name);
      }
      std::free(names);
      return count > 2 ? 0 : -ENOENT;
    });
  }

 private:
  template <class Question>
  bool ask(Question question) const {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    sd_bus_set_address(bus, address().c_str());
    sd_bus_set_bus_client(bus, 1);
    const bool answered = sd_bus_start(bus) >= 0 && question(bus) >= 0;
    sd_bus_flush_close_unref(bus);
    return answered;
  }

  const std::string folder_;
};

template <class Settled>
void start_daemon(const char* what, const testing::Environment& changes, Settled settled) {
  const testing::DeviceRoot root;
  auto environment = root.environment();
  for (const auto& [name, value] : changes) environment[name] = value;
  environment["CORVANE_LOG_STDERR"] = "0";
  start(
      what, {program("corvaned")}, environment, [&] { images_frame(root.socket(wire::public_service)); }, settled);
}

void start_daemons() {
  start_daemon("daemon", {}, [] {});
  const Bus bus;
  const testing::Environment on_linux{
      {"CORVANE_PLATFORM", "linux"}, {"CORVANE_PROFILE", ""}, {"DBUS_SYSTEM_BUS_ADDRESS", bus.address()}};
  start_daemon("daemon on Linux, no bus", on_linux, [] {});
  const Child dbus_daemon(bus.command(), {}, true);
  bus.await();
  start_daemon("daemon on Linux, on a bus", on_linux,
               [&] { must(bus.has_client(), "the daemon is not on the bus"); });
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
  const Bus bus;
  start("dbus-daemon", bus.command(), {}, [&] { bus.await(); });
  const char hostnamed[] = "/lib/systemd/systemd-hostnamed";
  if (!fs::exists(hostnamed)) return;
  fs::remove(bus.socket());
  const Child dbus_daemon(bus.command(), {}, true);
  bus.await();
  start("systemd-hostnamed", {hostnamed}, {{"DBUS_SYSTEM_BUS_ADDRESS", bus.address()}},
        [&] { until([&] { return bus.answers_ping("org.freedesktop.hostname1"); }, "systemd-hostnamed"); });
}

}  // namespace

}  // namespace corvane::bench

int main(int argc, char** argv) {
  using namespace corvane::bench;
  for (size_t round = count_argument(argc, argv, 1, 15); round > 0; --round) {
    start_daemons();
    start_empty();
    start_buses();
  }
}
