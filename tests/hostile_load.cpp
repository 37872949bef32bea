// The real daemon, with 256 descriptors, between honest clients that ask without a pause and whatever others can
// do to it: crowds that connect and vanish, half requests, readers that stop reading, random and mutated frames,
// descriptors passed along, and being stopped. It passes where every honest request is answered and the daemon is
// afterwards as it was before.
//
// Usage: hostile_load [--medium|--long]

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <optional>
#include <poll.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "client/client.h"
#include "tests/support/daemon_process.h"
#include "wire/frame_reader.h"
#include "wire/limits.h"
#include "wire/socket_address.h"

namespace corvane {

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using Random = std::mt19937_64;

constexpr rlim_t daemon_descriptors = 256;
constexpr size_t honest_clients = 8;
constexpr size_t mebibyte = size_t{1} << 20;

// What the allocator may keep of the worst moment.
constexpr size_t memory_bound = 8 * mebibyte;
constexpr double processor_bound = 0.05;
constexpr size_t log_bound = 2 * 65536;

#ifdef CORVANE_SANITIZE
constexpr bool measures_memory = false;
#else
constexpr bool measures_memory = true;
#endif

struct Form {
  const char* name;
  size_t connects;
  size_t frames;
  size_t passed;
  int stops;
  std::chrono::milliseconds between_stops;
  std::chrono::seconds at_most;
};

constexpr Form forms[] = {{"--short", 1000, 20'000, 500, 2, 300ms, 20s},
                          {"--medium", 5000, 150'000, 5000, 4, 3s, 240s},
                          {"--long", 20'000, 1'000'000, 20'000, 8, 8s, 450s}};

size_t pick(Random& random, size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(random); }

// ---- sockets ------------------------------------------------------------------------------------------

/// A client that never waits for long.
class Peer {
 public:
  explicit Peer(const std::string& socket)
      : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), reader_(wire::response_limit) {
    const wire::SocketAddress address(socket);
    // The backlog may be full.
    for (int i = 0; i < 500 && connect(socket_, address.get(), address.size()) != 0; ++i) usleep(2000);
  }
  ~Peer() { close(socket_); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  /// Sends while it reads what comes. False where the daemon has closed the connection or takes nothing.
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

  /// Sends without reading anything, as far as that goes.
  bool send_only(std::string_view bytes) {
    return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }

  /// The bytes in one message with descriptors.
  bool pass(std::string_view bytes, const std::array<int, 8>& descriptors) {
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

  /// Takes what has come; false at the end of the connection.
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

  bool is_closed() const {
    pollfd state{socket_, 0, 0};
    return poll(&state, 1, 0) > 0;
  }
  size_t answers() const { return answers_; }

 private:
  const int socket_;
  wire::FrameReader reader_;
  size_t answers_ = 0;
};

// ---- frames -------------------------------------------------------------------------------------------

std::string binary_body(const plist::Value& value) {
  const std::string framed = testing::frame(value);
  return framed.substr(wire::header_size);
}

/// Bodies of requests, good ones and others, and what can be made of them.
class Bodies {
 public:
  explicit Bodies(uint64_t seed) : random_(seed) {
    for (const std::string_view selector :
         {std::string_view("something"), wire::store_regulatory_images, wire::copy_entitlements}) {
      auto request = wire::make_request(selector);
      add(*request);
      request->set(wire::pid_key, plist::Number::create_int32(1));
      request->set("real", plist::Number::create_real(0.5));
      request->set("date", plist::Date::create(1e9));
      request->set("data", plist::Data::create(std::string(300, 'd')));
      request->set("text", plist::String::create("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\x01"));
      auto nest = plist::MutableArray::create();
      for (int i = 0; i < 20; ++i) {
        auto outer = plist::MutableArray::create();
        outer->append(nest);
        outer->append(plist::String::create(std::to_string(i)));
        nest = outer;
      }
      request->set("nest", nest);
      auto set = plist::MutableSet::create();
      for (int i = 0; i < 20; ++i) set->add(plist::Number::create_int32(i));
      request->set("set", set);
      add(*request);
    }
    images_ = binary_body(*wire::make_request(wire::copy_regulatory_images));
  }

  std::string next() {
    if (pick(random_, 5000) == 0) return images_;
    std::string body = seeds_[pick(random_, seeds_.size())];
    switch (pick(random_, 8)) {
      case 0:
        return body;
      case 1:
        body.assign(pick(random_, 400), '\0');
        for (char& c : body) c = byte();
        if (pick(random_, 2) == 0) body.insert(0, "bplist00");
        return body;
      case 2:
        return body.substr(0, pick(random_, body.size() + 1));
      case 3: {
        const std::string& other = seeds_[pick(random_, seeds_.size())];
        return body.substr(0, pick(random_, body.size())) + other.substr(pick(random_, other.size()));
      }
      default:
        for (size_t changes = 1 + pick(random_, 6); changes > 0 && !body.empty(); --changes) change(body);
        return body;
    }
  }

  /// A header that lies, and some bytes. Nothing that follows on the connection is a frame.
  std::string broken_frame() {
    std::string frame = testing::frame(next(), byte_as_kind());
    const size_t at = pick(random_, wire::header_size);
    frame[at] = byte();
    return frame;
  }
  Random& random() { return random_; }

 private:
  void add(const plist::Value& value) {
    seeds_.push_back(binary_body(value));
    std::string xml;
    if (!plist::encode_xml(value, xml)) seeds_.push_back(xml);
  }
  char byte() { return static_cast<char>(random_()); }
  uint8_t byte_as_kind() { return static_cast<uint8_t>(pick(random_, 3)); }
  void change(std::string& body) {
    const size_t at = pick(random_, body.size());
    switch (pick(random_, 4)) {
      case 0:
        body[at] = static_cast<char>(body[at] ^ (1 << pick(random_, 8)));
        return;
      case 1:
        body[at] = "\x00\xff\x7f\x80\x01<>&"[pick(random_, 8)];
        return;
      case 2:
        body.insert(at, body.substr(pick(random_, body.size()), pick(random_, 64)));
        return;
      default:
        body.erase(at, pick(random_, 16));
    }
  }

  Random random_;
  std::vector<std::string> seeds_;
  std::string images_;
};

// ---- the load -----------------------------------------------------------------------------------------

struct Honest {
  std::vector<double> waits;             ///< microseconds
  std::vector<double> waits_over_stops;  ///< of requests during which the daemon was stopped
  size_t unanswered = 0;
  std::string first_failure;
};

struct Tally {
  std::atomic<size_t> connects = 0, frames = 0, answers = 0, passed = 0, halves = 0, unread = 0, notes = 0;
  std::atomic<int> stops = 0;
};

double at(const std::vector<double>& sorted, double share) {
  if (sorted.empty()) return 0;
  return sorted[static_cast<size_t>(share * static_cast<double>(sorted.size() - 1))];
}

double processor_time(pid_t pid) {
  clockid_t clock;
  timespec time{};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) return NAN;
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// Requests of one client.
struct Asked {
  size_t count;
  double median_wait;  ///< microseconds
};

class Load {
 public:
  explicit Load(const Form& form)
      : form_(form), daemon_(environment(), daemon_descriptors), public_(root_.socket(wire::public_service)) {}

  int run();

 private:
  testing::Environment environment() const {
    auto all = root_.environment();
    all.erase("CORVANE_LOG_STDERR");  // which nothing bounds
    return all;
  }
  bool store(size_t image_size) {
    auto images = plist::MutableArray::create();
    for (int i = 0; i < 4; ++i) images->append(plist::Data::create(std::string(image_size, 'i')));
    client::Connection admin(wire::admin_service, root_.at(""), 30s);
    return client::store_regulatory_images(admin, images).outcome == client::Outcome::answered;
  }

  void ask(size_t number, const std::atomic<bool>& over, Honest& honest);
  std::vector<double> measure_honest(size_t clients, steady_clock::duration time);
  Asked ask_admin(const std::string& request, const std::atomic<bool>& over) const;
  void measure_logging() const;

  void crowd();
  void stall();
  void stop_reading();
  void send_frames(const std::string& socket, uint64_t seed, size_t share);
  void disturb_notifications();
  void pass_descriptors();
  void stop_the_daemon();
  void attack();

  size_t private_bytes() const;
  double processor_share_at_the_limit();
  bool log_is_in_bounds() const;
  bool check(bool holds, const char* what) {
    std::printf("%s: %s\n", what, holds ? "yes" : "NO");
    passed_ &= holds;
    return holds;
  }

  const Form& form_;
  const testing::DeviceRoot root_;
  testing::DaemonProcess daemon_;
  const std::string public_;
  Tally tally_;
  std::atomic<bool> attack_over_ = false;
  std::atomic<bool> counted_over_ = false;  ///< those who do a certain number of things have done it
  std::atomic<unsigned> stop_epoch_ = 0;    ///< odd while the daemon is stopped
  steady_clock::time_point deadline_;
  bool passed_ = true;
};

// Half of them as the client library asks, half on a connection of which nothing may be lost.
void Load::ask(size_t number, const std::atomic<bool>& over, Honest& honest) {
  client::Connection library(wire::public_service, root_.at(""), 30s);
  std::optional<testing::RawClient> raw;
  for (size_t i = 0; !over; ++i) {
    const bool images = i % 16 == 0;
    const std::string selector(images ? std::string(wire::copy_regulatory_images) : "r" + std::to_string(i));
    const unsigned epoch = stop_epoch_;
    const auto start = steady_clock::now();
    std::string failure;
    if (number % 2 == 0) {
      const client::Answer answer = library.ask(*wire::make_request(selector));
      const bool right = answer.outcome == client::Outcome::answered && answer.response.failed != images &&
                         (answer.response.reply.get() != nullptr) == images;
      if (!right) failure = "the library: " + answer.detail;
    } else {
      if (!raw) raw.emplace(public_);
      const auto response = raw->send(testing::request(selector)) ? raw->response() : nullptr;
      const auto* echo = response ? plist::cast<plist::String>(response->get(wire::request_key)) : nullptr;
      if (echo == nullptr || echo->view() != selector) failure = "a connection of its own was closed";
      if (echo == nullptr) raw.reset();
    }
    const double wait = std::chrono::duration<double, std::micro>(steady_clock::now() - start).count();
    const bool stopped = epoch % 2 == 1 || epoch != stop_epoch_;
    (stopped ? honest.waits_over_stops : honest.waits).push_back(wait);
    if (failure.empty()) continue;
    if (honest.unanswered++ == 0) {
      honest.first_failure =
          failure + ", request " + std::to_string(i) + ", after " + std::to_string(wait) + " us";
    }
  }
}

std::vector<double> Load::measure_honest(size_t clients, steady_clock::duration time) {
  std::atomic<bool> over = false;
  std::vector<Honest> all(clients);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < clients; ++i) threads.emplace_back([&, i] { ask(i, over, all[i]); });
  std::this_thread::sleep_for(time);
  over = true;
  for (std::thread& each : threads) each.join();
  std::vector<double> waits;
  for (const Honest& each : all) waits.insert(waits.end(), each.waits.begin(), each.waits.end());
  std::sort(waits.begin(), waits.end());
  return waits;
}

Asked Load::ask_admin(const std::string& request, const std::atomic<bool>& over) const {
  testing::RawClient client(root_.socket(wire::admin_service));
  std::vector<double> waits;
  for (auto start = steady_clock::now(); !over && client.send(request) && client.response();
       start = steady_clock::now()) {
    waits.push_back(std::chrono::duration<double, std::micro>(steady_clock::now() - start).count());
  }
  std::sort(waits.begin(), waits.end());
  return {waits.size(), at(waits, 0.5)};
}

// Two requests that differ in that one is refused, for which a line is logged. What a line costs is taken from the
// daemon's processor time: waits are those of the scheduler as well.
void Load::measure_logging() const {
  auto request = wire::make_request(wire::copy_entitlements);
  const std::string logging = testing::frame(*request);
  request->set(wire::pid_key, plist::Number::create_int32(1));
  const std::string quiet = testing::frame(*request);

  const auto for_a_while = [](const auto& ask) {
    std::atomic<bool> over = false;
    std::thread asking([&] { ask(over); });
    std::this_thread::sleep_for(500ms);
    over = true;
    asking.join();
  };
  const auto cost = [&](const std::string& asked) {
    Asked all{};
    const double before = processor_time(daemon_.pid());
    for_a_while([&](const std::atomic<bool>& over) { all = ask_admin(asked, over); });
    return 1e6 * (processor_time(daemon_.pid()) - before) / static_cast<double>(all.count);
  };
  const auto quiet_wait_beside = [&](const std::string& other) {
    Asked all{};
    for_a_while([&](const std::atomic<bool>& over) {
      std::thread beside([&] { ask_admin(other, over); });
      all = ask_admin(quiet, over);
      beside.join();
    });
    return all.median_wait;
  };
  const double quiet_cost = cost(quiet), logging_cost = cost(logging);
  std::printf("daemon's processor for a request: %.1f us without a log line, %.1f us with one: %.2f times\n",
              quiet_cost, logging_cost, logging_cost / quiet_cost);
  const double beside_quiet = quiet_wait_beside(quiet), beside_logging = quiet_wait_beside(logging);
  std::printf("median wait of the former: %.1f us beside its like, %.1f us beside the latter: %.2f times\n",
              beside_quiet, beside_logging, beside_logging / beside_quiet);
}

// ---- those who attack ---------------------------------------------------------------------------------

void Load::crowd() {
  Random random(1);
  std::vector<std::unique_ptr<Peer>> open;
  const size_t most = wire::connection_limits(daemon_descriptors).public_connections;
  while (tally_.connects < form_.connects && steady_clock::now() < deadline_) {
    open.push_back(std::make_unique<Peer>(public_));
    ++tally_.connects;
    while (open.size() >= most || (!open.empty() && pick(random, 100) < 45)) {
      std::swap(open[pick(random, open.size())], open.back());
      open.pop_back();
    }
    if (pick(random, 4) == 0) std::this_thread::sleep_for(1ms);
  }
}

void Load::stall() {
  Random random(2);
  const std::string request = testing::request(std::string(5000, 's'));
  while (!attack_over_) {
    std::deque<Peer> open;
    for (int i = 0; i < 24; ++i) {
      tally_.halves +=
          open.emplace_back(public_).send_only(request.substr(0, 1 + pick(random, request.size() - 1)));
    }
    const auto over = [&] { return std::all_of(open.begin(), open.end(), [](Peer& p) { return p.is_closed(); }); };
    for (int i = 0; i < 60 && !attack_over_ && !over(); ++i) std::this_thread::sleep_for(100ms);
  }
}

void Load::stop_reading() {
  const std::string request = testing::request(wire::copy_regulatory_images);
  while (!attack_over_) {
    std::deque<Peer> open;
    for (int i = 0; i < 8; ++i) {
      Peer& peer = open.emplace_back(public_);
      for (int k = 0; k < 50; ++k) tally_.unread += peer.send_only(request);
    }
    for (int i = 0; i < 20 && !attack_over_; ++i) std::this_thread::sleep_for(100ms);
  }
}

void Load::send_frames(const std::string& socket, uint64_t seed, size_t share) {
  Bodies bodies(seed);
  std::unique_ptr<Peer> peer;
  const auto drop = [&] {
    if (!peer) return;
    peer->read();
    tally_.answers += peer->answers();
    peer.reset();
  };
  for (size_t sent = 0; sent < share && steady_clock::now() < deadline_;) {
    if (!peer) peer = std::make_unique<Peer>(socket);
    std::string batch;
    size_t count = 0;
    for (; count < 64; ++count) batch += testing::frame(bodies.next(), pick(bodies.random(), 50) == 0 ? 7 : 1);
    const bool last = pick(bodies.random(), 8) == 0;
    if (last) batch += bodies.broken_frame();
    const bool taken = peer->send(batch);
    if (taken) {
      sent += count + last;
      tally_.frames += count + last;
    }
    if (!taken || last) drop();
  }
  drop();
}

void Load::disturb_notifications() {
  Bodies bodies(9);
  const std::string socket = root_.socket(wire::notification_service);
  while (!attack_over_) {
    Peer peer(socket);
    if (pick(bodies.random(), 4) != 0) tally_.notes += peer.send_only(testing::frame(bodies.next()));
    std::this_thread::sleep_for(2ms);
  }
}

void Load::pass_descriptors() {
  std::array<int, 8> descriptors;
  for (int& each : descriptors) each = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const std::string request = testing::request("descriptors");
  Random random(3);
  while (tally_.passed < form_.passed && steady_clock::now() < deadline_) {
    Peer peer(pick(random, 8) == 0 ? root_.socket(wire::notification_service) : public_);
    for (int i = 0; i < 50 && tally_.passed < form_.passed; ++i) {
      if (!peer.pass(request.substr(0, 1 + pick(random, request.size())), descriptors) || !peer.read()) break;
      tally_.passed += descriptors.size();
    }
  }
  for (const int each : descriptors) close(each);
}

void Load::stop_the_daemon() {
  while (!counted_over_ && tally_.stops < form_.stops) {
    const auto next = steady_clock::now() + form_.between_stops;
    while (!counted_over_ && steady_clock::now() < next) std::this_thread::sleep_for(50ms);
    ++stop_epoch_;
    kill(daemon_.pid(), SIGSTOP);
    std::this_thread::sleep_for(tally_.stops % 4 == 3 ? 7s : 400ms);
    kill(daemon_.pid(), SIGCONT);
    ++stop_epoch_;
    ++tally_.stops;
  }
}

void Load::attack() {
  const std::string admin = root_.socket(wire::admin_service);
  std::vector<std::thread> counted, endless;
  counted.emplace_back([this] { crowd(); });
  counted.emplace_back([this] { pass_descriptors(); });
  const size_t part = form_.frames / 10;
  counted.emplace_back([&, this] { send_frames(public_, 4, form_.frames - 5 * part); });
  counted.emplace_back([&, this] { send_frames(public_, 5, 4 * part); });
  counted.emplace_back([&, this] { send_frames(admin, 6, part); });
  endless.emplace_back([this] { stall(); });
  endless.emplace_back([this] { stop_reading(); });
  endless.emplace_back([this] { disturb_notifications(); });
  std::thread stops([this] { stop_the_daemon(); });
  for (std::thread& each : counted) each.join();
  counted_over_ = true;
  stops.join();
  attack_over_ = true;
  for (std::thread& each : endless) each.join();
}

// ---- what is left -------------------------------------------------------------------------------------

size_t Load::private_bytes() const {
  const std::string rollup = testing::read_file("/proc/" + std::to_string(daemon_.pid()) + "/smaps_rollup");
  size_t total = 0;
  for (const std::string_view name : {"Private_Clean:", "Private_Dirty:"}) {
    const size_t found = rollup.find(name);
    if (found != std::string::npos) total += std::stoul(rollup.substr(found + name.size())) * 1024;
  }
  return total;
}

// A full house, a crowd before the door, and no descriptor to let anyone in with.
double Load::processor_share_at_the_limit() {
  std::deque<Peer> open;
  const size_t most = wire::connection_limits(daemon_descriptors).public_connections;
  while (open.size() < most) open.emplace_back(public_);
  testing::eventually([&] { return daemon_.descriptors() >= most; });
  rlimit before;
  prlimit(daemon_.pid(), RLIMIT_NOFILE, nullptr, &before);
  const rlimit none{1, before.rlim_max};
  prlimit(daemon_.pid(), RLIMIT_NOFILE, &none, nullptr);
  while (open.size() < most + 200) open.emplace_back(public_);
  std::this_thread::sleep_for(100ms);
  const double used = processor_time(daemon_.pid());
  const auto start = steady_clock::now();
  std::this_thread::sleep_for(2s);
  const double share =
      (processor_time(daemon_.pid()) - used) / std::chrono::duration<double>(steady_clock::now() - start).count();
  prlimit(daemon_.pid(), RLIMIT_NOFILE, &before, nullptr);
  return share;
}

bool Load::log_is_in_bounds() const {
  size_t bytes = 0;
  bool clean = true;
  for (const char* name : {"corvaned.log", "corvaned.1.log"}) {
    const std::string log = testing::read_file(root_.at("/var/mobile/Library/Logs/corvaned/") + name);
    bytes += log.size();
    clean &= std::none_of(log.begin(), log.end(),
                          [](char c) { return (c >= 0 && c < 0x20 && c != '\n') || c == 0x7f; });
  }
  std::printf("log: %zu bytes on the disk\n", bytes);
  return clean && bytes > 0 && bytes <= log_bound;
}

int Load::run() {
  rlimit own;
  getrlimit(RLIMIT_NOFILE, &own);
  own.rlim_cur = own.rlim_max;
  setrlimit(RLIMIT_NOFILE, &own);
  if (!check(testing::eventually([&] { return store(mebibyte); }), "the daemon serves")) return 1;
  measure_logging();
  const std::vector<double> alone = measure_honest(honest_clients, 1s);
  std::this_thread::sleep_for(300ms);
  const size_t held_before = daemon_.descriptors();
  const size_t resident_before = daemon_.resident_bytes();
  const size_t private_before = private_bytes();

  std::atomic<bool> over = false;
  std::vector<Honest> honest(honest_clients);
  std::vector<std::thread> asking;
  for (size_t i = 0; i < honest_clients; ++i) asking.emplace_back([&, i] { ask(i, over, honest[i]); });
  size_t resident_peak = 0, private_peak = 0;
  std::thread watching([&] {
    while (!over) {
      resident_peak = std::max(resident_peak, daemon_.resident_bytes());
      private_peak = std::max(private_peak, private_bytes());
      std::this_thread::sleep_for(50ms);
    }
  });
  const auto start = steady_clock::now();
  deadline_ = start + form_.at_most;
  attack();
  const double seconds = std::chrono::duration<double>(steady_clock::now() - start).count();
  over = true;
  for (std::thread& each : asking) each.join();
  watching.join();

  std::printf(
      "%.1f s: %zu connects, %zu frames (%zu answers), %zu descriptors passed, %zu half requests, "
      "%zu requests whose answers nobody read, %zu notes to the notification socket, %d stops\n",
      seconds, tally_.connects.load(), tally_.frames.load(), tally_.answers.load(), tally_.passed.load(),
      tally_.halves.load(), tally_.unread.load(), tally_.notes.load(), tally_.stops.load());
  Honest all;
  for (const Honest& each : honest) {
    all.waits.insert(all.waits.end(), each.waits.begin(), each.waits.end());
    all.waits_over_stops.insert(all.waits_over_stops.end(), each.waits_over_stops.begin(),
                                each.waits_over_stops.end());
    all.unanswered += each.unanswered;
    if (all.first_failure.empty()) all.first_failure = each.first_failure;
  }
  std::sort(all.waits.begin(), all.waits.end());
  std::sort(all.waits_over_stops.begin(), all.waits_over_stops.end());
  const auto print = [](const char* what, const std::vector<double>& sorted) {
    std::printf("honest waits %s: %zu, p50 %.0f us, p99 %.0f us, worst %.0f us\n", what, sorted.size(),
                at(sorted, 0.5), at(sorted, 0.99), at(sorted, 1));
  };
  print("alone", alone);
  print("under attack", all.waits);
  print("over a stop", all.waits_over_stops);
  if (all.unanswered != 0) std::printf("%zu unanswered; first %s\n", all.unanswered, all.first_failure.c_str());
  check(all.unanswered == 0, "every honest request was answered");

  check(testing::eventually([&] { return daemon_.descriptors() <= held_before; }), "the descriptors came back");
  std::this_thread::sleep_for(1s);
  const size_t private_after = private_bytes();
  const auto mib = [](size_t bytes) { return static_cast<double>(bytes) / static_cast<double>(mebibyte); };
  std::printf("descriptors: %zu before, %zu after\n", held_before, daemon_.descriptors());
  std::printf(
      "memory, MiB: resident %.1f before, %.1f peak, %.1f after; private %.1f before, %.1f peak, %.1f after\n",
      mib(resident_before), mib(resident_peak), mib(daemon_.resident_bytes()), mib(private_before),
      mib(private_peak), mib(private_after));
  if (measures_memory) check(private_after <= private_before + memory_bound, "the memory came back");
  const double share = processor_share_at_the_limit();
  std::printf("processor while nobody can be let in: %.1f %%\n", 100 * share);
  check(share < processor_bound, "the processor rested");
  check(testing::eventually([&] { return daemon_.descriptors() <= held_before; }),
        "the descriptors came back again");
  check(log_is_in_bounds(), "the log stayed in its bounds and has no control characters");
  check(daemon_.end(SIGTERM) == 0, "the daemon ended well");
  if (!passed_) std::fputs(daemon_.standard_error().c_str(), stderr);
  return passed_ ? 0 : 1;
}

}  // namespace

}  // namespace corvane

int main(int argc, char** argv) {
  const std::string_view wanted = argc > 1 ? argv[1] : "--short";
  for (const corvane::Form& form : corvane::forms) {
    if (form.name == wanted) return corvane::Load(form).run();
  }
  std::fprintf(stderr, "usage: hostile_load [--medium|--long]\n");
  return 2;
}
