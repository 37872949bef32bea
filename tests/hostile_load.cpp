// The real daemon, with 256 descriptors, under everything that strangers can do to it at once, while honest
// clients ask without a pause. Passes if every honest request is answered and the daemon is afterwards as it was.
//
// Usage: hostile_load [--medium|--long]

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "client/client.h"
#include "fuzz/random_frames.h"
#include "tests/support/daemon_process.h"
#include "wire/frame_reader.h"
#include "wire/limits.h"
#include "wire/socket_address.h"

namespace corvane {

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using testing::eventually;

constexpr rlim_t daemon_descriptors = 256;
constexpr size_t honest_clients = 8;

constexpr double processor_share_limit = 0.05;
constexpr size_t log_limit = 2 * 65536;

#ifdef CORVANE_SANITIZE
constexpr size_t memory_growth_limit = SIZE_MAX / 2;  // sanitizers keep what is freed
#else
constexpr size_t memory_growth_limit = size_t{8} << 20;  // what the allocator may keep of the worst moment
#endif

struct Form {
  const char* option;
  size_t connections;
  size_t frames;
  size_t descriptors;
  size_t stops;
  std::chrono::milliseconds between_stops;
  std::chrono::seconds at_most;
};

constexpr Form forms[] = {{"--short", 1000, 20'000, 500, 2, 300ms, 20s},
                          {"--medium", 5000, 150'000, 5000, 4, 3s, 240s},
                          {"--long", 20'000, 1'000'000, 20'000, 8, 4s, 450s}};

/// A connection on which nothing waits for the daemon for long.
class HostileClient {
 public:
  explicit HostileClient(const std::string& socket)
      : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), reader_(wire::response_limit) {
    const wire::SocketAddress address(socket);
    // The backlog may be full.
    for (int i = 0; i < 500 && connect(socket_, address.get(), address.size()) != 0; ++i) usleep(2000);
  }
  ~HostileClient() { close(socket_); }
  HostileClient(const HostileClient&) = delete;
  HostileClient& operator=(const HostileClient&) = delete;

  /// Sends everything, and reads what comes meanwhile. False where the daemon closes the connection or takes
  /// nothing.
  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      pollfd state{socket_, POLLIN | POLLOUT, 0};
      if (poll(&state, 1, 2000) <= 0) return false;
      if ((state.revents & (POLLIN | POLLHUP)) != 0 && !read()) return false;
      if ((state.revents & POLLOUT) == 0) continue;
      const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno != EAGAIN) return false;
      if (sent > 0) bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
  }

  /// Sends without reading. False where the daemon does not take everything at once.
  bool send_only(std::string_view bytes) {
    return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }

  bool send_with_descriptors(std::string_view bytes, const std::array<int, 8>& descriptors) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptors)] = {};
    iovec content{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptors);
    std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof descriptors);
    return sendmsg(socket_, &message, MSG_NOSIGNAL) >= 0 || errno == EAGAIN;
  }

  /// Reads what has come. False at the end of the connection.
  bool read() {
    for (;;) {
      const auto buffer = reader_.prepare();
      const ssize_t count = recv(socket_, buffer.data(), buffer.size(), 0);
      if (count < 0) return errno == EAGAIN;
      if (count == 0) return false;
      reader_.commit(static_cast<size_t>(count));
      for (wire::Frame frame; reader_.next(frame) == wire::FrameReader::Status::frame;) ++answers_;
    }
  }

  size_t answers() const { return answers_; }

 private:
  const int socket_;
  wire::FrameReader reader_;
  size_t answers_ = 0;
};

/// What strangers do, each on a thread of its own: some a given number of times, some until those are done.
class Attack {
 public:
  Attack(const Form& form, const testing::DeviceRoot& root, pid_t daemon)
      : form_(form),
        public_(root.socket(wire::public_service)),
        admin_(root.socket(wire::admin_service)),
        notifications_(root.socket(wire::notification_service)),
        daemon_(daemon),
        deadline_(start_ + form.at_most) {}

  void run() {
    const size_t part = form_.frames / 10;
    std::vector<std::thread> counted, endless;
    counted.emplace_back([this] { connect_and_vanish(); });
    counted.emplace_back([this] { send_descriptors(); });
    counted.emplace_back([&, this] { send_random_frames(public_, 4, 5 * part); });
    counted.emplace_back([&, this] { send_random_frames(public_, 5, 4 * part); });
    counted.emplace_back([&, this] { send_random_frames(admin_, 6, part); });
    endless.emplace_back([this] { stop_and_continue_the_daemon(); });
    endless.emplace_back([this] { leave_requests_half_sent(); });
    endless.emplace_back([this] { ask_for_images_without_reading(); });
    endless.emplace_back([this] { write_to_the_notification_socket(); });
    for (std::thread& each : counted) each.join();
    over_ = true;
    for (std::thread& each : endless) each.join();
  }

  bool took_place() const {
    return connections_ > 0 && descriptors_ > 0 && answers_ > 0 && half_requests_ > 0 && unread_ > 0 &&
           notes_ > 0 && stops_ > 0;
  }

  void print() const {
    std::printf(
        "attack: %.1f s, %zu connections that vanished, %zu random frames (%zu answers), %zu descriptors, "
        "%zu half requests, %zu requests for images without reading, %zu frames to the notification socket, "
        "%zu stops\n",
        std::chrono::duration<double>(steady_clock::now() - start_).count(), connections_.load(), frames_.load(),
        answers_.load(), descriptors_.load(), half_requests_.load(), unread_.load(), notes_.load(), stops_.load());
  }

 private:
  bool before_deadline() const { return steady_clock::now() < deadline_; }
  void sleep_unless_over(std::chrono::milliseconds time) const {
    for (const auto end = steady_clock::now() + time; !over_ && steady_clock::now() < end;) {
      std::this_thread::sleep_for(10ms);
    }
  }

  // Fills the table of connections, and closes connections again at random.
  void connect_and_vanish() {
    std::mt19937_64 random(1);
    std::vector<std::unique_ptr<HostileClient>> open;
    const size_t most = wire::connection_limits(daemon_descriptors).public_connections;
    for (; connections_ < form_.connections && before_deadline(); ++connections_) {
      open.push_back(std::make_unique<HostileClient>(public_));
      while (open.size() >= most || (!open.empty() && random() % 100 < 45)) {
        std::swap(open[random() % open.size()], open.back());
        open.pop_back();
      }
      if (random() % 4 == 0) std::this_thread::sleep_for(1ms);
    }
  }

  // Sends the first part of a request on 24 connections, and holds them for longer than the daemon waits.
  void leave_requests_half_sent() {
    std::mt19937_64 random(2);
    const std::string request = testing::request(std::string(5000, 's'));
    while (!over_) {
      std::deque<HostileClient> open;
      for (int i = 0; i < 24; ++i) {
        half_requests_ += open.emplace_back(public_).send_only(request.substr(0, 1 + random() % 5000));
      }
      sleep_unless_over(6s);
    }
  }

  // Asks for 50 times 4 MiB on each of 8 connections, and reads nothing.
  void ask_for_images_without_reading() {
    const std::string request = testing::request(wire::copy_regulatory_images);
    while (!over_) {
      std::deque<HostileClient> open;
      for (int i = 0; i < 8; ++i) {
        HostileClient& client = open.emplace_back(public_);
        for (int k = 0; k < 50; ++k) unread_ += client.send_only(request);
      }
      sleep_unless_over(2s);
    }
  }

  // Sends good and bad frames in batches, on each connection until one with a bad header.
  void send_random_frames(const std::string& socket, uint64_t seed, size_t count) {
    constexpr size_t batch_size = 64;
    fuzz::RandomFrames frames(seed);
    for (size_t sent = 0; sent < count && before_deadline();) {
      HostileClient client(socket);
      for (bool is_last = false; !is_last && sent < count; sent += batch_size, frames_ += batch_size) {
        std::string batch;
        for (size_t i = 0; i < batch_size; ++i) batch += frames.next();
        is_last = frames.below(8) == 0;
        if (is_last) batch += frames.next_with_bad_header();
        if (!client.send(batch)) break;
      }
      client.read();
      answers_ += client.answers();
    }
  }

  void write_to_the_notification_socket() {
    fuzz::RandomFrames frames(9);
    while (!over_) {
      HostileClient client(notifications_);
      if (frames.below(4) != 0) notes_ += client.send_only(frames.next());
      std::this_thread::sleep_for(2ms);
    }
  }

  // Sends requests and parts of them, each with descriptors that the daemon has to get rid of.
  void send_descriptors() {
    std::array<int, 8> descriptors;
    for (int& each : descriptors) each = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const std::string request = testing::request("descriptors");
    std::mt19937_64 random(3);
    while (descriptors_ < form_.descriptors && before_deadline()) {
      HostileClient client(random() % 8 == 0 ? notifications_ : public_);
      for (int i = 0; i < 50 && descriptors_ < form_.descriptors; ++i) {
        const std::string part = request.substr(0, 1 + random() % request.size());
        if (!client.send_with_descriptors(part, descriptors) || !client.read()) break;
        descriptors_ += descriptors.size();
      }
    }
    for (const int each : descriptors) close(each);
  }

  // Every fourth time for longer than the daemon waits for any client.
  void stop_and_continue_the_daemon() {
    for (; !over_ && stops_ < form_.stops; ++stops_) {
      sleep_unless_over(form_.between_stops);
      kill(daemon_, SIGSTOP);
      std::this_thread::sleep_for(stops_ % 4 == 3 ? 7s : 400ms);
      kill(daemon_, SIGCONT);
    }
  }

  const Form& form_;
  const std::string public_, admin_, notifications_;
  const pid_t daemon_;
  const steady_clock::time_point start_ = steady_clock::now();
  const steady_clock::time_point deadline_;
  std::atomic<bool> over_ = false;
  std::atomic<size_t> connections_ = 0, frames_ = 0, answers_ = 0, descriptors_ = 0, half_requests_ = 0,
                      unread_ = 0, notes_ = 0, stops_ = 0;
};

/// Clients that ask without a pause, each on a thread of its own, until `stop`. Half of them ask as the client
/// library does; the others never let go of one connection, which the daemon must not close.
class HonestClients {
 public:
  explicit HonestClients(const testing::DeviceRoot& root) : root_(root) {
    for (size_t i = 0; i < honest_clients; ++i) {
      threads_.emplace_back(
          [this, i] { i % 2 == 0 ? ask_by_library(clients_[i]) : ask_on_one_connection(clients_[i]); });
    }
  }

  void stop() {
    over_ = true;
    for (std::thread& each : threads_) each.join();
  }

  bool all_answered() const {
    return std::all_of(clients_.begin(), clients_.end(), [](const Client& each) { return each.failure.empty(); });
  }

  void print(const char* when) const {
    std::vector<double> waits;
    for (const Client& each : clients_) {
      waits.insert(waits.end(), each.waits.begin(), each.waits.end());
      if (!each.failure.empty()) std::printf("unanswered: %s\n", each.failure.c_str());
    }
    std::sort(waits.begin(), waits.end());
    const auto at = [&](double share) { return waits[size_t(share * double(waits.size() - 1))]; };
    std::printf("honest waits %s: %zu, p50 %.0f us, p99 %.0f us, worst %.0f us\n", when, waits.size(), at(0.5),
                at(0.99), at(1));
  }

 private:
  struct Client {
    std::vector<double> waits;  ///< microseconds
    std::string failure;
  };

  // Until something goes wrong, which `ask` answers.
  template <class Ask>
  void ask_until_over(Client& client, Ask ask) {
    for (size_t i = 0; !over_ && client.failure.empty(); ++i) {
      const std::string selector =
          i % 16 == 0 ? std::string(wire::copy_regulatory_images) : "r" + std::to_string(i);
      const auto start = steady_clock::now();
      client.failure = ask(selector);
      client.waits.push_back(std::chrono::duration<double, std::micro>(steady_clock::now() - start).count());
    }
  }

  void ask_by_library(Client& client) {
    client::Connection connection(wire::public_service, root_.at(""), 30s);
    ask_until_over(client, [&](const std::string& selector) {
      const client::Answer answer = connection.ask(*wire::make_request(selector));
      const bool images = selector == wire::copy_regulatory_images;
      const bool right = answer.outcome == client::Outcome::answered && answer.response.failed != images &&
                         static_cast<bool>(answer.response.reply) == images;
      return right ? std::string() : "the library: " + answer.detail;
    });
  }

  void ask_on_one_connection(Client& client) {
    testing::RawClient raw(root_.socket(wire::public_service));
    ask_until_over(client, [&](const std::string& selector) {
      const auto response = raw.send(testing::request(selector)) ? raw.response() : nullptr;
      const auto* echo = response ? plist::cast<plist::String>(response->get(wire::request_key)) : nullptr;
      const bool right = echo != nullptr && echo->view() == selector;
      return right ? std::string() : "a connection was closed, or its answer was another one's";
    });
  }

  const testing::DeviceRoot& root_;
  std::atomic<bool> over_ = false;
  std::array<Client, honest_clients> clients_;
  std::vector<std::thread> threads_;
};

// ---- the daemon, looked at from outside ---------------------------------------------------------------

double processor_time(pid_t pid) {
  clockid_t clock;
  timespec time{};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) return NAN;
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

size_t private_bytes(pid_t pid) {
  const std::string rollup = testing::read_file("/proc/" + std::to_string(pid) + "/smaps_rollup");
  const size_t found = rollup.find("Private_Dirty:");
  return found == std::string::npos ? 0 : std::stoul(rollup.substr(found + 14)) * 1024;
}

// With as many connections as it takes, a full backlog, and no descriptor to accept another with.
double processor_share_at_the_limit(const testing::DaemonProcess& daemon, const std::string& socket) {
  std::deque<HostileClient> open;
  const size_t most = wire::connection_limits(daemon_descriptors).public_connections;
  while (open.size() < most) open.emplace_back(socket);
  eventually([&] { return daemon.descriptors() >= most; });
  rlimit before;
  prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &before);
  const rlimit none{1, before.rlim_max};
  prlimit(daemon.pid(), RLIMIT_NOFILE, &none, nullptr);
  while (open.size() < most + 200) open.emplace_back(socket);
  std::this_thread::sleep_for(100ms);
  const double used = processor_time(daemon.pid());
  std::this_thread::sleep_for(2s);
  const double share = (processor_time(daemon.pid()) - used) / 2;
  prlimit(daemon.pid(), RLIMIT_NOFILE, &before, nullptr);
  return share;
}

bool store_images(const testing::DeviceRoot& root) {
  auto images = plist::MutableArray::create();
  for (int i = 0; i < 4; ++i) images->append(plist::Data::create(std::string(size_t{1} << 20, 'i')));
  client::Connection admin(wire::admin_service, root.at(""), 30s);
  return client::store_regulatory_images(admin, images).outcome == client::Outcome::answered;
}

// ---- the story ----------------------------------------------------------------------------------------

bool check(bool holds, const char* what) {
  std::printf("%s: %s\n", what, holds ? "yes" : "NO");
  return holds;
}

int run(const Form& form) {
  const testing::DeviceRoot root;
  testing::Environment environment = root.environment();
  environment.erase("CORVANE_LOG_STDERR");  // which nothing bounds
  testing::DaemonProcess daemon(environment, daemon_descriptors);
  if (!check(eventually([&] { return store_images(root); }), "the daemon serves")) return 1;

  HonestClients alone(root);
  std::this_thread::sleep_for(1s);
  alone.stop();
  std::this_thread::sleep_for(300ms);
  const size_t descriptors_before = daemon.descriptors();
  const size_t memory_before = private_bytes(daemon.pid());

  HonestClients honest(root);
  Attack attack(form, root, daemon.pid());
  attack.run();
  attack.print();
  honest.stop();
  bool passed = check(attack.took_place(), "every kind of attack took place");
  passed &= check(honest.all_answered(), "every honest request was answered");

  const auto descriptors_are_back = [&] { return daemon.descriptors() <= descriptors_before; };
  passed &= check(eventually(descriptors_are_back), "the descriptors came back");
  std::this_thread::sleep_for(1s);
  const size_t memory_after = private_bytes(daemon.pid());
  passed &= check(memory_after <= memory_before + memory_growth_limit, "the memory came back");
  const double share = processor_share_at_the_limit(daemon, root.socket(wire::public_service));
  passed &= check(share < processor_share_limit, "the processor rests while nobody can be accepted");
  passed &= check(eventually(descriptors_are_back), "the descriptors came back again");

  const std::string log = testing::read_file(root.at("/var/mobile/Library/Logs/corvaned/corvaned.log")) +
                          testing::read_file(root.at("/var/mobile/Library/Logs/corvaned/corvaned.1.log"));
  const bool has_controls =
      std::any_of(log.begin(), log.end(), [](char c) { return std::iscntrl(c) && c != '\n'; });
  passed &= check(!log.empty() && log.size() <= log_limit, "the log stays within its bounds");
  passed &= check(!has_controls, "the log has no control characters");
  passed &= check(daemon.end(SIGTERM) == 0, "the daemon ends well");
  if (!passed) std::fputs(daemon.standard_error().c_str(), stderr);

  alone.print("alone");
  honest.print("under attack");
  std::printf("memory: %zu KiB before, %zu KiB after; processor at the limit: %.1f %%; log: %zu bytes\n",
              memory_before / 1024, memory_after / 1024, 100 * share, log.size());
  return passed ? 0 : 1;
}

}  // namespace

}  // namespace corvane

int main(int argc, char** argv) {
  const std::string_view wanted = argc > 1 ? argv[1] : "--short";
  for (const corvane::Form& form : corvane::forms) {
    if (form.option == wanted) return corvane::run(form);
  }
  std::fprintf(stderr, "usage: hostile_load [--medium|--long]\n");
  return 2;
}
