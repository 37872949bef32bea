// Round trips to the real daemon on the simulated device, and to the servers of trip_peer.cpp, all with the same
// clients. Usage: trips trips|growth [ROUNDS [MILLISECONDS]]

#include <atomic>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/child.h"
#include "bench/clients.h"
#include "client/client.h"
#include "client/methods.h"
#include "plist/writer.h"

namespace corvane::bench {

namespace {

namespace fs = std::filesystem;

size_t rounds = 7;
milliseconds slice{150};

/// The folder with this program, the peers and the daemon.
std::string program(const char* name) { return fs::read_symlink("/proc/self/exe").parent_path() / name; }

/// A daemon below a root of its own that serves images of one size.
class Daemon {
 public:
  Daemon() : child_({program("corvaned")}, environment(root_)), socket_(root_.socket(wire::public_service)) {
    images_frame(socket_);  // returns when it serves
  }

  void store(size_t size) {
    client::Connection admin(wire::admin_service, root_.at(""));
    const auto answer = client::store_regulatory_images(admin, plist::Data::create(std::string(size, 'i')));
    must(answer.outcome == client::Outcome::answered && !answer.response.failed, "storing images");
  }
  /// Writes the file itself: a request has a limit, a file has none.
  void write(size_t size) {
    const auto record = plist::MutableDictionary::create(2);
    record->set("RegulatoryImages", plist::Data::create(std::string(size, 'i')));
    record->set("ProductVersion", plist::String::create("9.1"));
    plist::ByteChain chain;
    must(!plist::encode_binary(*record, chain), "encoding images");
    fs::create_directories(fs::path(file()).parent_path());
    std::ofstream out(file(), std::ios::binary);
    for (const std::string_view piece : chain.pieces()) out << piece;
  }

  const std::string& socket() const { return socket_; }
  std::string at(const std::string& name) const { return root_.at("/" + name); }
  std::string file() const {
    return root_.at("/private/var/mobile/Library/cvd/regulatory_images/regulatory_images.plist");
  }

 private:
  static testing::Environment environment(const testing::DeviceRoot& root) {
    testing::Environment environment = root.environment();
    environment["CORVANE_LOG_STDERR"] = "0";
    return environment;
  }

  const testing::DeviceRoot root_;
  const Child child_;
  const std::string socket_;
};

using MakeClient = std::function<std::unique_ptr<Client>()>;

struct Subject {
  std::string name;
  MakeClient connect;
};

/// One daemon and its peers, which answer as many bytes as it does.
class Contest {
 public:
  Contest(std::string name, size_t images_size, const std::string* bus) : name_(std::move(name)) {
    if (images_size != 0) daemon_.store(images_size);
    begin(images_size);
    if (images_size != 0) add_bytes("fair limit", "fair", daemon_.file());
    if (images_size >= 1 << 20) add_bytes("read and send", "file", daemon_.file());
    if (bus != nullptr) add_buses(*bus);
  }
  /// For growth: the file is written, and there are no buses.
  Contest(std::string name, size_t images_size) : name_(std::move(name)) {
    daemon_.write(images_size);
    begin(images_size);
    add_bytes("read and send", "file", daemon_.file());
    add_bytes("fair limit", "fair", daemon_.file());
  }

  const std::string& name() const { return name_; }
  const std::vector<Subject>& subjects() const { return subjects_; }
  /// Checks that the daemon still gives the same answers.
  void check() const { must(images_frame(daemon_.socket()) == answer_, "the daemon's last answer"); }

 private:
  void begin(size_t images_size) {
    answer_ = images_frame(daemon_.socket());
    must(bench::images_size(answer_) == images_size, "the size of the daemon's images");
    std::ofstream(daemon_.at("answer"), std::ios::binary) << answer_;
    subjects_.push_back({"daemon", bytes(daemon_.socket(), answer_.size())});
    add_bytes("echo", "echo", daemon_.at("answer"));
  }
  /// A peer that sends what is in the file.
  void add_bytes(const char* name, const char* kind, const std::string& file) {
    const std::string socket = daemon_.at(kind);
    peers_.emplace_back(
        std::vector<std::string>{program("trip_peer"), kind, socket, std::to_string(request_.size()), file});
    subjects_.push_back({name, bytes(socket, fs::file_size(file))});
  }
  void add_buses(const std::string& bus) {
    const size_t size = answer_.size();
    const std::string socket = daemon_.at("bus");
    peers_.emplace_back(std::vector<std::string>{program("trip_peer"), "bus", socket, std::to_string(size)});
    close(connected_socket(socket));
    subjects_.push_back(
        {"sd-bus, peer to peer", [=] { return std::make_unique<BusClient>(socket, nullptr, size); }});
    peers_.emplace_back(std::vector<std::string>{program("trip_peer"), "on-bus", bus, std::to_string(size)});
    const auto name = std::make_shared<std::string>("com.norvane.bench" + std::to_string(size));
    const auto connect = [=] { return std::make_unique<BusClient>(bus, name->c_str(), size); };
    until([&] { return connect()->serves(); }, "a service on the bus");
    subjects_.push_back({"dbus-daemon", connect});
  }
  MakeClient bytes(const std::string& socket, size_t size) const {
    return [=, this] { return std::make_unique<ByteClient>(socket, request_, size); };
  }

  const std::string name_;
  const std::string request_ = testing::request(wire::copy_regulatory_images);
  Daemon daemon_;
  std::string answer_;
  std::deque<Child> peers_;
  std::vector<Subject> subjects_;
};

// ---- measuring ----------------------------------------------------------------------------------------

/// The figures of one slice's clients.
struct Trips {
  std::vector<double> microseconds;
  double seconds = 0;

  void report(const std::string& row, const std::string& what) {
    std::sort(microseconds.begin(), microseconds.end());
    figure(row, what, "us, p50", at(microseconds, 0.5));
    figure(row, what, "us, p99", at(microseconds, 0.99));
    figure(row, what, "requests/s", static_cast<double>(microseconds.size()) / seconds);
  }
};

void ask_until(Client& client, const std::atomic<bool>& over, std::vector<double>& microseconds) {
  do {
    const auto start = steady_clock::now();
    client.ask();
    microseconds.push_back(nanoseconds_since(start) / 1e3);
  } while (!over);
}

/// Clients, each in a thread of its own, that ask and wait for the answer, again and again.
Trips ask(const Subject& subject, size_t count) {
  std::vector<std::unique_ptr<Client>> clients;
  for (size_t i = 0; i < count; ++i) {
    clients.push_back(subject.connect());
    for (int warm = 0; warm < 3; ++warm) clients.back()->ask();
  }
  std::vector<std::vector<double>> waits(count);
  std::vector<std::thread> threads;
  std::atomic<bool> over = false;
  Trips trips;
  const auto start = steady_clock::now();
  for (size_t i = 1; i < count; ++i) threads.emplace_back([&, i] { ask_until(*clients[i], over, waits[i]); });
  std::thread clock([&] {
    std::this_thread::sleep_for(slice);
    over = true;
  });
  ask_until(*clients[0], over, waits[0]);
  clock.join();
  for (std::thread& thread : threads) thread.join();
  trips.seconds = nanoseconds_since(start) / 1e9;
  for (const auto& each : waits) trips.microseconds.insert(trips.microseconds.end(), each.begin(), each.end());
  return trips;
}

/// One client that always has 32 to 64 requests under way.
double pipelined(const Subject& subject) {
  const auto client = subject.connect();
  client->ask();
  const auto start = steady_clock::now();
  client->send(64);
  size_t done = 0;
  for (; steady_clock::now() - start < slice; done += 32) {
    client->receive(32);
    client->send(32);
  }
  const double seconds = nanoseconds_since(start) / 1e9;
  client->receive(64);
  return static_cast<double>(done) / seconds;
}

/// The requests go over the connections in turn.
Trips ask_in_turn(const Subject& subject, size_t count) {
  std::vector<std::unique_ptr<Client>> clients;
  for (size_t i = 0; i < count; ++i) {
    clients.push_back(subject.connect());
    clients.back()->ask();
  }
  Trips trips;
  const auto start = steady_clock::now();
  for (size_t next = 0; steady_clock::now() - start < slice; ++next) {
    const auto asked = steady_clock::now();
    clients[next % count]->ask();
    trips.microseconds.push_back(nanoseconds_since(asked) / 1e3);
  }
  trips.seconds = nanoseconds_since(start) / 1e9;
  return trips;
}

// ---- the two programmes -------------------------------------------------------------------------------

/// A bus of our own, with the limits of a session's.
class Bus {
 public:
  Bus()
      : child_({"/usr/bin/dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + configuration()}, {}, true) {
    close(connected_socket(socket()));
  }
  std::string socket() const { return folder_ + "/bus"; }
  ~Bus() { fs::remove_all(folder_); }

 private:
  std::string configuration() const {
    std::ofstream(folder_ + "/bus.conf") << bus_configuration(socket());
    return folder_ + "/bus.conf";
  }

  const std::string folder_ = testing::make_temporary_folder();
  const Child child_;
};

void run_trips() {
  const Bus bus;
  const std::string address = bus.socket();
  std::deque<Contest> contests;
  contests.emplace_back("none stored", 0, &address);
  contests.emplace_back("64 bytes", 64, &address);
  contests.emplace_back("1 MiB", 1 << 20, &address);
  for (size_t round = 0; round < rounds; ++round) {
    for (const Contest& contest : contests) {
      for (const size_t clients : {1u, 8u}) {
        const std::string row =
            contest.name() + ", " + std::to_string(clients) + (clients == 1 ? " client" : " clients");
        for (const Subject& subject : contest.subjects()) ask(subject, clients).report(row, subject.name);
      }
      if (contest.name() == "1 MiB") continue;
      for (const Subject& subject : contest.subjects()) {
        figure(contest.name() + ", pipelined", subject.name, "requests/s", pipelined(subject));
      }
    }
  }
  for (const Contest& contest : contests) contest.check();
}

void run_growth() {
  std::deque<Contest> contests;
  for (size_t kilobytes = 1; kilobytes <= 64 << 10; kilobytes *= 4) {
    contests.emplace_back(std::to_string(kilobytes << 10), kilobytes << 10);
  }
  for (size_t round = 0; round < rounds; ++round) {
    for (const Contest& contest : contests) {
      for (const Subject& subject : contest.subjects())
        ask(subject, 1).report("images " + contest.name(), subject.name);
    }
    for (const size_t connections : {1u, 5u, 20u, 100u, 250u, 500u}) {
      for (size_t i = 0; i < 2; ++i) {
        const Subject& subject = contests.front().subjects()[i];
        ask_in_turn(subject, connections).report("connections " + std::to_string(connections), subject.name);
      }
    }
  }
  for (const Contest& contest : contests) contest.check();
}

}  // namespace

}  // namespace corvane::bench

int main(int argc, char** argv) {
  using namespace corvane::bench;
  rounds = count_argument(argc, argv, 2, 7);
  slice = milliseconds(count_argument(argc, argv, 3, 150));
  const std::string programme = argc > 1 ? argv[1] : "";
  if (programme == "trips") {
    run_trips();
  } else if (programme == "growth") {
    run_growth();
  } else {
    die("usage: trips trips|growth [ROUNDS [MILLISECONDS]]");
  }
}
